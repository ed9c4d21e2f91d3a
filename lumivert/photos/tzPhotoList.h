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
//! folder. Nothing, and no message, when the file is missing, unreadable, not JSON or empty.
std::vector<tzImageFrustum *> readPhotoList(const QString &path, const QString &folder,
                                            tzApplicationInterface *app, tzLumivert *plugin);
