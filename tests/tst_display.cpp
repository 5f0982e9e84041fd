#include "AddressConversion.h"
#include "ControllerSim.h"
#include "DialogModify.h"
#include "DisplayTestHome.h"
#include "UiSeam.h"
#include "splitForm.h"

#include <QApplication>
#include <QComboBox>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTableWidget>
#include <QElapsedTimer>
#include <QtTest>

// Panel tests run against simulators on 127.0.0.90-99.
class tst_display : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void addressConversion_data();
    void addressConversion();

    void missingLabelsGiveEmptyPanel();
    void panelShowsTheLabelsFile();
    void damagedColumnCountIsBounded();
    void refreshFillsOnlyTheValueColumn();
    void unreachableControllerKeepsLastValues();
    void setValueAlwaysWrites();
    void setValueOutsideTheValueColumnDoesNothing();
    void copyTakesOnlyValueCells();
    void pasteWritesEachValueUpToTheLastRow();

private:
    static QTableWidget *shownTable(splitForm &panel)
    {
        return qobject_cast<QTableWidget *>(panel.findChild<QTabWidget *>()->currentWidget());
    }
    static QString cell(QTableWidget *t, int r, int c) { return t->item(r, c) ? t->item(r, c)->text() : QString(); }
    static QStringList methods(const QMetaObject &mo, QMetaMethod::MethodType type)
    {
        QStringList list;
        for (int i = mo.methodOffset(); i < mo.methodCount(); ++i) {
            if (mo.method(i).methodType() == type)
                list << QString::fromLatin1(mo.method(i).methodSignature());
        }
        return list;
    }

    QStringList boxes;   // "title|text" of every information box
};

void tst_display::init()
{
    boxes.clear();
    UiSeam::informationHook = [this](QWidget *, const QString &title, const QString &text) {
        boxes << title + "|" + text;
    };
    QVERIFY(DisplayTestHome::writeLabels());
}

void tst_display::cleanup()
{
    UiSeam::reset();
}

void tst_display::addressConversion_data()
{
    QTest::addColumn<int>("channel");
    QTest::addColumn<QStringList>("addresses");
    QTest::addColumn<QList<long>>("expected");

    QTest::newRow("usr ch1") << 1 << QStringList{"usr5"} << QList<long>{1000005};
    QTest::newRow("sys ch1") << 1 << QStringList{"sys5"} << QList<long>{1010005};
    QTest::newRow("com ch8") << 8 << QStringList{"com0"} << QList<long>{8070000};
    QTest::newRow("every area") << 2 << QStringList{"usr1", "sys1", "reg1", "mcm1", "bus1", "com1"}
                                << QList<long>{2000001, 2010001, 2040001, 2050001, 2060001, 2070001};
    QTest::newRow("largest offset") << 3 << QStringList{"usr169999"} << QList<long>{3169999};
    QTest::newRow("carry-over") << 1 << QStringList{"reg10", "x7"} << QList<long>{1040010, 1040007};
    QTest::newRow("carry-over follows the last known") << 1 << QStringList{"reg1", "sys2", "ab3", "c4"}
                                                       << QList<long>{1040001, 1010002, 1010003, 1010004};
    QTest::newRow("no area yet") << 1 << QStringList{"x7"} << QList<long>{7};
    QTest::newRow("unknown before known") << 1 << QStringList{"x7", "usr3", "abc4"}
                                          << QList<long>{7, 1000003, 1000004};
    QTest::newRow("prefix is case-sensitive") << 1 << QStringList{"USR5"} << QList<long>{5};
    QTest::newRow("malformed offset") << 1 << QStringList{"usr12x"} << QList<long>{1000000};
    QTest::newRow("prefix only") << 1 << QStringList{"com"} << QList<long>{1070000};
    QTest::newRow("empty and short") << 1 << QStringList{"", "us"} << QList<long>{0, 0};
    QTest::newRow("empty list") << 1 << QStringList{} << QList<long>{};
}

void tst_display::addressConversion()
{
    QFETCH(int, channel);
    QFETCH(QStringList, addresses);
    QFETCH(QList<long>, expected);
    QCOMPARE(AddressConversion::toVariableNumbers(addresses, channel), expected);
}

void tst_display::missingLabelsGiveEmptyPanel()
{
    DisplayTestHome::removeLabels();
    ControllerSim sim(QStringLiteral("127.0.0.90"));
    QVERIFY(sim.start());
    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.90")));
    QCOMPARE(panel.findChild<QComboBox *>("functionModule")->count(), 0);
    QCOMPARE(panel.findChild<QTabWidget *>()->count(), 0);
    QCOMPARE(panel.position(), qMakePair(-1, -1));
    QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QVERIFY(sim.requests('B').isEmpty());
    panel.pasteValues({"1"});
    QVERIFY(sim.requests('D').isEmpty());
}

void tst_display::panelShowsTheLabelsFile()
{
    splitForm panel;
    QCOMPARE(panel.objectName(), QStringLiteral("splitForm"));
    QCOMPARE(panel.windowTitle(), QStringLiteral("Form"));
    // Hosts reach these through the meta-object, by index as well as by name.
    QCOMPARE(methods(splitForm::staticMetaObject, QMetaMethod::Signal),
             QStringList({"copySignal(QStringList)", "pasteSignal()"}));
    QCOMPARE(methods(splitForm::staticMetaObject, QMetaMethod::Slot),
             QStringList({"on_functionModule_activated(QString)", "show_menu(QPoint)", "copyColumData()",
                          "pasteColumData()", "on_channel_activated(int)", "updataTimeOutFunction()",
                          "onVarTableCellClicked(int,int)"}));
    QCOMPARE(panel.findChild<QLabel *>("label")->text(), QStringLiteral("TextLabel"));
    QComboBox *modules = panel.findChild<QComboBox *>("functionModule");
    QCOMPARE(modules->count(), 2);
    QCOMPARE(modules->itemText(0), QStringLiteral("轴参数"));
    QCOMPARE(modules->itemText(1), QStringLiteral("寄存器"));
    QComboBox *channels = panel.findChild<QComboBox *>("channel");
    QCOMPARE(channels->count(), 8);
    for (int i = 0; i < 8; ++i)
        QCOMPARE(channels->itemText(i), QStringLiteral("通道") + QString::number(i + 1));

    QTabWidget *tabs = panel.findChild<QTabWidget *>();
    QCOMPARE(tabs->count(), 2);
    QCOMPARE(tabs->tabText(0), QStringLiteral("页面一"));
    QCOMPARE(tabs->tabText(1), QStringLiteral("页面二"));

    QTableWidget *t = shownTable(panel);
    QCOMPARE(t->columnCount(), 5);
    QCOMPARE(t->rowCount(), 4);
    QCOMPARE(t->verticalHeaderItem(3)->text(), QStringLiteral("x7"));
    QCOMPARE(t->horizontalHeaderItem(4)->text(), QStringLiteral("Note"));
    QCOMPARE(QStringList({cell(t, 2, 0), cell(t, 2, 1), cell(t, 2, 2), cell(t, 2, 3), cell(t, 2, 4)}),
             QStringList({"位置", "3", "int", "r", ""}));

    // The context menu of a table offers copy and paste.
    QMenu *menu = t->findChild<QMenu *>();
    QVERIFY(menu);
    QCOMPARE(menu->actions().size(), 2);
    QCOMPARE(menu->actions().at(0)->text(), QStringLiteral("复制"));
    QCOMPARE(menu->actions().at(1)->text(), QStringLiteral("粘贴"));

    // Choosing the other module in the combo box (its slot is connected by
    // name) shows its page; an unknown name changes nothing. Same for the channel.
    QVERIFY(QMetaObject::invokeMethod(modules, "activated", Q_ARG(QString, "寄存器")));
    QCOMPARE(tabs->count(), 1);
    QCOMPARE(tabs->tabText(0), QStringLiteral("寄存器页"));
    QVERIFY(QMetaObject::invokeMethod(modules, "activated", Q_ARG(QString, "nothing")));
    QCOMPARE(tabs->tabText(0), QStringLiteral("寄存器页"));
    QVERIFY(QMetaObject::invokeMethod(channels, "activated", Q_ARG(int, 7)));
    QCOMPARE(panel.channelNumber(), 8);

    // Out-of-range positions are ignored part by part.
    panel.setPosition(0, 1);
    QCOMPARE(panel.position(), qMakePair(0, 1));
    panel.setPosition(5, 7);
    QCOMPARE(panel.position(), qMakePair(0, 1));
    panel.setPosition(1, 3);
    QCOMPARE(panel.position(), qMakePair(1, 0));
}

void tst_display::damagedColumnCountIsBounded()
{
    QFile file(DisplayTestHome::path() + "/Velmora.xml");
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("<VelmoraInf><version>1</version><Module Size=\"1\"><Function Id=\"1\" Name=\"m\">"
               "<SubFunction Name=\"p\"><Display Size=\"7fffffff\"><SubItem>Value</SubItem></Display>"
               "<Object><Address>usr1</Address><Value>5</Value></Object></SubFunction>"
               "</Function></Module></VelmoraInf>");
    file.close();
    splitForm panel;
    QTableWidget *t = shownTable(panel);
    QVERIFY(t->columnCount() <= 256);
    QCOMPARE(cell(t, 0, 0), QStringLiteral("5"));
}

void tst_display::refreshFillsOnlyTheValueColumn()
{
    ControllerSim sim(QStringLiteral("127.0.0.91"));
    QVERIFY(sim.start());
    sim.setVariable(1000005, 123);
    sim.setVariable(1000006, -7);
    sim.setVariable(1010005, 42);
    sim.setVariable(1010007, 99);   // x7 after sys5
    sim.setVariable(2000005, 2005);

    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.91")));
    QCOMPARE(panel.findChild<QLabel *>("label")->text(), QStringLiteral("当前设备:127.0.0.91"));
    QTableWidget *t = shownTable(panel);
    t->item(0, 4)->setText("user note");

    panel.setUpdataStart(true);
    QTRY_COMPARE_WITH_TIMEOUT(cell(t, 0, 1), QStringLiteral("123"), 5000);
    QCOMPARE(QStringList({cell(t, 1, 1), cell(t, 2, 1), cell(t, 3, 1)}), QStringList({"-7", "42", "99"}));
    QCOMPARE(cell(t, 0, 0), QStringLiteral("速度"));
    QCOMPARE(cell(t, 0, 2), QStringLiteral("int"));
    QCOMPARE(cell(t, 0, 4), QStringLiteral("user note"));

    // The timer keeps reading: a changed controller value shows up.
    sim.setVariable(1000006, 77);
    QTRY_COMPARE_WITH_TIMEOUT(cell(t, 1, 1), QStringLiteral("77"), 5000);

    // Channel 2 reads the same page from the next channel's block.
    QVERIFY(QMetaObject::invokeMethod(&panel, "on_channel_activated", Q_ARG(int, 1)));
    QCOMPARE(panel.channelNumber(), 2);
    QTRY_COMPARE_WITH_TIMEOUT(cell(t, 0, 1), QStringLiteral("2005"), 5000);
    panel.setUpdataStart(false);
    QVERIFY(!panel.isUpdating());

    // A page without a "Value" column keeps its cells.
    panel.setPosition(0, 1);
    sim.setVariable(2000009, 5);
    QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QCOMPARE(cell(shownTable(panel), 0, 0), QStringLiteral("只读"));
    QCOMPARE(cell(shownTable(panel), 0, 1), QStringLiteral("int"));
    QVERIFY(boxes.isEmpty());
}

void tst_display::unreachableControllerKeepsLastValues()
{
    ControllerSim sim(QStringLiteral("127.0.0.92"));
    QVERIFY(sim.start());
    sim.setVariable(1000005, 555);
    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.92")));
    QTableWidget *t = shownTable(panel);
    QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QCOMPARE(cell(t, 0, 1), QStringLiteral("555"));

    // A silent controller holds the GUI thread for the reply budget, three
    // waits of 600 ms, per refresh of a panel.
    sim.setSilence('B');
    QElapsedTimer refresh;
    refresh.start();
    QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QVERIFY2(refresh.elapsed() >= 1700 && refresh.elapsed() < 2500, QByteArray::number(refresh.elapsed()));
    QCOMPARE(cell(t, 0, 1), QStringLiteral("555"));
    sim.clearFaults();

    // The controller goes away: the link drops, the values stay, no box.
    sim.stop();
    for (int i = 0; i < 3; ++i)
        QVERIFY(QMetaObject::invokeMethod(&panel, "updataTimeOutFunction"));
    QCOMPARE(cell(t, 0, 1), QStringLiteral("555"));

    // A panel whose connect failed keeps the file's values.
    splitForm other;
    QVERIFY(!other.connectCnc(QStringLiteral("127.0.0.93")));
    QCOMPARE(other.findChild<QLabel *>("label")->text(), QStringLiteral("TextLabel"));
    for (int i = 0; i < 3; ++i)
        QVERIFY(QMetaObject::invokeMethod(&other, "updataTimeOutFunction"));
    QCOMPARE(cell(shownTable(other), 0, 1), QStringLiteral("1"));
    QVERIFY(boxes.isEmpty());
}

void tst_display::setValueAlwaysWrites()
{
    ControllerSim sim(QStringLiteral("127.0.0.94"));
    QVERIFY(sim.start());
    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.94")));
    QTableWidget *t = shownTable(panel);

    QString title;
    QString decimalShown;
    QString typed;
    bool accept = true;
    UiSeam::execHook = [&](QDialog *d) {
        title = d->windowTitle();
        QLineEdit *dec = d->findChild<QLineEdit *>("lineEditDec");
        decimalShown = dec->text();
        if (!typed.isNull())
            dec->setText(typed);
        QMetaObject::invokeMethod(d, accept ? "on_buttonBox_accepted" : "on_buttonBox_rejected");
        return int(QDialog::Rejected);   // closing never accepts; the panel must not care
    };

    struct Step { int row; QString typed; bool accept; QString shown; qint32 address; qint32 written; };
    const QList<Step> steps = {
        {1, "4242", true, "2", 1000006, 4242},
        {1, "-5", true, "4242", 1000006, -5},
        // Cancel writes the value the editor was opened with.
        {2, "999", false, "3", 1010005, 3},
        // x7 alone converts to the bare offset 7.
        {3, "8", true, "4", 7, 8},
    };
    for (const Step &s : steps) {
        sim.setVariable(s.address, 12345);
        t->setCurrentCell(s.row, 1);
        typed = s.typed;
        accept = s.accept;
        QVERIFY(QMetaObject::invokeMethod(&panel, "onVarTableCellClicked", Q_ARG(int, s.row), Q_ARG(int, 1)));
        QCOMPARE(title, QStringLiteral("set value"));
        QCOMPARE(decimalShown, s.shown);
        QCOMPARE(sim.variable(s.address), s.written);
        QCOMPARE(cell(t, s.row, 1), QString::number(s.written));
    }
}

void tst_display::setValueOutsideTheValueColumnDoesNothing()
{
    ControllerSim sim(QStringLiteral("127.0.0.95"));
    QVERIFY(sim.start());
    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.95")));
    int opened = 0;
    UiSeam::execHook = [&](QDialog *) { ++opened; return 0; };

    shownTable(panel)->setCurrentCell(0, 0);
    QVERIFY(QMetaObject::invokeMethod(&panel, "onVarTableCellClicked", Q_ARG(int, 0), Q_ARG(int, 0)));
    panel.setPosition(0, 1);   // the page without "Value"
    shownTable(panel)->setCurrentCell(0, 1);
    QVERIFY(QMetaObject::invokeMethod(&panel, "onVarTableCellClicked", Q_ARG(int, 0), Q_ARG(int, 1)));
    QCOMPARE(opened, 0);
    QVERIFY(sim.requests('D').isEmpty());
}

void tst_display::copyTakesOnlyValueCells()
{
    splitForm panel;
    QTableWidget *t = shownTable(panel);
    QSignalSpy spy(&panel, &splitForm::copySignal);
    t->setSelectionMode(QAbstractItemView::MultiSelection);
    t->item(3, 1)->setSelected(true);
    t->item(1, 0)->setSelected(true);
    t->item(1, 1)->setSelected(true);
    QVERIFY(QMetaObject::invokeMethod(&panel, "copyColumData"));
    QCOMPARE(spy.count(), 1);
    // In the order the cells were selected, not the order of the rows.
    QCOMPARE(spy.at(0).at(0).toStringList(), QStringList({"4", "2"}));

    // Nothing to copy on a page without "Value".
    panel.setPosition(0, 1);
    shownTable(panel)->item(0, 0)->setSelected(true);
    QVERIFY(QMetaObject::invokeMethod(&panel, "copyColumData"));
    QCOMPARE(spy.count(), 1);

    QSignalSpy pasteSpy(&panel, &splitForm::pasteSignal);
    t->findChild<QMenu *>()->actions().at(1)->trigger();
    QCOMPARE(pasteSpy.count(), 1);
}

void tst_display::pasteWritesEachValueUpToTheLastRow()
{
    ControllerSim sim(QStringLiteral("127.0.0.96"));
    QVERIFY(sim.start());
    splitForm panel;
    QVERIFY(panel.connectCnc(QStringLiteral("127.0.0.96")));
    panel.setPosition(1, 0);   // reg10 .. reg14
    QTableWidget *t = shownTable(panel);
    QVERIFY(QMetaObject::invokeMethod(&panel, "on_channel_activated", Q_ARG(int, 2)));

    // Two cells selected: refused.
    t->setSelectionMode(QAbstractItemView::MultiSelection);
    t->item(0, 1)->setSelected(true);
    t->item(1, 1)->setSelected(true);
    panel.pasteValues({"11", "12"});
    QVERIFY(sim.requests('D').isEmpty());
    // One cell, but not in "Value": refused.
    t->clearSelection();
    t->item(0, 0)->setSelected(true);
    panel.pasteValues({"11"});
    QVERIFY(sim.requests('D').isEmpty());

    // From the second-to-last row five values fill two rows and write two variables.
    t->clearSelection();
    t->item(3, 1)->setSelected(true);
    panel.pasteValues({"-31", "32", "33", "34", "35"});
    QCOMPARE(sim.requests('D').size(), 1);
    QCOMPARE(sim.variable(3040013), -31);
    QCOMPARE(sim.variable(3040014), 32);
    QCOMPARE(QStringList({cell(t, 2, 1), cell(t, 3, 1), cell(t, 4, 1)}), QStringList({"0", "-31", "32"}));
}

int main(int argc, char **argv)
{
    return DisplayTestHome::run(argc, argv, [](int c, char **v) {
        QApplication app(c, v);
        tst_display test;
        return QTest::qExec(&test, c, v);
    });
}

#include "tst_display.moc"
