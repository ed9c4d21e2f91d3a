#pragma once

#include "TZVector3.h"
#include "tzApplicationInterface.h"

#include <QMainWindow>

#include <QPoint>
#include <QPointer>
#include <QTimer>
#include <optional>

#include <memory>
#include <vector>

class QAction;
class QLabel;
class QMdiArea;
class QMdiSubWindow;
class QMenu;
class QToolBar;
class tzFileLoader;
class tzLoadPipeline;
class tzConsole;
class tzDBTree;
class tzGenericPointCloud;
class tzGLWindow;
class tzPluginManager;
class tzPointCloud;
class tzProgressDialog;

//! The viewer's main window and its application interface: one 3D view in an MDI area, the
//! database tree, the console, file opening and the plug-ins.
class tzMainWindow : public QMainWindow, public tzApplicationInterface
{
    Q_OBJECT

public:
    struct Options
    {
        //! Take the suggested global shift without asking (headless and scripted runs).
        bool autoShift = false;
        //! Load the plug-ins found in the search paths.
        bool loadPlugins = true;
        //! How long a load runs before its progress is shown (ms).
        int progressDelay = 300;
        //! How many points go to the GPU in one step of a load's last phase (24 MB of
        //! coordinates); the event loop, and Cancel, run between the steps.
        unsigned uploadStepPoints = 2000000;
        //! How every cloud opened is shown: a tzPointDisplay::ColourMode (-1: as it comes), a
        //! point size (0: the view's).
        int colourMode = -1;
        int pointSize = 0;
    };

    explicit tzMainWindow(const Options &options);
    ~tzMainWindow() override;

    // tzApplicationInterface
    tzGLWindow *activeView() override;
    QMainWindow *mainWindow() override { return this; }
    tzHObject *databaseRoot() override { return m_root.get(); }
    tzPickingHub *pickingHub() override { return m_hub; }
    const tzHObject::Container &selectedObjects() const override { return m_selected; }
    void attachOverlayDialog(tzOverlayDialog *dialog, Qt::Corner corner) override;
    void detachOverlayDialog(tzOverlayDialog *dialog) override;
    void printToConsole(const QString &text, int level = STD_CONSOLE_MESSAGE) override;
    void addToDatabase(tzHObject *object, bool updateZoom = false, bool autoExpandDBTree = true,
                       bool checkDimensions = false, bool autoRedraw = true) override;
    void removeFromDatabase(tzHObject *object, bool autoDelete = true) override;
    void refreshAllViews(bool only2D = false) override;
    tzUniqueIDGenerator::Shared getUniqueIDGenerator() override;

    //! Opens point cloud and scene (.tzs) files, one after the other, each on a worker thread.
    //! The "LoadFile/currentPath" setting follows the last one.
    void openFiles(const QStringList &paths);
    //! True while a file is being opened.
    bool isLoading() const;
    //! Reads a scene on this thread and adds its objects to the scene (scripts, tests).
    bool loadScene(const QString &path);
    bool saveScene(const QString &path);
    //! Asks where (beside the first cloud, or where the scene was saved or loaded last) and
    //! saves; false when the user cancels or the file cannot be written.
    bool saveSceneAs();
    //! Asks where, and writes the selected cloud as LAS, LAZ or PLY in its global coordinates.
    void saveCloudAs();
    //! Whether the scene holds work not in a scene file: its objects other than the clouds
    //! (sights, distances, the companion's objects: their names and metadata) differ from
    //! what was last saved or loaded. Opening a cloud is not such a change.
    bool hasUnsavedChanges() const;
    void loadPlugins(const QStringList &folders);

    //! The status bar's texts: the point under the cursor (global coordinates) and the scale.
    QString cursorStatus() const;
    QString scaleStatus() const;
    //! What the streamed clouds shown hold in memory, and their budget (empty without any).
    QString streamStatus() const;

    tzConsole *console() const { return m_console; }
    tzDBTree *dbTree() const { return m_tree; }
    tzPluginManager *pluginManager() const { return m_plugins; }
    QToolBar *pluginToolBar() const { return m_pluginToolBar; }
    QMenu *pluginMenu() const { return m_pluginMenu; }

signals:
    //! A cloud file finished opening (or failed: cloud is null).
    void fileOpened(const QString &path, bool ok);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;
    //! The view moves on the screen with the window: so do its overlays.
    void moveEvent(QMoveEvent *event) override;

private slots:
    void onSelectionChanged();
    void onEntityClicked(tzHObject *entity);
    //! A path chosen in a save dialog, with the suffix added when it has none: false when
    //! nothing was chosen, or when the name with the suffix is a file the user will not replace.
    bool completedSavePath(QString &path, const QString &suffix);
    //! The global shift of the scene's first cloud (what a file opened into it is offered
    //! first), or nothing while the scene has no cloud.
    std::optional<TZVector3d> sceneCloudShift() const;
    //! What a load read joins the scene (the window takes it).
    void adoptLoaded(const QString &path, tzHObject *loaded);

private:
    void createMenus();
    //! The selected clouds; the clouds in and under an object.
    std::vector<tzPointCloud *> selectedClouds() const;
    static std::vector<tzPointCloud *> cloudsOf(tzHObject *object);
    //! Shows a cloud just opened as the command line asked.
    void applyDisplayOptions(tzGenericPointCloud *cloud, const QString &path);
    void createStatusBar();
    //! The global coordinates of the cloud point under the last cursor position.
    void showCursorPoint();
    void showScale();
    void placeOverlays();
    void adoptScene(std::unique_ptr<tzHObject> scene, const QString &path);
    QByteArray sceneSignature() const;
    //! A scene file name for the save dialog to propose.
    QString proposedScenePath() const;

    Options m_options;
    std::unique_ptr<tzHObject> m_root;
    tzPickingHub *m_hub = nullptr;
    QMdiArea *m_mdi = nullptr;
    tzGLWindow *m_view = nullptr;
    tzDBTree *m_tree = nullptr;
    tzConsole *m_console = nullptr;
    tzPluginManager *m_plugins = nullptr;
    QToolBar *m_pluginToolBar = nullptr;
    QMenu *m_pluginMenu = nullptr;
    tzHObject::Container m_selected;
    std::vector<unsigned> m_selectedIDs; // the same, by unique ID, to unselect them safely
    std::vector<std::pair<QPointer<tzOverlayDialog>, Qt::Corner>> m_overlays;
    tzLoadPipeline *m_loads = nullptr; // the files being opened
    QAction *m_saveCloudAction = nullptr; // File > Save cloud as, while a cloud is selected
    QLabel *m_cursorLabel = nullptr;
    QLabel *m_scaleLabel = nullptr;
    QLabel *m_streamLabel = nullptr;
    QPoint m_cursorPos;
    QTimer m_cursorTimer; // at most one look-up of the point under the cursor per interval
    QByteArray m_savedSignature; // of the scene as last saved or loaded
    QString m_scenePath; // the scene file saved or loaded last
};
