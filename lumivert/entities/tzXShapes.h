#pragma once

#include "tzXentity.h"

#include <QVector>

//! Segments: vertices pair up in order (0-1, 2-3, ...); an odd last vertex draws nothing.
class tzXLine : public tzXentity
{
public:
    bool readJson(const QJsonObject &frame) override;
    void convertToView() override;
    void convertFromView() override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;
    const QVector<TZVector3d> &vertices() const { return m_vertices; }

protected:
    //! The "vertex" array, each vertex logged with the given line (colour, index, x, y, z).
    void readVertices(const QJsonObject &frame, const char *trace);
    QVector<TZVector3d> m_vertices;
};

//! A closed outline through its vertices, three pixels wide. Arcs arrive as polylines through
//! their vertices.
class tzXPolyline : public tzXLine
{
public:
    bool readJson(const QJsonObject &frame) override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;
};

//! A circle in the horizontal plane of its centre.
class tzXCircle : public tzXentity
{
public:
    bool readJson(const QJsonObject &frame) override;
    void convertToView() override;
    void convertFromView() override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;
    const TZVector3d &center() const { return m_center; }
    double radius() const { return m_radius; }

private:
    TZVector3d m_center;
    double m_radius = 0.0;
};
