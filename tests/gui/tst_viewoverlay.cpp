// What the view writes over its picture (texts anchored by their alignment, timed messages
// stacked in their areas) painted into images, and the reading of the GL selection records.

#include "tzOverlayTexts.h"
#include "tzSelectionPicker.h"

#include <QImage>
#include <QPainter>
#include <QtTest>

namespace {

const QSize PICTURE(200, 120);

QFont testFont()
{
    QFont font;
    font.setPixelSize(14);
    return font;
}

// The bounds of what was painted over a black picture (empty when nothing was).
QRect inkBounds(const QImage &image)
{
    QRect bounds;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (qGray(image.pixel(x, y)) > 60)
                bounds |= QRect(x, y, 1, 1);
        }
    }
    return bounds;
}

QImage paint(tzOverlayTexts &overlay, qint64 *next = nullptr)
{
    QImage image(PICTURE, QImage::Format_RGB32);
    image.fill(Qt::black);
    QPainter painter(&image);
    const qint64 n = overlay.paint(painter, PICTURE, testFont());
    painter.end();
    if (next)
        *next = n;
    return image;
}

QRect textInk(int x, int y, int align)
{
    tzOverlayTexts overlay;
    overlay.addText(QStringLiteral("WHW"), x, y, align, 0.f, Qt::white, testFont());
    return inkBounds(paint(overlay));
}

} // namespace

class TestViewOverlay : public QObject
{
    Q_OBJECT

private slots:
    void textsLieWhereTheirAlignmentSays();
    void backgroundBoxOnlyWhenAsked();
    void messagesStackInTheirAreaAndExpire();
    void messagesOfAnotherTypeAreKept();
    void nearestRecordGivesItsInnermostName();
    void pickMatrixCentresThePixel();
};

void TestViewOverlay::textsLieWhereTheirAlignmentSays()
{
    // The anchor is given with y up from the bottom edge; the picture's rows run down. Without
    // a vertical alignment the text stands on the anchor's row (its baseline).
    const int ax = 100, ay = 40, row = PICTURE.height() - ay;
    const QFontMetrics metrics(testFont());
    const QRect onBaseline = textInk(ax, ay, Qt::AlignLeft);
    QVERIFY(!onBaseline.isEmpty());
    QVERIFY(onBaseline.bottom() < row && onBaseline.bottom() >= row - 2);
    QVERIFY(onBaseline.left() >= ax && onBaseline.left() <= ax + 3);

    // Vertical alignments move the baseline by the font's ascent and descent.
    const QRect top = textInk(ax, ay, Qt::AlignLeft | Qt::AlignTop);
    QCOMPARE(top.top() - onBaseline.top(), metrics.ascent());
    const QRect bottom = textInk(ax, ay, Qt::AlignLeft | Qt::AlignBottom);
    QCOMPARE(onBaseline.bottom() - bottom.bottom(), metrics.descent());
    const QRect middle = textInk(ax, ay, Qt::AlignLeft | Qt::AlignVCenter);
    QCOMPARE(middle.top() - onBaseline.top(), (metrics.ascent() - metrics.descent()) / 2);

    // Horizontal ones: the text ends at the anchor, or is centred on it.
    const QRect right = textInk(ax, ay, Qt::AlignRight);
    QVERIFY(right.right() <= ax && right.right() >= ax - 3);
    QCOMPARE(right.size(), onBaseline.size());
    const QRect centred = textInk(ax, ay, Qt::AlignHCenter);
    QVERIFY(std::abs(centred.center().x() - ax) <= 2);
}

void TestViewOverlay::backgroundBoxOnlyWhenAsked()
{
    // A grey text on a box: the box darkens a white picture around the text.
    for (const float alpha : {0.f, 0.8f}) {
        tzOverlayTexts overlay;
        overlay.addText(QStringLiteral("a"), 100, 60, Qt::AlignHCenter | Qt::AlignVCenter, alpha,
                        Qt::gray, testFont());
        QImage image(PICTURE, QImage::Format_RGB32);
        image.fill(Qt::white);
        QPainter painter(&image);
        overlay.paint(painter, PICTURE, testFont());
        painter.end();
        const int darkened = qGray(image.pixel(100, PICTURE.height() - 60 - 9));
        if (alpha == 0.f)
            QCOMPARE(darkened, 255);
        else
            QVERIFY2(darkened < 100, qPrintable(QString::number(darkened)));
    }
}

void TestViewOverlay::messagesStackInTheirAreaAndExpire()
{
    tzOverlayTexts overlay;
    qint64 next = 0;
    QVERIFY(inkBounds(paint(overlay, &next)).isEmpty());
    QCOMPARE(next, -1);

    overlay.showMessage(QStringLiteral("one"), tzOverlayTexts::UPPER_CENTER_MESSAGE, false, 5, 0);
    const QRect single = inkBounds(paint(overlay, &next));
    QVERIFY(next > 4000 && next <= 5000);
    QVERIFY(single.top() < PICTURE.height() / 3);
    QVERIFY(std::abs(single.center().x() - PICTURE.width() / 2) <= 3);

    // A second one goes under the first; the first to expire sets the next repaint.
    overlay.showMessage(QStringLiteral("two"), tzOverlayTexts::UPPER_CENTER_MESSAGE, true, 3600, 0);
    const QRect both = inkBounds(paint(overlay, &next));
    QCOMPARE(both.top(), single.top());
    QVERIFY(both.bottom() > single.bottom() + 8);
    QVERIFY(next > 4000 && next <= 5000);

    // The lower-left area fills from the bottom up.
    tzOverlayTexts lower;
    lower.showMessage(QStringLiteral("corner"), tzOverlayTexts::LOWER_LEFT_MESSAGE, false, 60, 0);
    const QRect corner = inkBounds(paint(lower));
    QVERIFY(corner.left() >= 10 && corner.left() <= 14);
    QVERIFY(corner.bottom() <= PICTURE.height() - 10 && corner.bottom() > PICTURE.height() - 16);

    // Expired ones go at the next paint, and with them the reason to paint.
    lower.showMessage(QStringLiteral("gone"), tzOverlayTexts::LOWER_LEFT_MESSAGE, false, 0, 0);
    QVERIFY(lower.messages(tzOverlayTexts::LOWER_LEFT_MESSAGE).isEmpty());
    QVERIFY(!lower.pending());
    QVERIFY(inkBounds(paint(lower, &next)).isEmpty());
    QCOMPARE(next, -1);
}

void TestViewOverlay::messagesOfAnotherTypeAreKept()
{
    tzOverlayTexts overlay;
    overlay.showMessage(QStringLiteral("plug-in"), tzOverlayTexts::UPPER_CENTER_MESSAGE, false, 60,
                        6);
    overlay.showMessage(QStringLiteral("viewer"), tzOverlayTexts::UPPER_CENTER_MESSAGE, false, 60,
                        0);
    overlay.showMessage(QStringLiteral("elsewhere"), tzOverlayTexts::SCREEN_CENTER_MESSAGE, false,
                        60, 6);
    // Replacing the plug-in's message leaves the viewer's and the other area's.
    overlay.showMessage(QStringLiteral("plug-in 2"), tzOverlayTexts::UPPER_CENTER_MESSAGE, false,
                        60, 6);
    QCOMPARE(overlay.messages(tzOverlayTexts::UPPER_CENTER_MESSAGE),
             (QStringList {"viewer", "plug-in 2"}));
    QCOMPARE(overlay.messages(tzOverlayTexts::SCREEN_CENTER_MESSAGE), QStringList {"elsewhere"});
    overlay.showMessage(QString(), tzOverlayTexts::UPPER_CENTER_MESSAGE, false, 60, 0);
    QCOMPARE(overlay.messages(tzOverlayTexts::UPPER_CENTER_MESSAGE), QStringList {"plug-in 2"});
}

void TestViewOverlay::nearestRecordGivesItsInnermostName()
{
    const unsigned far = 0xC0000000u, near = 0x40000000u;
    // Records: name count, min depth, max depth, names from the outermost in.
    const std::vector<unsigned> records {
        1, far,  far, 11, // far
        0, 0,    0, // nearest, but nameless (drawn outside any name)
        3, near, far, 20, 21, 22, // near, nested: the innermost names the object
        1, far,  far, 12,
    };
    tzSelectionPicker::Hit hit;
    QVERIFY(tzSelectionPicker::nearestHit(records.data(), 4, hit));
    QCOMPARE(hit.name, 22u);
    QVERIFY(std::abs(hit.depth - 0.25) < 1e-6);

    // At the same depth the one drawn later wins (it is drawn over the other).
    const std::vector<unsigned> tied {1, near, near, 30, 1, near, far, 31};
    QVERIFY(tzSelectionPicker::nearestHit(tied.data(), 2, hit));
    QCOMPARE(hit.name, 31u);

    // No named record, or an overflowing pass (-1 hits): nothing.
    tzSelectionPicker::Hit none;
    QVERIFY(!tzSelectionPicker::nearestHit(records.data() + 4, 1, none));
    QVERIFY(!tzSelectionPicker::nearestHit(records.data(), -1, none));
    QCOMPARE(none.name, 0u);
}

void TestViewOverlay::pickMatrixCentresThePixel()
{
    // A pixel's centre in window coordinates (y down) goes to the centre of the clip volume,
    // and a point half the square's side to its right and above to the volume's corner.
    const int w = 640, h = 480;
    const double size = 7;
    for (const QPointF pixel : {QPointF(0.5, 0.5), QPointF(320.5, 100.5), QPointF(639.5, 479.5)}) {
        const QMatrix4x4 pick = tzSelectionPicker::pickMatrix(pixel.x(), pixel.y(), w, h, size);
        const auto clip = [&](double x, double y) {
            // Window to normalised device coordinates, then through the pick matrix.
            return pick.map(QVector3D(float(2 * x / w - 1), float(1 - 2 * y / h), 0.f));
        };
        const QVector3D centre = clip(pixel.x(), pixel.y());
        QVERIFY2(std::abs(centre.x()) < 1e-4f && std::abs(centre.y()) < 1e-4f,
                 qPrintable(QStringLiteral("%1 %2").arg(centre.x()).arg(centre.y())));
        const QVector3D corner = clip(pixel.x() + size / 2, pixel.y() - size / 2);
        QVERIFY(std::abs(corner.x() - 1) < 1e-4f && std::abs(corner.y() - 1) < 1e-4f);
    }
}

QTEST_MAIN(TestViewOverlay)
#include "tst_viewoverlay.moc"
