#pragma once

#include "tzPointDisplay.h"

#include <QString>

#include <functional>
#include <vector>

class QMenu;
class QWidget;
class tzPointCloud;

//! How clouds are shown, as menus: the colour mode, the point size, the classes shown and the
//! elevation range, for a set of clouds (the selected ones, or the one under the tree's
//! context menu). The Display menu and the tree's context menu both fill theirs here.
namespace tzCloudDisplayMenu {

//! Adds the entries for the clouds to the menu; changed runs after any of them changed a cloud.
//! With no cloud, the entries are there but disabled.
void fill(QMenu *menu, const std::vector<tzPointCloud *> &clouds,
          const std::function<void()> &changed);

//! Asks for the elevation range of the clouds (global z, low and high); false when cancelled.
bool askElevationRange(QWidget *parent, const std::vector<tzPointCloud *> &clouds);

//! Shows a cloud by a mode, as the command line asks: when the cloud lacks what the mode shows,
//! it keeps its own and the returned text says why (empty when done).
QString applyMode(tzPointCloud *cloud, tzPointDisplay::ColourMode mode);

} // namespace tzCloudDisplayMenu
