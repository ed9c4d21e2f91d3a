#pragma once

#include "tzCustomHObject.h"
#include "tzXShapes.h"
#include "tzXentity.h"

#include <QList>

//! A scene object made of the companion's lines, polylines and circles: converts and draws its
//! children in order. Symbols and alignments differ only in how they read their frame.
class tzXComposite : public tzXentity, public tzCustomHObject
{
public:
    tzXComposite();
    ~tzXComposite() override;

    void convertToView(const tzCoordinateFrame &frame) override;
    void convertFromView(const tzCoordinateFrame &frame) override;
    void drawEntity(QOpenGLFunctions_2_1 *gl) override;
    void addTo(tzXLineBatch &batch) const override;
    tzHObject *node() override { return this; }

    const QList<tzXentity *> &children() const { return m_entities; }

protected:
    void drawMeOnly(tzDrawContext &context) override;
    //! Appends a child of the given kind read from element, if the kind is one of those
    //! accepted; returns whether it did.
    bool appendChild(const QString &kind, const QJsonObject &element, bool circles, bool arcs);
    //! The last step of a read: the name and the metadata ("tzLumivertType", "ident").
    void tag();

    QList<tzXentity *> m_entities;

private:
    // The children's lines, gathered at the first draw after a change.
    tzXLineBatch m_drawing;
    bool m_drawingValid = false;
};

//! "XSymbole": the insert of a block. The frame's "entities" hold the insert ("XInsert") whose own
//! "entities" are lines, polylines, arcs (taken as polylines) and circles.
class tzXSymbole : public tzXComposite
{
public:
    bool readJson(const QJsonObject &frame) override;
};

//! "XAlignement": a run of lines and polylines directly in the frame's "entities".
class tzXAlignement : public tzXComposite
{
public:
    bool readJson(const QJsonObject &frame) override;
};
