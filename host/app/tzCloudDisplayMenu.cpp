#include "tzCloudDisplayMenu.h"

#include "tzPointCloud.h"

#include <QActionGroup>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QLocale>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>

#include <algorithm>
#include <array>

using tzPointDisplay::ColourMode;

namespace tzCloudDisplayMenu {

namespace {

QIcon swatch(const QColor &colour)
{
    QPixmap pixmap(14, 14);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setPen(QColor(60, 60, 60));
    painter.setBrush(colour);
    painter.drawRect(1, 1, 11, 11);
    return QIcon(pixmap);
}

bool all(const std::vector<tzPointCloud *> &clouds, const std::function<bool(tzPointCloud *)> &test)
{
    return !clouds.empty() && std::all_of(clouds.begin(), clouds.end(), test);
}

bool any(const std::vector<tzPointCloud *> &clouds, const std::function<bool(tzPointCloud *)> &test)
{
    return std::any_of(clouds.begin(), clouds.end(), test);
}

void addModes(QMenu *menu, const std::vector<tzPointCloud *> &clouds,
              const std::function<void()> &changed)
{
    menu->addSection(QObject::tr("Colour by"));
    auto *group = new QActionGroup(menu);
    for (int m = 0; m < tzPointDisplay::COLOUR_MODES; ++m) {
        const ColourMode mode = ColourMode(m);
        QAction *action = menu->addAction(tzPointDisplay::modeTitle(mode));
        action->setObjectName(QStringLiteral("colourBy_") + tzPointDisplay::modeName(mode));
        action->setCheckable(true);
        action->setActionGroup(group);
        action->setEnabled(any(clouds, [mode](tzPointCloud *c) { return c->canShow(mode); }));
        action->setChecked(all(clouds, [mode](tzPointCloud *c) {
            return !c->plainColour() && c->colourMode() == mode;
        }));
        QObject::connect(action, &QAction::triggered, menu, [clouds, mode, changed] {
            for (tzPointCloud *cloud : clouds)
                cloud->setColourMode(mode);
            changed();
        });
    }
}

void addPointSizes(QMenu *menu, const std::vector<tzPointCloud *> &clouds,
                   const std::function<void()> &changed)
{
    QMenu *sizes = menu->addMenu(QObject::tr("Point size"));
    sizes->setObjectName(QStringLiteral("pointSizeMenu"));
    sizes->setEnabled(!clouds.empty());
    auto *group = new QActionGroup(sizes);
    for (int size = 0; size <= 10; ++size) {
        QAction *action = sizes->addAction(size == 0 ? QObject::tr("As the view")
                                                     : QObject::tr("%n pixel(s)", "", size));
        action->setCheckable(true);
        action->setActionGroup(group);
        action->setChecked(
            all(clouds, [size](tzPointCloud *c) { return c->getPointSize() == size; }));
        QObject::connect(action, &QAction::triggered, sizes, [clouds, size, changed] {
            for (tzPointCloud *cloud : clouds)
                cloud->setPointSize(quint8(size));
            changed();
        });
    }
}

void addClasses(QMenu *menu, const std::vector<tzPointCloud *> &clouds,
                const std::function<void()> &changed)
{
    QMenu *classes = menu->addMenu(QObject::tr("Classes shown"));
    classes->setObjectName(QStringLiteral("classesMenu"));
    std::array<quint64, 256> counts {};
    for (tzPointCloud *cloud : clouds) {
        if (!cloud->hasAttribute(tzPointDisplay::CLASSIFICATION))
            continue;
        const auto &own = cloud->classCounts();
        for (size_t c = 0; c < 256; ++c)
            counts[c] += own[c];
    }
    classes->setEnabled(std::any_of(counts.begin(), counts.end(), [](quint64 n) { return n > 0; }));
    // A class hidden stays hidden in every colour mode (vegetation hidden, the ground by
    // elevation).
    QAction *everything = classes->addAction(QObject::tr("Show every class"));
    QObject::connect(everything, &QAction::triggered, classes, [clouds, changed] {
        for (tzPointCloud *cloud : clouds) {
            for (int c = 0; c < 256; ++c)
                cloud->showClass(c, true);
        }
        changed();
    });
    classes->addSeparator();
    const QLocale locale;
    for (int c = 0; c < 256; ++c) {
        if (counts[size_t(c)] == 0)
            continue;
        QAction *action = classes->addAction(
            swatch(tzPointDisplay::classColour(c)),
            QObject::tr("%1 - %2 (%3 points)")
                .arg(c)
                .arg(tzPointDisplay::className(c), locale.toString(qulonglong(counts[size_t(c)]))));
        action->setObjectName(QStringLiteral("class_%1").arg(c));
        action->setCheckable(true);
        action->setChecked(
            all(clouds, [c](tzPointCloud *cloud) { return cloud->isClassShown(c); }));
        QObject::connect(action, &QAction::triggered, classes, [clouds, c, changed](bool on) {
            for (tzPointCloud *cloud : clouds)
                cloud->showClass(c, on);
            changed();
        });
    }
}

} // namespace

void fill(QMenu *menu, const std::vector<tzPointCloud *> &clouds,
          const std::function<void()> &changed)
{
    addModes(menu, clouds, changed);
    menu->addSeparator();
    addClasses(menu, clouds, changed);
    QAction *range = menu->addAction(QObject::tr("Elevation range..."));
    range->setObjectName(QStringLiteral("elevationRange"));
    range->setEnabled(!clouds.empty());
    QObject::connect(range, &QAction::triggered, menu, [menu, clouds, changed] {
        if (askElevationRange(menu->parentWidget(), clouds))
            changed();
    });
    addPointSizes(menu, clouds, changed);
}

bool askElevationRange(QWidget *parent, const std::vector<tzPointCloud *> &clouds)
{
    if (clouds.empty())
        return false;
    // The range over the clouds' own ones.
    double low = 0, high = 0;
    clouds.front()->elevationRange(low, high);
    for (const tzPointCloud *cloud : clouds) {
        double l = 0, h = 0;
        cloud->elevationRange(l, h);
        low = std::min(low, l);
        high = std::max(high, h);
    }
    QDialog dialog(parent);
    dialog.setObjectName(QStringLiteral("elevationRangeDialog"));
    dialog.setWindowTitle(QObject::tr("Elevation range"));
    auto *form = new QFormLayout(&dialog);
    form->addRow(new QLabel(QObject::tr("The colour ramp runs from the low elevation (dark) to "
                                        "the high one (light).")));
    const auto field = [&dialog](double value, const char *name) {
        auto *box = new QDoubleSpinBox(&dialog);
        box->setObjectName(QLatin1String(name));
        box->setDecimals(2);
        box->setRange(-1e7, 1e7);
        box->setValue(value);
        return box;
    };
    QDoubleSpinBox *lowBox = field(low, "low");
    QDoubleSpinBox *highBox = field(high, "high");
    form->addRow(QObject::tr("Low (m)"), lowBox);
    form->addRow(QObject::tr("High (m)"), highBox);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel
                                             | QDialogButtonBox::RestoreDefaults,
                                         &dialog);
    buttons->button(QDialogButtonBox::RestoreDefaults)->setText(QObject::tr("2 % to 98 % of z"));
    form->addRow(buttons);
    bool automatic = false;
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    QObject::connect(buttons->button(QDialogButtonBox::RestoreDefaults), &QPushButton::clicked,
                     &dialog, [&] {
                         automatic = true;
                         dialog.accept();
                     });
    if (dialog.exec() != QDialog::Accepted)
        return false;
    for (tzPointCloud *cloud : clouds) {
        if (automatic)
            cloud->resetElevationRange();
        else
            cloud->setElevationRange(lowBox->value(), highBox->value());
        cloud->setColourMode(ColourMode::Elevation);
    }
    return true;
}

QString applyMode(tzPointCloud *cloud, ColourMode mode)
{
    if (cloud->setColourMode(mode))
        return {};
    switch (mode) {
    case ColourMode::Rgb:
        return QObject::tr("no colours");
    case ColourMode::Intensity:
        return QObject::tr("no intensity");
    case ColourMode::Classification:
        return QObject::tr("no classification");
    case ColourMode::Elevation:
        break;
    }
    return {};
}

} // namespace tzCloudDisplayMenu
