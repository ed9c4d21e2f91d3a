// A COPC file shown streamed: the queries of its octree (picks, the lowest point below a pick)
// answer the same points as the same file read whole; points keep their index in the file as
// nodes come and go; the view gets the nodes its camera needs, coarse where the points are
// small on the screen; the nodes held stay within the memory budget.

#include "StreamedViews.h"
#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzLog.h"
#include "tzSceneFile.h"
#include "tzStreamedCloud.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <cmath>
#include <memory>
#include <random>
#include <set>
#include <tuple>

namespace {

using streamed::settle;
using streamed::survey;
using streamed::topView;

// A source whose nodes of one depth cannot be read (a damaged file, a disk that fails).
class FailingSource : public tzCloudSource
{
public:
    FailingSource(std::unique_ptr<tzCloudSource> source, int badDepth)
        : m_source(std::move(source))
        , m_bad(badDepth)
    {
    }
    mutable std::atomic<int> failures {0};

    QString path() const override { return m_source->path(); }
    std::uint64_t pointCount() const override { return m_source->pointCount(); }
    void cube(double (&c)[3], double &h, double &s) const override { m_source->cube(c, h, s); }
    void pointBounds(double (&a)[3], double (&b)[3]) const override { m_source->pointBounds(a, b); }
    bool hasColours() const override { return m_source->hasColours(); }
    quint8 attributeKinds() const override { return m_source->attributeKinds(); }
    Node rootPage() const override { return m_source->rootPage(); }
    bool readPage(const Node &page, std::vector<Node> &entries, QString &error) const override
    {
        return m_source->readPage(page, entries, error);
    }
    bool readNode(const Node &node, const TZVector3d &shift, double scale, Points &out,
                  QString &error) const override
    {
        if (node.depth == m_bad) {
            ++failures;
            error = QStringLiteral("node %1 cannot be read").arg(node.depth);
            return false;
        }
        return m_source->readNode(node, shift, scale, out, error);
    }

private:
    std::unique_ptr<tzCloudSource> m_source;
    int m_bad;
};

} // namespace

class TestStreamed : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_copc;
    std::unique_ptr<tzPointCloud> m_whole; // the COPC file read whole

    std::unique_ptr<tzStreamedCloud> open(QString &error) const
    {
        return streamed::openStreamed(m_copc, m_whole->getGlobalShift(), error);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QString error;
        // A deep tree, its lower levels in pages of their own.
        m_copc = streamed::indexSurvey(m_dir.path(), 300000, 1500, error);
        QVERIFY2(!m_copc.isEmpty(), qPrintable(error));
        tzCloudFile::LoadOptions load;
        load.confirmShift = [](TZVector3d &shift, bool) {
            shift = {-651000, -6861000, 0};
            return true;
        };
        m_whole.reset(tzCloudFile::load(m_copc, error, load));
        QVERIFY2(m_whole, qPrintable(error));
        QVERIFY(m_whole->computeOctree());
        QCOMPARE(m_whole->size(), 300000u);
    }

    // Spheres around picks and cylinders down from them (the lowest point below a pick), in
    // places never read before and again once read: the same points, with the same indices, as
    // the file read whole.
    void queriesAnswerAsTheWholeFile()
    {
        QString error;
        std::unique_ptr<tzStreamedCloud> cloud = open(error);
        QVERIFY2(cloud, qPrintable(error));
        QCOMPARE(cloud->size(), m_whole->size());
        const size_t knownAtOpen = cloud->nodesKnown();
        TZLib::Octree *streamed = cloud->computeOctree();
        const TZLib::Octree *whole = m_whole->getOctree();
        QVERIFY(streamed);
        const auto sorted = [](const TZLib::Octree::NeighboursSet &found) {
            std::vector<std::tuple<unsigned, float, float, float>> out;
            for (const auto &p : found)
                out.emplace_back(p.pointIndex, p.point->x, p.point->y, p.point->z);
            std::sort(out.begin(), out.end());
            return out;
        };
        std::mt19937 random(3);
        std::uniform_real_distribution<float> u(0, 1);
        int nonEmpty = 0;
        for (int q = 0; q < 60; ++q) {
            // Around a point of the cloud, or at the stacked spot (many equal points).
            TZVector3 centre = q % 10 == 0 ? TZVector3(123.45f, 67.89f, 104.f)
                                           : m_whole->point(unsigned(random() % 300000));
            const float radius = q % 3 == 0 ? 2.5f : 0.3f * u(random) + 0.01f;
            TZLib::Octree::NeighboursSet a, b;
            streamed->getPointsInSphericalNeighbourhood(centre, radius, a, 0);
            whole->getPointsInSphericalNeighbourhood(
                centre, radius, b,
                whole->findBestLevelForAGivenNeighbourhoodSizeExtraction(radius));
            QCOMPARE(sorted(a), sorted(b));
            nonEmpty += !a.empty();

            TZLib::Octree::CylindricalNeighbourhood down, same;
            down.center = centre + TZVector3(0, 0, 1);
            down.dir = TZVector3(0, 0, -1);
            down.radius = radius;
            down.maxHalfLength = 50;
            down.onlyPositiveDir = true;
            same = down;
            streamed->getPointsInCylindricalNeighbourhood(down);
            whole->getPointsInCylindricalNeighbourhood(same);
            QCOMPARE(sorted(down.neighbours), sorted(same.neighbours));
        }
        QVERIFY(nonEmpty > 50);
        // Deep pages were read only when the queries reached them.
        QVERIFY(cloud->nodesKnown() > knownAtOpen);

        // Points and colours by index, from nodes held or not.
        for (int k = 0; k < 2000; ++k) {
            const unsigned i = unsigned(random() % 300000);
            const TZVector3 *p = cloud->getPoint(i);
            QVERIFY(p);
            QCOMPARE(*p, m_whole->point(i));
            QCOMPARE(cloud->getPointColor(i), m_whole->getPointColor(i));
        }
        QVERIFY(!cloud->getPoint(300000));
    }

    // The survey cut into four tiles across x (two indexed, one LAS, one LAZ), opened as one
    // from their folder or a list: the same points under picks that straddle the tiles' edges,
    // each point at its index, and the whole survey drawn when the view asks for it all.
    void tilesAreOneSurvey()
    {
        const QString folder = m_dir.filePath(QStringLiteral("tiles"));
        QVERIFY(QDir().mkpath(folder));
        QString error;
        const unsigned total = m_whole->size();
        for (int k = 0; k < 4; ++k) {
            tzPointCloud tile(QStringLiteral("tile"));
            std::vector<TZVector3> points;
            std::vector<tzRgb> colours;
            std::vector<tzPointAttributes> attributes;
            for (unsigned i = 0; i < total; ++i) {
                if (int(std::floor(m_whole->point(i).x / 75)) != k)
                    continue;
                points.push_back(m_whole->point(i));
                colours.push_back(m_whole->getPointColor(i));
                attributes.push_back(m_whole->getPointAttributes(i));
            }
            tile.setPoints(std::move(points));
            tile.setColors(std::move(colours));
            tile.setAttributes(std::move(attributes), m_whole->attributeKinds());
            tile.setGlobalShift(m_whole->getGlobalShift());
            const QString name = QStringLiteral("t%1").arg(k);
            if (k < 2) {
                const QString las = m_dir.filePath(name + QStringLiteral(".las"));
                QVERIFY2(tzCloudFile::save(tile, las, error), qPrintable(error));
                QVERIFY2(tzCopc::index({las}, QDir(folder).filePath(name + ".copc.laz"), error),
                         qPrintable(error));
            } else {
                const QString path = QDir(folder).filePath(name + (k == 2 ? ".las" : ".laz"));
                QVERIFY2(tzCloudFile::save(tile, path, error), qPrintable(error));
            }
        }
        const QString list = m_dir.filePath(QStringLiteral("tiles.txt"));
        {
            QFile file(list);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("# the survey's tiles\ntiles/t0.copc.laz\ntiles/t1.copc.laz\n\n"
                       "tiles/t2.las\ntiles/t3.laz\n");
        }
        QVERIFY(tzCopc::isTileSet(folder) && tzCopc::isTileSet(list));
        QVERIFY(!tzCopc::isTileSet(m_copc));
        const auto openSet = [this](const QString &path, QString &problem) {
            return streamed::openStreamed(path, m_whole->getGlobalShift(), problem);
        };
        std::unique_ptr<tzStreamedCloud> fromList = openSet(list, error);
        QVERIFY2(fromList, qPrintable(error));
        QCOMPARE(fromList->size(), total);
        std::unique_ptr<tzStreamedCloud> set = openSet(folder, error);
        QVERIFY2(set, qPrintable(error));
        QCOMPARE(set->size(), total);

        const auto coordinates = [](const TZLib::Octree::NeighboursSet &found) {
            std::vector<std::tuple<float, float, float>> out;
            for (const auto &p : found)
                out.emplace_back(p.point->x, p.point->y, p.point->z);
            std::sort(out.begin(), out.end());
            return out;
        };
        std::mt19937 random(13);
        std::uniform_real_distribution<float> u(0, 1);
        int straddling = 0;
        for (int q = 0; q < 60; ++q) {
            // Most of them on an edge between two tiles.
            TZVector3 centre = m_whole->point(unsigned(random() % total));
            if (q % 4 != 0)
                centre.x = 75.f * float(1 + q % 3) + 0.4f * (u(random) - 0.5f);
            TZLib::Octree::CylindricalNeighbourhood down, same;
            down.center = centre + TZVector3(0, 0, 20);
            down.dir = TZVector3(0, 0, -1);
            down.radius = 1.f;
            down.maxHalfLength = 50;
            down.onlyPositiveDir = true;
            same = down;
            set->computeOctree()->getPointsInCylindricalNeighbourhood(down);
            m_whole->getOctree()->getPointsInCylindricalNeighbourhood(same);
            QCOMPARE(coordinates(down.neighbours), coordinates(same.neighbours));
            bool left = false, right = false; // of the tiles' edge
            const float edge = 75.f * float(1 + q % 3);
            for (const auto &p : down.neighbours) {
                QCOMPARE(*set->getPoint(p.pointIndex), *p.point);
                left |= p.point->x < edge;
                right |= p.point->x >= edge;
            }
            straddling += q % 4 != 0 && left && right;
            TZLib::Octree::NeighboursSet a, b;
            set->computeOctree()->getPointsInSphericalNeighbourhood(centre, 1.f, a, 0);
            m_whole->getOctree()->getPointsInSphericalNeighbourhood(centre, 1.f, b, 0);
            QCOMPARE(coordinates(a), coordinates(b));
        }
        QVERIFY(straddling > 20);
        // A tile that is not a cloud is left out with a word; an empty folder is refused.
        {
            QFile bad(QDir(folder).filePath(QStringLiteral("t9.las")));
            QVERIFY(bad.open(QIODevice::WriteOnly));
            bad.write("not a cloud at all");
        }
        QStringList warnings;
        tzLog::SetHandler([&warnings](const QString &text, int) { warnings << text; });
        std::unique_ptr<tzStreamedCloud> withBad = openSet(folder, error);
        tzLog::SetHandler({});
        QVERIFY2(withBad, qPrintable(error));
        QCOMPARE(withBad->size(), total);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings[0].contains(QLatin1String("t9.las")), qPrintable(warnings[0]));
        QFile::remove(QDir(folder).filePath(QStringLiteral("t9.las")));
        const QString empty = m_dir.filePath(QStringLiteral("empty"));
        QVERIFY(QDir().mkpath(empty));
        QVERIFY(!openSet(empty, error));
        QVERIFY2(error.contains(QLatin1String("no LAS, LAZ or COPC file")), qPrintable(error));
        std::uint64_t shown = 0;
        for (const auto &p : settle(*set, topView(-10, 310, -10, 210, 100000, 1 << 30)))
            shown += p.count;
        QCOMPARE(shown, std::uint64_t(total));
    }

    // The view gets the top of the tree for a survey small on the screen, the deep nodes of the
    // corner it is zoomed on, nothing outside it, and never more than its point budget.
    void viewsGetTheNodesTheyNeed()
    {
        QString error;
        std::unique_ptr<tzStreamedCloud> cloud = open(error);
        QVERIFY2(cloud, qPrintable(error));
        const auto count = [](const std::vector<tzStreamedCloud::Piece> &pieces) {
            std::uint64_t n = 0;
            for (const auto &p : pieces)
                n += p.count;
            return n;
        };
        // The whole survey in 40 pixels: the root alone (held since the opening).
        bool complete = false;
        const auto tiny = cloud->selectNodes(topView(-10, 310, -10, 210, 40), &complete);
        QVERIFY(complete);
        QCOMPARE(tiny.size(), size_t(1));

        // The whole survey on a screen of a million pixels: every point.
        QCOMPARE(count(settle(*cloud, topView(-10, 310, -10, 210, 1000000))),
                 std::uint64_t(300000));

        // The dense patch up close: every point in view, and little of the rest.
        const auto close = settle(*cloud, topView(40, 50, 30, 40, 2000));
        std::set<std::tuple<float, float, float>> drawn;
        for (const auto &piece : close) {
            for (unsigned k = 0; k < piece.count; ++k)
                drawn.emplace(piece.points[k].x, piece.points[k].y, piece.points[k].z);
        }
        size_t inView = 0;
        for (unsigned i = 0; i < m_whole->size(); ++i) {
            const TZVector3 &p = m_whole->point(i);
            if (p.x >= 40 && p.x <= 50 && p.y >= 30 && p.y <= 40) {
                ++inView;
                QVERIFY(drawn.count({p.x, p.y, p.z}));
            }
        }
        QVERIFY(inView > 70000);
        QVERIFY2(count(close) < inView * 2, qPrintable(QString::number(count(close))));

        // A budget smaller than the view needs: kept, and the view knows it is not complete.
        cloud->selectNodes(topView(-10, 310, -10, 210, 4000, 50000), &complete);
        QVERIFY(!complete);
        QVERIFY(count(cloud->selectNodes(topView(-10, 310, -10, 210, 4000, 50000))) <= 50000);
    }

    // A small budget: the nodes of other places go, the current view's stay, and a pick in a
    // place let go reads it again with the same points.
    void memoryStaysWithinTheBudget()
    {
        QString error;
        std::unique_ptr<tzStreamedCloud> cloud = open(error);
        QVERIFY2(cloud, qPrintable(error));
        // The clouds open together share the default budget.
        std::unique_ptr<tzStreamedCloud> other = open(error);
        QCOMPARE(cloud->memoryBudget(), tzStreamedCloud::defaultMemoryBudget() / 2);
        other.reset();
        QCOMPARE(cloud->memoryBudget(), tzStreamedCloud::defaultMemoryBudget());
        const std::uint64_t budget = 1 << 20;
        cloud->setMemoryBudget(budget);
        std::uint64_t viewBytes = 0;
        for (int k = 0; k < 6; ++k) {
            const double x = 50 * k;
            const auto pieces = settle(*cloud, topView(x, x + 50, 0, 200, 3000));
            QVERIFY(!pieces.empty());
            viewBytes = 0;
            for (const auto &p : pieces)
                viewBytes
                    += p.count * (sizeof(TZVector3) + sizeof(tzRgb) + sizeof(tzPointAttributes));
            QVERIFY2(
                cloud->memoryHeld() <= std::max(budget, viewBytes + viewBytes / 2 + 65536),
                qPrintable(
                    QStringLiteral("%1 held, %2 in view").arg(cloud->memoryHeld()).arg(viewBytes)));
        }
        TZLib::Octree::NeighboursSet near;
        const TZVector3 at = m_whole->point(17);
        cloud->computeOctree()->getPointsInSphericalNeighbourhood(at, 0.5f, near, 0);
        bool found = false;
        for (const auto &p : near)
            found |= p.pointIndex == 17 && *p.point == at;
        QVERIFY(found);
    }

    // A scene keeps the file's path and how the cloud is shown, not its points; a scene whose
    // file went away still loads, the cloud empty.
    void scenesReferToTheFile()
    {
        QString error;
        tzHObject root(QStringLiteral("root"));
        std::unique_ptr<tzStreamedCloud> cloud = open(error);
        QVERIFY2(cloud, qPrintable(error));
        QVERIFY(cloud->setColourMode(tzPointDisplay::ColourMode::Classification));
        cloud->showClass(5, false);
        root.addChild(cloud.release());
        const QString scene = m_dir.filePath(QStringLiteral("scene.tzs"));
        QVERIFY2(tzSceneFile::save(&root, scene, error), qPrintable(error));
        QVERIFY(QFileInfo(scene).size() < 100000);

        std::unique_ptr<tzHObject> loaded(tzSceneFile::load(scene, error));
        QVERIFY2(loaded, qPrintable(error));
        QCOMPARE(loaded->getChildrenNumber(), 1u);
        auto *again = dynamic_cast<tzStreamedCloud *>(loaded->getChild(0));
        QVERIFY(again);
        QVERIFY(again->isA(TZ_TYPES::POINT_CLOUD));
        QCOMPARE(again->size(), 300000u);
        QCOMPARE(again->path(), m_copc);
        QCOMPARE(again->colourMode(), tzPointDisplay::ColourMode::Classification);
        QVERIFY(!again->isClassShown(5));
        QCOMPARE(*again->getPoint(1234), m_whole->point(1234));
        QCOMPARE(again->getGlobalShift(), m_whole->getGlobalShift());

        const QString moved = m_copc + QStringLiteral(".away");
        QVERIFY(QFile::rename(m_copc, moved));
        std::unique_ptr<tzHObject> without(tzSceneFile::load(scene, error));
        QVERIFY(QFile::rename(moved, m_copc));
        QVERIFY2(without, qPrintable(error));
        auto *empty = dynamic_cast<tzStreamedCloud *>(without->getChild(0));
        QVERIFY(empty);
        QCOMPARE(empty->size(), 0u);
        QCOMPARE(empty->path(), m_copc);
        QVERIFY(!empty->getPoint(0));
        QVERIFY(empty->selectNodes(topView(0, 1, 0, 1, 10)).empty());
    }

    // A file without colours, whose intensities and classes were left zero: none of them is
    // offered to be shown.
    void attributesLeftZeroAreNotKept()
    {
        tzPointCloud plain(QStringLiteral("plain"));
        std::vector<TZVector3> points;
        for (int i = 0; i < 5000; ++i)
            points.emplace_back(float(i % 70), float(i / 70), float(i % 3));
        plain.setPoints(std::move(points));
        const QString las = m_dir.filePath(QStringLiteral("plain.las"));
        const QString copc = m_dir.filePath(QStringLiteral("plain.copc.laz"));
        QString error;
        QVERIFY2(tzCloudFile::save(plain, las, error), qPrintable(error));
        QVERIFY2(tzCopc::index({las}, copc, error), qPrintable(error));
        tzStreamedCloud cloud(tzCopc::openSource(copc, error));
        QVERIFY2(cloud.open(error), qPrintable(error));
        QVERIFY(!cloud.hasColors());
        QVERIFY(!cloud.hasAttribute(tzPointDisplay::INTENSITY));
        QVERIFY(!cloud.hasAttribute(tzPointDisplay::CLASSIFICATION));
        QVERIFY(!cloud.canShow(tzPointDisplay::ColourMode::Classification));
        QVERIFY(cloud.canShow(tzPointDisplay::ColourMode::Elevation));
    }

    // Saved as LAS or LAZ: every point of the file, record for record. As PLY (the points held
    // whole to be written): refused when they are more than the budget holds.
    void savedWithEveryPoint()
    {
        QString error;
        std::unique_ptr<tzStreamedCloud> cloud = open(error);
        QVERIFY2(cloud, qPrintable(error));
        const QString laz = m_dir.filePath(QStringLiteral("copy.laz"));
        QVERIFY2(tzCloudFile::save(*cloud, laz, error), qPrintable(error));
        std::unique_ptr<tzPointCloud> back(tzCloudFile::load(laz, error));
        QVERIFY2(back, qPrintable(error));
        QCOMPARE(back->size(), 300000u);
        QVERIFY(!tzCloudFile::save(*cloud, m_copc, error));
        QVERIFY(error.contains(QStringLiteral("cannot be written over")));

        const std::uint64_t budget = tzStreamedCloud::defaultMemoryBudget();
        tzStreamedCloud::setDefaultMemoryBudget(std::uint64_t(4) << 20);
        const QString ply = m_dir.filePath(QStringLiteral("copy.ply"));
        const bool saved = tzCloudFile::save(*cloud, ply, error);
        tzStreamedCloud::setDefaultMemoryBudget(budget);
        QVERIFY(!saved);
        QVERIFY2(error.contains(QStringLiteral("LAS and LAZ are written point by point")),
                 qPrintable(error));
        QVERIFY(!QFileInfo::exists(ply));
    }

    void failures()
    {
        QString error;
        QVERIFY(!tzCopc::openSource(m_dir.filePath(QStringLiteral("missing.copc.laz")), error));
        QVERIFY(error.contains(QStringLiteral("missing.copc.laz")));
        QVERIFY(!tzCopc::isCopc(m_dir.filePath(QStringLiteral("survey.las"))));
        QVERIFY(tzCopc::isCopc(m_copc));

        // Nodes that cannot be read: said once, asked for once, the rest shown and picked.
        auto failing = std::make_unique<FailingSource>(tzCopc::openSource(m_copc, error), 2);
        FailingSource *source = failing.get();
        tzStreamedCloud cloud(std::move(failing));
        cloud.setGlobalShift(m_whole->getGlobalShift());
        QVERIFY2(cloud.open(error), qPrintable(error));
        const auto pieces = settle(cloud, topView(-10, 310, -10, 210, 1000000));
        const int failures = source->failures;
        QVERIFY(failures > 0);
        std::uint64_t shown = 0;
        for (const auto &p : pieces)
            shown += p.count;
        QVERIFY(shown > 0 && shown < 300000);
        settle(cloud, topView(-10, 310, -10, 210, 1000000));
        TZLib::Octree::NeighboursSet found;
        cloud.computeOctree()->getPointsInSphericalNeighbourhood(m_whole->point(5), 500, found, 0);
        QCOMPARE(source->failures.load(), failures);
        QVERIFY(found.size() == shown);
    }
};

QTEST_GUILESS_MAIN(TestStreamed)
#include "tst_streamed.moc"
