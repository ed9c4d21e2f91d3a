#pragma once

#include "tzCustomHObject.h"
#include "tzInteractor.h"
#include "tzXentity.h"

#include <QPointF>
#include <QRect>
#include <QVector>

#include <memory>

class tzGenericPointCloud;

//! A sight: a measurement point owned by the companion, with its identifier, the number the
//! companion gives it and its coordinates, shown like a label on up to three cloud points.
//! Made by the companion's "CVisee" frames and by the sight tool.
//!
//! Scene files keep the points (cloud IDs re-linked after loading), the box position and the
//! display flags; number, coordinates and identifier live on in the metadata.
class tzCVisee : public tzXentity, public tzCustomHObject, public tzInteractor
{
public:
    //! A cloud point the sight is attached to, with what the 3D pass leaves for the 2D pass.
    struct PickedPoint
    {
        tzGenericPointCloud *cloud = nullptr; // not owned
        unsigned index = 0;
        double pos2D[2] = {0, 0}; // projected position, pixels
        double markerScale = 0;
    };
    static constexpr int MAX_POINTS = 3;
    static const char *const FACTORY_NAME; // "tzCVisee"

    //! The name is not used: a sight is named after its points, then after its number.
    explicit tzCVisee(const QString &name = QString());
    ~tzCVisee() override;

    quint32 getClassID() const override { return TZ_TYPES::CUSTOM_H_OBJECT | TZ_TYPES::LABEL_KIND; }
    QString getFactoryName() const override { return QLatin1String(FACTORY_NAME); }
    tzHObject *node() override { return this; }

    // tzXentity
    //! "number" and "coord" {"X","Y","Z"} beside the base's members; never refuses.
    bool readJson(const QJsonObject &frame) override;
    void convertToView(const tzCoordinateFrame &frame) override;
    //! z is computed from the x just converted, not from coordZ (kept as it is).
    void convertFromView(const tzCoordinateFrame &frame) override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;

    //! False for no cloud, an index out of the cloud, or a fourth point.
    bool attachPoint(tzGenericPointCloud *cloud, unsigned index);
    //! Forgets the points (and, unless ignoreDependencies, the clouds' links to the sight), and
    //! hides the sight.
    void clear(bool ignoreDependencies = false);
    //! Type "CVisee", the number as name, and the metadata of the companion's fields.
    void refreshNameAndMetaData();

    //! What the console shows of a fixed pick, numbers with the given decimals: the point and
    //! its original coordinates (one point), the differences (two), the triangle (three).
    QStringList bodyLines(int precision) const;
    //! The rows of the box under its title, two (label, value) pairs at most each: one point,
    //! its height ("Z_Ombre" in lowest-point mode, "Z_Point" otherwise, with the decimals of
    //! "accuaryZLabel"); two, the differences; three, the corners' indices and angles. Numbers
    //! other than the height take the given decimals.
    QVector<QStringList> boxRows(int precision) const;
    //! The cloud point of a picked point, in the cloud's frame (origin when it is gone).
    TZVector3 pointOf(unsigned i) const;

    //! The stored name with "pi0".."pi2" (point indices) and "ci0".."ci2" (cloud IDs) replaced.
    QString getName() const override;
    void onDeletionOf(const tzHObject *object) override;
    bool resolveLoadedReferences(const LoadedIDMap &oldToNew) override;
    //! Moves the box by the drag, in fractions of the view.
    bool move2D(int x, int y, int dx, int dy, int screenWidth, int screenHeight) override;

    const QString &number() const { return m_number; }
    void setNumber(const QString &number) { m_number = number; }
    TZVector3d coordinates() const { return {m_coordX, m_coordY, m_coordZ}; }
    void setCoordinates(const TZVector3d &p)
    {
        m_coordX = p.x;
        m_coordY = p.y;
        m_coordZ = p.z;
    }
    unsigned size() const { return unsigned(m_points.size()); }
    const PickedPoint &pickedPoint(unsigned i) const { return m_points[i]; }
    bool isFullBodyShown() const { return m_fullBodyShown; }
    void showFullBody(bool state) { m_fullBodyShown = state; }
    QPointF screenPos() const { return {m_screenPos[0], m_screenPos[1]}; }
    void setScreenPos(float x, float y)
    {
        m_screenPos[0] = x;
        m_screenPos[1] = y;
    }
    QPoint lastScreenPos() const { return {m_lastScreenPos[0], m_lastScreenPos[1]}; }
    const QRect &labelRect() const { return m_labelRect; }
    bool arePointLegendsShown() const { return m_pointLegendsShown; }
    void showPointLegends(bool state) { m_pointLegendsShown = state; }
    bool isShownIn2D() const { return m_shownIn2D; }
    void setShownIn2D(bool state) { m_shownIn2D = state; }
    float relativeMarkerScale() const { return m_relMarkerScale; }
    void setRelativeMarkerScale(float scale) { m_relMarkerScale = scale; }
    //! The frame the sight is drawn in (its coordinates are the companion's): the run's that
    //! made it, or, for a sight loaded from a scene, the scene's first cloud's.
    const tzCoordinateFrame &frame() const { return *m_frame; }
    void setFrame(std::shared_ptr<const tzCoordinateFrame> frame) { m_frame = std::move(frame); }

protected:
    void drawMeOnly(tzDrawContext &context) override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

private:
    //! "Point #i", "Vector #i - #j", "Triplet #i - #j - #k" ("@cloud" after each index when
    //! the clouds differ), "Label" without points.
    QString pointsName() const;
    void updateName();
    void forgetAllPoints();
    //! Leaves each point's projection for the 2D pass (GL window pixels, y up).
    void projectPoints(QOpenGLFunctions_2_1 *gl);
    void draw2D(tzDrawContext &context);

    QString m_number;
    double m_coordX = 0.0;
    double m_coordY = 0.0;
    double m_coordZ = 0.0;
    std::vector<PickedPoint> m_points;
    bool m_fullBodyShown = true;
    float m_screenPos[2] = {0.05f, 0.05f};
    int m_lastScreenPos[2] = {-1, -1};
    QRect m_labelRect {0, 0, 0, 0};
    bool m_pointLegendsShown = false;
    bool m_shownIn2D = true;
    float m_relMarkerScale = 1.f;
    std::vector<unsigned> m_loadedCloudIDs; // while a scene loads: old IDs of the points' clouds
    std::shared_ptr<const tzCoordinateFrame> m_frame = std::make_shared<tzCoordinateFrame>();
};
