// Distances: what a lineation computes from its two points, and the tool that makes them from
// picks (on a scene without a window).

#include "tzCVisee.h"
#include "tzLineationTool.h"
#include "tzMeasureExport.h"
#include "tzMeasurementTags.h"
#include "tzMetaTypes.h"
#include "tzPointCloud.h"
#include "tzPointPair.h"
#include "tzSceneApp.h"
#include "tzSceneFile.h"
#include "tzXentity.h"

#include <QtTest>

#include <memory>

namespace {

std::unique_ptr<tzPointCloud> cloudOf(std::initializer_list<TZVector3> points,
                                      const QString &name = QStringLiteral("Site - Cloud"))
{
    auto cloud = std::make_unique<tzPointCloud>(name);
    for (const TZVector3 &p : points)
        cloud->addPoint(p);
    return cloud;
}

float meta(const tzHObject &object, const char *key)
{
    return object.getMetaData(QLatin1String(key)).toFloat();
}

} // namespace

class TestDistance : public QObject
{
    Q_OBJECT

private slots:
    void lineationDirection_data();
    void lineationDirection();
    void lineationWithOnePointKeepsOnlyItsTag();
    void tagsNameTheMeasurements();
    void picksMakeOneLineationPerTwo();
    void picksOnTwoClouds();
    void cancelRemovesOnlyAnUnfinishedLineation();
    void measuresOfASavedSceneExported();
};

void TestDistance::lineationDirection_data()
{
    QTest::addColumn<TZVector3>("end");
    QTest::addColumn<float>("trend");
    QTest::addColumn<float>("plunge");
    QTest::addColumn<float>("length");
    QTest::addColumn<QString>("name");
    QTest::newRow("north") << TZVector3(0, 10, 0) << 0.f << 0.f << 10.f << "10.0 metre ";
    QTest::newRow("east, down") << TZVector3(10, 0, -5) << 90.f << 26.5651f << 11.1803f
                                << "11.2 metre ";
    QTest::newRow("south-west, up")
        << TZVector3(-3, -4, 5) << 216.87f << -45.f << 7.07107f << "7.1 metre ";
    // The components of the unit direction sum to zero: no trend, no plunge (kept).
    QTest::newRow("sum zero, down")
        << TZVector3(10, 0, -10) << 0.f << 0.f << 14.1421f << "14.1 metre ";
    QTest::newRow("sum zero, south-east")
        << TZVector3(1, -1, 0) << 0.f << 0.f << 1.41421f << "1.4 metre ";
    QTest::newRow("straight up") << TZVector3(0, 0, 5) << 0.f << -90.f << 5.f << "5.0 metre ";
    QTest::newRow("straight down") << TZVector3(0, 0, -5) << 0.f << 90.f << 5.f << "5.0 metre ";
}

void TestDistance::lineationDirection()
{
    QFETCH(TZVector3, end);
    QFETCH(float, trend);
    QFETCH(float, plunge);
    QFETCH(float, length);
    QFETCH(QString, name);
    const TZVector3 start(100, 200, 10);
    const auto cloud = cloudOf({start, start + end});
    tzLineation lineation(cloud.get());
    lineation.addPointIndex(0);
    lineation.addPointIndex(1);
    QCOMPARE(lineation.direction(), end);
    lineation.computeMetadata();
    QCOMPARE(lineation.getMetaData(QStringLiteral("tzLumivertType")).toString(),
             QStringLiteral("Lineation"));
    QVERIFY2(std::abs(meta(lineation, "Trend") - trend) < 1e-3f,
             qPrintable(QString::number(meta(lineation, "Trend"))));
    QVERIFY2(std::abs(meta(lineation, "Plunge") - plunge) < 1e-3f,
             qPrintable(QString::number(meta(lineation, "Plunge"))));
    QVERIFY(std::abs(meta(lineation, "Length") - length) < 1e-3f);
    QCOMPARE(lineation.getName(), name);
    QCOMPARE(meta(lineation, "Sy"), 200.f);
    QCOMPARE(meta(lineation, "Ez"), start.z + end.z);
    QCOMPARE(lineation.getMetaData(QStringLiteral("Length")).type(),
             QVariant::Type(QMetaType::Float));
}

void TestDistance::lineationWithOnePointKeepsOnlyItsTag()
{
    const auto cloud = cloudOf({{0, 0, 0}, {0, 10, 0}});
    tzLineation lineation(cloud.get());
    lineation.setName(QStringLiteral("Lineation"));
    lineation.addPointIndex(1);
    lineation.computeMetadata();
    QCOMPARE(lineation.getName(), QStringLiteral("Lineation"));
    QVERIFY(!lineation.hasMetaData(QStringLiteral("Length")));
    QVERIFY(!lineation.hasMetaData(QStringLiteral("Trend")));
    QCOMPARE(lineation.direction(), TZVector3(0, 0, 0));
    // A pair copied from a polyline takes its points.
    tzPolyline polyline(cloud.get());
    polyline.addPointIndex(0);
    polyline.addPointIndex(1);
    QCOMPARE(tzPointPair(polyline).direction(), TZVector3(0, 10, 0));
}

void TestDistance::tagsNameTheMeasurements()
{
    tzHObject object;
    QVERIFY(!hasPointPairTag(&object) && !hasLineationTag(&object));
    for (const char *kind :
         {"PointPair", "Thickness", "PinchNode", "Relationship", "XLineationY"}) {
        object.setMetaData(QStringLiteral("tzLumivertType"), QString::fromLatin1(kind));
        QVERIFY2(hasPointPairTag(&object), kind);
    }
    QVERIFY(hasLineationTag(&object)); // a substring
    object.setMetaData(QStringLiteral("tzLumivertType"), QStringLiteral("lineation"));
    QVERIFY(!hasPointPairTag(&object) && !hasLineationTag(&object)); // case counts
}

void TestDistance::picksMakeOneLineationPerTwo()
{
    tzSceneApp app;
    const auto owned = cloudOf({{0, 0, 0}, {0, 10, 0}, {3, 4, 0}});
    tzPointCloud *cloud = owned.get();
    auto &group = *new tzHObject(QStringLiteral("mesures")); // where the plug-in puts them
    app.databaseRoot()->addChild(&group);
    tzLineationTool tool;
    tool.setupTool(&app);
    tzLineationTool::showLabels = true;
    tool.pointPicked(&group, 0, cloud, {});
    QVERIFY(tool.lineationID() != tzLineationTool::NONE);
    QCOMPARE(group.getChildrenNumber(), 1u);
    QCOMPARE(group.getChild(0)->getName(), QStringLiteral("Lineation"));
    QVERIFY(app.console.isEmpty());
    tool.pointPicked(&group, 1, cloud, {});
    QCOMPARE(tool.lineationID(), tzLineationTool::NONE);
    QCOMPARE(app.console, QStringList {"[tzLumivert] Distance entre les points = 10.0 metre "});
    auto *first = dynamic_cast<tzLineation *>(group.getChild(0));
    QVERIFY(first && first->nameShownIn3D());
    // A third pick starts another, which the next completes.
    tzLineationTool::showLabels = false;
    tool.pointPicked(&group, 1, cloud, {});
    tool.pointPicked(&group, 2, cloud, {});
    QCOMPARE(group.getChildrenNumber(), 2u);
    QCOMPARE(group.getChild(1)->getName(), QStringLiteral("6.7 metre "));
    QVERIFY(!static_cast<tzLineation *>(group.getChild(1))->nameShownIn3D());
    QCOMPARE(app.console.size(), 2);
}

void TestDistance::picksOnTwoClouds()
{
    tzSceneApp app;
    const auto a = cloudOf({{0, 0, 0}, {0, 10, 0}, {0, 20, 0}}, QStringLiteral("A"));
    const auto b = cloudOf({{5, 5, 5}, {6, 6, 6}, {7, 7, 7}, {8, 8, 8}}, QStringLiteral("B"));
    auto &group = *new tzHObject(QStringLiteral("mesures")); // where the plug-in puts them
    app.databaseRoot()->addChild(&group);
    tzLineationTool tool;
    tool.setupTool(&app);
    tool.pointPicked(&group, 1, a.get(), {});
    // An index beyond the first cloud is refused, and said.
    tool.pointPicked(&group, 3, b.get(), {});
    QCOMPARE(app.console.size(), 1);
    QVERIFY2(app.console[0].contains(QStringLiteral("#3")), qPrintable(app.console[0]));
    QVERIFY(tool.lineationID() != tzLineationTool::NONE);
    // The second index is read in the first cloud: the point (0, 20, 0) of A.
    tool.pointPicked(&group, 2, b.get(), {});
    QCOMPARE(group.getChildrenNumber(), 1u);
    auto *lineation = dynamic_cast<tzLineation *>(group.getChild(0));
    QCOMPARE(lineation->getVertices(), a.get());
    QCOMPARE(lineation->getName(), QStringLiteral("10.0 metre "));
}

void TestDistance::cancelRemovesOnlyAnUnfinishedLineation()
{
    tzSceneApp app;
    const auto cloud = cloudOf({{0, 0, 0}, {0, 10, 0}});
    tzLineationTool tool;
    tool.setupTool(&app);
    tzHObject *root = app.databaseRoot();
    tool.pointPicked(root, 0, cloud.get(), {});
    QCOMPARE(root->getChildrenNumber(), 1u);
    tool.cancel();
    QCOMPARE(root->getChildrenNumber(), 0u);
    QCOMPARE(tool.lineationID(), tzLineationTool::NONE);

    tool.pointPicked(root, 0, cloud.get(), {});
    tool.pointPicked(root, 1, cloud.get(), {});
    tool.cancel();
    tool.accept();
    QCOMPARE(root->getChildrenNumber(), 1u);

    // Leaving the tool after one pick removes that pick's lineation.
    tool.pointPicked(root, 1, cloud.get(), {});
    QCOMPARE(root->getChildrenNumber(), 2u);
    tool.toolDeactivated();
    QCOMPARE(root->getChildrenNumber(), 1u);
    // A lineation the user deleted meanwhile: cancel does nothing, the next pick starts anew.
    tool.pointPicked(root, 0, cloud.get(), {});
    app.removeFromDatabase(root->getChild(1), true);
    tool.cancel();
    QVERIFY(tool.lineationID() != tzLineationTool::NONE); // kept, as the tool does
    tool.pointPicked(root, 0, cloud.get(), {});
    QCOMPARE(root->getChildrenNumber(), 2u);
    QCOMPARE(static_cast<tzLineation *>(root->getChild(1))->size(), 1u);
}

void TestDistance::measuresOfASavedSceneExported()
{
    // A shifted survey with a sight from the companion and a distance, saved and loaded back.
    tzHObject::RegisterFactory(QLatin1String(tzCVisee::FACTORY_NAME), [] { return new tzCVisee; });
    tzHObject::RegisterFactory(QLatin1String(tzLineation::FACTORY_NAME),
                               [] { return new tzLineation; });
    QTemporaryDir dir;
    {
        tzHObject root(QStringLiteral("root"));
        auto *cloud = cloudOf({{0, 0, 10}, {3, 4, 10}}).release();
        cloud->setGlobalShift({-651200, -6861400, 0});
        root.addChild(cloud);
        auto *group = new tzHObject(QStringLiteral("mesures"));
        root.addChild(group);
        auto *sight = new tzCVisee;
        QVERIFY(sight->readJson(QJsonDocument::fromJson(
                                    R"({"type": "CVisee", "ident": 7, "number": "10,01",
                "coord": {"X": 651203.5, "Y": 6861404.25, "Z": 112.125}})")
                                    .object()));
        group->addChild(sight);
        auto *distance = new tzLineation(cloud);
        distance->addPointIndex(0);
        distance->addPointIndex(1);
        distance->computeMetadata();
        group->addChild(distance);
        QString error;
        QVERIFY2(tzSceneFile::save(&root, dir.filePath(QStringLiteral("site.tzs")), error),
                 qPrintable(error));
    }
    // Opened on its own (no run has taken the survey's shift): its sights draw on the survey.
    QString error;
    const std::unique_ptr<tzHObject> loaded(
        tzSceneFile::load(dir.filePath(QStringLiteral("site.tzs")), error));
    QVERIFY2(loaded, qPrintable(error));
    const auto *loadedSight = dynamic_cast<const tzCVisee *>(loaded->getChild(1)->getChild(0));
    QVERIFY(loadedSight);
    QCOMPARE(loadedSight->frame().shift, TZVector3d(-651200, -6861400, 0));
    // The distance comes back as a distance (drawn with its arrow), on its cloud.
    const auto *distance = dynamic_cast<const tzLineation *>(loaded->getChild(1)->getChild(1));
    QVERIFY(distance);
    QCOMPARE(distance->size(), 2u);
    QCOMPARE(distance->direction(), TZVector3(3, 4, 0));

    QLocale::setDefault(QLocale(QLocale::French)); // a decimal comma must not reach the file
    const QString csv = dir.filePath(QStringLiteral("measures.csv"));
    tzCoordinateFrame frame; // a run's, which takes the survey's first cloud's
    const tzMeasureExport done = exportMeasures(loaded.get(), csv, frame);
    QLocale::setDefault(QLocale::c());
    QVERIFY2(done.error.isEmpty(), qPrintable(done.error));
    QCOMPARE(done.sights, 1);
    QCOMPARE(done.distances, 1);
    QFile file(csv);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(),
             QByteArray("kind,ident,number,x,y,z,end_x,end_y,end_z,length,trend,plunge\n"
                        "sight,7,\"10,01\",651203.5000,6861404.2500,112.1250,,,,,,\n"
                        "distance,,,651200.0000,6861400.0000,10.0000,651203.0000,6861404.0000,"
                        "10.0000,5.0000,36.87,0.00\n"));

    // A folder that does not exist: an error, and no file.
    const tzMeasureExport failed
        = exportMeasures(loaded.get(), dir.filePath(QStringLiteral("no/m.csv")), frame);
    QVERIFY(!failed.error.isEmpty());
    QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("no/m.csv"))));
}

QTEST_MAIN(TestDistance)
#include "tst_distance.moc"
