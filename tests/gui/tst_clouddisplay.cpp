// How the view shows a cloud's attributes, on a real OpenGL context (under Xvfb): the colour
// modes, hidden classes (neither drawn nor picked), eye-dome shading and the legend.
//
// The cloud: two squares of points seen from the top, 8 x 8 units each. The west one is ground
// (class 2) at z 0, dim; the east one a roof (class 6) at z 10, bright. Over the middle of the
// west square, a canopy of high vegetation (class 5) at z 5.

#include "ViewHelpers.h"
#include "tzGLWindow.h"
#include "tzPointCloud.h"
#include "tzSphere.h"

#include <QtTest>

namespace {

constexpr int SIZE = 240;
using Mode = tzPointDisplay::ColourMode;

struct Site
{
    tzPointCloud *cloud = new tzPointCloud(QStringLiteral("site"));
    unsigned canopyStart = 0;

    Site()
    {
        std::vector<tzPointAttributes> attributes;
        std::vector<tzRgb> colours;
        const auto square = [&](float x0, float z, quint8 cls, quint16 intensity, tzRgb rgb) {
            for (int i = 0; i <= 80; ++i) {
                for (int j = 0; j <= 80; ++j) {
                    cloud->addPoint({x0 + i * 0.1f, -4.f + j * 0.1f, z});
                    attributes.push_back({intensity, cls, 0x11});
                    colours.push_back(rgb);
                }
            }
        };
        square(-9, 0, 2, 1000, {0, 0, 255});
        square(1, 10, 6, 60000, {255, 0, 0});
        canopyStart = cloud->size();
        for (int i = 0; i <= 20; ++i) {
            for (int j = 0; j <= 20; ++j) {
                cloud->addPoint({-6.f + i * 0.1f, -1.f + j * 0.1f, 5.f});
                attributes.push_back({30000, 5, 0x12});
                colours.push_back({0, 255, 0});
            }
        }
        cloud->setColors(std::move(colours));
        cloud->setAttributes(std::move(attributes),
                             tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION);
    }
};

} // namespace

class TestCloudDisplay : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void eachModeColoursThePointsByItsValues();
    void hiddenClassesAreNeitherDrawnNorPicked();
    void eyeDomeOutlinesReliefAndKeepsTheRestAsItWas();
    void legendFollowsTheModeShown();

private:
    QColor at(const QImage &image, double x, double y)
    {
        double px = 0, py = 0, depth = 0;
        m_view->camera().project({x, y, 0}, px, py, depth);
        return image.pixelColor(int(px), int(py));
    }
    QImage frameIn(Mode mode)
    {
        m_site->cloud->setColourMode(mode);
        return frame(*m_view);
    }

    std::unique_ptr<tzHObject> m_root;
    std::unique_ptr<tzGLWindow> m_view;
    std::unique_ptr<Site> m_site;
};

void TestCloudDisplay::init()
{
    m_root = std::make_unique<tzHObject>(QStringLiteral("root"));
    m_site = std::make_unique<Site>();
    m_root->addChild(m_site->cloud);
    m_view = std::make_unique<tzGLWindow>();
    m_view->resize(2 * SIZE, SIZE); // room for the legend at the right of the site
    m_view->setSceneDB(m_root.get());
    m_view->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_view.get()));
    lookDown(*m_view, 0, 0);
    m_view->setPointSize(2); // the squares' points touch: no background between them
    m_view->setShading(tzGLWindow::Shading::None);
}

void TestCloudDisplay::cleanup()
{
    m_view.reset();
    m_root.reset();
}

void TestCloudDisplay::eachModeColoursThePointsByItsValues()
{
    const auto near = [](QColor a, QColor b) {
        return std::abs(a.red() - b.red()) <= 12 && std::abs(a.green() - b.green()) <= 12
            && std::abs(a.blue() - b.blue()) <= 12;
    };
    QImage image = frameIn(Mode::Rgb);
    QVERIFY(near(at(image, -8, 3), Qt::blue));
    QVERIFY(near(at(image, 5, 0), Qt::red));
    QVERIFY(near(at(image, -5, 0), Qt::green));

    image = frameIn(Mode::Classification);
    QVERIFY(near(at(image, -8, 3), tzPointDisplay::classColour(2)));
    QVERIFY(near(at(image, 5, 0), tzPointDisplay::classColour(6)));
    QVERIFY(near(at(image, -5, 0), tzPointDisplay::classColour(5)));

    // Elevation over a range set by hand: the ground at the ramp's foot, the roof at its top,
    // the canopy half way; the ramp's ends differ in lightness.
    m_site->cloud->setElevationRange(0, 10);
    image = frameIn(Mode::Elevation);
    QVERIFY(near(at(image, -8, 3), tzPointDisplay::ramp(0)));
    QVERIFY(near(at(image, 5, 0), tzPointDisplay::ramp(1)));
    QVERIFY(near(at(image, -5, 0), tzPointDisplay::ramp(0.5)));
    QVERIFY(tzPointDisplay::ramp(1).lightness() > tzPointDisplay::ramp(0).lightness() + 100);

    // Intensity: grey, stretched between the 2nd and 98th percentiles (the ground's and the
    // roof's values here): black, white and a grey between.
    image = frameIn(Mode::Intensity);
    QVERIFY(near(at(image, -8, 3), Qt::black));
    QVERIFY(near(at(image, 5, 0), Qt::white));
    const QColor grey = at(image, -5, 0);
    QVERIFY(grey.red() == grey.blue() && grey.red() > 90 && grey.red() < 160);

    // A mode the cloud cannot show is refused and changes nothing.
    tzPointCloud bare;
    bare.addPoint({0, 0, 0});
    QVERIFY(!bare.setColourMode(Mode::Intensity) && !bare.setColourMode(Mode::Rgb));
    QVERIFY(bare.plainColour());
    QVERIFY(bare.setColourMode(Mode::Elevation));
}

void TestCloudDisplay::hiddenClassesAreNeitherDrawnNorPicked()
{
    frameIn(Mode::Classification);
    tzGenericPointCloud *picked = nullptr;
    unsigned index = 0;
    TZVector3 P;
    double px = 0, py = 0, depth = 0;
    m_view->camera().project({-5, 0, 5}, px, py, depth);
    QVERIFY(m_view->pickPoint(int(px), int(py), picked, index, P));
    QVERIFY(index >= m_site->canopyStart);
    QCOMPARE(P.z, 5.f);

    m_site->cloud->showClass(5, false);
    QVERIFY(m_site->cloud->hidesPoints());
    QImage image = frame(*m_view);
    QVERIFY(isColour(image, int(px), int(py), tzPointDisplay::classColour(2), 12));
    QVERIFY(m_view->pickPoint(int(px), int(py), picked, index, P));
    QVERIFY(index < m_site->canopyStart);
    QCOMPARE(P.z, 0.f);

    // Hidden in every mode: the ground by elevation under the hidden canopy, in its colours too.
    m_site->cloud->setElevationRange(0, 10);
    image = frameIn(Mode::Elevation);
    QVERIFY(m_site->cloud->hidesPoints());
    QVERIFY(isColour(image, int(px), int(py), tzPointDisplay::ramp(0), 12));
    QVERIFY(m_view->pickPoint(int(px), int(py), picked, index, P));
    QVERIFY(index < m_site->canopyStart);
    image = frameIn(Mode::Rgb);
    QVERIFY(isColour(image, int(px), int(py), Qt::blue, 12));
    // Shown again: the canopy is back, and picked.
    m_site->cloud->showClass(5, true);
    image = frame(*m_view);
    QVERIFY(isColour(image, int(px), int(py), Qt::green, 12));
    QVERIFY(m_view->pickPoint(int(px), int(py), picked, index, P));
    QVERIFY(index >= m_site->canopyStart);
}

void TestCloudDisplay::eyeDomeOutlinesReliefAndKeepsTheRestAsItWas()
{
    m_view->setPerspectiveState(true, true);
    lookDown(*m_view, 0, 0, true);
    const QImage plain = frameIn(Mode::Classification);
    tzGenericPointCloud *picked = nullptr;
    unsigned plainIndex = 0, shadedIndex = 0;
    TZVector3 P;
    QVERIFY(m_view->pickPoint(SIZE + 30, SIZE / 2, picked, plainIndex, P));

    m_view->setShading(tzGLWindow::Shading::EyeDome);
    QVERIFY(m_view->eyeDomeShown());
    const QImage shaded = frame(*m_view);
    // Flat ground away from any step keeps its colour; the ground at the foot of the canopy is
    // darkened by the canopy standing in front of it.
    QCOMPARE(at(shaded, -8.5, 3.5), at(plain, -8.5, 3.5));
    double px = 0, py = 0, depth = 0;
    m_view->camera().project({-6, 0, 5}, px, py, depth); // the canopy's west edge
    const QColor foot = shaded.pixelColor(int(px) - 2, int(py));
    const QColor ground = plain.pixelColor(int(px) - 2, int(py));
    QVERIFY(isColour(plain, int(px) - 2, int(py), tzPointDisplay::classColour(2), 12));
    QVERIFY2(foot.lightness() < ground.lightness() - 20,
             qPrintable(foot.name() + QLatin1Char(' ') + ground.name()));
    // Picking reads the points, not the pixels.
    QVERIFY(m_view->pickPoint(SIZE + 30, SIZE / 2, picked, shadedIndex, P));
    QCOMPARE(shadedIndex, plainIndex);
    // Other objects still draw over the shaded clouds, hidden where the clouds are nearer.
    auto *sphere = new tzSphere(0.5f, QStringLiteral("ball"), 16);
    sphere->setColor(Qt::yellow);
    sphere->setTransformation({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 5, 0, 12, 1});
    m_root->addChild(sphere);
    const quint64 layers = m_view->cloudLayerDraws();
    const QImage withSphere = frame(*m_view);
    m_view->camera().project({5, 0, 12}, px, py, depth);
    QVERIFY(isColour(withSphere, int(px), int(py), Qt::yellow, 60));
    QCOMPARE(m_view->cloudLayerDraws(), layers); // the shaded layer was kept

    // Automatic shading: on while a cloud is shown without its own colours.
    m_view->setShading(tzGLWindow::Shading::Automatic);
    QVERIFY(m_view->eyeDomeShown());
    m_site->cloud->setColourMode(Mode::Rgb);
    QVERIFY(!m_view->eyeDomeShown());
}

void TestCloudDisplay::legendFollowsTheModeShown()
{
    lookDown(*m_view, -30, 0); // the cloud out of the view: the panel alone changes pixels
    m_site->cloud->setColourMode(Mode::Rgb);
    QVERIFY(!m_view->legendCloud());
    const QImage none = frame(*m_view);
    m_site->cloud->setColourMode(Mode::Elevation);
    QCOMPARE(m_view->legendCloud(), m_site->cloud);
    const QImage ramp = frame(*m_view);
    // The panel at the right edge, over the background.
    int rampPixels = 0;
    for (int y = 0; y < SIZE; ++y) {
        for (int x = 2 * SIZE - 60; x < 2 * SIZE; ++x)
            rampPixels += ramp.pixelColor(x, y) != none.pixelColor(x, y) ? 1 : 0;
    }
    QVERIFY2(rampPixels > 1000, qPrintable(QString::number(rampPixels)));
    for (int y = 0; y < SIZE; ++y) {
        for (int x = 0; x < SIZE; ++x)
            QCOMPARE(ramp.pixelColor(x, y), none.pixelColor(x, y));
    }
    // The selected cloud's legend, when several are shown.
    auto *other = new tzPointCloud(QStringLiteral("other"));
    other->addPoint({0, 0, 0});
    other->setColourMode(Mode::Elevation);
    m_root->addChild(other);
    QCOMPARE(m_view->legendCloud(), m_site->cloud);
    other->setSelected(true);
    QCOMPARE(m_view->legendCloud(), other);
}

QTEST_MAIN(TestCloudDisplay)
#include "tst_clouddisplay.moc"
