#pragma once

#include "Octree.h"
#include "PointCloudTpl.h"
#include "qtz_db_global.h"
#include "tzHObject.h"

#include <memory>
#include <vector>

//! A colour of a point (8 bits per component).
struct tzRgb
{
    quint8 r = 255;
    quint8 g = 255;
    quint8 b = 255;
    bool operator==(const tzRgb &o) const { return r == o.r && g == o.g && b == o.b; }
};

//! A point cloud in the scene: local float coordinates, global shift and scale, and an octree
//! built at the first need and dropped whenever the points change.
//!
//! Coordinates: local = (global + shift) * scale, global = local / scale - shift.
class QTZ_DB_LIB_API tzGenericPointCloud : public tzHObject, public TZLib::PointCloud
{
public:
    explicit tzGenericPointCloud(const QString &name = QString());
    ~tzGenericPointCloud() override;

    quint32 getClassID() const override { return TZ_TYPES::POINT_CLOUD; }

    //! Metadata key of the absolute path of the file a cloud was read from (kept in scene
    //! files, so that what lies beside that file is still found after a scene is loaded).
    static constexpr const char *SOURCE_FILE_KEY = "sourceFile";

    using TZLib::PointCloud::size;

    //! Replaces every point at once (readers); drops the octree.
    void setPoints(std::vector<TZVector3> &&points);
    void reset() override;

    const TZVector3d &getGlobalShift() const { return m_globalShift; }
    void setGlobalShift(const TZVector3d &shift) { m_globalShift = shift; }
    double getGlobalScale() const { return m_globalScale; }
    void setGlobalScale(double scale) { m_globalScale = scale; }
    TZVector3d toGlobal3d(const TZVector3 &local) const;
    TZVector3 toLocal3d(const TZVector3d &global) const;

    //! The octree, or null before computeOctree.
    TZLib::Octree *getOctree() const { return m_octree.get(); }
    //! Builds the octree over the current points; null when memory runs out.
    TZLib::Octree *computeOctree(const TZLib::Octree::ProgressCallback &progress = {});
    void deleteOctree() { m_octree.reset(); }

    //! Grows whenever the points or their colours change (views reload their buffers).
    quint64 contentVersion() const { return m_contentVersion; }

    unsigned char getPointSize() const { return m_pointSize; }
    void setPointSize(unsigned char size) { m_pointSize = size; }

protected:
    void onPointsChanged() override
    {
        m_octree.reset();
        ++m_contentVersion;
    }
    void drawMeOnly(tzDrawContext &context) override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    TZVector3d m_globalShift;
    double m_globalScale = 1.0;
    unsigned char m_pointSize = 0; // 0: the view's own point size
    quint64 m_contentVersion = 0;
    std::unique_ptr<TZLib::Octree> m_octree;
};

//! A point cloud with optional colours and display options.
class QTZ_DB_LIB_API tzPointCloud : public tzGenericPointCloud
{
public:
    explicit tzPointCloud(const QString &name = QString());

    bool hasColors() const { return !m_colors.empty(); }
    //! Gives every point a colour (white); false when memory runs out.
    bool resizeColors();
    void setColors(std::vector<tzRgb> &&colors);
    void setPointColor(unsigned index, const tzRgb &color)
    {
        m_colors.at(index) = color;
        ++m_contentVersion;
    }
    const tzRgb &getPointColor(unsigned index) const { return m_colors.at(index); }
    const tzRgb *colorData() const { return m_colors.data(); }
    void unallocateColors() { m_colors = {}; }

    bool colorsShown() const { return m_colorsShown && hasColors(); }
    void showColors(bool state)
    {
        m_colorsShown = state;
        ++m_contentVersion;
    }
    bool sfShown() const { return m_sfShown; }
    void showSF(bool state) { m_sfShown = state; }

    void reset() override;

protected:
    void onPointsChanged() override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    std::vector<tzRgb> m_colors;
    bool m_colorsShown = true;
    bool m_sfShown = false;
};
