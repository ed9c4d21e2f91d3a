#include "tzXComposite.h"

#include "tzDrawContext.h"
#include "tzXShapes.h"

#include <QJsonArray>
#include <QOpenGLFunctions_2_1>
#include <QtDebug>

#include <memory>

tzXComposite::tzXComposite()
{
    setEnabled(true);
    // A click beside a surveyed line is meant for the ground it lies on.
    setPickedOnlyOnItsLines(true);
}

tzXComposite::~tzXComposite()
{
    qDeleteAll(m_entities);
}

void tzXComposite::convertToView(const tzCoordinateFrame &frame)
{
    m_drawingValid = false;
    for (tzXentity *entity : qAsConst(m_entities))
        entity->convertToView(frame);
}

void tzXComposite::convertFromView(const tzCoordinateFrame &frame)
{
    m_drawingValid = false;
    for (tzXentity *entity : qAsConst(m_entities))
        entity->convertFromView(frame);
}

void tzXComposite::addTo(tzXLineBatch &batch) const
{
    for (const tzXentity *entity : m_entities)
        entity->addTo(batch);
}

void tzXComposite::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    if (!m_drawingValid) {
        m_drawing.clear();
        addTo(m_drawing);
        m_drawingValid = true;
    }
    m_drawing.draw(gl);
}

void tzXComposite::drawMeOnly(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!context.is3D() || !gl)
        return;
    if (context.isPicking()) {
        if (context.drawingFlags & TZ_FAST_ENTITY_PICKING)
            return;
        gl->glPushName(getUniqueID());
    }
    // Over a photo's picture, whatever lies behind its plane.
    const bool overPicture = pictureShown;
    if (overPicture)
        gl->glDisable(GL_DEPTH_TEST);
    // The companion's lines lie on the surveyed ground, at the depth of the cloud's points
    // there: drawn a little nearer (a thousandth of the depth range), they are not cut into
    // dashes by the points they lie on, and what stands above them still hides them. (Not
    // when picking: a click beside a line is on the ground, as before.)
    const bool nearer = !context.isPicking();
    if (nearer) {
        gl->glPushAttrib(GL_VIEWPORT_BIT);
        gl->glDepthRange(0.0, 0.999);
    }
    drawEntity(gl);
    if (nearer)
        gl->glPopAttrib();
    if (overPicture)
        gl->glEnable(GL_DEPTH_TEST);
    if (context.isPicking())
        gl->glPopName();
}

bool tzXComposite::appendChild(const QString &kind, const QJsonObject &element, bool circles,
                               bool arcs)
{
    std::unique_ptr<tzXentity> child;
    if (kind == QLatin1String("XLine"))
        child = std::make_unique<tzXLine>();
    else if (kind == QLatin1String("XPolyline") || (arcs && kind == QLatin1String("XArc")))
        child = std::make_unique<tzXPolyline>();
    else if (circles && kind == QLatin1String("XCircle"))
        child = std::make_unique<tzXCircle>();
    if (!child)
        return false;
    child->readJson(element);
    m_entities.append(child.release());
    m_drawingValid = false;
    return true;
}

void tzXComposite::tag()
{
    setName(m_type);
    QVariantMap tags;
    tags.insert(QStringLiteral("tzLumivertType"), m_type);
    tags.insert(QStringLiteral("ident"), qint32(m_ident));
    setMetaData(tags, true);
}

bool tzXSymbole::readJson(const QJsonObject &frame)
{
    tzXentity::readJson(frame);
    // One insert is expected; with several, the last one is the symbol.
    QJsonObject insert;
    for (const QJsonValue &element : frame.value(QLatin1String("entities")).toArray())
        insert = element.toObject();
    if (QString().append(insert.value(QLatin1String("type")).toString())
        == QLatin1String("XInsert")) {
        for (const QJsonValue &value : insert.value(QLatin1String("entities")).toArray()) {
            const QJsonObject element = value.toObject();
            appendChild(element.value(QLatin1String("type")).toString(), element, true, true);
        }
    }
    tag();
    return true;
}

bool tzXAlignement::readJson(const QJsonObject &frame)
{
    qDebug("! Alignement !");
    tzXentity::readJson(frame);
    for (const QJsonValue &value : frame.value(QLatin1String("entities")).toArray()) {
        const QJsonObject element = value.toObject();
        appendChild(element.value(QLatin1String("type")).toString(), element, false, false);
    }
    tag();
    return true;
}
