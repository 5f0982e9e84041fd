#include "ControllerSim.h"
#include "DisplayTestHome.h"
#include "UiSeam.h"
#include "VelmoraWindow.h"
#include "setPar.h"
#include "splitForm.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QMenu>
#include <QSettings>
#include <QTabWidget>
#include <QTableWidget>
#include <QToolBar>
#include <QtTest>

#include <memory>

// Main-window tests run against simulators on 127.0.0.100-109.
class tst_mainwindow : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void toolbar();
    void addIsLimitedByWidth();
    void removeTakesTheFocusedPanel();
    void switchDeviceMovesOnlyTheFocusedPanel();
    void pasteAcrossPanelsWritesEachValue();
    void configurationMode();
    void layoutIsWrittenOnDestructionAndRestored();
    void noPanelsKeepsThePreviousLayout();

private:
    static QList<splitForm *> panels(Velmora &w) { return w.findChildren<splitForm *>(); }
    static QTableWidget *shownTable(splitForm *panel)
    {
        return qobject_cast<QTableWidget *>(panel->findChild<QTabWidget *>()->currentWidget());
    }
    static QAction *action(Velmora &w, int i) { return w.findChild<QToolBar *>()->actions().at(i); }
    void showActive(Velmora &w);
    // Shown 700 wide, pointed at ip, with that many panels added to those it has.
    void open(Velmora &w, const QString &ip, int panelCount);
    void focusTable(splitForm *panel);
    void writeLayout(int count);

    QStringList boxes;   // "title|text" of every information box
    QString ini;
};

void tst_mainwindow::init()
{
    boxes.clear();
    UiSeam::informationHook = [this](QWidget *, const QString &title, const QString &text) {
        boxes << title + "|" + text;
    };
    ini = DisplayTestHome::path() + "/dialogProtocol.ini";
    QFile::remove(ini);
    QVERIFY(DisplayTestHome::writeLabels());
}

void tst_mainwindow::cleanup()
{
    UiSeam::reset();
}

void tst_mainwindow::showActive(Velmora &w)
{
    w.show();
    w.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&w, 5000));
}

void tst_mainwindow::open(Velmora &w, const QString &ip, int panelCount)
{
    w.setCncIp(ip);
    w.resize(700, 500);
    showActive(w);
    const int before = panels(w).size();
    for (int i = 0; i < panelCount; ++i)
        w.addSplitForm_clicked();
    QCOMPARE(panels(w).size(), before + panelCount);
}

void tst_mainwindow::focusTable(splitForm *panel)
{
    QTableWidget *t = shownTable(panel);
    t->setFocus();
    QTRY_VERIFY_WITH_TIMEOUT(panel->tableHasFocus(), 5000);
}

void tst_mainwindow::writeLayout(int count)
{
    QSettings s(ini, QSettings::IniFormat);
    s.setValue("/VelmoraInformationSize/displaySize", count);
}

void tst_mainwindow::toolbar()
{
    Velmora w;
    QCOMPARE(w.windowTitle(), QStringLiteral("Velmora"));
    QVERIFY(panels(w).isEmpty());   // no layout file yet
    const QList<QAction *> actions = w.findChild<QToolBar *>()->actions();
    QCOMPARE(actions.size(), 5);
    QCOMPARE(actions.at(0)->text(), QStringLiteral("增加显示窗口"));
    QVERIFY(actions.at(1)->isSeparator());
    QCOMPARE(actions.at(2)->text(), QStringLiteral("删除显示窗口"));
    QCOMPARE(actions.at(3)->text(), QStringLiteral("切换设备"));
    QCOMPARE(actions.at(4)->text(), QStringLiteral("配置参数"));
    // Hosts reach the slots through the meta-object, by index as well as by name.
    QStringList names;
    const QMetaObject &mo = Velmora::staticMetaObject;
    for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
        names << QString::fromLatin1(mo.method(i).methodSignature());
    QCOMPARE(names, QStringList({"addSplitForm_clicked()", "removeSplitForm_clicked()", "mytestFunction()",
                                 "setParFunction()", "splitFormPasteFunction()",
                                 "splitFormCopyFunction(QStringList)"}));
    w.resize(700, 500);
    actions.at(0)->trigger();
    QCOMPARE(panels(w).size(), 1);
}

void tst_mainwindow::addIsLimitedByWidth()
{
    ControllerSim sim(QStringLiteral("127.0.0.100"));
    QVERIFY(sim.start());
    Velmora w;
    w.setCncIp(QStringLiteral("127.0.0.100"));
    w.resize(436, 500);
    showActive(w);
    QCOMPARE(w.width(), 436);

    w.addSplitForm_clicked();
    w.addSplitForm_clicked();   // 2 x 218 = 436 still fits
    QCOMPARE(panels(w).size(), 2);
    QVERIFY(boxes.isEmpty());
    w.addSplitForm_clicked();   // 654 > 436
    QCOMPARE(panels(w).size(), 2);
    QCOMPARE(boxes, QStringList({QStringLiteral("错误警告|达到最大显示个数\n\r")}));

    // New panels are connected to the window's address and refresh at once.
    for (splitForm *p : panels(w)) {
        QVERIFY(p->isConnected());
        QVERIFY(p->isUpdating());
        QCOMPARE(p->findChild<QLabel *>("label")->text(), QStringLiteral("当前设备:127.0.0.100"));
    }

    // Wider, a third fits.
    w.resize(660, 500);
    QTRY_COMPARE_WITH_TIMEOUT(w.width(), 660, 5000);
    w.addSplitForm_clicked();
    QCOMPARE(panels(w).size(), 3);
}

void tst_mainwindow::removeTakesTheFocusedPanel()
{
    Velmora w;
    open(w, QStringLiteral("127.0.0.109"), 3);
    QList<splitForm *> before = panels(w);

    w.removeSplitForm_clicked();
    QCOMPARE(boxes, QStringList({QStringLiteral("错误警告|选择需要删除窗口\n\r")}));
    QCOMPARE(panels(w).size(), 3);

    QPointer<splitForm> middle = before.at(1);
    focusTable(middle);
    w.removeSplitForm_clicked();
    QVERIFY(middle.isNull());
    QCOMPARE(panels(w).size(), 2);
    // The rest close ranks, left to right, and share the width.
    QTRY_VERIFY_WITH_TIMEOUT(before.at(2)->width() > 300, 5000);
    QVERIFY(before.at(0)->width() > 300);
    QVERIFY(before.at(0)->geometry().right() < before.at(2)->geometry().left());
}

void tst_mainwindow::switchDeviceMovesOnlyTheFocusedPanel()
{
    ControllerSim first(QStringLiteral("127.0.0.101"));
    ControllerSim second(QStringLiteral("127.0.0.102"));
    QVERIFY(first.start());
    QVERIFY(second.start());
    second.setVariable(1000005, 7007);

    Velmora w;
    open(w, QStringLiteral("127.0.0.101"), 2);
    const QList<splitForm *> ps = panels(w);

    QStringList asked;
    QString answer = QStringLiteral("127.0.0.102");
    UiSeam::textHook = [&](QWidget *, const QString &title, const QString &label, const QString &, bool *ok) {
        asked << title + "|" + label;
        *ok = true;
        return answer;
    };

    w.mytestFunction();
    QCOMPARE(boxes, QStringList({QStringLiteral("错误警告|\t请选中需要切换的设备模块表格\n\r")}));
    QVERIFY(asked.isEmpty());

    focusTable(ps.at(1));
    answer.clear();   // empty answer: nothing changes
    w.mytestFunction();
    QCOMPARE(ps.at(1)->findChild<QLabel *>("label")->text(), QStringLiteral("当前设备:127.0.0.101"));

    answer = QStringLiteral("127.0.0.102");
    w.mytestFunction();
    QCOMPARE(asked.last(), QStringLiteral(" 切换设备|设备IP:"));
    QCOMPARE(ps.at(1)->findChild<QLabel *>("label")->text(), QStringLiteral("当前设备:127.0.0.102"));
    QCOMPARE(ps.at(0)->findChild<QLabel *>("label")->text(), QStringLiteral("当前设备:127.0.0.101"));
    QVERIFY(ps.at(1)->isUpdating());
    QTRY_COMPARE_WITH_TIMEOUT(shownTable(ps.at(1))->item(0, 1)->text(), QStringLiteral("7007"), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(first.connectionCount(), 1, 5000);

    // Panels added later still go to the window's address.
    w.addSplitForm_clicked();
    QCOMPARE(panels(w).last()->findChild<QLabel *>("label")->text(), QStringLiteral("当前设备:127.0.0.101"));
}

void tst_mainwindow::pasteAcrossPanelsWritesEachValue()
{
    ControllerSim sim(QStringLiteral("127.0.0.103"));
    QVERIFY(sim.start());
    sim.setVariable(1000005, 15);
    sim.setVariable(1000006, 16);
    sim.setVariable(1010005, 105);

    Velmora w;
    open(w, QStringLiteral("127.0.0.103"), 2);
    const QList<splitForm *> ps = panels(w);
    w.setUpdataStart(false);

    // Copy three values from the first panel's page.
    splitForm *from = ps.at(0);
    QVERIFY(QMetaObject::invokeMethod(from, "updataTimeOutFunction"));
    QTableWidget *source = shownTable(from);
    source->setSelectionMode(QAbstractItemView::MultiSelection);
    for (int r = 0; r < 3; ++r)
        source->item(r, 1)->setSelected(true);
    source->findChild<QMenu *>()->actions().at(0)->trigger();

    // Paste them into the register page of the second panel.
    splitForm *to = ps.at(1);
    to->setPosition(1, 0);
    QTableWidget *target = shownTable(to);
    focusTable(to);
    target->setCurrentCell(1, 1);
    target->findChild<QMenu *>()->actions().at(1)->trigger();

    QStringList pasted;
    for (int r = 1; r < 4; ++r)
        pasted << target->item(r, 1)->text();
    pasted.sort();
    QCOMPARE(pasted, QStringList({"105", "15", "16"}));
    QList<qint32> written{sim.variable(1040011), sim.variable(1040012), sim.variable(1040013)};
    std::sort(written.begin(), written.end());
    QCOMPARE(written, QList<qint32>({15, 16, 105}));
    QCOMPARE(sim.variable(1040010), 0);
    QCOMPARE(sim.variable(1040014), 0);

    // Without a focused panel, paste does nothing.
    target->clearFocus();
    source->clearFocus();
    w.findChild<QToolBar *>()->setFocus();
    QTRY_VERIFY_WITH_TIMEOUT(!to->tableHasFocus(), 5000);
    sim.clearRequests();
    w.splitFormPasteFunction();
    QVERIFY(sim.requests('D').isEmpty());
}

// Entering hides and stops the panels and refuses panel changes; leaving
// unsaved asks first and reloads nothing; leaving after a save reloads every
// panel from the saved file without asking.
void tst_mainwindow::configurationMode()
{
    writeLayout(1);
    Velmora w;
    open(w, QStringLiteral("127.0.0.106"), 0);
    splitForm *panel = panels(w).at(0);
    QComboBox *shown = panel->findChild<QComboBox *>("functionModule");

    w.setParFunction();
    QCOMPARE(action(w, 4)->text(), QStringLiteral("退出配置模式"));
    QVERIFY(!panel->isVisible());
    QVERIFY(!panel->isUpdating());
    setPar *editor = w.findChild<setPar *>();
    QVERIFY(editor && editor->isVisible());
    int asked = 0;
    UiSeam::textHook = [&](QWidget *, const QString &, const QString &, const QString &, bool *ok) {
        ++asked;
        *ok = true;
        return QStringLiteral("127.0.0.104");
    };
    w.addSplitForm_clicked();
    w.removeSplitForm_clicked();
    w.mytestFunction();
    const QString refusal = QStringLiteral("错误警告|还配置模式中，切换失败\n\r");
    QCOMPARE(boxes, QStringList({refusal, refusal, refusal}));
    QCOMPARE(panels(w).size(), 1);
    QCOMPARE(asked, 0);

    QStringList questions;
    int button = 1;   // "否"
    UiSeam::questionHook = [&](QWidget *, const QString &title, const QString &text, const QStringList &buttons) {
        questions << title + "|" + text + "|" + buttons.join(",");
        return button;
    };
    editor->findChild<QComboBox *>("moduleFunction")->setItemText(0, QStringLiteral("主轴"));
    w.setParFunction();
    QCOMPARE(questions, QStringList({QStringLiteral("退出配置模式|尚未配置，是否继续退出|是,否")}));
    QVERIFY(editor->isVisible());
    button = 0;   // "是": leaves, the unsaved rename is not shown
    w.setParFunction();
    QCOMPARE(action(w, 4)->text(), QStringLiteral("配置模式"));
    QVERIFY(!editor->isVisible() && panel->isVisible() && panel->isUpdating());
    QCOMPARE(shown->itemText(0), QStringLiteral("轴参数"));

    w.setParFunction();
    editor->findChild<QComboBox *>("moduleFunction")->setItemText(0, QStringLiteral("主轴"));
    QVERIFY(QMetaObject::invokeMethod(editor, "on_save_clicked"));
    w.setParFunction();
    QCOMPARE(questions.size(), 2);
    QCOMPARE(shown->count(), 2);
    QCOMPARE(shown->itemText(0), QStringLiteral("主轴"));
    QCOMPARE(panel->findChild<QTabWidget *>()->count(), 2);
    QVERIFY(panel->isVisible() && panel->isUpdating());
    w.addSplitForm_clicked();
    QCOMPARE(panels(w).size(), 2);
    QCOMPARE(boxes.size(), 3);
}

void tst_mainwindow::layoutIsWrittenOnDestructionAndRestored()
{
    {
        // Left over from some other layout: the window rewrites its groups whole.
        QSettings s(ini, QSettings::IniFormat);
        s.setValue("/VelmoraInformationSize/stale", 1);
        s.setValue("/VelmoraInformation1/stale", 1);
    }
    {
        Velmora w;
        w.resize(900, 500);
        w.addSplitForm_clicked();
        w.addSplitForm_clicked();
        w.addSplitForm_clicked();
        panels(w).at(0)->setPosition(0, 1);
        panels(w).at(1)->setPosition(1, 0);
    }
    {
        QSettings s(ini, QSettings::IniFormat);
        QCOMPARE(s.value("/VelmoraInformationSize/displaySize").toInt(), 3);
        QCOMPARE(s.value("/VelmoraInformation0/moduleIndex").toInt(), 0);
        QCOMPARE(s.value("/VelmoraInformation0/subModuleIndex").toInt(), 1);
        QCOMPARE(s.value("/VelmoraInformation1/moduleIndex").toInt(), 1);
        QCOMPARE(s.value("/VelmoraInformation1/subModuleIndex").toInt(), 0);
        QCOMPARE(s.value("/VelmoraInformation2/moduleIndex").toInt(), 0);
        QCOMPARE(s.value("/VelmoraInformation2/subModuleIndex").toInt(), 0);
        QFile file(ini);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray text = file.readAll();
        QVERIFY2(text.contains("[VelmoraInformationSize]\ndisplaySize=3\n"), text.constData());
        QVERIFY2(text.contains("[VelmoraInformation1]\nmoduleIndex=1\nsubModuleIndex=0\n"), text.constData());
        QVERIFY2(!text.contains("stale"), text.constData());
    }
    {
        Velmora w;
        const QList<splitForm *> ps = panels(w);
        QCOMPARE(ps.size(), 3);
        QCOMPARE(ps.at(0)->position(), qMakePair(0, 1));
        QCOMPARE(ps.at(1)->position(), qMakePair(1, 0));
        QCOMPARE(ps.at(2)->position(), qMakePair(0, 0));
        for (splitForm *p : ps)
            QVERIFY(p->isUpdating());
    }

    // A stored position out of range leaves the panel at the start; a panel
    // without modules is written as -1.
    {
        QSettings s(ini, QSettings::IniFormat);
        s.setValue("/VelmoraInformationSize/displaySize", 1);
        s.setValue("/VelmoraInformation0/moduleIndex", 9);
        s.setValue("/VelmoraInformation0/subModuleIndex", 9);
    }
    DisplayTestHome::removeLabels();
    {
        Velmora w;
        QCOMPARE(panels(w).size(), 1);
        QCOMPARE(panels(w).at(0)->position(), qMakePair(-1, -1));
    }
    QSettings s(ini, QSettings::IniFormat);
    QCOMPARE(s.value("/VelmoraInformationSize/displaySize").toInt(), 1);
    QCOMPARE(s.value("/VelmoraInformation0/moduleIndex").toInt(), -1);
    QCOMPARE(s.value("/VelmoraInformation0/subModuleIndex").toInt(), -1);
}

void tst_mainwindow::noPanelsKeepsThePreviousLayout()
{
    writeLayout(2);
    {
        Velmora w;
        open(w, QStringLiteral("127.0.0.106"), 0);
        QCOMPARE(panels(w).size(), 2);
        for (int i = 0; i < 2; ++i) {
            focusTable(panels(w).at(0));
            w.removeSplitForm_clicked();
        }
        QVERIFY(panels(w).isEmpty());
    }
    QSettings s(ini, QSettings::IniFormat);
    QCOMPARE(s.value("/VelmoraInformationSize/displaySize").toInt(), 2);
    Velmora again;
    QCOMPARE(panels(again).size(), 2);
}

int main(int argc, char **argv)
{
    return DisplayTestHome::run(argc, argv, [](int c, char **v) {
        QApplication app(c, v);
        tst_mainwindow test;
        return QTest::qExec(&test, c, v);
    });
}

#include "tst_mainwindow.moc"
