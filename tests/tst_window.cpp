// The display panels and the main window that hosts them, against simulated
// controllers on 127.0.0.90-109. The program runs from a private directory
// (DisplayTestHome) that holds its labels file and its "dialogProtocol.ini".
#include "ControllerSim.h"
#include "DisplayTestHome.h"
#include "UiSeam.h"
#include "VelmoraWindow.h"
#include "setPar.h"
#include "splitForm.h"

#include <QApplication>
#include <QComboBox>
#include <QDialog>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QSettings>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTableWidget>
#include <QToolBar>
#include <QtTest>

class tst_window : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { UiSeam::reset(); }

    void panelShowsTheLabelsFile();
    void refreshFillsOnlyTheValueColumn();
    void setValueWritesWhatTheEditorHolds();
    void copyAndPaste();
    void panelsComeAndGo();
    void switchDeviceMovesOnlyTheFocusedPanel();
    void configurationMode();
    void layoutFile();

private:
    static QTableWidget *shownTable(splitForm *panel)
    {
        return qobject_cast<QTableWidget *>(panel->findChild<QTabWidget *>()->currentWidget());
    }
    static QString cell(QTableWidget *t, int r, int c) { return t->item(r, c) ? t->item(r, c)->text() : QString(); }
    static QStringList column(QTableWidget *t, int c, int from, int to)
    {
        QStringList texts;
        for (int r = from; r <= to; ++r)
            texts << cell(t, r, c);
        return texts;
    }
    static QString device(splitForm *panel) { return panel->findChild<QLabel *>("label")->text(); }
    static QList<splitForm *> panels(Velmora &w) { return w.findChildren<splitForm *>(); }
    static QAction *action(Velmora &w, int i) { return w.findChild<QToolBar *>()->actions().at(i); }
    static QStringList methods(const QMetaObject &mo, QMetaMethod::MethodType type)
    {
        QStringList list;
        for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
            if (mo.method(i).methodType() == type)
                list << QString::fromLatin1(mo.method(i).methodSignature());
        return list;
    }
    // Shown active at width x 500, pointed at ip, with `count` panels added.
    void open(Velmora &w, const QString &ip, int count, int width = 700);
    void focusTable(splitForm *panel);
    void writeLayout(int count)
    {
        QSettings(ini, QSettings::IniFormat).setValue("/VelmoraInformationSize/displaySize", count);
    }

    QStringList boxes;   // "title|text" of every information box
    QString ini;
};

void tst_window::init()
{
    boxes.clear();
    UiSeam::informationHook = [this](QWidget *, const QString &title, const QString &text) {
        boxes << title + "|" + text;
    };
    ini = DisplayTestHome::path() + "/dialogProtocol.ini";
    QFile::remove(ini);
    QVERIFY(DisplayTestHome::writeLabels());
}

void tst_window::open(Velmora &w, const QString &ip, int count, int width)
{
    w.setCncIp(ip);
    w.resize(width, 500);
    w.show();
    w.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&w, 5000));
    for (int i = 0; i < count; ++i)
        w.addSplitForm_clicked();
}

void tst_window::focusTable(splitForm *panel)
{
    shownTable(panel)->setFocus();
    QTRY_VERIFY_WITH_TIMEOUT(panel->tableHasFocus(), 5000);
}

void tst_window::panelShowsTheLabelsFile()
{
    // Hosts reach slots and signals through the meta-object, by index as well as by name.
    QCOMPARE(methods(splitForm::staticMetaObject, QMetaMethod::Signal),
             QStringList({"copySignal(QStringList)", "pasteSignal()"}));
    QCOMPARE(methods(splitForm::staticMetaObject, QMetaMethod::Slot),
             QStringList({"on_functionModule_activated(QString)", "show_menu(QPoint)", "copyColumData()",
                          "pasteColumData()", "on_channel_activated(int)", "updataTimeOutFunction()",
                          "onVarTableCellClicked(int,int)"}));
    QCOMPARE(methods(Velmora::staticMetaObject, QMetaMethod::Slot),
             QStringList({"addSplitForm_clicked()", "removeSplitForm_clicked()", "mytestFunction()",
                          "setParFunction()", "splitFormPasteFunction()", "splitFormCopyFunction(QStringList)"}));

    splitForm panel;
    QCOMPARE(panel.windowTitle(), QStringLiteral("Form"));
    QCOMPARE(device(&panel), QStringLiteral("TextLabel"));
    QComboBox *modules = panel.findChild<QComboBox *>("functionModule");
    QCOMPARE(modules->count(), 2);
    QCOMPARE(modules->itemText(1), QStringLiteral("寄存器"));
    QComboBox *channels = panel.findChild<QComboBox *>("channel");
    QCOMPARE(channels->count(), 8);
    QCOMPARE(channels->itemText(7), QStringLiteral("通道8"));
    QTabWidget *tabs = panel.findChild<QTabWidget *>();
    QCOMPARE(tabs->count(), 2);
    QCOMPARE(tabs->tabText(1), QStringLiteral("页面二"));

    QTableWidget *t = shownTable(&panel);
    QCOMPARE(t->columnCount(), 5);
    QCOMPARE(t->rowCount(), 4);
    QCOMPARE(t->verticalHeaderItem(3)->text(), QStringLiteral("x7"));
    QCOMPARE(t->horizontalHeaderItem(4)->text(), QStringLiteral("Note"));
    QCOMPARE(column(t, 2, 0, 3), QStringList({"int", "int", "int", "int"}));
    QCOMPARE(QStringList({cell(t, 2, 0), cell(t, 2, 1), cell(t, 2, 3), cell(t, 2, 4)}),
             QStringList({"位置", "3", "r", ""}));
    QMenu *menu = t->findChild<QMenu *>();
    QCOMPARE(QStringList({menu->actions().at(0)->text(), menu->actions().at(1)->text()}),
             QStringList({"复制", "粘贴"}));

    // The combo boxes' slots are connected by name; an unknown module name changes nothing.
    QVERIFY(QMetaObject::invokeMethod(modules, "activated", Q_ARG(QString, "寄存器")));
    QCOMPARE(tabs->tabText(0), QStringLiteral("寄存器页"));
    QVERIFY(QMetaObject::invokeMethod(modules, "activated", Q_ARG(QString, "nothing")));
    QCOMPARE(tabs->tabText(0), QStringLiteral("寄存器页"));
    QVERIFY(QMetaObject::invokeMethod(channels, "activated", Q_ARG(int, 7)));
    QCOMPARE(panel.channelNumber(), 8);
    // Out-of-range positions are ignored part by part.
    panel.setPosition(0, 1);
    panel.setPosition(5, 7);
    QCOMPARE(panel.position(), qMakePair(0, 1));
    panel.setPosition(1, 3);
    QCOMPARE(panel.position(), qMakePair(1, 0));

    // A damaged column count cannot make the table huge.
    QFile file(DisplayTestHome::path() + "/Velmora.xml");
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("<VelmoraInf><Module Size=\"1\"><Function Id=\"1\" Name=\"m\"><SubFunction Name=\"p\">"
               "<Display Size=\"7fffffff\"><SubItem>Value</SubItem></Display>"
               "<Object><Address>usr1</Address><Value>5</Value></Object></SubFunction></Function></Module></VelmoraInf>");
    file.close();
    splitForm damaged;
    QVERIFY(shownTable(&damaged)->columnCount() <= 256);
    QCOMPARE(cell(shownTable(&damaged), 0, 0), QStringLiteral("5"));
}

void tst_window::refreshFillsOnlyTheValueColumn()
{
    ControllerSim sim(QStringLiteral("127.0.0.91"));
    QVERIFY(sim.start());
    const QList<QPair<qint32, qint32>> values = {{1000005, 123}, {1000006, -7}, {1010005, 42},
                                                 {1010007, 99} /* x7 after sys5 */, {2000005, 2005}};
    for (const auto &v : values)
        sim.setVariable(v.first, v.second);

    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.91")));
    QCOMPARE(device(&panel), QStringLiteral("当前设备:127.0.0.91"));
    QTableWidget *t = shownTable(&panel);
    t->item(0, 4)->setText("user note");
    panel.setUpdataStart(true);
    QTRY_COMPARE_WITH_TIMEOUT(column(t, 1, 0, 3), QStringList({"123", "-7", "42", "99"}), 5000);
    QCOMPARE(QStringList({cell(t, 0, 0), cell(t, 0, 2), cell(t, 0, 4)}), QStringList({"速度", "int", "user note"}));
    sim.setVariable(1000006, 77);   // the timer keeps reading
    QTRY_COMPARE_WITH_TIMEOUT(cell(t, 1, 1), QStringLiteral("77"), 5000);
    // Channel 2 reads the same page from the next channel's block.
    QVERIFY(QMetaObject::invokeMethod(&panel, "on_channel_activated", Q_ARG(int, 1)));
    QTRY_COMPARE_WITH_TIMEOUT(cell(t, 0, 1), QStringLiteral("2005"), 5000);
    panel.setUpdataStart(false);
    QVERIFY(!panel.isUpdating());

    // A page without a "Value" column keeps its cells.
    panel.setPosition(0, 1);
    QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QCOMPARE(QStringList({cell(shownTable(&panel), 0, 0), cell(shownTable(&panel), 0, 1)}),
             QStringList({"只读", "int"}));

    // A silent controller holds the GUI thread for the reply budget, three
    // waits of 600 ms, per refresh; the values stay.
    panel.setPosition(0, 0);
    sim.setSilence('B');
    QElapsedTimer refresh;
    refresh.start();
    QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QVERIFY2(refresh.elapsed() >= 1700 && refresh.elapsed() < 2500, QByteArray::number(refresh.elapsed()));
    QCOMPARE(cell(t, 0, 1), QStringLiteral("2005"));
    // A controller gone: the link drops, the values stay, no box.
    sim.stop();
    for (int i = 0; i < 3; ++i)
        QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QCOMPARE(cell(t, 0, 1), QStringLiteral("2005"));
    // A panel whose connect failed keeps the file's values.
    splitForm other;
    QVERIFY(!other.connectCnc(QStringLiteral("127.0.0.93")));
    QVERIFY(QMetaObject::invokeMethod(&other, "updataTimeOutFunction"));
    QCOMPARE(cell(shownTable(&other), 0, 1), QStringLiteral("1"));
    QVERIFY(boxes.isEmpty());
}

// A double click in the "Value" column opens the editor with the cell's
// value and writes what it holds when it closes, OK or not.
void tst_window::setValueWritesWhatTheEditorHolds()
{
    ControllerSim sim(QStringLiteral("127.0.0.94"));
    QVERIFY(sim.start());
    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.94")));
    QString title, shown, typed;
    bool accept = true;
    UiSeam::execHook = [&](QDialog *d) {
        title = d->windowTitle();
        QLineEdit *dec = d->findChild<QLineEdit *>("lineEditDec");
        shown = dec->text();
        dec->setText(typed);
        QMetaObject::invokeMethod(d, accept ? "on_buttonBox_accepted" : "on_buttonBox_rejected");
        return int(QDialog::Rejected);   // closing never accepts; the panel must not care
    };
    struct Step { int page, row, column; QString typed; bool accept; QString shown; qint32 address; qint32 written; };
    const QList<Step> steps = {
        {0, 1, 1, "4242", true, "2", 1000006, 4242},
        {0, 1, 1, "-5", true, "4242", 1000006, -5},
        {0, 2, 1, "999", false, "3", 1010005, 3},   // Cancel writes the value it was opened with
        {0, 3, 1, "8", true, "4", 7, 8},             // x7 alone is the bare offset 7
        {0, 0, 0, "1", true, QString(), 1000005, 12345},   // not the "Value" column: nothing opens
        {1, 0, 1, "1", true, QString(), 1000009, 12345},   // a page without "Value": nothing opens
    };
    for (const Step &s : steps) {
        sim.setVariable(s.address, 12345);
        panel.setPosition(0, s.page);
        shown.clear();
        typed = s.typed;
        accept = s.accept;
        shownTable(&panel)->setCurrentCell(s.row, s.column);
        QVERIFY(QMetaObject::invokeMethod(&panel, "onVarTableCellClicked", Q_ARG(int, s.row), Q_ARG(int, s.column)));
        QCOMPARE(shown, s.shown);
        QCOMPARE(sim.variable(s.address), s.written);
        if (!s.shown.isNull())
            QCOMPARE(cell(shownTable(&panel), s.row, 1), QString::number(s.written));
    }
    QCOMPARE(title, QStringLiteral("set value"));
}

// Copy takes the selected "Value" cells in selection order; paste needs one
// selected "Value" cell in a focused panel and writes down to the last row.
void tst_window::copyAndPaste()
{
    ControllerSim sim(QStringLiteral("127.0.0.103"));
    QVERIFY(sim.start());
    sim.setVariable(1000005, 15);
    sim.setVariable(1000006, 16);
    sim.setVariable(1010007, 107);
    Velmora w;
    open(w, QStringLiteral("127.0.0.103"), 2);
    w.setUpdataStart(false);
    splitForm *from = panels(w).at(0), *to = panels(w).at(1);
    QVERIFY(QMetaObject::invokeMethod(from, "updataTimeOutFunction"));
    QTableWidget *source = shownTable(from);
    QSignalSpy copied(from, &splitForm::copySignal);
    source->setSelectionMode(QAbstractItemView::MultiSelection);
    for (int r : {3, 0, 1})
        source->item(r, 1)->setSelected(true);
    source->item(2, 0)->setSelected(true);   // not a value: left out
    source->findChild<QMenu *>()->actions().at(0)->trigger();
    QCOMPARE(copied.count(), 1);
    QCOMPARE(copied.at(0).at(0).toStringList(), QStringList({"107", "15", "16"}));
    from->setPosition(0, 1);   // a page without "Value": nothing to copy
    shownTable(from)->selectAll();
    QVERIFY(QMetaObject::invokeMethod(from, "copyColumData"));
    QCOMPARE(copied.count(), 1);

    to->setPosition(1, 0);   // reg10 .. reg14
    QTableWidget *target = shownTable(to);
    QVERIFY(QMetaObject::invokeMethod(to, "on_channel_activated", Q_ARG(int, 2)));
    target->setSelectionMode(QAbstractItemView::MultiSelection);
    const QList<QList<QPair<int, int>>> refused = {{{0, 1}, {1, 1}}, {{0, 0}}};   // two cells; not a value
    for (const auto &selection : refused) {
        target->clearSelection();
        for (const auto &c : selection)
            target->item(c.first, c.second)->setSelected(true);
        to->pasteValues({"1", "2"});
    }
    QVERIFY(sim.requests('D').isEmpty());

    // Through the window: the focused panel takes the paste, from its
    // second-to-last row two of three values fit.
    target->clearSelection();
    target->item(3, 1)->setSelected(true);
    focusTable(to);
    target->findChild<QMenu *>()->actions().at(1)->trigger();
    QCOMPARE(column(target, 1, 2, 4), QStringList({"0", "107", "15"}));
    QCOMPARE(sim.requests('D').size(), 1);
    QCOMPARE(QList<qint32>({sim.variable(3040013), sim.variable(3040014)}), QList<qint32>({107, 15}));

    // Without a focused panel, paste does nothing.
    target->clearFocus();
    w.findChild<QToolBar *>()->setFocus();
    QTRY_VERIFY_WITH_TIMEOUT(!to->tableHasFocus(), 5000);
    w.splitFormPasteFunction();
    QCOMPARE(sim.requests('D').size(), 1);
}

// As many panels as the width allows at 218 pixels each; remove takes the
// focused one and the rest close ranks.
void tst_window::panelsComeAndGo()
{
    ControllerSim sim(QStringLiteral("127.0.0.100"));
    QVERIFY(sim.start());
    Velmora w;
    QCOMPARE(w.windowTitle(), QStringLiteral("Velmora"));
    QVERIFY(panels(w).isEmpty());   // no layout file yet
    const QList<QAction *> actions = w.findChild<QToolBar *>()->actions();
    QCOMPARE(actions.size(), 5);
    QVERIFY(actions.at(1)->isSeparator());
    QCOMPARE(QStringList({actions.at(0)->text(), actions.at(2)->text(), actions.at(3)->text(), actions.at(4)->text()}),
             QStringList({"增加显示窗口", "删除显示窗口", "切换设备", "配置参数"}));

    open(w, QStringLiteral("127.0.0.100"), 0, 436);
    actions.at(0)->trigger();
    w.addSplitForm_clicked();   // 2 x 218 = 436 still fits
    QVERIFY(boxes.isEmpty());
    w.addSplitForm_clicked();
    QCOMPARE(panels(w).size(), 2);
    QCOMPARE(boxes, QStringList({QStringLiteral("错误警告|达到最大显示个数\n\r")}));
    for (splitForm *p : panels(w)) {   // connected to the window's address, refreshing
        QVERIFY(p->isConnected() && p->isUpdating());
        QCOMPARE(device(p), QStringLiteral("当前设备:127.0.0.100"));
    }
    w.resize(660, 500);
    QTRY_COMPARE_WITH_TIMEOUT(w.width(), 660, 5000);
    w.addSplitForm_clicked();
    const QList<splitForm *> three = panels(w);
    QCOMPARE(three.size(), 3);

    w.removeSplitForm_clicked();
    QCOMPARE(boxes.last(), QStringLiteral("错误警告|选择需要删除窗口\n\r"));
    QPointer<splitForm> middle = three.at(1);
    focusTable(middle);
    w.removeSplitForm_clicked();
    QVERIFY(middle.isNull());
    QTRY_VERIFY_WITH_TIMEOUT(three.at(2)->width() > 300, 5000);
    QVERIFY(three.at(0)->width() > 300);
    QVERIFY(three.at(0)->geometry().right() < three.at(2)->geometry().left());
}

void tst_window::switchDeviceMovesOnlyTheFocusedPanel()
{
    ControllerSim first(QStringLiteral("127.0.0.101"));
    ControllerSim second(QStringLiteral("127.0.0.102"));
    QVERIFY(first.start() && second.start());
    second.setVariable(1000005, 7007);
    Velmora w;
    open(w, QStringLiteral("127.0.0.101"), 2);
    const QList<splitForm *> ps = panels(w);
    QStringList asked;
    QString answer;
    UiSeam::textHook = [&](QWidget *, const QString &title, const QString &label, const QString &, bool *ok) {
        asked << title + "|" + label;
        *ok = true;
        return answer;
    };
    w.mytestFunction();
    QCOMPARE(boxes, QStringList({QStringLiteral("错误警告|\t请选中需要切换的设备模块表格\n\r")}));
    QVERIFY(asked.isEmpty());

    focusTable(ps.at(1));
    w.mytestFunction();   // an empty answer changes nothing
    QCOMPARE(device(ps.at(1)), QStringLiteral("当前设备:127.0.0.101"));
    answer = QStringLiteral("127.0.0.102");
    w.mytestFunction();
    QCOMPARE(asked.last(), QStringLiteral(" 切换设备|设备IP:"));
    QCOMPARE(device(ps.at(1)), QStringLiteral("当前设备:127.0.0.102"));
    QCOMPARE(device(ps.at(0)), QStringLiteral("当前设备:127.0.0.101"));
    QTRY_COMPARE_WITH_TIMEOUT(cell(shownTable(ps.at(1)), 0, 1), QStringLiteral("7007"), 5000);
    QTRY_COMPARE_WITH_TIMEOUT(first.connectionCount(), 1, 5000);
    w.addSplitForm_clicked();   // new panels still go to the window's address
    QCOMPARE(device(panels(w).last()), QStringLiteral("当前设备:127.0.0.101"));
}

// Entering hides and stops the panels and refuses panel changes; leaving
// unsaved asks first and reloads nothing; leaving after a save reloads every
// panel from the saved file without asking.
void tst_window::configurationMode()
{
    writeLayout(1);
    Velmora w;
    open(w, QStringLiteral("127.0.0.106"), 0);
    splitForm *panel = panels(w).at(0);
    QComboBox *shown = panel->findChild<QComboBox *>("functionModule");
    w.setParFunction();
    QCOMPARE(action(w, 4)->text(), QStringLiteral("退出配置模式"));
    QVERIFY(!panel->isVisible() && !panel->isUpdating());
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

// The window writes its panels' positions to "dialogProtocol.ini" when it
// is destroyed (whole groups, nothing stale) and restores them; with no
// panels it leaves the previous layout; a position out of range, or no
// labels file, gives a panel at -1, -1.
void tst_window::layoutFile()
{
    {
        QSettings s(ini, QSettings::IniFormat);
        s.setValue("/VelmoraInformationSize/stale", 1);
        s.setValue("/VelmoraInformation1/stale", 1);
    }
    {
        Velmora w;
        w.resize(900, 500);
        for (int i = 0; i < 3; ++i)
            w.addSplitForm_clicked();
        panels(w).at(0)->setPosition(0, 1);
        panels(w).at(1)->setPosition(1, 0);
    }
    QFile file(ini);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    file.close();
    for (const char *group : {"[VelmoraInformationSize]\ndisplaySize=3\n",
                              "[VelmoraInformation0]\nmoduleIndex=0\nsubModuleIndex=1\n",
                              "[VelmoraInformation1]\nmoduleIndex=1\nsubModuleIndex=0\n",
                              "[VelmoraInformation2]\nmoduleIndex=0\nsubModuleIndex=0\n"})
        QVERIFY2(text.contains(group), text.constData());
    QVERIFY2(!text.contains("stale"), text.constData());
    {
        Velmora w;
        open(w, QStringLiteral("127.0.0.106"), 0);
        QCOMPARE(panels(w).size(), 3);
        QCOMPARE(panels(w).at(0)->position(), qMakePair(0, 1));
        QCOMPARE(panels(w).at(1)->position(), qMakePair(1, 0));
        QVERIFY(panels(w).at(2)->isUpdating());
        while (!panels(w).isEmpty()) {
            focusTable(panels(w).at(0));
            w.removeSplitForm_clicked();
        }
    }
    {
        QSettings s(ini, QSettings::IniFormat);
        QCOMPARE(s.value("/VelmoraInformationSize/displaySize").toInt(), 3);
        s.setValue("/VelmoraInformation0/moduleIndex", 9);
        s.setValue("/VelmoraInformation0/subModuleIndex", 9);
    }
    {
        Velmora w;
        QCOMPARE(panels(w).size(), 3);
        QCOMPARE(panels(w).at(0)->position(), qMakePair(0, 0));
    }
    writeLayout(1);
    DisplayTestHome::removeLabels();
    {
        Velmora w;
        QCOMPARE(panels(w).size(), 1);
        QCOMPARE(panels(w).at(0)->position(), qMakePair(-1, -1));
        QVERIFY(QMetaObject::invokeMethod(panels(w).at(0), "copyColumData"));   // no table: nothing
        panels(w).at(0)->pasteValues({"1"});
    }
    QSettings s(ini, QSettings::IniFormat);
    QCOMPARE(s.value("/VelmoraInformation0/moduleIndex").toInt(), -1);
    QCOMPARE(s.value("/VelmoraInformation0/subModuleIndex").toInt(), -1);
}

int main(int argc, char **argv)
{
    return DisplayTestHome::run(argc, argv, [](int c, char **v) {
        QApplication app(c, v);
        tst_window test;
        return QTest::qExec(&test, c, v);
    });
}

#include "tst_window.moc"
