#include "tzMeasureExport.h"

#include "tzCVisee.h"
#include "tzMeasurementTags.h"
#include "tzXentity.h"

#include "tzApplicationInterface.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QMainWindow>
#include <QMessageBox>
#include <QSaveFile>
#include <QSettings>

namespace {

const char HEADER[] = "kind,ident,number,x,y,z,end_x,end_y,end_z,length,trend,plunge\n";

QByteArray quoted(const QString &text)
{
    QByteArray out = text.toUtf8();
    if (!out.contains(',') && !out.contains('"') && !out.contains('\n') && !out.contains('\r'))
        return out;
    return '"' + out.replace('"', "\"\"") + '"';
}

QByteArray number(double value, int decimals)
{
    return QByteArray::number(value, 'f', decimals); // always the C locale
}

void collect(const tzHObject *object, const tzCoordinateFrame &frame, QByteArray &sights,
             QByteArray &distances, tzMeasureExport &result)
{
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i) {
        const tzHObject *child = object->getChild(i);
        if (const auto *sight = dynamic_cast<const tzCVisee *>(child)) {
            // A sight keeps the companion's coordinates.
            const TZVector3d p = sight->coordinates();
            sights += "sight," + QByteArray::number(sight->ident()) + ',' + quoted(sight->number())
                + ',' + number(p.x, 4) + ',' + number(p.y, 4) + ',' + number(p.z, 4) + ",,,,,,\n";
            ++result.sights;
        } else if (hasLineationTag(child) && child->hasMetaData(QStringLiteral("Length"))) {
            // A distance keeps its ends in the scene's coordinates.
            const auto meta = [child](const char *key) {
                return child->getMetaData(QLatin1String(key)).toDouble();
            };
            const TZVector3d start = frame.toCompanion({meta("Sx"), meta("Sy"), meta("Sz")});
            const TZVector3d end = frame.toCompanion({meta("Ex"), meta("Ey"), meta("Ez")});
            distances += "distance,,," + number(start.x, 4) + ',' + number(start.y, 4) + ','
                + number(start.z, 4) + ',' + number(end.x, 4) + ',' + number(end.y, 4) + ','
                + number(end.z, 4) + ',' + number(meta("Length") / frame.scale, 4) + ','
                + number(meta("Trend"), 2) + ',' + number(meta("Plunge"), 2) + '\n';
            ++result.distances;
        }
        collect(child, frame, sights, distances, result);
    }
}

} // namespace

tzMeasureExport exportMeasures(const tzHObject *root, const QString &path, tzCoordinateFrame &frame)
{
    tzMeasureExport result;
    QByteArray sights, distances;
    if (root) {
        frame.captureFrom(root);
        collect(root, frame, sights, distances, result);
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(HEADER + sights + distances) < 0
        || !file.commit()) {
        result.error = file.errorString();
    }
    return result;
}

void exportMeasuresAs(tzApplicationInterface *app, tzCoordinateFrame &frame)
{
    if (!app)
        return;
    const auto tr
        = [](const char *text) { return QCoreApplication::translate("tzLumivert", text); };
    QSettings settings;
    const QString folder = settings.value(QStringLiteral("LoadFile/currentPath")).toString();
    QString path
        = QFileDialog::getSaveFileName(app->mainWindow(), tr("Export measures"),
                                       QDir(folder).filePath(QStringLiteral("measures.csv")),
                                       tr("CSV tables (*.csv);;All files (*)"));
    if (path.isEmpty())
        return;
    if (QFileInfo(path).suffix().isEmpty())
        path += QStringLiteral(".csv");
    const tzMeasureExport done = exportMeasures(app->databaseRoot(), path, frame);
    if (!done.error.isEmpty()) {
        const QString text = QStringLiteral("Could not write '%1': %2").arg(path, done.error);
        app->printToConsole(QStringLiteral("[tzLumivert] ") + text,
                            tzApplicationInterface::ERR_CONSOLE_MESSAGE);
        QMessageBox::warning(app->mainWindow(), tr("Export measures"), text);
        return;
    }
    app->printToConsole(QStringLiteral("[tzLumivert] %1 sights and %2 distances written to '%3'")
                            .arg(done.sights)
                            .arg(done.distances)
                            .arg(path));
}
