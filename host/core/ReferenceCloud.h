#pragma once

#include "PointCloudTpl.h"

#include <vector>

namespace TZLib {

//! A list of indices into another cloud (not owned). The associated cloud must outlive it.
class ReferenceCloud
{
public:
    explicit ReferenceCloud(const PointCloud *associatedCloud = nullptr)
        : m_cloud(associatedCloud)
    {
    }
    virtual ~ReferenceCloud() = default;

    const PointCloud *getAssociatedCloud() const { return m_cloud; }
    //! Changes the associated cloud and forgets every index.
    void setAssociatedCloud(const PointCloud *cloud)
    {
        m_cloud = cloud;
        m_indices.clear();
    }

    unsigned size() const { return static_cast<unsigned>(m_indices.size()); }
    void clear() { m_indices.clear(); }
    bool reserve(unsigned n)
    {
        try {
            m_indices.reserve(n);
        } catch (const std::bad_alloc &) {
            return false;
        }
        return true;
    }
    //! Appends an index of the associated cloud; false when memory runs out.
    bool addPointIndex(unsigned globalIndex)
    {
        try {
            m_indices.push_back(globalIndex);
        } catch (const std::bad_alloc &) {
            return false;
        }
        return true;
    }
    //! Appends the indices [first, last).
    bool addPointIndex(unsigned first, unsigned last)
    {
        for (unsigned i = first; i < last; ++i) {
            if (!addPointIndex(i))
                return false;
        }
        return true;
    }
    unsigned getPointGlobalIndex(unsigned localIndex) const { return m_indices.at(localIndex); }
    //! The point behind the local index; null when either index is out of range.
    const TZVector3 *getPoint(unsigned localIndex) const
    {
        if (!m_cloud || localIndex >= m_indices.size())
            return nullptr;
        return m_cloud->getPoint(m_indices[localIndex]);
    }
    const std::vector<unsigned> &indices() const { return m_indices; }

protected:
    const PointCloud *m_cloud = nullptr;
    std::vector<unsigned> m_indices;
};

//! An ordered run of cloud points, open or closed.
class Polyline : public ReferenceCloud
{
public:
    using ReferenceCloud::ReferenceCloud;

    bool isClosed() const { return m_closed; }
    void setClosed(bool closed) { m_closed = closed; }

private:
    bool m_closed = false;
};

} // namespace TZLib
