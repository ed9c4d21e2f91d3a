#include "tzSettings.h"

#include <QtGlobal>

std::unique_ptr<QSettings> openLumivertSettings()
{
#ifdef Q_OS_WIN
    return std::make_unique<QSettings>(
        QStringLiteral("HKEY_CURRENT_USER\\SOFTWARE\\LumiVert\\LinkServer"),
        QSettings::NativeFormat);
#else
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                       QStringLiteral("LumiVert"), QStringLiteral("LinkServer"));
#endif
}

namespace {

QVariant stored(QSettings &store, const char *key)
{
    return store.value(QLatin1String(key));
}

QVariant storedNow(const char *key)
{
    return openLumivertSettings()->value(QLatin1String(key));
}

} // namespace

void tzLumivertSettings::readAtStart(QSettings &store)
{
    using namespace tzSettingKeys;
    const auto keep = [&store](const char *key, const QVariant &value) {
        store.setValue(QLatin1String(key), value);
    };
    if (stored(store, ACCUARY_LOWEST_POINT).toFloat() == 0.f)
        keep(ACCUARY_LOWEST_POINT, accuaryLowestPoint);
    else
        accuaryLowestPoint = stored(store, ACCUARY_LOWEST_POINT).toFloat();

    if (stored(store, ACCUARY_MOVE_POINT).toFloat() == 0.f)
        keep(ACCUARY_MOVE_POINT, accuaryMovePoint);
    else
        accuaryMovePoint = stored(store, ACCUARY_MOVE_POINT).toFloat();

    if (stored(store, POINT_SIZE_CLOUD).toUInt() == 1)
        keep(POINT_SIZE_CLOUD, pointSizeCloud);
    else
        pointSizeCloud = stored(store, POINT_SIZE_CLOUD).toUInt(); // missing: 0

    if (!stored(store, DISPLAY_IN_2D).toBool())
        keep(DISPLAY_IN_2D, displayIn2D);
    else
        displayIn2D = true;

    if (stored(store, ACCUARY_Z_LABEL).toUInt() == 2)
        keep(ACCUARY_Z_LABEL, accuaryZLabel);
    else
        accuaryZLabel = int(stored(store, ACCUARY_Z_LABEL).toUInt()); // missing: 0

    // Deliberately the other way round: a stored size is never taken here; only the options
    // form changes it.
    if (stored(store, SIZE_SPHERES).toFloat() == 0.f)
        keep(SIZE_SPHERES, sizeSpheres);
}

void tzLumivertSettings::write(QSettings &store) const
{
    using namespace tzSettingKeys;
    store.setValue(QLatin1String(POINT_SIZE_CLOUD), pointSizeCloud);
    store.setValue(QLatin1String(ACCUARY_MOVE_POINT), accuaryMovePoint);
    store.setValue(QLatin1String(ACCUARY_LOWEST_POINT), accuaryLowestPoint);
    store.setValue(QLatin1String(DISPLAY_IN_2D), displayIn2D);
    store.setValue(QLatin1String(ACCUARY_Z_LABEL), accuaryZLabel);
    store.setValue(QLatin1String(SIZE_SPHERES), sizeSpheres);
}

int tzLumivertSettings::portValue()
{
    return storedNow(tzSettingKeys::PORT_TCP).toInt();
}

int tzLumivertSettings::heightDecimals()
{
    return qBound(0, storedNow(tzSettingKeys::ACCUARY_Z_LABEL).toInt(), 12);
}

bool tzLumivertSettings::simplePointMode()
{
    return storedNow(tzSettingKeys::SIMPLE_POINT).toBool();
}

float tzLumivertSettings::lowestPointRadius()
{
    return storedNow(tzSettingKeys::ACCUARY_LOWEST_POINT).toFloat();
}

float tzLumivertSettings::stationSize()
{
    return storedNow(tzSettingKeys::SIZE_SPHERES).toFloat();
}
