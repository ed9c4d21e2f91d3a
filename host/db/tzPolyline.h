#pragma once

#include "ReferenceCloud.h"
#include "qtz_db_global.h"
#include "tzHObject.h"

#include <QColor>

class tzGenericPointCloud;

//! A polyline in the scene: indices into a vertex cloud (not owned, unless it is a child).
class QTZ_DB_LIB_API tzPolyline : public tzHObject, public TZLib::Polyline
{
public:
    explicit tzPolyline(tzGenericPointCloud *vertices = nullptr);

    quint32 getClassID() const override { return TZ_TYPES::POLY_LINE; }

    tzGenericPointCloud *getVertices() const { return m_vertices; }
    void setVertices(tzGenericPointCloud *vertices);

    float getWidth() const { return m_width; }
    void setWidth(float width) { m_width = width; }
    bool getForeground() const { return m_foreground; }
    void setForeground(bool state) { m_foreground = state; }
    bool is2DMode() const { return m_mode2D; }
    void set2DMode(bool state) { m_mode2D = state; }
    const QColor &getColor() const { return m_color; }
    void setColor(const QColor &color) { m_color = color; }

    void onDeletionOf(const tzHObject *object) override;
    bool resolveLoadedReferences(const LoadedIDMap &oldToNew) override;

protected:
    void drawMeOnly(tzDrawContext &context) override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    tzGenericPointCloud *m_vertices = nullptr;
    unsigned m_loadedVerticesID = 0; // while loading: the vertex cloud's ID in the file
    float m_width = 0.f;
    bool m_foreground = false;
    bool m_mode2D = false;
    QColor m_color = QColor(255, 255, 255);
};
