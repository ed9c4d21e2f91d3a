#include "tzSettings.h"

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
