#pragma once

#include <QSet>
#include <QString>

#include <functional>
#include <vector>

class tzApplicationInterface;
class tzHObject;
class tzImageFrustum;

//! The survey's photo stations in the scene: each cloud's photo list read and its photos put
//! under the cloud as frustums, shown, hidden and selected together.
class tzPhotoStations
{
public:
    //! The frustums under an object, at any depth.
    static std::vector<tzImageFrustum *> under(tzHObject *root);
    //! Shows or hides every station under an object.
    static void setVisible(tzHObject *root, bool visible);
    //! Selects one station (which enters its photo) and unselects the others under root.
    static void select(tzImageFrustum *photo, tzHObject *root);

    //! Reads the photo list of every cloud of the viewer's scene: beside the cloud's own file,
    //! else in the viewer's last folder, else the list the viewer made of the photos the
    //! cloud's file holds. Photos not yet under their cloud are added to it, shown.
    //! directionShown is given to each new frustum. A list that cannot be read is said on the
    //! console once (every run reads the lists again).
    void load(tzApplicationInterface *app, const std::function<bool()> &directionShown);

private:
    QSet<QString> m_unreadableLists;
};
