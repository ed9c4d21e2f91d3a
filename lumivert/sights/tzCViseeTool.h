#pragma once

#include "tzTool.h"

class QMouseEvent;
class tzLumivert;

//! The tool that places and moves sights. The sights themselves arrive with their own classes;
//! until then the tool keeps its mode and takes picks and mouse moves without acting on them.
class tzCViseeTool : public tzTool
{
public:
    enum Mode { OFF = 0, LOWEST_POINT = 1, SIMPLE_POINT = 2 };

    explicit tzCViseeTool(tzLumivert *plugin)
        : m_plugin(plugin)
    {
    }

    tzLumivert *plugin() const { return m_plugin; }
    int mode() const { return m_mode; }
    void setMode(int mode) { m_mode = mode; }
    //! Sights placed next go on the lowest point below the pick.
    void setLowestPointSearch() { m_mode = LOWEST_POINT; }
    //! The group that receives the sights (null: the plug-in's "mesures" group).
    tzHObject *sightContainer(tzApplicationInterface *app) const
    {
        Q_UNUSED(app)
        return nullptr;
    }
    //! The point the companion measures from ("mesure" frames): the coordinates of the sight it
    //! names, or the origin when it names none.
    const TZVector3 &referencePoint() const { return m_referencePoint; }
    void setReferencePoint(const TZVector3 &point) { m_referencePoint = point; }
    //! A mouse move over the view while this tool is active.
    void onMouseMove(QMouseEvent *event, tzGLWindow *view)
    {
        Q_UNUSED(event)
        Q_UNUSED(view)
    }

private:
    tzLumivert *m_plugin; // not owned
    int m_mode = OFF;
    TZVector3 m_referencePoint;
};
