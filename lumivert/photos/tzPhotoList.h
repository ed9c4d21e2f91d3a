#pragma once

#include <QString>

#include <vector>

class tzApplicationInterface;
class tzImageFrustum;
class tzLumivert;

//! The name a cloud's photo list is filed under: the cloud's name cut before its last
//! " - Cloud" ("Site - Cloud - Cloud" gives "Site - Cloud"; "Site" stays "Site").
QString photoListBase(const QString &cloudName);

//! The frustums of the photo list at path ({"images": [...]}), each given the pictures'
//! folder. Nothing when the file is missing, unreadable, not JSON or empty; for a file that is
//! there but cannot be read or is not a JSON object, problem (when given) says why.
std::vector<tzImageFrustum *> readPhotoList(const QString &path, const QString &folder,
                                            tzApplicationInterface *app, tzLumivert *plugin,
                                            QString *problem = nullptr);
