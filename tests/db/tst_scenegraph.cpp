#include "tzCustomHObject.h"
#include "tzDefaultPluginInterface.h"
#include "tzHObject.h"
#include "tzLog.h"
#include "tzPointCloud.h"
#include "tzPolyline.h"
#include "tzSphere.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

// Records the objects it is told about.
class Watcher : public tzCustomHObject
{
public:
    using tzCustomHObject::tzCustomHObject;
    quint32 getClassID() const override { return TZ_TYPES::CUSTOM_H_OBJECT | TZ_TYPES::LABEL_KIND; }
    void onDeletionOf(const tzHObject *object) override
    {
        deleted.push_back(object);
        tzCustomHObject::onDeletionOf(object);
    }
    std::vector<const tzHObject *> deleted;
};

struct DeletionFlag : public tzHObject
{
    explicit DeletionFlag(bool *flag)
        : m_flag(flag)
    {
    }
    ~DeletionFlag() override { *m_flag = true; }
    bool *m_flag;
};

} // namespace

class TestSceneGraph : public QObject
{
    Q_OBJECT

private slots:
    void uniqueIDsComeFromTheInstalledGenerator();
    void metadataOverwriteRule();
    void kindOfIsAllBitsOfTheType();
    void parentOwnsAndDeletesItsChildren();
    void childDeletedAloneLeavesItsParent();
    void addChildRefusesCyclesAndSecondParents();
    void detachKeepsTheChildAlive();
    void dependentIsToldOfDeletion();
    void dependentDeletedFirstIsForgotten();
    void filterChildrenByTypeCode_data();
    void filterChildrenByTypeCode();
    void findSearchesRecursively();
    void polylineLosesItsVerticesWithTheCloud();
    void octreeIsDroppedWhenPointsChange();
    void globalShiftRoundTrip();
    void sphereTessellationIsClosed();
    void pluginInfoFile_data();
    void pluginInfoFile();
};

void TestSceneGraph::uniqueIDsComeFromTheInstalledGenerator()
{
    auto generator = std::make_shared<tzUniqueIDGenerator>();
    generator->update(5000);
    tzObject::SetUniqueIDGenerator(generator);
    tzHObject a, b;
    QCOMPARE(a.getUniqueID(), 5001u);
    QCOMPARE(b.getUniqueID(), 5002u);
    tzObject::SetUniqueIDGenerator(nullptr); // ignored: the generator stays
    tzHObject c;
    QCOMPARE(c.getUniqueID(), 5003u);
}

void TestSceneGraph::metadataOverwriteRule()
{
    tzHObject o;
    o.setMetaData(QStringLiteral("ident"), 7);
    o.setMetaData(QVariantMap {{"ident", 8}, {"number", "P12"}}, false);
    QCOMPARE(o.getMetaData("ident").toInt(), 7);
    QCOMPARE(o.getMetaData("number").toString(), QStringLiteral("P12"));
    o.setMetaData(QVariantMap {{"ident", 9}}, true);
    QCOMPARE(o.getMetaData("ident").toInt(), 9);
    QVERIFY(!o.hasMetaData("Coord x"));
    QVERIFY(!o.getMetaData("Coord x").isValid());
}

void TestSceneGraph::kindOfIsAllBitsOfTheType()
{
    tzPointCloud cloud;
    Watcher sight;
    QVERIFY(cloud.isA(257));
    QVERIFY(cloud.isKindOf(TZ_TYPES::HIERARCHY_OBJECT));
    QVERIFY(!cloud.isKindOf(129));
    QVERIFY(sight.isKindOf(129));
    QVERIFY(sight.isKindOf(TZ_TYPES::CUSTOM_H_OBJECT));
    QVERIFY(!sight.isA(129));
}

void TestSceneGraph::parentOwnsAndDeletesItsChildren()
{
    bool childGone = false, grandChildGone = false;
    auto *root = new tzHObject("root");
    auto *child = new DeletionFlag(&childGone);
    QVERIFY(root->addChild(child));
    QVERIFY(child->addChild(new DeletionFlag(&grandChildGone)));
    QCOMPARE(child->getParent(), root);
    QCOMPARE(root->getDependencyFlagsWith(child), 24);
    delete root;
    QVERIFY(childGone);
    QVERIFY(grandChildGone);
}

void TestSceneGraph::childDeletedAloneLeavesItsParent()
{
    tzHObject root;
    auto *a = new tzHObject("a");
    auto *b = new tzHObject("b");
    root.addChild(a);
    root.addChild(b);
    delete a;
    QCOMPARE(root.getChildrenNumber(), 1u);
    QCOMPARE(root.getChild(0), b);
    QCOMPARE(root.getDependencyFlagsWith(a), 0);
}

void TestSceneGraph::addChildRefusesCyclesAndSecondParents()
{
    tzHObject root, other;
    auto *child = new tzHObject("child");
    QVERIFY(root.addChild(child));
    QVERIFY(!root.addChild(child)); // already there
    QVERIFY(!other.addChild(child)); // has a parent
    QVERIFY(!child->addChild(&root)); // cycle
    QVERIFY(!root.addChild(&root));
    QVERIFY(!root.addChild(nullptr));
    auto *first = new tzHObject("first");
    QVERIFY(root.addChild(first, DP_PARENT_OF_OTHER, 0));
    QCOMPARE(root.getChild(0), first);
}

void TestSceneGraph::detachKeepsTheChildAlive()
{
    bool gone = false;
    tzHObject root;
    auto *child = new DeletionFlag(&gone);
    root.addChild(child);
    root.detachChild(child);
    QVERIFY(!gone);
    QCOMPARE(root.getChildrenNumber(), 0u);
    QCOMPARE(child->getParent(), nullptr);
    QVERIFY(root.addChild(child)); // free to be adopted again
    root.removeChild(child);
    QVERIFY(gone);
}

void TestSceneGraph::dependentIsToldOfDeletion()
{
    auto *cloud = new tzPointCloud("cloud");
    Watcher sight("sight");
    cloud->addDependency(&sight, DP_NOTIFY_OTHER_ON_DELETE, true);
    delete cloud;
    QCOMPARE(sight.deleted.size(), std::size_t(1));
    QCOMPARE(sight.deleted[0], static_cast<const tzHObject *>(cloud));
}

void TestSceneGraph::dependentDeletedFirstIsForgotten()
{
    tzPointCloud cloud("cloud");
    auto *sight = new Watcher("sight");
    cloud.addDependency(sight, DP_NOTIFY_OTHER_ON_DELETE, true);
    QCOMPARE(cloud.getDependencyFlagsWith(sight), int(DP_NOTIFY_OTHER_ON_DELETE));
    delete sight;
    QCOMPARE(cloud.getDependencyFlagsWith(sight), 0); // nothing left to notify
}

void TestSceneGraph::filterChildrenByTypeCode_data()
{
    // The tree: root -> [c1 -> [s2], g -> [c2, s1]]; results come depth first, in child order.
    QTest::addColumn<bool>("recursive");
    QTest::addColumn<quint32>("type");
    QTest::addColumn<bool>("strict");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("clouds, recursive, exact")
        << true << quint32(257) << true << QStringList {"c1", "c2"};
    QTest::newRow("clouds, top level only") << false << quint32(257) << true << QStringList {"c1"};
    QTest::newRow("label kind, recursive")
        << true << quint32(129) << false << QStringList {"s2", "s1"};
    QTest::newRow("label kind, strict finds none")
        << true << quint32(129) << true << QStringList {};
    QTest::newRow("every object") << true << quint32(TZ_TYPES::HIERARCHY_OBJECT) << false
                                  << QStringList {"c1", "s2", "g", "c2", "s1"};
}

void TestSceneGraph::filterChildrenByTypeCode()
{
    QFETCH(bool, recursive);
    QFETCH(quint32, type);
    QFETCH(bool, strict);
    QFETCH(QStringList, expected);
    tzHObject root;
    auto *c1 = new tzPointCloud("c1");
    auto *group = new tzHObject("g");
    root.addChild(c1);
    root.addChild(group);
    c1->addChild(new Watcher("s2"));
    group->addChild(new tzPointCloud("c2"));
    group->addChild(new Watcher("s1"));
    tzHObject::Container found;
    QCOMPARE(root.filterChildren(found, recursive, type, strict), unsigned(expected.size()));
    QStringList names;
    for (tzHObject *o : found)
        names << o->getName();
    QCOMPARE(names, expected);
}

void TestSceneGraph::findSearchesRecursively()
{
    tzHObject root;
    auto *group = new tzHObject("g");
    auto *deep = new tzHObject("deep");
    root.addChild(group);
    group->addChild(deep);
    QCOMPARE(root.find(deep->getUniqueID()), deep);
    QCOMPARE(root.find(root.getUniqueID()), &root);
    QCOMPARE(root.find(0), nullptr);
}

void TestSceneGraph::polylineLosesItsVerticesWithTheCloud()
{
    auto *cloud = new tzPointCloud("v");
    cloud->addPoint({0, 0, 0});
    cloud->addPoint({1, 1, 1});
    tzPolyline line(cloud);
    line.addPointIndex(0, 2);
    QCOMPARE(*line.getPoint(1), TZVector3(1, 1, 1));
    delete cloud;
    QCOMPARE(line.getVertices(), nullptr);
    QCOMPARE(line.getPoint(1), nullptr);
}

void TestSceneGraph::octreeIsDroppedWhenPointsChange()
{
    tzPointCloud cloud;
    for (int i = 0; i < 100; ++i)
        cloud.addPoint({float(i), 0, 0});
    QCOMPARE(cloud.getOctree(), nullptr);
    QVERIFY(cloud.computeOctree());
    QVERIFY(cloud.getOctree());
    cloud.addPoint({200, 0, 0});
    QCOMPARE(cloud.getOctree(), nullptr);
    TZLib::Octree::NeighboursSet found;
    cloud.computeOctree()->getPointsInSphericalNeighbourhood({200, 0, 0}, 0.5f, found, 3);
    QCOMPARE(found.size(), std::size_t(1));
    QCOMPARE(found[0].pointIndex, 100u);
}

void TestSceneGraph::globalShiftRoundTrip()
{
    tzPointCloud cloud;
    cloud.setGlobalShift({-650000, -6860000, 0});
    cloud.setGlobalScale(1.0);
    const TZVector3 local = cloud.toLocal3d({650123.456, 6860456.789, 101.25});
    QVERIFY(std::abs(local.x - 123.456f) < 1e-3f);
    const TZVector3d back = cloud.toGlobal3d(local);
    QVERIFY(std::abs(back.x - 650123.456) < 1e-3);
    QVERIFY(std::abs(back.y - 6860456.789) < 1e-3);
}

void TestSceneGraph::sphereTessellationIsClosed()
{
    tzSphere sphere(2.f, "PointMarker", 12);
    // Every edge of a closed surface is shared by exactly two triangles.
    QMap<QPair<unsigned, unsigned>, int> edges;
    for (const auto &t : sphere.triangles()) {
        for (int k = 0; k < 3; ++k) {
            unsigned a = t[size_t(k)], b = t[size_t((k + 1) % 3)];
            edges[qMakePair(std::min(a, b), std::max(a, b))]++;
        }
    }
    // The poles are rings of coincident vertices: count edges by position instead of index.
    for (const TZVector3 &v : sphere.vertices())
        QVERIFY(std::abs(v.norm() - 2.f) < 1e-5f);
    QVERIFY(!sphere.triangles().empty());
    QVERIFY(!sphere.setDrawingPrecision(3));
    QVERIFY(sphere.setDrawingPrecision(24));
    QCOMPARE(sphere.getDrawingPrecision(), 24u);
}

void TestSceneGraph::pluginInfoFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("exists");
    QTest::addColumn<QString>("expectedLog");
    QTest::addColumn<QString>("name");
    QTest::newRow("valid") << QByteArray(
        "{\"name\": \"P\", \"core\": true, \"authors\": [{\"name\": \"A\", "
        "\"email\": \"a@x\"}]}")
                           << true << QString() << "P";
    QTest::newRow("missing file") << QByteArray() << false << "Could not load plugin resources: "
                                  << "";
    QTest::newRow("broken JSON") << QByteArray("{\"name\": ") << true
                                 << "Could not parse plugin info: "
                                 << "";
}

void TestSceneGraph::pluginInfoFile()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, exists);
    QFETCH(QString, expectedLog);
    QFETCH(QString, name);
    struct Plugin : tzDefaultPluginInterface
    {
        using tzDefaultPluginInterface::tzDefaultPluginInterface;
        TZ_PLUGIN_TYPE getType() const override { return TZ_STD_PLUGIN; }
    };
    QTemporaryDir dir;
    const QString path = dir.filePath("info.json");
    if (exists) {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(content);
    }
    QStringList errors;
    tzLog::SetHandler([&](const QString &text, int level) {
        if (level == tzLog::LOG_ERROR)
            errors << text;
    });
    Plugin plugin(path);
    tzLog::SetHandler(nullptr);
    if (expectedLog.isEmpty()) {
        QVERIFY(errors.isEmpty());
        QVERIFY(plugin.isCore());
        QCOMPARE(plugin.getAuthors().size(), 1);
        QCOMPARE(plugin.getAuthors()[0].second, QStringLiteral("a@x"));
    } else {
        QCOMPARE(errors.size(), 1);
        QVERIFY2(errors[0].startsWith(expectedLog), qPrintable(errors[0]));
        QVERIFY(!plugin.isCore());
        QVERIFY(plugin.getAuthors().isEmpty());
    }
    QCOMPARE(plugin.getName(), name);
    Plugin none {QString()}; // a null path reads nothing and logs nothing
    QVERIFY(none.getReferences().isEmpty());
}

QTEST_GUILESS_MAIN(TestSceneGraph)
#include "tst_scenegraph.moc"
