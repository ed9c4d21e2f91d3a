#include "tzLegend.h"

#include "tzPointCloud.h"

#include <QFontMetrics>
#include <QLinearGradient>
#include <QLocale>
#include <QPainter>
#include <QStringList>

using tzPointDisplay::ColourMode;

namespace tzLegend {

namespace {

constexpr int MARGIN = 12;
constexpr int PADDING = 8;
constexpr int BAR_WIDTH = 16;
constexpr int BAR_HEIGHT = 180;
constexpr int MAX_CLASS_ROWS = 24;

bool explained(const tzPointCloud *cloud)
{
    return cloud && !cloud->plainColour() && cloud->colourMode() != ColourMode::Rgb;
}

//! A panel at the right of the area, vertically centred, its content drawn by paint(origin).
template<typename Paint>
void panel(QPainter &painter, const QRect &area, QSize content, const Paint &paint)
{
    const QSize size = content + QSize(2 * PADDING, 2 * PADDING);
    const QRect box(area.right() - MARGIN - size.width(),
                    area.top() + (area.height() - size.height()) / 2, size.width(), size.height());
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 150));
    painter.drawRoundedRect(box, 4, 4);
    paint(box.topLeft() + QPoint(PADDING, PADDING));
}

//! "Hidden: High vegetation, Building" for the classes a cloud hides (empty: none).
QString hiddenClasses(const tzPointCloud &cloud)
{
    if (!cloud.hidesPoints())
        return {};
    QStringList names;
    const auto &counts = cloud.classCounts();
    for (int c = 0; c < 256; ++c) {
        if (counts[size_t(c)] > 0 && !cloud.isClassShown(c))
            names << tzPointDisplay::className(c);
    }
    return names.isEmpty() ? QString()
                           : QObject::tr("Hidden: %1").arg(names.join(QStringLiteral(", ")));
}

void drawRamp(QPainter &painter, const QRect &area, const QString &title, double low, double high,
              int decimals, bool grey, const QString &note)
{
    const QFontMetrics metrics(painter.font());
    const QLocale locale;
    const QString labels[3]
        = {locale.toString(high, 'f', decimals), locale.toString((low + high) / 2, 'f', decimals),
           locale.toString(low, 'f', decimals)};
    int labelWidth = 0;
    for (const QString &label : labels)
        labelWidth = std::max(labelWidth, metrics.horizontalAdvance(label));
    const int width = std::max({metrics.horizontalAdvance(title), BAR_WIDTH + 6 + labelWidth,
                                metrics.horizontalAdvance(note)});
    const int height = metrics.height() + 4 + BAR_HEIGHT + metrics.height() / 2
        + (note.isEmpty() ? 0 : metrics.height() + 4);
    panel(painter, area, QSize(width, height), [&](const QPoint &at) {
        painter.setPen(Qt::white);
        painter.drawText(at.x(), at.y() + metrics.ascent(), title);
        const QRect bar(at.x(), at.y() + metrics.height() + 4 + metrics.height() / 4, BAR_WIDTH,
                        BAR_HEIGHT);
        QLinearGradient ramp(bar.bottomLeft(), bar.topLeft());
        for (int i = 0; i <= 8; ++i) {
            const double t = i / 8.0;
            ramp.setColorAt(t, grey ? QColor::fromRgbF(t, t, t) : tzPointDisplay::ramp(t));
        }
        painter.fillRect(bar, ramp);
        painter.setPen(QColor(200, 200, 200));
        painter.setBrush(Qt::NoBrush);
        painter.drawRect(bar.adjusted(0, 0, -1, -1));
        painter.setPen(Qt::white);
        for (int i = 0; i < 3; ++i) {
            const int y = bar.top() + i * (bar.height() - 1) / 2;
            painter.drawText(bar.right() + 6, y + (metrics.ascent() - metrics.descent()) / 2,
                             labels[i]);
        }
        if (!note.isEmpty()) {
            painter.setPen(QColor(190, 190, 190));
            painter.drawText(at.x(), bar.bottom() + metrics.height() / 2 + 4 + metrics.ascent(),
                             note);
        }
    });
}

void drawClasses(QPainter &painter, const QRect &area, const tzPointCloud &cloud)
{
    const QFontMetrics metrics(painter.font());
    const auto &counts = cloud.classCounts();
    std::vector<int> classes;
    for (int c = 0; c < 256 && int(classes.size()) < MAX_CLASS_ROWS; ++c) {
        if (counts[size_t(c)] > 0)
            classes.push_back(c);
    }
    const QString title = QObject::tr("Classification");
    const QString hidden = QObject::tr(" (hidden)");
    const int row = std::max(metrics.height(), 14);
    int width = metrics.horizontalAdvance(title);
    for (int c : classes) {
        width = std::max(width,
                         18 + metrics.horizontalAdvance(tzPointDisplay::className(c))
                             + (cloud.isClassShown(c) ? 0 : metrics.horizontalAdvance(hidden)));
    }
    const int height = metrics.height() + 4 + int(classes.size()) * row;
    panel(painter, area, QSize(width, height), [&](const QPoint &at) {
        painter.setPen(Qt::white);
        painter.drawText(at.x(), at.y() + metrics.ascent(), title);
        int y = at.y() + metrics.height() + 4;
        for (int c : classes) {
            const bool shown = cloud.isClassShown(c);
            const QRect swatch(at.x(), y + (row - 12) / 2, 12, 12);
            painter.setPen(QColor(200, 200, 200));
            painter.setBrush(shown ? QBrush(tzPointDisplay::classColour(c)) : QBrush(Qt::NoBrush));
            painter.drawRect(swatch);
            painter.setPen(shown ? QColor(Qt::white) : QColor(150, 150, 150));
            painter.drawText(at.x() + 18, y + (row + metrics.ascent() - metrics.descent()) / 2,
                             tzPointDisplay::className(c) + (shown ? QString() : hidden));
            y += row;
        }
    });
}

} // namespace

const tzPointCloud *cloudToExplain(const std::vector<const tzPointCloud *> &clouds)
{
    for (const tzPointCloud *cloud : clouds) {
        if (explained(cloud) && cloud->isSelected())
            return cloud;
    }
    for (const tzPointCloud *cloud : clouds) {
        if (explained(cloud))
            return cloud;
    }
    return nullptr;
}

void draw(QPainter &painter, const tzPointCloud &cloud, const QRect &area)
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setRenderHint(QPainter::TextAntialiasing);
    switch (cloud.colourMode()) {
    case ColourMode::Elevation: {
        double low = 0, high = 0;
        cloud.elevationRange(low, high);
        drawRamp(painter, area, QObject::tr("Elevation (m)"), low, high, 2, false,
                 hiddenClasses(cloud));
        break;
    }
    case ColourMode::Intensity: {
        quint16 low = 0, high = 0;
        cloud.intensityRange(low, high);
        drawRamp(painter, area, QObject::tr("Intensity"), low, high, 0, true, hiddenClasses(cloud));
        break;
    }
    case ColourMode::Classification:
        drawClasses(painter, area, cloud);
        break;
    case ColourMode::Rgb:
        break;
    }
    painter.restore();
}

} // namespace tzLegend
