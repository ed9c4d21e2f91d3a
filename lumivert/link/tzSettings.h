#pragma once

#include <QSettings>

#include <memory>

//! Opens the plug-in's settings store: on Windows the registry key
//! HKEY_CURRENT_USER\SOFTWARE\LumiVert\LinkServer, elsewhere the native store of organisation
//! "LumiVert", application "LinkServer". Every reader and writer opens it anew, so that each sees
//! the others' changes at once.
//!
//! The value names are the companion's: "accuaryLowestPoint", "accuaryMovePoint" and
//! "accuaryZLabel" are misspelt on purpose and must stay so.
std::unique_ptr<QSettings> openLumivertSettings();
