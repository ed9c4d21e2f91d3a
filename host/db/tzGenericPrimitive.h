#pragma once

#include "TZVector3.h"
#include "qtz_db_global.h"
#include "tzHObject.h"

#include <QColor>

#include <array>
#include <vector>

//! A drawable shape made of triangles: the tessellation is rebuilt from the shape's own
//! parameters and its drawing precision (the number of steps around a circle), then placed by a
//! column-major 4x4 transformation.
class QTZ_DB_LIB_API tzGenericPrimitive : public tzHObject
{
public:
    using Triangle = std::array<unsigned, 3>;

    explicit tzGenericPrimitive(const QString &name, unsigned drawPrecision);

    quint32 getClassID() const override { return TZ_TYPES::PRIMITIVE; }

    unsigned getDrawingPrecision() const { return m_drawPrecision; }
    //! At least 4 steps; rebuilds the tessellation. False for a smaller value.
    bool setDrawingPrecision(unsigned steps);
    const QColor &getColor() const { return m_color; }
    void setColor(const QColor &color) { m_color = color; }
    const std::array<float, 16> &getTransformation() const { return m_transformation; }
    void setTransformation(const std::array<float, 16> &matrix) { m_transformation = matrix; }

    const std::vector<TZVector3> &vertices() const { return m_vertices; }
    const std::vector<TZVector3> &normals() const { return m_normals; }
    const std::vector<Triangle> &triangles() const { return m_triangles; }

protected:
    //! Fills the vertices, normals and triangles from the parameters.
    virtual void buildUp() = 0;
    void rebuild();
    unsigned addVertex(const TZVector3 &p, const TZVector3 &n);

    void drawMeOnly(tzDrawContext &context) override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    unsigned m_drawPrecision;
    QColor m_color = QColor(200, 200, 200);
    std::array<float, 16> m_transformation {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    std::vector<TZVector3> m_vertices;
    std::vector<TZVector3> m_normals;
    std::vector<Triangle> m_triangles;
};
