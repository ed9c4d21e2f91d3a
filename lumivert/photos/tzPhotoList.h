#pragma once

#include <QString>

#include <functional>
#include <vector>

class tzApplicationInterface;
class tzImageFrustum;

//! The name a cloud's photo list is filed under: the cloud's name cut before its last
//! " - Cloud" ("Site - Cloud - Cloud" gives "Site - Cloud"; "Site" stays "Site").
QString photoListBase(const QString &cloudName);

//! The frustums of the photo list at path ({"images": [...]}), each given the pictures'
//! folder. Nothing when the file is missing, unreadable, not JSON or empty; for a file that is
//! there but cannot be read or is not a JSON object, problem (when given) says why.
//! directionShown is given to each frustum (whether the run shows the viewing directions).
std::vector<tzImageFrustum *> readPhotoList(const QString &path, const QString &folder,
                                            tzApplicationInterface *app,
                                            const std::function<bool()> &directionShown,
                                            QString *problem = nullptr);
