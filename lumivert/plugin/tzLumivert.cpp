#include "tzLumivert.h"

#include "qLumivertDlg.h"
#include "tzAboutDlg.h"
#include "tzApplicationInterface.h"
#include "tzCVisee.h"
#include "tzCViseeTool.h"
#include "tzCommunicationHandler.h"
#include "tzFrameDispatcher.h"
#include "tzGLWindow.h"
#include "tzImageFrustum.h"
#include "tzLineationTool.h"
#include "tzLumivertInfo.h"
#include "tzMeasureExport.h"
#include "tzMeasurementTags.h"
#include "tzPhotoStations.h"
#include "tzPickingHub.h"
#include "tzPointCloud.h"
#include "tzPointPair.h"
#include "tzSettings.h"
#include "tzXentity.h"

#include <QAction>
#include <QEvent>
#include <QKeyEvent>
#include <QMainWindow>
#include <QMenuBar>
#include <QMouseEvent>
#include <QTimer>
#include <QtDebug>

#include <algorithm>
#include <cmath>

namespace {

const char *const IMAGES = ":/TZ/plugin/qLumivert/images/";
// The view's message type of the plug-in's messages, and how long they stay (seconds).
constexpr int MESSAGE_TYPE = 6;
constexpr int MESSAGE_DELAY = 3600;

QIcon image(const char *file)
{
    return QIcon(QLatin1String(IMAGES) + QLatin1String(file));
}

} // namespace

tzLumivert::tzLumivert(QObject *parent)
    : QObject(parent)
    , tzStdPluginInterface(QString()) // no info file is read: every value comes from the overrides
    , m_lineationTool(new tzLineationTool)
    , m_viseeTool(new tzCViseeTool(this))
    , m_comm(new tzCommunicationHandler)
    , m_frames(std::make_unique<tzFrameDispatcher>())
{
    // One frame between the companion's coordinates and the scene's for the whole run: the
    // tool takes the picked cloud's, the link the scene's first cloud's.
    m_viseeTool->setFrame(m_frame);
    m_frames->setFrame(m_frame);
    // The link cuts the companion's frames; the dispatcher turns them into the scene's changes.
    m_comm->setFrameReceiver([this](const QString &frame) { m_frames->dispatch(frame); });
    m_frames->setReferencePointReceiver(
        [this](const TZVector3 &point) { m_viseeTool->setReferencePoint(point); });
    connect(m_comm, &tzCommunicationHandler::linkLost, this, &tzLumivert::onLinkLost);
    connect(m_comm, &tzCommunicationHandler::linkRestored, this, &tzLumivert::onLinkRestored);
    // Sights in scene files come back through the plug-in.
    tzHObject::RegisterFactory(QLatin1String(tzCVisee::FACTORY_NAME), [] { return new tzCVisee; });
    tzHObject::RegisterFactory(QLatin1String(tzLineation::FACTORY_NAME),
                               [] { return new tzLineation; });
}

bool tzLumivert::previousHeightWanted() const
{
    return m_dialog && m_dialog->SimpleAjoutZButton->isChecked();
}

void tzLumivert::previousHeightDone()
{
    if (m_dialog)
        m_dialog->SimpleAjoutZButton->setChecked(false);
}

tzLumivert::~tzLumivert()
{
    // The viewer's menus keep what the plug-in put there: not once the plug-in is gone.
    delete m_pluginMenu;
    // The hub must not keep a listener that is gone.
    releaseHub();
    delete m_lineationTool;
    delete m_viseeTool;
    delete m_dialog;
    delete m_optionsDialog;
    delete m_comm;
}

QString tzLumivert::getName() const
{
    return QStringLiteral("Lumivert");
}

QString tzLumivert::getDescription() const
{
    return QStringLiteral("Plugin 'Lumivert' for transferring mesures");
}

QIcon tzLumivert::getIcon() const
{
    return image("icon.png");
}

void tzLumivert::stop()
{
    stopMeasuring();
    // The viewer's main window owns the dialog from here on.
    m_dialog = nullptr;
}

int tzLumivert::linkAttempts() const
{
    return m_comm->attemptCount();
}

QString tzLumivert::activeToolName() const
{
    if (!m_activeTool)
        return QString();
    return m_activeTool == m_viseeTool ? QStringLiteral("sight") : QStringLiteral("lineation");
}

QList<QAction *> tzLumivert::listActions()
{
    if (!m_action) {
        m_action = new QAction(getName(), this);
        m_action->setToolTip(getDescription());
        m_action->setIcon(getIcon());
        connect(m_action, &QAction::triggered, this, &tzLumivert::doAction);
    }
    QMainWindow *window = m_app ? m_app->mainWindow() : nullptr;
    const auto viewerMenu = [window](const char *title) -> QMenu * {
        for (QAction *menuAction : window->menuBar()->actions()) {
            QMenu *menu = menuAction->menu();
            if (menu && menu->title().remove(QLatin1Char('&')) == QLatin1String(title))
                return menu;
        }
        return nullptr;
    };
    // Plugins > Lumivert: the run and the help page (F1 during a run).
    if (!m_pluginMenu && window) {
        if (QMenu *plugins = viewerMenu("Plugins")) {
            m_pluginMenu = plugins->addMenu(getIcon(), getName());
            m_pluginMenu->addAction(m_action);
            m_helpAction = m_pluginMenu->addAction(tr("&Help"), this, &tzLumivert::showHelp);
            m_helpAction->setShortcutContext(Qt::ApplicationShortcut);
        }
    }
    // The measures' export joins the viewer's File menu, before its last group (Quit).
    if (!m_exportAction && window) {
        if (QMenu *menu = viewerMenu("File")) {
            m_exportAction = new QAction(tr("E&xport measures..."), this);
            connect(m_exportAction, &QAction::triggered, this,
                    [this] { exportMeasuresAs(m_app, *m_frame); });
            QAction *before = nullptr;
            for (QAction *item : menu->actions()) {
                if (item->isSeparator())
                    before = item;
            }
            menu->insertAction(before, m_exportAction);
        }
    }
    return {m_action};
}

void tzLumivert::selectionChanged(const tzHObject::Container &selectedEntities)
{
    if (m_action) {
        tzHObject *root = m_app ? m_app->databaseRoot() : nullptr;
        m_action->setEnabled(root && root->getChildrenNumber() > 0);
        const bool cloudSelected
            = std::any_of(selectedEntities.begin(), selectedEntities.end(),
                          [](tzHObject *o) { return o && o->isKindOf(TZ_TYPES::POINT_CLOUD); });
        m_action->setToolTip(cloudSelected ? getDescription()
                                           : getDescription()
                                     + QStringLiteral(": select a cloud in the tree first"));
    }
    if (m_dialog && m_optionsDialog && m_activeTool)
        m_activeTool->selectionChanged(selectedEntities);
}

void tzLumivert::doAction()
{
    m_lineationTool->setupTool(m_app);
    m_viseeTool->setupTool(m_app);
    m_frames->setAppInterface(m_app);

    tzGLWindow *view = m_app ? m_app->activeView() : nullptr;
    if (!view) {
        printToConsole(QStringLiteral("[tzLumivert] Could not find valid 3D window."),
                       tzApplicationInterface::ERR_CONSOLE_MESSAGE);
        return;
    }

    if (!m_dialog) {
        m_dialog = new qLumivertDlg(m_app->mainWindow());
        connect(m_dialog->pointPropertiesButton, &QToolButton::clicked, this,
                &tzLumivert::setTakeSimplePoint);
        connect(m_dialog->pointPropertiesPointButton, &QToolButton::clicked, this,
                &tzLumivert::setTakeLowestPoint);
        connect(m_dialog->pointPointDistanceButton, &QToolButton::clicked, this,
                &tzLumivert::setLineation);
        connect(m_dialog->optionCameraButton, &QToolButton::clicked, this,
                &tzLumivert::onCameraVisuel);
        connect(m_dialog->normalCameraButton, &QToolButton::clicked, this,
                &tzLumivert::onCameraDirection);
        connect(m_dialog->aboutLabelButton, &QToolButton::clicked, this, &tzLumivert::onAbout);
        connect(m_dialog->closeButton, &QToolButton::clicked, this, &tzLumivert::onClose);
        // The link's state: a click tries to connect at once.
        connect(m_dialog->EtatConnection, &QToolButton::clicked, m_comm,
                &tzCommunicationHandler::reconnectNow);
        for (QToolButton *button :
             {m_dialog->pointPropertiesButton, m_dialog->pointPropertiesPointButton,
              m_dialog->pointPointDistanceButton, m_dialog->optionCameraButton,
              m_dialog->normalCameraButton, m_dialog->aboutLabelButton, m_dialog->closeButton}) {
            button->setStyleSheet(m_styleNormal);
            // The options button only opens the form: checkable, it would stay pressed.
            button->setCheckable(button != m_dialog->aboutLabelButton);
        }
        view->setZNearCoef(0.001);
    }
    if (!m_optionsDialog) {
        m_optionsDialog = new tzAboutDlg(m_app->mainWindow());
        connect(m_dialog->aboutLabelButton, &QToolButton::clicked, this, &tzLumivert::onAbout,
                Qt::UniqueConnection);
        connect(m_optionsDialog->setInteriorButton, &QPushButton::clicked, this,
                &tzLumivert::oncloseAbout);
        m_dialog->aboutLabelButton->setStyleSheet(m_styleNormal);
        m_optionsDialog->VERSION->setText(QStringLiteral("1.2.0"));
        m_optionsDialog->COMPANY->setText(QStringLiteral("Lumivert"));
    }

    readSettings();
    fillOptionsForm();
    loadPhotoLists();
    setPhotoFrustumsVisible(true);

    connect(view, &tzGLWindow::cameraPosChanged, this, &tzLumivert::onCameraPosChanged,
            Qt::UniqueConnection);
    selectionChanged(m_app->selectedObjects());
    startMeasuring();
}

void tzLumivert::readSettings()
{
    m_settings.readAtStart(*openLumivertSettings());
}

void tzLumivert::fillOptionsForm()
{
    if (!m_optionsDialog)
        return;
    m_optionsDialog->ValueAccuaryLowestPoint->setValue(m_settings.accuaryLowestPoint);
    m_optionsDialog->ValueAccuaryMovePoint->setValue(m_settings.accuaryMovePoint);
    m_optionsDialog->ValuePointSizeCloud->setValue(int(m_settings.pointSizeCloud));
    m_optionsDialog->ValueDisplayIn2D->setChecked(m_settings.displayIn2D);
    m_optionsDialog->ValueAccuaryZLabel->setValue(m_settings.accuaryZLabel);
    m_optionsDialog->ValueSizeBoulePhoto->setValue(double(m_settings.sizeSpheres));
}

bool tzLumivert::startMeasuring()
{
    tzGLWindow *view = m_app ? m_app->activeView() : nullptr;
    if (!view) {
        printToConsole(
            QStringLiteral("Error: tzLumivert could not find the Tessaro window. Abort!"),
            tzApplicationInterface::ERR_CONSOLE_MESSAGE);
        return false;
    }
    m_glWindow = view;
    m_app->mainWindow()->installEventFilter(this);
    view->installEventFilter(this);
    view->setPointSize(float(m_settings.pointSizeCloud));
    view->redraw();
    if (m_dialog) {
        m_app->attachOverlayDialog(m_dialog, Qt::TopRightCorner);
        m_dialog->start();
        // The tool bar is a window of its own: a key pressed while it has the keyboard (just
        // after a click on one of its buttons) is the surveyor's too.
        m_dialog->installEventFilter(this);
    }
    if (m_comm->connectToServer()) {
        showLinkState(true);
    } else {
        printToConsole(QStringLiteral("[tzLumivert] Could not connect to Mensurix on "
                                      "127.0.0.1:6601: trying again every %1 s")
                           .arg(tzCommunicationHandler::RECONNECT_INTERVAL_MS / 1000),
                       tzApplicationInterface::WRN_CONSOLE_MESSAGE);
    }
    // While the run lasts, a link refused or lost is tried again.
    m_comm->setReconnecting(true);
    if (m_helpAction)
        m_helpAction->setShortcut(QKeySequence::HelpContents);
    if (m_activeTool)
        m_activeTool->toolActivated();
    return true;
}

void tzLumivert::showLinkState(bool connected)
{
    if (m_dialog)
        m_dialog->EtatConnection->setIcon(image(connected ? "ConnecteOn.png" : "ConnecteOff.png"));
}

void tzLumivert::onLinkLost()
{
    showLinkState(false);
    printToConsole(QStringLiteral("[tzLumivert] Link with Mensurix lost: trying again every %1 s; "
                                  "what is sent meanwhile waits for it")
                       .arg(tzCommunicationHandler::RECONNECT_INTERVAL_MS / 1000),
                   tzApplicationInterface::ERR_CONSOLE_MESSAGE);
}

void tzLumivert::onLinkRestored(int sentLate, int dropped)
{
    showLinkState(true);
    printToConsole(sentLate > 0 ? QStringLiteral("[tzLumivert] Link with Mensurix back: %1 text(s) "
                                                 "sent late")
                                      .arg(sentLate)
                                : QStringLiteral("[tzLumivert] Connected to Mensurix"));
    if (dropped > 0) {
        printToConsole(QStringLiteral("[tzLumivert] %1 older text(s) were dropped: at most %2 wait "
                                      "for the link")
                           .arg(dropped)
                           .arg(tzCommunicationHandler::MAX_UNSENT),
                       tzApplicationInterface::ERR_CONSOLE_MESSAGE);
    }
}

void tzLumivert::stopMeasuring()
{
    m_input.forget(); // the filter no longer sees the releases
    m_comm->setReconnecting(false);
    if (m_helpAction)
        m_helpAction->setShortcut(QKeySequence());
    tzGLWindow *view = m_app ? m_app->activeView() : nullptr;
    if (view) {
        m_app->mainWindow()->removeEventFilter(this);
        view->removeEventFilter(this);
        resetModes();
        releaseHub();
    }
    if (m_dialog) {
        m_dialog->removeEventFilter(this);
        m_dialog->EtatConnection->setIcon(image("ConnecteOff.png"));
        m_dialog->stop(false);
        if (m_app)
            m_app->detachOverlayDialog(m_dialog);
    }
    if (m_optionsDialog) {
        m_optionsDialog->stop(false);
        if (m_app)
            m_app->detachOverlayDialog(m_optionsDialog);
    }
    if (m_activeTool) {
        m_activeTool->cancel();
        m_activeTool->toolDeactivated();
        m_activeTool = nullptr;
    }
    if (view)
        view->redraw();
}

void tzLumivert::releaseHub()
{
    if (m_app && m_app->pickingHub())
        m_app->pickingHub()->removeListener(this);
    m_listening = false;
}

void tzLumivert::showMessage(const QString &text)
{
    if (tzGLWindow *view = m_app ? m_app->activeView() : nullptr)
        view->showViewMessage(text, tzGLWindow::UPPER_CENTER_MESSAGE, false, MESSAGE_DELAY,
                              MESSAGE_TYPE);
}

void tzLumivert::redraw()
{
    if (tzGLWindow *view = m_app ? m_app->activeView() : nullptr)
        view->redraw();
}

void tzLumivert::passSelectionToTool()
{
    if (m_activeTool && m_app)
        m_activeTool->selectionChanged(m_app->selectedObjects());
}

void tzLumivert::resetModes()
{
    if (m_activeTool)
        m_activeTool->toolDeactivated();
    if (m_dialog) {
        // The camera buttons keep their state.
        for (QToolButton *button :
             {m_dialog->pointPropertiesButton, m_dialog->pointPointDistanceButton,
              m_dialog->pointPropertiesPointButton, m_dialog->closeButton}) {
            button->setChecked(false);
            button->setStyleSheet(m_styleNormal);
        }
    }
    showMessage(QString());
    m_activeTool = nullptr;
    if (m_listening || !m_app)
        return;
    tzPickingHub *hub = m_app->pickingHub();
    if (!hub) {
        printToConsole(
            QStringLiteral(
                "[tzLumivert] Could not retrieve valid picking hub. Measurement aborted."),
            tzApplicationInterface::ERR_CONSOLE_MESSAGE);
    } else if (hub->addListener(this, true, true, tzGLWindow::POINT_OR_TRIANGLE_OR_LABEL_PICKING)) {
        m_listening = true;
    } else {
        printToConsole(
            QStringLiteral("Another tool is already using the picking mechanism. Stop it first"),
            tzApplicationInterface::ERR_CONSOLE_MESSAGE);
    }
}

void tzLumivert::switchMode(QToolButton *button, tzTool *tool, const QString &message,
                            const std::function<void()> &configure)
{
    // The click has already toggled the button: its state now says whether the mode goes on.
    if (!button->isChecked()) {
        resetModes();
        releaseHub();
    } else {
        resetModes();
        m_activeTool = tool;
        m_activeTool->toolActivated();
        if (configure)
            configure();
        showMessage(message);
        passSelectionToTool();
        button->setChecked(true);
        button->setStyleSheet(m_styleActive);
    }
    redraw();
}

void tzLumivert::setTakeSimplePoint()
{
    if (!m_dialog)
        return;
    switchMode(m_dialog->pointPropertiesButton, m_viseeTool,
               QStringLiteral("Creer une visee sur la souris"), [this] {
                   m_viseeTool->setMode(tzCViseeTool::SIMPLE_POINT);
                   openLumivertSettings()->setValue(QLatin1String(tzSettingKeys::SIMPLE_POINT),
                                                    true);
               });
}

void tzLumivert::setTakeLowestPoint()
{
    if (!m_dialog)
        return;
    switchMode(m_dialog->pointPropertiesPointButton, m_viseeTool,
               QStringLiteral("Creer une visee sur le label"), [this] {
                   m_viseeTool->setLowestPointSearch();
                   openLumivertSettings()->setValue(QLatin1String(tzSettingKeys::SIMPLE_POINT),
                                                    false);
               });
}

void tzLumivert::setLineation()
{
    if (!m_dialog)
        return;
    switchMode(m_dialog->pointPointDistanceButton, m_lineationTool,
               QStringLiteral("Permet de mesurer la distance entre deux points"), {});
}

void tzLumivert::setPhotoFrustumsVisible(bool visible)
{
    tzPhotoStations::setVisible(m_app ? m_app->databaseRoot() : nullptr, visible);
}

void tzLumivert::loadPhotoLists()
{
    m_photos.load(m_app, [this] { return cameraDirection(); });
}

void tzLumivert::onCameraVisuel()
{
    if (!m_dialog)
        return;
    QToolButton *button = m_dialog->optionCameraButton;
    if (!button->isChecked()) {
        button->setStyleSheet(m_styleNormal);
        button->setIcon(image("cameraOn.png"));
        setPhotoFrustumsVisible(true);
    } else {
        button->setStyleSheet(m_styleActive);
        button->setIcon(image("cameraOff.png"));
        setPhotoFrustumsVisible(false);
    }
    redraw();
}

void tzLumivert::onCameraDirection()
{
    if (!m_dialog)
        return;
    QToolButton *button = m_dialog->normalCameraButton;
    if (!button->isChecked()) {
        m_cameraDirection = false;
        button->setStyleSheet(m_styleNormal);
        button->setIcon(image("cameraAngleOff.png"));
    } else {
        m_cameraDirection = true;
        button->setStyleSheet(m_styleActive);
        button->setIcon(image("cameraAngleOn.png"));
    }
    redraw();
}

void tzLumivert::onClose()
{
    if (m_activeTool)
        m_activeTool->cancel();
    m_comm->disconnectFromServer();
    if (m_dialog) {
        for (QToolButton *button :
             {m_dialog->pointPropertiesButton, m_dialog->pointPropertiesPointButton,
              m_dialog->pointPointDistanceButton}) {
            button->setChecked(false);
            button->setStyleSheet(m_styleNormal);
        }
        QToolButton *photos = m_dialog->optionCameraButton;
        photos->setStyleSheet(m_styleNormal);
        photos->setIcon(image("cameraOn.png"));
        setPhotoFrustumsVisible(false);
        photos->setChecked(false);
        QToolButton *directions = m_dialog->normalCameraButton;
        directions->setStyleSheet(m_styleNormal);
        directions->setIcon(image("cameraAngleOff.png"));
        directions->setChecked(false);
    }
    m_cameraDirection = false;
    stopMeasuring();
}

void tzLumivert::onAccept()
{
    if (m_activeTool)
        m_activeTool->accept();
}

void tzLumivert::onSave() { }

void tzLumivert::onUndo()
{
    // Deliberately the further hook, not the tool's undo.
    if (m_activeTool)
        m_activeTool->notify();
}

void tzLumivert::onAbout()
{
    if (!m_optionsDialog || !m_app)
        return;
    m_app->attachOverlayDialog(m_optionsDialog, Qt::TopRightCorner);
    m_optionsDialog->start();
    m_optionsDialog->raise();
}

void tzLumivert::oncloseAbout()
{
    if (!m_optionsDialog)
        return;
    m_settings.pointSizeCloud = quint32(m_optionsDialog->ValuePointSizeCloud->value());
    m_settings.accuaryMovePoint = m_optionsDialog->ValueAccuaryMovePoint->value();
    m_settings.accuaryLowestPoint = m_optionsDialog->ValueAccuaryLowestPoint->value();
    m_settings.displayIn2D = m_optionsDialog->ValueDisplayIn2D->isChecked();
    m_settings.accuaryZLabel = m_optionsDialog->ValueAccuaryZLabel->value();
    m_settings.sizeSpheres = float(m_optionsDialog->ValueSizeBoulePhoto->value());
    if (tzGLWindow *view = m_app ? m_app->activeView() : nullptr) {
        view->setPointSize(float(m_settings.pointSizeCloud));
        view->redraw();
    }
    m_settings.write(*openLumivertSettings());
    m_optionsDialog->stop(true);
}

void tzLumivert::showHelp()
{
    tzLumivertInfo help(m_app ? m_app->mainWindow() : nullptr);
    help.exec();
}

void tzLumivert::hideAllPointClouds(tzHObject *object)
{
    if (!object)
        return;
    if (object->isKindOf(TZ_TYPES::POINT_CLOUD) && object->isVisible()) {
        object->setVisible(false);
        return;
    }
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i)
        hideAllPointClouds(object->getChild(i));
}

void tzLumivert::toggleLabels(bool checked)
{
    if (m_app)
        recurseLabels(m_app->databaseRoot(), checked);
    tzLineationTool::showLabels = checked;
    redraw();
}

void tzLumivert::recurseLabels(tzHObject *object, bool show)
{
    showMeasurementLabels(object, show);
}

void tzLumivert::onCameraPosChanged(const TZVector3d &centre)
{
    tzImageFrustum *photo = tzImageFrustum::lookedThrough();
    if (!m_app || !photo)
        return;
    const TZVector3d station = photo->localCameraPosition();
    if (std::abs(station.x - centre.x) <= 0.0001 && std::abs(station.y - centre.y) <= 0.0001
        && std::abs(station.z - centre.z) <= 0.0001)
        return;
    // The camera left the station: the photo goes, the view gets back what it had.
    leavePhoto();
}

void tzLumivert::leavePhoto()
{
    tzImageFrustum *photo = tzImageFrustum::lookedThrough();
    if (!m_app || !photo)
        return;
    photo->setVisible(false);
    tzImageFrustum::leaveLookedThrough();
    if (tzGLWindow *view = m_app->activeView()) {
        view->setViewpointMode(false);
        view->redraw(true, true);
    }
    m_app->refreshAllViews(true); // the tree shows the photo hidden
}

void tzLumivert::onEscape()
{
    // What the current tool has pending (a distance's first point, a sight picked up to be
    // moved), and the photo looked through. The tool stays on, its tool bar shown.
    if (m_activeTool)
        m_activeTool->cancel();
    leavePhoto();
    redraw();
}

bool tzLumivert::isViewerShortcut(const QKeySequence &keys) const
{
    QMainWindow *window = m_app ? m_app->mainWindow() : nullptr;
    if (!window)
        return false;
    const QList<QAction *> actions = window->findChildren<QAction *>();
    return std::any_of(actions.begin(), actions.end(), [&keys](const QAction *action) {
        return action->isEnabled() && action->shortcuts().contains(keys);
    });
}

void tzLumivert::onItemPicked(const tzPickingListener::PickedItem &pi)
{
    pointPicked(pi.entity, pi.itemIndex, pi.clickPoint.x(), pi.clickPoint.y(), pi.P3D);
}

tzHObject *tzLumivert::measurementGroup()
{
    if (m_activeTool == m_viseeTool)
        return m_viseeTool->sightContainer(m_app);
    return ::measurementGroup(m_app, true);
}

void tzLumivert::pointPicked(tzHObject *entity, unsigned itemIdx, int x, int y, const TZVector3 &P)
{
    Q_UNUSED(x)
    Q_UNUSED(y)
    if (!entity || !m_app || !m_app->databaseRoot())
        return;
    tzHObject *group = measurementGroup();
    m_glWindow = m_app->activeView();
    group->setVisible(true);
    if (auto *photo = dynamic_cast<tzImageFrustum *>(entity)) {
        // A click on a photo's station enters the photo.
        tzPhotoStations::select(photo, m_app->databaseRoot());
        return;
    }
    if (m_activeTool)
        m_activeTool->pointPicked(group, itemIdx, entity, P);
    if (entity->isKindOf(TZ_TYPES::POINT_CLOUD)) {
        auto *cloud = dynamic_cast<tzPointCloud *>(entity);
        if (cloud) {
            if (m_activeTool)
                m_activeTool->pointPicked(group, itemIdx, cloud, P);
            cloud->showColors(true);
            cloud->showSF(false);
        }
    }
    if (m_isZpress && m_dialog) {
        // Z armed one lowest-point sight: simple-point mode comes back by itself.
        m_dialog->pointPropertiesButton->setChecked(true);
        setTakeSimplePoint();
        m_isZpress = false;
        qDebug("isZpress");
        m_app->refreshAllViews();
        redraw();
    }
}

bool tzLumivert::eventFilter(QObject *obj, QEvent *event)
{
    return m_input.filter(obj, event);
}
