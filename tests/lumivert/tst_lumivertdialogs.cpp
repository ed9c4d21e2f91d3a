// The plug-in's forms as built: object names, geometry, texts and tips, and the help window
// with and without its page.

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
    QTest::addColumn<QRect>("geometry");
    QTest::addColumn<QString>("icon");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("tip");
    QTest::newRow("simple sight") << "pointPropertiesButton" << QRect(3, 4, 32, 31) << "Cible.png"
                                  << ""
                                  << "Créer une visée";
    QTest::newRow("lowest point") << "pointPropertiesPointButton" << QRect(41, 4, 32, 31)
                                  << "Zbas.png"
                                  << ""
                                  << "Créer une visée sur le points le plus bas";
    QTest::newRow("distance") << "pointPointDistanceButton" << QRect(79, 4, 32, 31)
                              << "smallPointDistance25.png"
                              << "..."
                              << "Distance entre 2 points";
    QTest::newRow("photos") << "optionCameraButton" << QRect(117, 4, 32, 31) << "cameraOn.png"
                            << "..."
                            << "Active/Desactive Photos";
    QTest::newRow("directions") << "normalCameraButton" << QRect(155, 4, 32, 31)
                                << "cameraAngleOff.png"
                                << "..."
                                << "Active/Desactive directions photos";
    QTest::newRow("options") << "aboutLabelButton" << QRect(193, 4, 32, 31) << "gearIcon.png"
                             << "..."
                             << "Option";
    QTest::newRow("close") << "closeButton" << QRect(231, 4, 32, 31) << "smallCancel25.png"
                           << "..."
                           << "Fermer";
    QTest::newRow("link") << "EtatConnection" << QRect(230, 40, 32, 31) << "ConnecteOff.png"
                          << ""
                          << "Etat de la connexion avec Mensurix";
}

void TestLumivertDialogs::toolBarForm()
{
    QFETCH(QString, name);
    QFETCH(QRect, geometry);
    QFETCH(QString, icon);
    QFETCH(QString, text);
    QFETCH(QString, tip);
    qLumivertDlg dialog;
    auto *button = dialog.findChild<QToolButton *>(name);
    QVERIFY(button);
    QCOMPARE(button->geometry(), geometry);
    QCOMPARE(button->text(), text);
    QCOMPARE(button->toolTip(), tip);
    QCOMPARE(button->statusTip(), tip);
    QCOMPARE(button->iconSize(), QSize(32, 31));
    QCOMPARE(button->toolButtonStyle(), Qt::ToolButtonIconOnly); // "..." buttons show their icon
    const QImage expected
        = QPixmap(QStringLiteral(":/TZ/plugin/qLumivert/images/") + icon).toImage();
    QVERIFY(!expected.isNull());
    QCOMPARE(expected.size(), QSize(32, 31));
    QCOMPARE(button->icon().pixmap(32, 31).toImage().convertToFormat(expected.format()), expected);
}

void TestLumivertDialogs::toolBarWindow()
{
    qLumivertDlg dialog;
    QCOMPARE(dialog.objectName(), QStringLiteral("LumivertDlg"));
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Points"));
    QCOMPARE(dialog.size(), QSize(269, 75));
    QVERIFY(dialog.windowFlags().testFlag(Qt::Tool));
    QVERIFY(dialog.windowFlags().testFlag(Qt::FramelessWindowHint));
    QVERIFY(dialog.testAttribute(Qt::WA_MouseTracking));
    QCOMPARE(dialog.SimpleAjoutZButton->text(), QStringLiteral("Modifier Z precedent"));
    QCOMPARE(dialog.SimpleAjoutZButton->geometry(), QRect(10, 40, 122, 17));
    QVERIFY(dialog.pointPointDistanceButton->whatsThis().isEmpty());
    // The owner makes the buttons checkable; the form does not.
    QVERIFY(!dialog.pointPropertiesButton->isCheckable());
}

void TestLumivertDialogs::optionsForm()
{
    tzAboutDlg form;
    QCOMPARE(form.objectName(), QStringLiteral("AboutDlg"));
    QCOMPARE(form.windowTitle(), QStringLiteral("Dialog"));
    QCOMPARE(form.size(), QSize(273, 291));
    QCOMPARE(form.Titre->text(), QStringLiteral("Interface Mensurix"));
    QCOMPARE(form.Titre->font().pointSize(), 12);
    QCOMPARE(int(form.Titre->alignment()), 132);
    QCOMPARE(form.VERSION->text(), QStringLiteral("%d"));
    QCOMPARE(form.COMPANYNAME->text(), QStringLiteral("Nom de la société :"));
    QCOMPARE(form.TitreOption->text(), QStringLiteral("Option Paramétrable:"));
    QCOMPARE(form.formLayout->rowCount(), 6);
    const char *labels[] = {"Précision du point le plus bas trouvé",
                            "Précision du point indiqué par le label",
                            "Definir la taille des points du cloud",
                            "Toujours afficher les Labels",
                            "Nombre de chiffres après la virgule dans le Label",
                            "Taille des sphères de photo"};
    for (int row = 0; row < 6; ++row) {
        auto *label = qobject_cast<QLabel *>(
            form.formLayout->itemAt(row, QFormLayout::LabelRole)->widget());
        QVERIFY(label);
        QCOMPARE(label->text(), QString::fromUtf8(labels[row]));
    }
    QCOMPARE(form.formLayout->itemAt(5, QFormLayout::FieldRole)->widget(),
             form.ValueSizeBoulePhoto);
    QCOMPARE(form.ValuePointSizeCloud->minimum(), 1);
    QCOMPARE(form.ValuePointSizeCloud->maximum(), 12);
    QCOMPARE(form.ValueAccuaryZLabel->minimum(), 1);
    QCOMPARE(form.ValueAccuaryZLabel->maximum(), 10);
    QCOMPARE(form.ValueAccuaryZLabel->value(), 2);
    QCOMPARE(form.ValueDisplayIn2D->text(), QStringLiteral("Oui"));
    // The double spin boxes keep the toolkit's defaults: two decimals, below 100.
    for (QDoubleSpinBox *box :
         {form.ValueAccuaryLowestPoint, form.ValueAccuaryMovePoint, form.ValueSizeBoulePhoto}) {
        QCOMPARE(box->decimals(), 2);
        QCOMPARE(box->maximum(), 99.99);
    }
    QCOMPARE(form.setInteriorButton->text(), QStringLiteral("OK"));
    QVERIFY(form.setInteriorButton->isCheckable());
    QVERIFY(!form.setInteriorButton->isChecked());
    QVERIFY(!form.setInteriorButton->autoDefault());
    QVERIFY(!form.setInteriorButton->isDefault());
}

void TestLumivertDialogs::helpWindow()
{
    tzLumivertInfo help;
    QCOMPARE(help.size(), QSize(800, 600));
    QCOMPARE(help.minimumSize(), QSize(800, 600));
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
    QCOMPARE(help.size(), QSize(800, 600));
    Q_INIT_RESOURCE(qLumivert);
}

QTEST_MAIN(TestLumivertDialogs)
#include "tst_lumivertdialogs.moc"
