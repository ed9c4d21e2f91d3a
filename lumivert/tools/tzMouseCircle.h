#pragma once

#include "tz2DViewportObject.h"

#include <QObject>

#include <array>

class tzGLWindow;

//! The red dashed circle round the cursor that shows how far the lowest-point search looks.
//! It lives in its view's own display list while the sight tool is active, and watches the
//! view's wheel events: Ctrl + wheel changes its radius in pixels (the view still zooms).
//!
//! The circle on screen takes its radius from the "accuaryLowestPoint" setting alone (in metres,
//! 50 pixels a metre), read again at every draw; the wheel changes radius(), which the sight
//! tool does not use for the search. Both are kept as they are.
class tzMouseCircle : public QObject, public tz2DViewportObject
{
public:
    //! Drawn in owner (not owned) for tool (not owned); an empty name gives "MouseCircle".
    explicit tzMouseCircle(tzGLWindow *owner, const QString &name = QString());
    ~tzMouseCircle() override;

    int radius() const { return m_radius; }
    int radiusStep() const { return m_radiusStep; }
    //! Pixels per scene unit, as the last draw found them (zoom over pixel size); before any
    //! draw, from the owner's camera now.
    float pixelsPerUnit() const;
    //! The radius drawn, in pixels, for the current setting.
    static float drawnRadius();

    bool eventFilter(QObject *object, QEvent *event) override;

protected:
    //! Drawn whenever visible: the object stays disabled (out of the scene's enabled set).
    void draw(tzDrawContext &context) override;

private:
    static constexpr int SEGMENTS = 100;
    tzGLWindow *m_owner; // not owned
    int m_radius = 7;
    int m_radiusStep = 4;
    std::array<float, 2 * SEGMENTS> m_unitCircle;
    float m_ratio = 0.f;
};
