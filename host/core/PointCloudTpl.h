#pragma once

#include "TZVector3.h"

#include <cstddef>
#include <vector>

namespace TZLib {

//! A plain set of 3D points, kept in insertion order. Indices are stable until reset().
//!
//! A cloud may hold its points elsewhere (read part by part from a file): it then answers size(),
//! getPoint() and getBoundingBox() itself, and data() covers none of them.
template<typename PointT = TZVector3> class PointCloudTpl
{
public:
    using PointType = PointT;

    virtual ~PointCloudTpl() = default;

    virtual unsigned size() const { return static_cast<unsigned>(m_points.size()); }
    bool empty() const { return m_points.empty(); }

    //! Reserves room for n points; false when memory runs out.
    bool reserve(unsigned n)
    {
        try {
            m_points.reserve(n);
        } catch (const std::bad_alloc &) {
            return false;
        }
        return true;
    }
    //! Drops every point (and, in derived clouds, everything tied to them).
    virtual void reset()
    {
        m_points.clear();
        m_points.shrink_to_fit();
        onPointsChanged();
    }
    void addPoint(const PointT &p)
    {
        m_points.push_back(p);
        onPointsChanged();
    }
    //! Pointer to the i-th point; null when out of range.
    virtual const PointT *getPoint(unsigned i) const
    {
        return i < m_points.size() ? &m_points[i] : nullptr;
    }
    virtual PointT *getPoint(unsigned i) { return i < m_points.size() ? &m_points[i] : nullptr; }
    //! Unchecked access for the hot paths (the caller checks the index).
    const PointT &point(unsigned i) const { return m_points[i]; }
    const PointT *data() const { return m_points.data(); }

    //! Axis-aligned bounding box; false for an empty cloud.
    virtual bool getBoundingBox(PointT &bbMin, PointT &bbMax) const
    {
        if (m_points.empty())
            return false;
        bbMin = bbMax = m_points.front();
        for (const PointT &p : m_points) {
            for (int d = 0; d < 3; ++d) {
                if (p[d] < bbMin[d])
                    bbMin[d] = p[d];
                if (p[d] > bbMax[d])
                    bbMax[d] = p[d];
            }
        }
        return true;
    }

protected:
    //! Called after every change of the point set (derived clouds drop their octree here).
    virtual void onPointsChanged() { }

    std::vector<PointT> m_points;
};

using PointCloud = PointCloudTpl<TZVector3>;

} // namespace TZLib
