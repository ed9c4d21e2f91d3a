#pragma once

#include "TZVector3.h"
#include "tzCoordinateFrame.h"

#include <QJsonObject>
#include <QString>

class QOpenGLFunctions_2_1;
class tzApplicationInterface;
class tzHObject;
class tzXLineBatch;

//! What every object described by the companion shares: its kind ("type"), its identifier
//! ("ident") and its colour, read from the frame's JSON object; and the lookup of the scene group
//! named after its kind. Sights, symbols, alignments and the lines, polylines and circles of
//! symbols derive from it.
class tzXentity
{
public:
    tzXentity() = default;
    virtual ~tzXentity() = default;
    tzXentity(const tzXentity &) = delete;
    tzXentity &operator=(const tzXentity &) = delete;

    //! Reads the kind, identifier and colour. The kind is appended to the present text, not
    //! assigned: reading twice doubles it (classes with a fixed kind set it again afterwards).
    //! A missing or non-integer member reads 0. Never refuses a frame.
    virtual bool readJson(const QJsonObject &frame);
    //! Companion coordinates to scene coordinates, in a frame.
    virtual void convertToView(const tzCoordinateFrame &frame) = 0;
    //! Back to the companion's; not the inverse of convertToView unless the scale is 1 (kept).
    virtual void convertFromView(const tzCoordinateFrame &frame) = 0;
    //! Immediate-mode drawing in scene coordinates, inside the 3D pass.
    virtual void drawEntity(QOpenGLFunctions_2_1 *gl) = 0;
    //! Adds what drawEntity draws to a batch of lines, for those entities made of lines.
    virtual void addTo(tzXLineBatch &batch) const { Q_UNUSED(batch) }
    //! The group named after the kind: among the scene root's children, and after each child
    //! so named its own children, one level down only; the first match wins. Null if none.
    virtual tzHObject *findGroup(tzApplicationInterface *app) const;
    //! findGroup, or a new group at the root when there is none.
    virtual tzHObject *getOrCreateGroup(tzApplicationInterface *app) const;
    //! The first direct child of group that is an entity with this entity's identifier (children
    //! that are not entities are skipped), or null.
    virtual tzXentity *findSameIdent(const tzHObject *group) const;

    //! The entity part of a scene object, or null when it is not one of the companion's.
    static tzXentity *fromNode(tzHObject *node);
    //! The scene object of an entity, or null for entities that are not scene objects (the
    //! lines, polylines and circles inside symbols).
    virtual tzHObject *node() { return nullptr; }

    const QString &type() const { return m_type; }
    void setType(const QString &type) { m_type = type; }
    int ident() const { return m_ident; }
    int red() const { return m_red; }
    int green() const { return m_green; }
    int blue() const { return m_blue; }

    //! A photo's picture is on screen: symbols and alignments then draw without depth test, so
    //! that they show over it. Set and cleared by the photos.
    static bool pictureShown;

protected:
    QString m_type;
    int m_ident = 0;
    int m_red = 0;
    int m_green = 0;
    int m_blue = 0;
};

//! The group named name: among root's children, and after each child not so named its own
//! children, one level down only; the first match wins. Null if none.
tzHObject *findGroupTwoLevels(const tzHObject *root, const QString &name);

//! The group of the measurements made in the viewer, "mesures", looked for as
//! findGroupTwoLevels does; when there is none and create is set, a new one at the end of the
//! root. Null without an application.
tzHObject *measurementGroup(tzApplicationInterface *app, bool create);

//! A member of a frame as a number, 0.0 when missing or not a number.
inline double jsonNumber(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toDouble();
}
