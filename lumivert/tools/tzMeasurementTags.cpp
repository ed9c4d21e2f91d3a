#include "tzMeasurementTags.h"

#include "tzHObject.h"

namespace {
const char *const TYPE_KEY = "tzLumivertType";
}

bool hasPointPairTag(const tzHObject *object)
{
    if (!object || !object->hasMetaData(QLatin1String(TYPE_KEY)))
        return false;
    const QString type = object->getMetaData(QLatin1String(TYPE_KEY)).toString();
    for (const char *kind : {"PointPair", "Lineation", "Thickness", "PinchNode", "Relationship"}) {
        if (type.contains(QLatin1String(kind)))
            return true;
    }
    return false;
}

bool hasLineationTag(const tzHObject *object)
{
    return object && object->hasMetaData(QLatin1String(TYPE_KEY))
        && object->getMetaData(QLatin1String(TYPE_KEY))
               .toString()
               .contains(QLatin1String("Lineation"));
}

void showMeasurementLabels(tzHObject *object, bool show)
{
    if (!object)
        return;
    if (hasPointPairTag(object))
        object->showNameIn3D(show);
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i)
        showMeasurementLabels(object->getChild(i), show);
}
