// The table of the formats the viewer opens, by extension.

#include "tzCloudFormats_p.h"

#include <QFileInfo>

namespace tzCloudFile {
namespace detail {

const std::vector<Format> &formats()
{
    static const std::vector<Format> all {
        {QStringLiteral("PLY"), {QStringLiteral("ply")}, readPly},
        {QStringLiteral("LAS and LAZ"), {QStringLiteral("las"), QStringLiteral("laz")}, readLas},
        {QStringLiteral("PCD"), {QStringLiteral("pcd")}, readPcd},
        {QStringLiteral("Text"), textKinds(), readText},
        {QStringLiteral("Tessaro scenes"), {QStringLiteral("tzs")}, nullptr},
    };
    return all;
}

const Format *formatOf(const QString &extension)
{
    const QString lower = extension.toLower();
    for (const Format &format : formats()) {
        if (format.extensions.contains(lower))
            return &format;
    }
    return nullptr;
}

} // namespace detail

const QStringList &textKinds()
{
    static const QStringList kinds {QStringLiteral("xyz"), QStringLiteral("txt"),
                                    QStringLiteral("asc"), QStringLiteral("pts"),
                                    QStringLiteral("csv"), QStringLiteral("xyzrgb"),
                                    QStringLiteral("xyzn")};
    return kinds;
}

bool isScene(const QString &path)
{
    const detail::Format *format = detail::formatOf(QFileInfo(path).suffix());
    return format && !format->read;
}

QString openFilter()
{
    QStringList clouds, filters;
    for (const detail::Format &format : detail::formats()) {
        if (!format.read)
            continue;
        QStringList patterns;
        for (const QString &extension : format.extensions)
            patterns << QStringLiteral("*.") + extension;
        clouds << patterns;
        filters << QStringLiteral("%1 (%2)").arg(format.description,
                                                 patterns.join(QLatin1Char(' ')));
    }
    filters.prepend(QStringLiteral("Point clouds (%1)").arg(clouds.join(QLatin1Char(' '))));
    filters << QStringLiteral("All files (*)");
    return filters.join(QStringLiteral(";;"));
}

} // namespace tzCloudFile
