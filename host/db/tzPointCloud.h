#pragma once

#include "Octree.h"
#include "PointCloudTpl.h"
#include "qtz_db_global.h"
#include "tzHObject.h"
#include "tzPointDisplay.h"

#include <array>
#include <bitset>
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
    //! Metadata key of the path of a photo list ({"images": [...]}, the pictures beside it)
    //! made for a cloud from the photos its file holds (a scanner's pictures in an E57).
    static constexpr const char *PHOTO_LIST_KEY = "photoList";

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
    virtual TZLib::Octree *computeOctree(const TZLib::Octree::ProgressCallback &progress = {});
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

//! A point cloud with optional colours, optional survey attributes (intensity, classification,
//! returns) and how its points are shown (colour mode, elevation range, hidden classes).
class QTZ_DB_LIB_API tzPointCloud : public tzGenericPointCloud
{
public:
    using ColourMode = tzPointDisplay::ColourMode;

    explicit tzPointCloud(const QString &name = QString());

    virtual bool hasColors() const { return !m_colors.empty(); }
    //! Gives every point a colour (white); false when memory runs out.
    bool resizeColors();
    void setColors(std::vector<tzRgb> &&colors);
    void setPointColor(unsigned index, const tzRgb &color)
    {
        m_colors.at(index) = color;
        ++m_contentVersion;
    }
    virtual const tzRgb &getPointColor(unsigned index) const { return m_colors.at(index); }
    const tzRgb *colorData() const { return m_colors.data(); }
    //! Drops the colours and gives their memory back.
    void unallocateColors() { decltype(m_colors)().swap(m_colors); }

    //! Whether the colours are shown when the cloud is shown by RGB.
    bool colorsShown() const
    {
        return m_colorsShown && hasColors() && colourMode() == ColourMode::Rgb;
    }
    void showColors(bool state);
    bool sfShown() const { return m_sfShown; }
    void showSF(bool state) { m_sfShown = state; }

    // Attributes.

    //! The attributes the cloud's file had (tzPointDisplay::Attribute bits); 0: none kept.
    quint8 attributeKinds() const { return m_attributeKinds; }
    bool hasAttribute(tzPointDisplay::Attribute attribute) const
    {
        return (m_attributeKinds & attribute) != 0;
    }
    //! One value per point, or none (kinds 0); kinds says which fields the file gave.
    void setAttributes(std::vector<tzPointAttributes> &&attributes, quint8 kinds);
    const tzPointAttributes *attributeData() const { return m_attributes.data(); }
    const tzPointAttributes &getPointAttributes(unsigned index) const
    {
        return m_attributes.at(index);
    }

    // How the points are shown.

    //! Whether the cloud has what a mode shows (elevation: always).
    bool canShow(ColourMode mode) const;
    //! The mode shown: the one chosen when the cloud can show it, else RGB when it has colours,
    //! else none (plain colour).
    ColourMode colourMode() const;
    //! Whether the points are drawn in one plain colour (no mode chosen, no colours).
    bool plainColour() const;
    //! False (nothing changed) when the cloud cannot show the mode.
    bool setColourMode(ColourMode mode);
    //! The global z range of the elevation ramp: the 2nd and 98th percentiles of z unless set.
    void elevationRange(double &low, double &high) const;
    bool elevationRangeSet() const { return m_elevationRangeSet; }
    void setElevationRange(double low, double high);
    void resetElevationRange();
    //! The intensities the grey ramp stretches between: the 2nd and 98th percentiles.
    void intensityRange(quint16 &low, quint16 &high) const;
    bool isClassShown(int classification) const
    {
        return classification < 0 || classification > 255
            || !m_hiddenClasses[size_t(classification)];
    }
    void showClass(int classification, bool shown);
    //! Whether some points are not drawn (classes hidden; in every colour mode).
    bool hidesPoints() const
    {
        return m_hiddenClasses.any() && hasAttribute(tzPointDisplay::CLASSIFICATION);
    }
    //! Whether a point is drawn (its class is not hidden).
    virtual bool isPointShown(unsigned index) const;
    //! How many points each class has (all zero without classification).
    const std::array<quint32, 256> &classCounts() const;
    //! Grows whenever how the points are coloured changes (the views redraw, their buffers of
    //! points stay).
    quint64 displayVersion() const { return m_displayVersion; }

    void reset() override;

protected:
    void onPointsChanged() override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;
    //! The percentiles and class counts, computed once per content.
    virtual void updateStatistics() const;

    std::vector<tzRgb> m_colors;
    std::vector<tzPointAttributes> m_attributes;
    quint8 m_attributeKinds = 0;
    bool m_colorsShown = true;
    bool m_sfShown = false;
    bool m_modeChosen = false;
    ColourMode m_colourMode = ColourMode::Rgb;
    bool m_elevationRangeSet = false;
    double m_elevationLow = 0, m_elevationHigh = 0; // global z, when set
    std::bitset<256> m_hiddenClasses;
    quint64 m_displayVersion = 0;

    struct Statistics
    {
        quint64 version = ~quint64(0); // the content version they were computed for
        float zLow = 0, zHigh = 0; // local
        quint16 intensityLow = 0, intensityHigh = 0;
        std::array<quint32, 256> classCounts {};
    };
    mutable Statistics m_statistics;
    //! The statistics of n points (and their attributes, when the cloud has some).
    Statistics statisticsOf(const TZVector3 *points, const tzPointAttributes *attributes,
                            size_t n) const;
};
