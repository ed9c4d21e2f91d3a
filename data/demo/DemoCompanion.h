#pragma once

// What the companion sends on the demo survey: a few sights at the corners of a building,
// symbols (a manhole on the road, the outline of a building, a tree's crown) and the
// alignment of the road, as a mensurix-sim script in the cloud's coordinates.

#include "DemoScene.h"

#include <QByteArray>

namespace demo {

QByteArray companionScript(const Scene &scene);

} // namespace demo
