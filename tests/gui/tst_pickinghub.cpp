// The picking hub's registration rules and delivery, and the overlay dialog's life cycle.

#include "tzGLWindow.h"
#include "tzLog.h"
#include "tzOverlayDialog.h"
#include "tzPickingHub.h"
#include "tzPickingListener.h"
#include "tzPointCloud.h"

#include <QMdiArea>
#include <QMdiSubWindow>
#include <QSignalSpy>
#include <QtTest>

#include <functional>

namespace {

struct Listener : tzPickingListener
{
    std::vector<PickedItem> picks;
    std::function<void()> onPick;
    void onItemPicked(const PickedItem &pi) override
    {
        picks.push_back(pi);
        if (onPick)
            onPick();
    }
};

// Collects the host log's warnings for the duration of a test.
struct LogCapture
{
    QStringList warnings;
    LogCapture()
    {
        tzLog::SetHandler([this](const QString &text, int level) {
            if (level == tzLog::LOG_WARNING)
                warnings << text;
        });
    }
    ~LogCapture() { tzLog::SetHandler({}); }
};

const QString EXCLUSIVE_HELD
    = QStringLiteral("[tzPickingHub::addListener] Exclusive listener already "
                     "registered: stop the other tool relying on point picking first");
const QString EXCLUSIVE_REFUSED
    = QStringLiteral("[tzPickingHub::addListener] Attempt to register an "
                     "exclusive listener while other listeners are already registered");
const QString OTHER_MODE = QStringLiteral("[tzPickingHub::addListener] Other listeners are already "
                                          "registered with a different picking mode");

} // namespace

class TestPickingHub : public QObject
{
    Q_OBJECT

private slots:
    void registrationRules_data();
    void registrationRules();
    void lastListenerLeavingRestoresDefaultMode();
    void activeWindowSwitchMovesTheMode();
    void everyListenerGetsThePickEvenIfOneLeaves();
    void overlayDialogLifeCycle();
    void overlayDialogRefusesRelinkWhileRunning();
    void overlayDialogStopsWhenItsViewGoes();
    void overlayDialogCapturesOverriddenKeys();
};

// Each row: a first registration (A), then a second one (A again or B); what the second returns,
// the warning it writes and the entries left.
void TestPickingHub::registrationRules_data()
{
    QTest::addColumn<bool>("firstExclusive");
    QTest::addColumn<int>("firstMode");
    QTest::addColumn<bool>("sameListener");
    QTest::addColumn<bool>("secondExclusive");
    QTest::addColumn<int>("secondMode");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<int>("entries");
    QTest::newRow("same exclusive listener twice")
        << true << 6 << true << true << 6 << true << QString() << 1;
    QTest::newRow("other listener while exclusive held")
        << true << 6 << false << false << 6 << false << EXCLUSIVE_HELD << 1;
    QTest::newRow("exclusive while another listens")
        << false << 6 << false << true << 6 << false << EXCLUSIVE_REFUSED << 1;
    QTest::newRow("second listener, same mode")
        << false << 6 << false << false << 6 << true << QString() << 2;
    QTest::newRow("second listener, other mode")
        << false << 6 << false << false << 5 << false << OTHER_MODE << 1;
    QTest::newRow("same listener changes its mode")
        << false << 6 << true << false << 5 << true << QString() << 1;
    QTest::newRow("same listener becomes exclusive")
        << false << 6 << true << true << 6 << true << QString() << 1;
}

void TestPickingHub::registrationRules()
{
    QFETCH(bool, firstExclusive);
    QFETCH(int, firstMode);
    QFETCH(bool, sameListener);
    QFETCH(bool, secondExclusive);
    QFETCH(int, secondMode);
    QFETCH(bool, accepted);
    QFETCH(QString, warning);
    QFETCH(int, entries);
    LogCapture log;
    tzPickingHub hub;
    Listener a, b;
    QVERIFY(!hub.addListener(nullptr));
    QVERIFY(hub.addListener(&a, firstExclusive, true, firstMode));
    QCOMPARE(hub.addListener(sameListener ? &a : &b, secondExclusive, true, secondMode), accepted);
    QCOMPARE(log.warnings, warning.isEmpty() ? QStringList() : QStringList {warning});
    QCOMPARE(int(hub.listenerCount()), entries);
    // A refused registration changes nothing.
    QCOMPARE(hub.isLocked(), accepted ? secondExclusive : firstExclusive);
    QCOMPARE(hub.pickingMode(), accepted ? secondMode : firstMode);
}

void TestPickingHub::lastListenerLeavingRestoresDefaultMode()
{
    QMdiArea area;
    auto *view = new tzGLWindow;
    QMdiSubWindow *sub = area.addSubWindow(view);
    tzPickingHub hub;
    hub.onActiveWindowChanged(sub);
    QCOMPARE(hub.activeWindow(), view);
    Listener a, b;
    QVERIFY(hub.addListener(&a, false, true, 6));
    QVERIFY(hub.addListener(&b, false, true, 6));
    QCOMPARE(view->getPickingMode(), 6);
    hub.removeListener(&a);
    QCOMPARE(view->getPickingMode(), 6); // b still listens
    hub.removeListener(&b);
    QCOMPARE(view->getPickingMode(), int(tzPickingHub::DEFAULT_PICKING_MODE));
    QVERIFY(!hub.isLocked());

    // Without autoStart the view's mode is left alone.
    QVERIFY(hub.addListener(&a, true, false, 6));
    QCOMPARE(view->getPickingMode(), int(tzPickingHub::DEFAULT_PICKING_MODE));
    QVERIFY(hub.isLocked());
    hub.removeListener(&a);
    QVERIFY(!hub.isLocked());
}

void TestPickingHub::activeWindowSwitchMovesTheMode()
{
    QMdiArea area;
    auto *first = new tzGLWindow;
    auto *second = new tzGLWindow;
    QMdiSubWindow *subFirst = area.addSubWindow(first);
    QMdiSubWindow *subSecond = area.addSubWindow(second);
    tzPickingHub hub;
    Listener a;
    QVERIFY(hub.addListener(&a, true, true, 6));
    hub.onActiveWindowChanged(subFirst);
    QCOMPARE(first->getPickingMode(), 6);
    hub.onActiveWindowChanged(subSecond);
    QCOMPARE(first->getPickingMode(), int(tzPickingHub::DEFAULT_PICKING_MODE));
    QCOMPARE(second->getPickingMode(), 6);

    // Only the active view's picks are delivered.
    tzPointCloud cloud;
    emit first->itemPicked(&cloud, 1, 2, 3, TZVector3(1, 2, 3));
    QVERIFY(a.picks.empty());
    emit second->itemPicked(&cloud, 7, 10, 20, TZVector3(4, 5, 6));
    QCOMPARE(a.picks.size(), std::size_t(1));
    QCOMPARE(a.picks[0].entity, static_cast<tzHObject *>(&cloud));
    QCOMPARE(a.picks[0].itemIndex, 7u);
    QCOMPARE(a.picks[0].clickPoint, QPoint(10, 20));
    QCOMPARE(a.picks[0].P3D, TZVector3(4, 5, 6));

    delete subSecond;
    QCOMPARE(hub.activeWindow(), static_cast<tzGLWindow *>(nullptr));
    hub.onActiveWindowChanged(nullptr); // nothing to undo, no crash
    hub.removeListener(&a);
}

void TestPickingHub::everyListenerGetsThePickEvenIfOneLeaves()
{
    tzPickingHub hub;
    Listener listeners[3];
    for (Listener &l : listeners)
        QVERIFY(hub.addListener(&l, false, true, 6));
    // Whichever is delivered first leaves the hub from within its handler.
    Listener *first = std::min({&listeners[0], &listeners[1], &listeners[2]});
    first->onPick = [&hub, first] { hub.removeListener(first); };
    hub.processPickedItem(nullptr, 3, 0, 0, TZVector3());
    for (const Listener &l : listeners)
        QCOMPARE(l.picks.size(), std::size_t(1));
    QCOMPARE(hub.listenerCount(), std::size_t(2));
    for (Listener &l : listeners)
        hub.removeListener(&l);
    hub.processPickedItem(nullptr, 3, 0, 0, TZVector3()); // nobody listens: nothing happens
    QCOMPARE(listeners[1].picks.size(), std::size_t(1));
}

void TestPickingHub::overlayDialogLifeCycle()
{
    tzGLWindow view;
    tzOverlayDialog dialog;
    QSignalSpy finished(&dialog, &tzOverlayDialog::processFinished);
    QVERIFY(dialog.linkToView(&view));
    QVERIFY(dialog.start());
    QVERIFY(dialog.isVisible());
    QVERIFY(!dialog.start()); // already running
    dialog.stop(true);
    QVERIFY(!dialog.isVisible());
    QCOMPARE(dialog.associatedWindow(), static_cast<tzGLWindow *>(nullptr));
    QCOMPARE(finished.size(), 1);
    QCOMPARE(finished.at(0).at(0).toBool(), true);

    QVERIFY(dialog.linkToView(&view));
    QVERIFY(dialog.start());
    dialog.reject();
    QCOMPARE(finished.size(), 2);
    QCOMPARE(finished.at(1).at(0).toBool(), false);
    QVERIFY(!dialog.isProcessing());
}

void TestPickingHub::overlayDialogRefusesRelinkWhileRunning()
{
    LogCapture log;
    tzGLWindow first, second;
    tzOverlayDialog dialog;
    QVERIFY(dialog.linkToView(&first));
    QVERIFY(dialog.linkToView(&first)); // same window: fine
    QVERIFY(dialog.start());
    QVERIFY(!dialog.linkToView(&second));
    QCOMPARE(dialog.associatedWindow(), &first);
    QCOMPARE(
        log.warnings,
        QStringList {"[tzOverlayDialog] Can't change associated window while running/displayed!"});
    dialog.stop(false);
}

void TestPickingHub::overlayDialogStopsWhenItsViewGoes()
{
    auto *view = new tzGLWindow;
    tzOverlayDialog dialog;
    QSignalSpy finished(&dialog, &tzOverlayDialog::processFinished);
    QVERIFY(dialog.linkToView(view));
    QVERIFY(dialog.start());
    delete view;
    QCOMPARE(finished.size(), 1);
    QVERIFY(!dialog.isProcessing());
    QCOMPARE(dialog.associatedWindow(), static_cast<tzGLWindow *>(nullptr));
}

void TestPickingHub::overlayDialogCapturesOverriddenKeys()
{
    QWidget topLevel; // the dialog filters the application's top-level widgets
    topLevel.show();
    tzGLWindow view;
    tzOverlayDialog dialog;
    dialog.addOverriddenShortcut(Qt::Key_Escape);
    QSignalSpy shortcuts(&dialog, &tzOverlayDialog::shortcutTriggered);
    QVERIFY(dialog.linkToView(&view));
    QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QCoreApplication::sendEvent(&topLevel, &escape);
    QCOMPARE(shortcuts.size(), 1);
    QCOMPARE(shortcuts.at(0).at(0).toInt(), int(Qt::Key_Escape));
    QKeyEvent other(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier);
    QCoreApplication::sendEvent(&topLevel, &other);
    QCOMPARE(shortcuts.size(), 1);
    QVERIFY(dialog.linkToView(nullptr));
    QCoreApplication::sendEvent(&topLevel, &escape);
    QCOMPARE(shortcuts.size(), 1); // unlinked: no longer filtering
}

QTEST_MAIN(TestPickingHub)
#include "tst_pickinghub.moc"
