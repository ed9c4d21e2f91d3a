#include "tzMainWindow.h"

#include "tzCloudDisplayMenu.h"
#include "tzCloudFile.h"
#include "tzConsole.h"
#include "tzCopc.h"
#include "tzDBTree.h"
#include "tzFileLoader.h"
#include "tzGLWindow.h"
#include "tzLoadPipeline.h"
#include "tzLog.h"
#include "tzOverlayDialog.h"
#include "tzPickingHub.h"
#include "tzPluginManager.h"
#include "tzPointCloud.h"
#include "tzProgressDialog.h"
#include "tzSceneFile.h"
#include "tzStdPluginInterface.h"
#include "tzStreamedCloud.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QCryptographicHash>
#include <QDataStream>
#include <QDialog>
#include <QDir>
#include <QDockWidget>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QLabel>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QMoveEvent>
#include <QSettings>
#include <QStandardPaths>
#include <QThread>

#include <QStatusBar>
#include <QToolBar>

#include <cmath>
#include <functional>

namespace {
// Distance between an overlay dialog and the edges of the view (pixels).
constexpr int OVERLAY_MARGIN = 6;
// The status bar's point under the cursor follows it at most this often (20 times a second).
constexpr int CURSOR_STATUS_MS = 50;
} // namespace

tzMainWindow::tzMainWindow(const Options &options)
    : m_options(options)
    , m_root(std::make_unique<tzHObject>(QStringLiteral("DB Tree")))
{
    setObjectName(QStringLiteral("tessaroMainWindow"));
    setWindowTitle(QStringLiteral("Tessaro"));
    resize(1280, 800);

    m_console = new tzConsole;
    tzLog::SetHandler([this](const QString &text, int level) { m_console->print(text, level); });
    // The memory that the nodes of a streamed cloud may take (the setting, in megabytes).
    const qulonglong budgetMB
        = QSettings().value(QStringLiteral("Streaming/memoryBudgetMB"), 4096).toULongLong();
    if (budgetMB > 0)
        tzStreamedCloud::setDefaultMemoryBudget(std::uint64_t(budgetMB) << 20);
    // Surveys read from a server: the disk cache of what was read, and the patience.
    tzCopc::RemoteSettings remote;
    QSettings settings;
    remote.cacheFolder = QDir(QStandardPaths::writableLocation(QStandardPaths::CacheLocation))
                             .filePath(QStringLiteral("remote"));
    remote.cacheBytes
        = std::uint64_t(
              settings.value(QStringLiteral("Streaming/remoteCacheMB"), 2048).toULongLong())
        << 20;
    remote.timeoutSeconds
        = settings.value(QStringLiteral("Streaming/remoteTimeoutSeconds"), 20).toInt();
    remote.trustedAuthorities
        = settings.value(QStringLiteral("Streaming/trustedAuthorities")).toString();
    tzCopc::setRemoteSettings(remote);

    m_hub = new tzPickingHub(true, this);
    m_mdi = new QMdiArea;
    setCentralWidget(m_mdi);
    m_view = new tzGLWindow;
    m_view->setObjectName(QStringLiteral("3D View"));
    m_view->setSceneDB(m_root.get());
    m_view->installEventFilter(this);
    QMdiSubWindow *sub = m_mdi->addSubWindow(m_view);
    sub->setWindowTitle(QStringLiteral("3D View 1"));
    sub->showMaximized();
    connect(m_mdi, &QMdiArea::subWindowActivated, m_hub, &tzPickingHub::onActiveWindowChanged);
    m_hub->onActiveWindowChanged(sub);
    connect(m_view, &tzGLWindow::entitySelectionChanged, this, &tzMainWindow::onEntityClicked);

    m_tree = new tzDBTree(m_root.get());
    auto *treeDock = new QDockWidget(tr("DB Tree"), this);
    treeDock->setObjectName(QStringLiteral("dbTreeDock"));
    treeDock->setWidget(m_tree);
    addDockWidget(Qt::LeftDockWidgetArea, treeDock);
    connect(m_tree, &tzDBTree::objectSelectionChanged, this, &tzMainWindow::onSelectionChanged);
    connect(m_tree, &tzDBTree::visibilityChanged, this, [this] { m_view->redraw(); });
    connect(m_tree, &tzDBTree::contextMenuAsked, this, [this](tzHObject *object, const QPoint &at) {
        // A cloud's display, or that of the clouds under a group.
        std::vector<tzPointCloud *> clouds = cloudsOf(object);
        if (clouds.empty())
            return;
        QMenu menu(this);
        menu.setObjectName(QStringLiteral("cloudContextMenu"));
        tzCloudDisplayMenu::fill(&menu, clouds, [this] { m_view->redraw(); });
        menu.exec(at);
    });

    auto *consoleDock = new QDockWidget(tr("Console"), this);
    consoleDock->setObjectName(QStringLiteral("consoleDock"));
    consoleDock->setWidget(m_console);
    addDockWidget(Qt::BottomDockWidgetArea, consoleDock);

    m_plugins = new tzPluginManager(this, this);
    createMenus();
    createStatusBar();
    m_savedSignature = sceneSignature();
    m_loads = new tzLoadPipeline(
        this, m_view, {options.autoShift, options.progressDelay, options.uploadStepPoints});
    m_loads->setSceneShift([this] { return sceneCloudShift(); });
    connect(m_loads, &tzLoadPipeline::cloudRead, this, &tzMainWindow::applyDisplayOptions);
    connect(m_loads, &tzLoadPipeline::arrived, this, &tzMainWindow::adoptLoaded);
    connect(m_loads, &tzLoadPipeline::opened, this, &tzMainWindow::fileOpened);
    connect(m_loads, &tzLoadPipeline::said, this,
            [this](const QString &text, int level) { printToConsole(text, level); });
    if (options.loadPlugins)
        loadPlugins(tzPluginManager::searchPaths());
}

tzMainWindow::~tzMainWindow()
{
    // A load in progress is cancelled and waited for; its cloud never reaches the scene.
    delete m_loads;
    m_loads = nullptr;
    // Plug-ins go first: they may still hold scene objects, views and the hub.
    delete m_plugins;
    m_plugins = nullptr;
    m_selected.clear();
    m_view->setSceneDB(nullptr);
    m_root.reset();
    tzLog::SetHandler({});
}

void tzMainWindow::createMenus()
{
    QMenu *file = menuBar()->addMenu(tr("&File"));
    QAction *open = file->addAction(tr("&Open..."), this, [this] {
        QSettings settings;
        settings.beginGroup(QStringLiteral("LoadFile"));
        const QString folder = settings.value(QStringLiteral("currentPath")).toString();
        const QStringList paths = QFileDialog::getOpenFileNames(this, tr("Open point clouds"),
                                                                folder, tzCloudFile::openFilter());
        openFiles(paths);
    });
    open->setShortcut(QKeySequence::Open);
    file->addAction(tr("Open &tiles..."), this, [this] {
        QSettings settings;
        const QString folder = QFileDialog::getExistingDirectory(
            this, tr("Open the folder of a survey's tiles (LAS, LAZ, COPC) as one survey"),
            settings.value(QStringLiteral("LoadFile/currentPath")).toString());
        if (!folder.isEmpty())
            openFiles({folder});
    });
    file->addAction(tr("Open &URL..."), this, [this] {
        QSettings settings;
        const QString key = QStringLiteral("LoadFile/lastUrl");
        bool ok = false;
        const QString url
            = QInputDialog::getText(this, tr("Open URL"),
                                    tr("The URL of a COPC file (.copc.laz) served over HTTP or "
                                       "HTTPS:"),
                                    QLineEdit::Normal, settings.value(key).toString(), &ok)
                  .trimmed();
        if (!ok || url.isEmpty())
            return;
        if (!tzCopc::isUrl(url)) {
            QMessageBox::warning(this, tr("Open URL"),
                                 tr("'%1' is not an address that begins with http:// or "
                                    "https://.")
                                     .arg(url));
            return;
        }
        settings.setValue(key, url);
        openFiles({url});
    });
    file->addAction(tr("&Load scene..."), this, [this] {
        const QString path = QFileDialog::getOpenFileName(
            this, tr("Load scene"), QString(), tr("Tessaro scenes (*.tzs);;All files (*)"));
        if (!path.isEmpty())
            openFiles({path});
    });
    QAction *save = file->addAction(tr("&Save scene..."), this, [this] { saveSceneAs(); });
    save->setShortcut(QKeySequence::Save);
    m_saveCloudAction = file->addAction(tr("Save &cloud as..."), this, [this] { saveCloudAs(); });
    m_saveCloudAction->setEnabled(false);
    file->addSeparator();
    QAction *quit = file->addAction(tr("&Quit"), this, &QWidget::close);
    quit->setShortcut(QKeySequence::Quit);

    // The view's entries stay; the clouds' ones are made again each time the menu opens, for
    // the selected clouds (or every cloud when none is selected).
    QMenu *display = menuBar()->addMenu(tr("&Display"));
    display->setObjectName(QStringLiteral("displayMenu"));
    std::vector<QAction *> viewActions;
    const auto viewAction = [this, &viewActions](const QString &text, auto slot) {
        auto *action = new QAction(text, this);
        connect(action, &QAction::triggered, this, slot);
        viewActions.push_back(action);
        return action;
    };
    viewAction(tr("&Zoom on everything"), [this] { m_view->zoomGlobal(); });
    viewAction(tr("&Top view"), [this] { m_view->setTopView(); });
    viewAction(tr("&Oblique view"), [this] { m_view->setObliqueView(); });
    QAction *perspective = viewAction(tr("&Perspective"),
                                      [this](bool on) { m_view->setPerspectiveState(on, true); });
    perspective->setCheckable(true);
    QAction *shading = viewAction(tr("&Eye-dome shading"), [this](bool on) {
        m_view->setShading(on ? tzGLWindow::Shading::EyeDome : tzGLWindow::Shading::None);
    });
    shading->setObjectName(QStringLiteral("eyeDomeShading"));
    shading->setCheckable(true);
    viewAction(tr("&Larger points"), [this] { m_view->setPointSize(m_view->getPointSize() + 1); });
    viewAction(tr("&Smaller points"),
               [this] { m_view->setPointSize(std::max(1.f, m_view->getPointSize() - 1)); });
    connect(display, &QMenu::aboutToShow, this, [this, display, viewActions, shading] {
        display->clear();
        for (QAction *action : viewActions)
            display->addAction(action);
        shading->setChecked(m_view->eyeDomeShown());
        std::vector<tzPointCloud *> clouds = selectedClouds();
        if (clouds.empty())
            clouds = cloudsOf(m_root.get());
        tzCloudDisplayMenu::fill(display, clouds, [this] { m_view->redraw(); });
    });

    m_pluginMenu = menuBar()->addMenu(tr("&Plugins"));
    m_pluginToolBar = addToolBar(tr("Plugins"));
    m_pluginToolBar->setObjectName(QStringLiteral("pluginToolBar"));
}

void tzMainWindow::createStatusBar()
{
    m_cursorLabel = new QLabel;
    m_cursorLabel->setObjectName(QStringLiteral("cursorStatus"));
    m_cursorLabel->setMinimumWidth(m_cursorLabel->fontMetrics().horizontalAdvance(
        QStringLiteral("X 6000000.000   Y 60000000.000   Z 10000.000   ")));
    m_scaleLabel = new QLabel;
    m_scaleLabel->setObjectName(QStringLiteral("scaleStatus"));
    m_streamLabel = new QLabel;
    m_streamLabel->setObjectName(QStringLiteral("streamStatus"));
    statusBar()->addWidget(m_cursorLabel);
    statusBar()->addPermanentWidget(m_streamLabel);
    statusBar()->addPermanentWidget(m_scaleLabel);
    m_cursorTimer.setSingleShot(true);
    m_cursorTimer.setInterval(CURSOR_STATUS_MS);
    connect(&m_cursorTimer, &QTimer::timeout, this, &tzMainWindow::showCursorPoint);
    connect(m_view, &tzGLWindow::mouseMoved, this, [this](int x, int y, Qt::MouseButtons) {
        m_cursorPos = QPoint(x, y);
        if (!m_cursorTimer.isActive())
            m_cursorTimer.start();
    });
    connect(m_view, &tzGLWindow::frameDrawn, this, &tzMainWindow::showScale);
}

namespace {

// The clouds' unit per local unit: the first visible cloud's (1 without clouds).
double globalScaleOf(const std::vector<tzGenericPointCloud *> &clouds)
{
    return clouds.empty() || clouds.front()->getGlobalScale() == 0
        ? 1.0
        : clouds.front()->getGlobalScale();
}

} // namespace

void tzMainWindow::showCursorPoint()
{
    tzGenericPointCloud *cloud = nullptr;
    unsigned index = 0;
    TZVector3 P;
    if (!m_view->pickPoint(m_cursorPos.x(), m_cursorPos.y(), cloud, index, P) || !cloud) {
        m_cursorLabel->clear();
        return;
    }
    // Local to global: global = local / scale - shift.
    const double s = cloud->getGlobalScale() == 0 ? 1.0 : cloud->getGlobalScale();
    const TZVector3d &t = cloud->getGlobalShift();
    m_cursorLabel->setText(QStringLiteral("X %1   Y %2   Z %3")
                               .arg(P.x / s - t.x, 0, 'f', 3)
                               .arg(P.y / s - t.y, 0, 'f', 3)
                               .arg(P.z / s - t.z, 0, 'f', 3));
}

void tzMainWindow::showScale()
{
    const double metres = m_view->computeActualPixelSize() / globalScaleOf(m_view->visibleClouds());
    const QString text = metres > 0 && std::isfinite(metres)
        ? QStringLiteral("Scale: 1 px = %1 m").arg(metres, 0, 'g', 3)
        : QString();
    if (text != m_scaleLabel->text())
        m_scaleLabel->setText(text);
    // What the streamed clouds hold, against their budget.
    std::uint64_t held = 0, budget = 0;
    for (tzGenericPointCloud *cloud : m_view->visibleClouds()) {
        if (const auto *streamed = dynamic_cast<const tzStreamedCloud *>(cloud)) {
            held += streamed->memoryHeld();
            budget = tzStreamedCloud::defaultMemoryBudget();
        }
    }
    const auto gigabytes = [](std::uint64_t bytes) {
        return QString::number(double(bytes) / double(1 << 30), 'f', 2);
    };
    const QString streamed = budget > 0
        ? QStringLiteral("Streamed: %1 GB of %2 GB").arg(gigabytes(held), gigabytes(budget))
        : QString();
    if (streamed != m_streamLabel->text())
        m_streamLabel->setText(streamed);
}

QString tzMainWindow::cursorStatus() const
{
    return m_cursorLabel->text();
}

QString tzMainWindow::scaleStatus() const
{
    return m_scaleLabel->text();
}

QString tzMainWindow::streamStatus() const
{
    return m_streamLabel->text();
}

void tzMainWindow::loadPlugins(const QStringList &folders)
{
    const int before = m_plugins->plugins().size();
    m_plugins->loadAll(folders);
    const auto &plugins = m_plugins->plugins();
    for (int i = before; i < plugins.size(); ++i) {
        for (QAction *action : plugins[i].actions) {
            // An action the plug-in has put in a menu of its own is not listed twice.
            const QList<QWidget *> shownIn = action->associatedWidgets();
            if (std::none_of(shownIn.begin(), shownIn.end(),
                             [](QWidget *w) { return qobject_cast<QMenu *>(w); }))
                m_pluginMenu->addAction(action);
            m_pluginToolBar->addAction(action);
        }
        plugins[i].instance->selectionChanged(m_selected);
    }
}

tzGLWindow *tzMainWindow::activeView()
{
    QMdiSubWindow *sub = m_mdi->activeSubWindow();
    if (!sub)
        sub = m_mdi->currentSubWindow();
    auto *view = sub ? qobject_cast<tzGLWindow *>(sub->widget()) : nullptr;
    return view ? view : m_view;
}

void tzMainWindow::attachOverlayDialog(tzOverlayDialog *dialog, Qt::Corner corner)
{
    if (!dialog)
        return;
    for (auto &overlay : m_overlays) {
        if (overlay.first == dialog) {
            overlay.second = corner;
            placeOverlays();
            return;
        }
    }
    m_overlays.emplace_back(dialog, corner);
    dialog->installEventFilter(this);
    // An overlay belongs to the view it floats over (a running dialog keeps its own).
    if (!dialog->isProcessing())
        dialog->linkToView(activeView());
    placeOverlays();
}

void tzMainWindow::detachOverlayDialog(tzOverlayDialog *dialog)
{
    for (auto it = m_overlays.begin(); it != m_overlays.end(); ++it) {
        if (it->first == dialog) {
            if (dialog)
                dialog->removeEventFilter(this);
            m_overlays.erase(it);
            return;
        }
    }
}

void tzMainWindow::moveEvent(QMoveEvent *event)
{
    QMainWindow::moveEvent(event);
    placeOverlays();
}

void tzMainWindow::placeOverlays()
{
    // Dialogs deleted by their owners leave the list.
    m_overlays.erase(std::remove_if(m_overlays.begin(), m_overlays.end(),
                                    [](const auto &overlay) { return overlay.first.isNull(); }),
                     m_overlays.end());
    tzGLWindow *view = activeView();
    if (!view)
        return;
    const QRect area(view->mapToGlobal(QPoint(0, 0)), view->size());
    for (auto &overlay : m_overlays) {
        tzOverlayDialog *dialog = overlay.first;
        if (!dialog)
            continue;
        const QSize size = dialog->frameGeometry().size();
        int x = area.left() + OVERLAY_MARGIN;
        int y = area.top() + OVERLAY_MARGIN;
        if (overlay.second == Qt::TopRightCorner || overlay.second == Qt::BottomRightCorner)
            x = area.right() + 1 - OVERLAY_MARGIN - size.width();
        if (overlay.second == Qt::BottomLeftCorner || overlay.second == Qt::BottomRightCorner)
            y = area.bottom() + 1 - OVERLAY_MARGIN - size.height();
        dialog->move(x, y);
    }
}

bool tzMainWindow::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::Leave:
        if (watched == m_view) {
            m_cursorTimer.stop();
            m_cursorLabel->clear();
        }
        break;
    case QEvent::Resize:
    case QEvent::Move:
    case QEvent::Show:
        if (watched == m_view || qobject_cast<tzOverlayDialog *>(watched))
            placeOverlays();
        break;
    default:
        break;
    }
    return QMainWindow::eventFilter(watched, event);
}

void tzMainWindow::printToConsole(const QString &text, int level)
{
    m_console->print(text, level);
}

void tzMainWindow::addToDatabase(tzHObject *object, bool updateZoom, bool autoExpandDBTree,
                                 bool checkDimensions, bool autoRedraw)
{
    Q_UNUSED(checkDimensions)
    if (!object)
        return;
    if (!object->getParent() && !m_root->addChild(object))
        return;
    object->setDisplay_recursive(m_view);
    // Objects added in a row (a companion's frames) join the tree one by one.
    m_tree->objectAdded(object, autoExpandDBTree);
    if (updateZoom)
        m_view->zoomGlobal();
    if (autoRedraw)
        m_view->redraw();
}

void tzMainWindow::removeFromDatabase(tzHObject *object, bool autoDelete)
{
    if (!object || object == m_root.get())
        return;
    m_selected.erase(std::remove_if(m_selected.begin(), m_selected.end(),
                                    [object](tzHObject *o) { return object->isAncestorOf(o); }),
                     m_selected.end());
    tzHObject *parent = object->getParent();
    if (parent) {
        const bool owned = parent->getDependencyFlagsWith(object) & DP_DELETE_OTHER;
        if (autoDelete && owned) {
            parent->removeChild(object);
        } else {
            parent->detachChild(object);
            if (autoDelete)
                delete object;
        }
    } else if (autoDelete) {
        delete object;
    }
    m_tree->scheduleRebuild();
    m_view->redraw();
}

void tzMainWindow::refreshAllViews(bool only2D)
{
    m_tree->scheduleRefresh();
    m_view->redraw(only2D);
}

tzUniqueIDGenerator::Shared tzMainWindow::getUniqueIDGenerator()
{
    return tzObject::GetUniqueIDGenerator();
}

void tzMainWindow::saveCloudAs()
{
    tzPointCloud *cloud = nullptr;
    for (tzHObject *object : m_selected) {
        if ((cloud = dynamic_cast<tzPointCloud *>(object)))
            break;
    }
    if (!cloud)
        return;
    const QString source
        = cloud->getMetaData(QLatin1String(tzGenericPointCloud::SOURCE_FILE_KEY)).toString();
    QSettings settings;
    const QDir folder = source.isEmpty()
        ? QDir(settings.value(QStringLiteral("LoadFile/currentPath")).toString())
        : QFileInfo(source).absoluteDir();
    // A name of its own: never the file the cloud came from, nor another file already there
    // (one Enter must not overwrite the survey).
    QString proposed = folder.filePath(cloud->getName() + QStringLiteral(".laz"));
    for (int n = 2; QFileInfo::exists(proposed); ++n)
        proposed = folder.filePath(QStringLiteral("%1_%2.laz").arg(cloud->getName()).arg(n));
    QString path = QFileDialog::getSaveFileName(this, tr("Save cloud as"), proposed,
                                                tr("LAZ (*.laz);;LAS (*.las);;PLY (*.ply)"));
    if (!completedSavePath(path, QStringLiteral("laz")))
        return;
    // Written here, the progress shown after a moment with its Cancel (the dialog keeps the
    // window's input away meanwhile; before it shows, only painting goes on).
    const QString fileName = QFileInfo(path).fileName();
    tzProgressDialog progress(tr("Writing %1...").arg(fileName), m_options.progressDelay, this);
    bool cancelled = false;
    connect(&progress, &tzProgressDialog::canceled, this, [&cancelled] { cancelled = true; });
    tzCloudFile::LoadOptions options;
    options.progress = [&](int percent) {
        progress.setProgress(percent, tr("Writing %1...").arg(fileName));
        QCoreApplication::processEvents(progress.isVisible() ? QEventLoop::AllEvents
                                                             : QEventLoop::ExcludeUserInputEvents);
        return !cancelled;
    };
    QApplication::setOverrideCursor(Qt::WaitCursor);
    QString error;
    const bool saved = tzCloudFile::save(*cloud, path, error, 0, options);
    QApplication::restoreOverrideCursor();
    progress.hide();
    if (!saved) {
        printToConsole(error, cancelled ? WRN_CONSOLE_MESSAGE : ERR_CONSOLE_MESSAGE);
        if (!cancelled)
            QMessageBox::warning(this, tr("Save cloud as"), error);
        return;
    }
    printToConsole(QStringLiteral("Cloud '%1' written to '%2' (%3 points)")
                       .arg(cloud->getName(), path)
                       .arg(cloud->size()));
}

void tzMainWindow::onSelectionChanged()
{
    // The previous selection is looked up again by ID: an object may have left the scene
    // (deleted by a plug-in) since it was selected.
    for (unsigned id : m_selectedIDs) {
        if (tzHObject *still = m_root->find(id))
            still->setSelected(false);
    }
    m_selected = m_tree->selectedObjects();
    m_selectedIDs.clear();
    for (const tzHObject *object : m_selected)
        m_selectedIDs.push_back(object->getUniqueID());
    for (tzHObject *object : m_selected)
        object->setSelected(true);
    for (const auto &plugin : m_plugins->plugins())
        plugin.instance->selectionChanged(m_selected);
    m_saveCloudAction->setEnabled(
        std::any_of(m_selected.begin(), m_selected.end(),
                    [](tzHObject *o) { return o->isKindOf(TZ_TYPES::POINT_CLOUD); }));
    m_view->redraw();
}

void tzMainWindow::onEntityClicked(tzHObject *entity)
{
    m_tree->selectObject(entity);
}

void tzMainWindow::openFiles(const QStringList &paths)
{
    m_loads->open(paths);
}

bool tzMainWindow::isLoading() const
{
    return m_loads && m_loads->isLoading();
}

std::optional<TZVector3d> tzMainWindow::sceneCloudShift() const
{
    tzHObject::Container clouds;
    m_root->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    if (clouds.empty())
        return std::nullopt;
    return static_cast<const tzGenericPointCloud *>(clouds.front())->getGlobalShift();
}

std::vector<tzPointCloud *> tzMainWindow::selectedClouds() const
{
    std::vector<tzPointCloud *> clouds;
    for (tzHObject *object : m_selected) {
        if (auto *cloud = dynamic_cast<tzPointCloud *>(object))
            clouds.push_back(cloud);
    }
    return clouds;
}

std::vector<tzPointCloud *> tzMainWindow::cloudsOf(tzHObject *object)
{
    std::vector<tzPointCloud *> clouds;
    if (!object)
        return clouds;
    if (auto *cloud = dynamic_cast<tzPointCloud *>(object))
        clouds.push_back(cloud);
    tzHObject::Container children;
    object->filterChildren(children, true, TZ_TYPES::POINT_CLOUD);
    for (tzHObject *child : children) {
        if (auto *cloud = dynamic_cast<tzPointCloud *>(child))
            clouds.push_back(cloud);
    }
    return clouds;
}

void tzMainWindow::applyDisplayOptions(tzGenericPointCloud *opened, const QString &path)
{
    auto *cloud = dynamic_cast<tzPointCloud *>(opened);
    if (!cloud)
        return;
    if (m_options.pointSize > 0)
        cloud->setPointSize(quint8(m_options.pointSize));
    if (m_options.colourMode < 0)
        return;
    const auto mode = tzPointDisplay::ColourMode(m_options.colourMode);
    const QString lacking = tzCloudDisplayMenu::applyMode(cloud, mode);
    if (!lacking.isEmpty()) {
        printToConsole(
            QStringLiteral("'%1': %2, shown by %3 instead of %4")
                .arg(path, lacking,
                     tzPointDisplay::modeName(cloud->plainColour() ? tzPointDisplay::ColourMode::Rgb
                                                                   : cloud->colourMode()),
                     tzPointDisplay::modeName(mode)),
            WRN_CONSOLE_MESSAGE);
    }
}

void tzMainWindow::adoptLoaded(const QString &path, tzHObject *loaded)
{
    std::unique_ptr<tzHObject> object(loaded);
    if (tzFileLoader::isSceneFile(path)) {
        adoptScene(std::move(object), path);
    } else {
        // A cloud, or a file's scans under a group named after it.
        const std::vector<tzPointCloud *> clouds = cloudsOf(object.get());
        quint64 points = 0;
        for (const tzPointCloud *cloud : clouds)
            points += cloud->size();
        printToConsole(clouds.size() == 1 && object->isKindOf(TZ_TYPES::POINT_CLOUD)
                           ? QStringLiteral("'%1': %2 points").arg(path).arg(points)
                           : QStringLiteral("'%1': %2 points in %3 scans")
                                 .arg(path)
                                 .arg(points)
                                 .arg(clouds.size()));
        addToDatabase(object.release(), true);
        // Selected, so that what works on the selected cloud is ready at once.
        m_tree->selectObject(clouds.empty() ? nullptr : clouds.front());
    }
}

bool tzMainWindow::loadScene(const QString &path)
{
    QString error;
    std::unique_ptr<tzHObject> scene(tzSceneFile::load(path, error));
    if (!scene) {
        printToConsole(error, ERR_CONSOLE_MESSAGE);
        return false;
    }
    adoptScene(std::move(scene), path);
    return true;
}

void tzMainWindow::adoptScene(std::unique_ptr<tzHObject> scene, const QString &path)
{
    // Work not saved before stays work not saved.
    const bool unsaved = hasUnsavedChanges();
    while (scene->getChildrenNumber() > 0) {
        tzHObject *child = scene->getChild(0);
        scene->detachChild(child);
        m_root->addChild(child);
        child->setDisplay_recursive(m_view);
    }
    m_tree->rebuild();
    m_view->zoomGlobal();
    printToConsole(QStringLiteral("Scene '%1' loaded").arg(path));
    // Its first cloud selected, as a cloud opened alone is: the plug-ins hear of the scene.
    tzHObject::Container clouds;
    m_root->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    m_tree->selectObject(clouds.empty() ? nullptr : clouds.front());
    m_scenePath = QFileInfo(path).absoluteFilePath();
    if (!unsaved)
        m_savedSignature = sceneSignature();
}

QByteArray tzMainWindow::sceneSignature() const
{
    // What the user made: every object scene files keep, but the clouds (read from their own
    // files), by identity, kind, name and metadata (a sight's coordinates, a distance's ends).
    QCryptographicHash hash(QCryptographicHash::Sha1);
    QByteArray record;
    const std::function<void(const tzHObject *)> walk = [&](const tzHObject *object) {
        if (!object->isSavedInScene())
            return;
        if (!object->isKindOf(TZ_TYPES::POINT_CLOUD)) {
            record.clear();
            QDataStream out(&record, QIODevice::WriteOnly);
            out << object->getUniqueID() << object->getClassID() << object->getName()
                << object->metaData();
            hash.addData(record);
        }
        for (unsigned i = 0; i < object->getChildrenNumber(); ++i)
            walk(object->getChild(i));
    };
    for (unsigned i = 0; i < m_root->getChildrenNumber(); ++i)
        walk(m_root->getChild(i));
    return hash.result();
}

bool tzMainWindow::hasUnsavedChanges() const
{
    return sceneSignature() != m_savedSignature;
}

QString tzMainWindow::proposedScenePath() const
{
    if (!m_scenePath.isEmpty())
        return m_scenePath;
    tzHObject::Container clouds;
    m_root->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    for (const tzHObject *cloud : clouds) {
        const QString source
            = cloud->getMetaData(QLatin1String(tzGenericPointCloud::SOURCE_FILE_KEY)).toString();
        if (!source.isEmpty()) {
            const QFileInfo file(source);
            return file.absoluteDir().filePath(file.completeBaseName() + QStringLiteral(".tzs"));
        }
    }
    QSettings settings;
    const QString folder = settings.value(QStringLiteral("LoadFile/currentPath")).toString();
    return QDir(folder).filePath(QStringLiteral("scene.tzs"));
}

bool tzMainWindow::saveSceneAs()
{
    QString path = QFileDialog::getSaveFileName(this, tr("Save scene"), proposedScenePath(),
                                                tr("Tessaro scenes (*.tzs)"));
    if (!completedSavePath(path, QStringLiteral("tzs")))
        return false;
    return saveScene(path);
}

bool tzMainWindow::completedSavePath(QString &path, const QString &suffix)
{
    if (path.isEmpty())
        return false;
    if (!QFileInfo(path).suffix().isEmpty())
        return true; // the file dialog asked before a file of that name was replaced
    // The suffix added here names another file, which the dialog did not ask about.
    path += QLatin1Char('.') + suffix;
    if (!QFileInfo::exists(path))
        return true;
    return QMessageBox::question(this, tr("Replace"),
                                 tr("'%1' already exists. Replace it?").arg(path),
                                 QMessageBox::Yes | QMessageBox::No, QMessageBox::No)
        == QMessageBox::Yes;
}

bool tzMainWindow::saveScene(const QString &path)
{
    QString error;
    if (!tzSceneFile::save(m_root.get(), path, error)) {
        printToConsole(error, ERR_CONSOLE_MESSAGE);
        return false;
    }
    printToConsole(QStringLiteral("Scene saved to '%1'").arg(path));
    m_scenePath = QFileInfo(path).absoluteFilePath();
    m_savedSignature = sceneSignature();
    return true;
}

void tzMainWindow::closeEvent(QCloseEvent *event)
{
    if (hasUnsavedChanges()) {
        QMessageBox box(QMessageBox::Warning, tr("Tessaro"),
                        tr("The scene has sights, distances or other objects that are not "
                           "saved."),
                        QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, this);
        box.setObjectName(QStringLiteral("unsavedChanges"));
        box.setInformativeText(tr("Save them in a scene file before closing?"));
        box.setDefaultButton(QMessageBox::Save);
        box.setEscapeButton(QMessageBox::Cancel);
        const int answer = box.exec();
        if (answer == QMessageBox::Cancel || (answer == QMessageBox::Save && !saveSceneAs())) {
            event->ignore();
            return;
        }
    }
    m_loads->cancel();
    event->accept();
}
