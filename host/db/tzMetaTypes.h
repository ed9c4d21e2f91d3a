#pragma once

// The scene types that travel in queued signals and QVariants, declared once for every library.

#include "TZVector3.h"
#include "tzHObject.h"

#include <QMetaType>

Q_DECLARE_METATYPE(tzHObject *)
Q_DECLARE_METATYPE(TZVector3)
Q_DECLARE_METATYPE(TZVector3d)
