#pragma once

#include "TZVector3.h"
#include "tzCoordinateFrame.h"
#include "tzPhotoStations.h"
#include "tzPickingListener.h"
#include "tzRunInput.h"
#include "tzSettings.h"
#include "tzSightToolHost.h"
#include "tzStdPluginInterface.h"

#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>

#include <memory>

#include <functional>

class QAction;
class QKeySequence;
class QToolButton;
class tzAboutDlg;
class tzCViseeTool;
class tzCommunicationHandler;
class tzFrameDispatcher;
class tzGLWindow;
class tzLineationTool;
class tzTool;
class qLumivertDlg;

//! The plug-in's one long-lived object. The viewer makes it through the library's entry and asks
//! it for its action; from then on it owns the measuring run: it starts with the action
//! (doAction) and ends with the tool bar's close button (onClose). Between the two it routes the
//! picks of the picking hub to the active tool, switches tools from the tool bar's buttons,
//! reacts to keys in the 3D view and holds the link with the companion. GUI thread only.
class tzLumivert : public QObject,
                   public tzStdPluginInterface,
                   public tzPickingListener,
                   public tzSightToolHost
{
    Q_OBJECT
    Q_INTERFACES(tzStdPluginInterface)
    // The plug-in's metadata and entry are in tzLumivertEntry.cpp (IID
    // "tzcorp.tessaro.plugin.tzLumivert", empty MetaData).

    // Read-only views of the settings mirrors and the run's state, for scripts and tests.
    Q_PROPERTY(double accuaryLowestPoint READ accuaryLowestPoint)
    Q_PROPERTY(double accuaryMovePoint READ accuaryMovePoint)
    Q_PROPERTY(uint pointSizeCloud READ pointSizeCloud)
    Q_PROPERTY(bool displayIn2D READ displayIn2D)
    Q_PROPERTY(int accuaryZLabel READ accuaryZLabel)
    Q_PROPERTY(float sizeSpheres READ sizeSpheres)
    Q_PROPERTY(bool listening READ isListening)
    Q_PROPERTY(int linkAttempts READ linkAttempts)
    Q_PROPERTY(bool zPressed READ isZPressed)
    Q_PROPERTY(bool cameraDirection READ cameraDirection)
    Q_PROPERTY(QString activeTool READ activeToolName)

public:
    explicit tzLumivert(QObject *parent = nullptr);
    ~tzLumivert() override;

    // tzStdPluginInterface
    QString getName() const override;
    QString getDescription() const override;
    QIcon getIcon() const override;
    void stop() override;
    QList<QAction *> listActions() override;
    void selectionChanged(const tzHObject::Container &selectedEntities) override;

    double accuaryLowestPoint() const override { return m_settings.accuaryLowestPoint; }
    double accuaryMovePoint() const override { return m_settings.accuaryMovePoint; }
    unsigned pointSizeCloud() const { return m_settings.pointSizeCloud; }
    bool displayIn2D() const override { return m_settings.displayIn2D; }
    int accuaryZLabel() const { return m_settings.accuaryZLabel; }
    float sizeSpheres() const { return m_settings.sizeSpheres; }
    const tzLumivertSettings &settings() const { return m_settings; }
    bool isListening() const { return m_listening; }
    //! Connections to the companion tried so far (the link's own and the reconnection's).
    int linkAttempts() const;
    bool isZPressed() const { return m_isZpress; }
    bool cameraDirection() const { return m_cameraDirection; }
    QString activeToolName() const;
    qLumivertDlg *dialog() const { return m_dialog; }
    tzCommunicationHandler *link() const override { return m_comm; }
    bool previousHeightWanted() const override;
    void previousHeightDone() override;
    //! What turns the companion's frames into the scene's changes.
    tzFrameDispatcher *frames() const { return m_frames.get(); }
    tzCViseeTool *sightTool() const { return m_viseeTool; }
    //! Whether a key is held down in the viewer now. The event filter keeps the set of held keys;
    //! it forgets them all when the viewer loses the keyboard (focus out, window deactivated)
    //! and when the run stops, since the releases then go elsewhere.
    Q_INVOKABLE bool isKeyHeld(int key) const override { return m_input.isKeyHeld(key); }

    //! Shows or hides every photo station of the scene.
    void setPhotoFrustumsVisible(bool visible);
    //! The photo list beside each cloud (under the viewer's last folder), frustums of photos not
    //! yet under the cloud added to it.
    void loadPhotoLists();

public slots:
    void doAction();
    bool startMeasuring();
    void stopMeasuring();
    void onCameraPosChanged(const TZVector3d &centre);
    void onItemPicked(const tzPickingListener::PickedItem &pi) override;
    void pointPicked(tzHObject *entity, unsigned itemIdx, int x, int y, const TZVector3 &P);
    void onClose();
    void onAccept();
    void onSave();
    void onUndo();
    void onAbout();
    void oncloseAbout();
    void setLineation();
    void setTakeLowestPoint();
    void setTakeSimplePoint();
    void onCameraVisuel();
    void onCameraDirection();
    void hideAllPointClouds(tzHObject *object);
    void toggleLabels(bool checked);
    void recurseLabels(tzHObject *object, bool show);
    void showHelp();
    //! Escape in the viewer or on the tool bar: cancels what the active tool has pending and
    //! leaves the photo looked through.
    void onEscape();

protected:
    bool eventFilter(QObject *obj, QEvent *event) override;

private:
    //! Gives the view back what it had before the photo looked through was entered.
    void leavePhoto();
    void showLinkState(bool connected);
    //! Whether keys are the shortcut of one of the viewer's menu commands.
    bool isViewerShortcut(const QKeySequence &keys) const;
    void onLinkLost();
    void onLinkRestored(int sentLate, int dropped);
    void readSettings();
    void fillOptionsForm();
    void resetModes();
    void switchMode(QToolButton *button, tzTool *tool, const QString &message,
                    const std::function<void()> &configure);
    void releaseHub();
    void showMessage(const QString &text);
    void redraw();
    void passSelectionToTool();
    tzHObject *measurementGroup();

    QAction *m_action = nullptr;
    QAction *m_exportAction = nullptr; // File > Export measures
    QPointer<QMenu> m_pluginMenu; // Plugins > Lumivert (the viewer's menu bar owns it)
    QAction *m_helpAction = nullptr; // its Help, F1 during a run
    bool m_listening = false;
    qLumivertDlg *m_dialog = nullptr;
    tzAboutDlg *m_optionsDialog = nullptr;
    tzTool *m_activeTool = nullptr;
    tzLineationTool *m_lineationTool;
    tzCViseeTool *m_viseeTool;
    tzCommunicationHandler *m_comm;
    std::unique_ptr<tzFrameDispatcher> m_frames;
    std::shared_ptr<tzCoordinateFrame> m_frame = std::make_shared<tzCoordinateFrame>();
    tzGLWindow *m_glWindow = nullptr;
    QString m_styleNormal = QStringLiteral("border:1px solid #A9A9A9;");
    QString m_styleActive = QStringLiteral("border:1px solid #ff0000;");
    tzLumivertSettings m_settings; // read as a run starts, written by the options form
    int m_reserved = 4; // kept as declared; nothing reads it
    bool m_isZpress = false;
    bool m_cameraDirection = false;
    tzRunInput m_input {*this}; // the keys and the mouse, handled for the slots here
    friend class tzRunInput;
    tzPhotoStations m_photos;
};
