#pragma once

#include <QtGlobal>

// Class identifiers of the scene graph. They are bit sets: an object is "kind of" a type when all
// the bits of that type are set in its class ID. The values 129 (label kind) and 257 (point cloud)
// are relied upon by plug-ins and stored in scene files: never change them.
namespace TZ_TYPES {
enum : quint32 {
    OBJECT = 0,
    HIERARCHY_OBJECT = 1,
    LABEL_KIND = 128 | HIERARCHY_OBJECT, // 129
    POINT_CLOUD = 256 | HIERARCHY_OBJECT, // 257
    POLY_LINE = 512 | HIERARCHY_OBJECT,
    PRIMITIVE = 1024 | HIERARCHY_OBJECT,
    SPHERE = 2048 | PRIMITIVE,
    CYLINDER = 4096 | PRIMITIVE,
    CONE = 8192 | PRIMITIVE,
    IMAGE = 16384 | HIERARCHY_OBJECT,
    CUSTOM_H_OBJECT = 32768 | HIERARCHY_OBJECT,
    VIEWPORT_2D_OBJECT = 65536 | HIERARCHY_OBJECT,
    // In scene files only: a cloud kept as the path of the indexed file it is read from (it is
    // a POINT_CLOUD to everything else).
    STREAMED_CLOUD = 131072 | POINT_CLOUD,
};
}

// Dependency flags between objects (tzHObject::addDependency). 24 is how a parent adopts a child:
// it is the parent (16) and deletes the child with itself (8).
enum tzDependencyFlags : int {
    DP_NONE = 0,
    DP_NOTIFY_OTHER_ON_DELETE = 1,
    DP_NOTIFY_OTHER_ON_UPDATE = 2,
    DP_DELETE_OTHER = 8,
    DP_PARENT_OF_OTHER = 24,
};
