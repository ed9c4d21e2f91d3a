// The plug-in's forms as built: the tool bar's pictures and window, the options fields, and the
// help window with and without its page.

#include "qLumivertDlg.h"
#include "tzAboutDlg.h"
#include "tzLumivertInfo.h"

#include <QPushButton>
#include <QTextEdit>
#include <QtTest>

class TestLumivertDialogs : public QObject
{
    Q_OBJECT

private slots:
    void toolBarForm_data();
    void toolBarForm();
    void toolBarWindow();
    void optionsForm();
    void helpWindow();
    void helpWindowWithoutItsPage();
};

void TestLumivertDialogs::toolBarForm_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("icon");
    QTest::newRow("simple sight") << "pointPropertiesButton"
                                  << "Cible.png";
    QTest::newRow("lowest point") << "pointPropertiesPointButton"
                                  << "Zbas.png";
    QTest::newRow("distance") << "pointPointDistanceButton"
                              << "smallPointDistance25.png";
    QTest::newRow("photos") << "optionCameraButton"
                            << "cameraOn.png";
    QTest::newRow("directions") << "normalCameraButton"
                                << "cameraAngleOff.png";
    QTest::newRow("options") << "aboutLabelButton"
                             << "gearIcon.png";
    QTest::newRow("close") << "closeButton"
                           << "smallCancel25.png";
    QTest::newRow("link") << "EtatConnection"
                          << "ConnecteOff.png";
}

void TestLumivertDialogs::toolBarForm()
{
    // Every button shows its picture from the resources (a renamed or missing icon would leave
    // an empty or a text button).
    QFETCH(QString, name);
    QFETCH(QString, icon);
    qLumivertDlg dialog;
    auto *button = dialog.findChild<QToolButton *>(name);
    QVERIFY(button);
    QCOMPARE(button->toolButtonStyle(), Qt::ToolButtonIconOnly);
    const QImage expected
        = QPixmap(QStringLiteral(":/TZ/plugin/qLumivert/images/") + icon).toImage();
    QVERIFY(!expected.isNull());
    QCOMPARE(button->icon().pixmap(expected.size()).toImage().convertToFormat(expected.format()),
             expected);
}

void TestLumivertDialogs::toolBarWindow()
{
    // An overlay over the view: a frameless tool window that follows the mouse.
    qLumivertDlg dialog;
    QVERIFY(dialog.windowFlags().testFlag(Qt::Tool));
    QVERIFY(dialog.windowFlags().testFlag(Qt::FramelessWindowHint));
    QVERIFY(dialog.testAttribute(Qt::WA_MouseTracking));
    // The owner makes the buttons checkable; the form does not.
    QVERIFY(!dialog.pointPropertiesButton->isCheckable());
}

void TestLumivertDialogs::optionsForm()
{
    // The six fields in the order of the settings they edit, and an OK button that Enter in a
    // field does not press by itself.
    tzAboutDlg form;
    QWidget *fields[]
        = {form.ValueAccuaryLowestPoint, form.ValueAccuaryMovePoint, form.ValuePointSizeCloud,
           form.ValueDisplayIn2D,        form.ValueAccuaryZLabel,    form.ValueSizeBoulePhoto};
    QCOMPARE(form.formLayout->rowCount(), 6);
    for (int row = 0; row < 6; ++row)
        QCOMPARE(form.formLayout->itemAt(row, QFormLayout::FieldRole)->widget(), fields[row]);
    QVERIFY(!form.setInteriorButton->autoDefault());
    QVERIFY(!form.setInteriorButton->isDefault());
}

void TestLumivertDialogs::helpWindow()
{
    tzLumivertInfo help;
    QVERIFY(help.textView()->isReadOnly());
    const QString text = help.textView()->toPlainText();
    for (const char *topic :
         {"Créer une visée", "point le plus bas", "Z", "Ctrl", "images.json", "Mensurix", "6601"})
        QVERIFY2(text.contains(QString::fromUtf8(topic)), topic);
    auto *ok = help.findChild<QPushButton *>();
    QCOMPARE(ok->text(), QStringLiteral("Ok"));
    help.show();
    QTest::mouseClick(ok, Qt::LeftButton);
    QCOMPARE(help.result(), int(QDialog::Accepted));
    QVERIFY(!help.isVisible());
}

void TestLumivertDialogs::helpWindowWithoutItsPage()
{
    Q_CLEANUP_RESOURCE(qLumivert);
    tzLumivertInfo help;
    QCOMPARE(help.textView()->toPlainText(),
             QStringLiteral("Error loading documentation file...."));
    Q_INIT_RESOURCE(qLumivert);
}

QTEST_MAIN(TestLumivertDialogs)
#include "tst_lumivertdialogs.moc"
