#include "tzCoordinateFrame.h"

#include "tzHObject.h"
#include "tzPointCloud.h"

namespace {

const tzGenericPointCloud *firstCloud(const tzHObject *object)
{
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i) {
        const tzHObject *child = object->getChild(i);
        if (child->isA(TZ_TYPES::POINT_CLOUD))
            return static_cast<const tzGenericPointCloud *>(child);
        if (const tzGenericPointCloud *cloud = firstCloud(child))
            return cloud;
    }
    return nullptr;
}

} // namespace

bool tzCoordinateFrame::captureFrom(const tzHObject *root)
{
    const tzGenericPointCloud *cloud = root ? firstCloud(root) : nullptr;
    if (!cloud)
        return false;
    scale = cloud->getGlobalScale();
    shift = cloud->getGlobalShift();
    return true;
}
