#include "tzMouseCircle.h"

#include "tzDrawContext.h"
#include "tzGLWindow.h"
#include "tzSettings.h"

#include <QCursor>
#include <QOpenGLFunctions_2_1>
#include <QTimer>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

tzMouseCircle::tzMouseCircle(tzGLWindow *owner, const QString &name)
    : tz2DViewportObject(name.isEmpty() ? QStringLiteral("MouseCircle") : name)
    , m_owner(owner)
{
    for (int n = 0; n < SEGMENTS; ++n) {
        const double angle = n * 0.06283185307179587;
        m_unitCircle[2 * n] = float(std::cos(angle));
        m_unitCircle[2 * n + 1] = float(std::sin(angle));
    }
    setVisible(true);
    setEnabled(false);
    if (m_owner) {
        // Not from within the view's own event delivery (a key that starts the tool): a filter
        // installed there would have the filters after it called a second time.
        QTimer::singleShot(0, this, [this] { m_owner->installEventFilter(this); });
        m_owner->addToViewDatabase(this, true);
    }
}

tzMouseCircle::~tzMouseCircle()
{
    if (m_owner) {
        m_owner->removeEventFilter(this);
        m_owner->removeFromViewDatabase(this);
    }
}

float tzMouseCircle::drawnRadius()
{
    return tzLumivertSettings::lowestPointRadius() * 100.f * 0.5f;
}

float tzMouseCircle::pixelsPerUnit() const
{
    if (m_ratio > 0.f || !m_owner)
        return m_ratio;
    const tzViewportParameters &params = m_owner->getViewportParameters();
    return params.pixelSize > 0 ? float(params.zoom / params.pixelSize) : 0.f;
}

void tzMouseCircle::draw(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!isVisible() || !context.is2D() || !(context.drawingFlags & TZ_DRAW_FOREGROUND)
        || (context.drawingFlags & TZ_ENTITY_PICKING) || !context.qGLContext || !gl || !m_owner)
        return;
    const tzViewportParameters &params = m_owner->getViewportParameters();
    gl->glPushAttrib(GL_LINE_BIT | GL_CURRENT_BIT);
    if (params.pixelSize > 0)
        m_ratio = float(params.zoom / params.pixelSize);
    gl->glLineWidth(2.f);
    gl->glLineStipple(1, 0xAAAA);
    gl->glEnable(GL_LINE_STIPPLE);
    gl->glColor3ub(255, 0, 0);

    const QPoint mouse = m_owner->mapFromGlobal(QCursor::pos());
    const int h = int(context.glH * 0.5);
    const int cx = int(mouse.x() - int(context.glW * 0.5));
    const int cy = int((2 * h - mouse.y()) - h);
    const float radius = drawnRadius();
    gl->glBegin(GL_LINE_LOOP);
    for (int n = 0; n < SEGMENTS; ++n)
        gl->glVertex2f(cx + radius * m_unitCircle[2 * n], cy + radius * m_unitCircle[2 * n + 1]);
    gl->glEnd();
    gl->glPopAttrib();
}

bool tzMouseCircle::eventFilter(QObject *object, QEvent *event)
{
    Q_UNUSED(object)
    if (!isVisible() || event->type() != QEvent::Wheel)
        return false;
    auto *wheel = static_cast<QWheelEvent *>(event);
    if (!(wheel->modifiers() & Qt::ControlModifier))
        return false;
    m_radius
        = std::max(int(m_radius - (wheel->angleDelta().y() / 100.0) * m_radiusStep), m_radiusStep);
    if (m_owner)
        m_owner->redraw(true, false);
    return false;
}
