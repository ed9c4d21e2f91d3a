#pragma once

#include "tzXentity.h"

#include <QVector>

#include <vector>

//! Lines, outlines and circles gathered for drawing in a few calls: vertices in one array, cut
//! into runs of one primitive and one colour. Consecutive segments of one colour share a run.
class tzXLineBatch
{
public:
    void addSegments(const QVector<TZVector3d> &vertices, const tzXentity &colour);
    //! A closed outline, three pixels wide; the width stays for whatever is drawn after it.
    void addLoop(const QVector<TZVector3d> &vertices, const tzXentity &colour);
    void addCircle(const TZVector3d &centre, double radius, const tzXentity &colour);
    void clear();
    bool isEmpty() const { return m_runs.empty(); }
    //! Draws the runs in the order they were added, with blending on.
    void draw(QOpenGLFunctions_2_1 *gl) const;

private:
    struct Run
    {
        unsigned mode; // GL_LINES or GL_LINE_LOOP
        int first;
        int count;
        bool wide;
        unsigned char red, green, blue;
    };
    Run &startRun(unsigned mode, bool wide, const tzXentity &colour);
    void addVertex(const TZVector3d &v);
    std::vector<float> m_xyz;
    std::vector<Run> m_runs;
};

//! Segments: vertices pair up in order (0-1, 2-3, ...); an odd last vertex draws nothing.
class tzXLine : public tzXentity
{
public:
    bool readJson(const QJsonObject &frame) override;
    void convertToView(const tzCoordinateFrame &frame) override;
    void convertFromView(const tzCoordinateFrame &frame) override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;
    const QVector<TZVector3d> &vertices() const { return m_vertices; }
    void addTo(tzXLineBatch &batch) const override;

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
    void addTo(tzXLineBatch &batch) const override;
};

//! A circle in the horizontal plane of its centre.
class tzXCircle : public tzXentity
{
public:
    bool readJson(const QJsonObject &frame) override;
    void convertToView(const tzCoordinateFrame &frame) override;
    void convertFromView(const tzCoordinateFrame &frame) override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;
    void addTo(tzXLineBatch &batch) const override;
    const TZVector3d &center() const { return m_center; }
    double radius() const { return m_radius; }

private:
    TZVector3d m_center;
    double m_radius = 0.0;
};
