#pragma once

#include "TZVector3.h"
#include "tzCoordinateFrame.h"
#include "tzSceneIndex.h"

#include <QString>

#include <functional>
#include <memory>

class QJsonObject;
class tzApplicationInterface;
class tzXComposite;

//! What the companion's frames do to the scene, on the GUI thread: a frame creates or updates a
//! sight, replaces a symbol or an alignment, deletes an object by identifier, or sets the sight
//! tool's reference point. The link hands it each frame it cuts; it knows nothing of the link.
class tzFrameDispatcher
{
public:
    void setAppInterface(tzApplicationInterface *app) { m_app = app; }
    //! The frame between the companion's coordinates and the scene's, taken from the scene's
    //! first cloud before each frame that creates or updates an object (the run shares it with
    //! its sight tool); the sights made from frames are drawn in it.
    void setFrame(std::shared_ptr<tzCoordinateFrame> frame) { m_frame = std::move(frame); }
    const tzCoordinateFrame &frame() const { return *m_frame; }
    //! Told the point a "mesure" frame names (the sight tool's reference point).
    void setReferencePointReceiver(std::function<void(const TZVector3 &)> receiver)
    {
        m_referencePoint = std::move(receiver);
    }

    //! Turns one frame into changes of the scene. Bad frames (not JSON, empty, of an unknown
    //! type) are dropped without a word.
    void dispatch(const QString &frame);
    //! Removes the first object two levels below the scene root whose "ident" metadata is ident.
    bool deleteByIdent(int ident);

private:
    void setReferencePoint(const QString &type, int fromVisee);
    void createOrUpdateSight(const QJsonObject &frame);
    void replaceComposite(std::unique_ptr<tzXComposite> composite, const QJsonObject &frame,
                          const char *nothingDeleted);
    void refreshViews();

    tzApplicationInterface *m_app = nullptr;
    std::shared_ptr<tzCoordinateFrame> m_frame = std::make_shared<tzCoordinateFrame>();
    std::function<void(const TZVector3 &)> m_referencePoint;
    tzSceneIndex m_index; // the dispatch's lookups
};
