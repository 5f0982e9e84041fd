// The editors, driven as a user would: the value editor (its pure
// conversions, then the dialog) and the labels-file editors, checked in the
// file they save. The program runs from a private directory
// (DisplayTestHome), which each test fills with the labels file it needs.
#include "BinFrame.h"
#include "BitFrame.h"
#include "DialogModify.h"
#include "DisplayTestHome.h"
#include "ValueConversion.h"
#include "LabelsFile.h"
#include "UiSeam.h"
#include "parInforDialog.h"
#include "parInformation.h"
#include "setPar.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QLabel>
#include <QDir>
#include <QFile>
#include <QHeaderView>
#include <QLineEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTableWidget>
#include <QtTest>

namespace {
const QStringList allColumns = {"Name", "Value", "Type", "Access"};

SubFunctionRecord makePage(const QString &name, const QStringList &addresses,
                           const QStringList &headings = allColumns)
{
    SubFunctionRecord s;
    s.name = name;
    s.subItems = headings;
    s.displaySize = headings.size();
    for (const QString &a : addresses) {
        s.addresses << a;
        s.names << "n_" + a;
        s.values << "v_" + a;
        s.types << "int";
        s.accesses << "rw";
    }
    return s;
}

FunctionRecord makeModule(const QString &name, const QList<SubFunctionRecord> &pages, qint32 id = 0)
{
    FunctionRecord f;
    f.id = id;
    f.name = name;
    f.subFunctions = pages;
    return f;
}

void click(QWidget *form, const char *button)
{
    QTest::mouseClick(form->findChild<QPushButton *>(button), Qt::LeftButton);
}

QString labelsPath() { return setPar::labelsFilePath(); }

void writeLabels(const QList<FunctionRecord> &functions, qint32 size)
{
    QVERIFY(LabelsFile().writeFile(labelsPath(), functions, 1, size));
}

QList<FunctionRecord> readLabels(QPair<qint32, qint32> *numbers = nullptr)
{
    LabelsFile file;
    if (!file.readFile(labelsPath()))
        return {};
    if (numbers)
        *numbers = file.getVersionAndSize();
    return file.getFunctions();
}

QTableWidget *tableOf(parInformation *page, int tab)
{
    return qobject_cast<QTableWidget *>(page->findChild<QTabWidget *>("tabWidget")->widget(tab));
}

QStringList rowTexts(QTableWidget *t, int r)
{
    QStringList out{t->verticalHeaderItem(r)->text()};
    for (int c = 0; c < t->columnCount(); ++c)
        out << (t->item(r, c) ? t->item(r, c)->text() : QString());
    return out;
}
} // namespace

using namespace ValueConversion;

// The dialog shown and active, so the focus rule behaves as for a user.
struct OpenDialog
{
    explicit OpenDialog(int start) : value(start), dialog(&value)
    {
        dialog.show();
        active = QTest::qWaitForWindowActive(&dialog, 5000);
    }
    QLineEdit *edit(const char *name) { return dialog.findChild<QLineEdit *>(name); }
    QStringList texts()
    {
        return {edit("lineEditDec")->text(), edit("lineEditHex")->text(), edit("lineEditAscii")->text()};
    }
    BinFrame *bits() { return dialog.findChild<BinFrame *>(); }
    void button(QDialogButtonBox::StandardButton which)
    {
        QTest::mouseClick(dialog.findChild<QDialogButtonBox *>("buttonBox")->button(which), Qt::LeftButton);
    }

    int value;
    DialogModify dialog;
    bool active = false;
};

class tst_editors : public QObject
{
    Q_OBJECT
    QStringList boxes;

private slots:
    void initTestCase()
    {
        // Never the shipped sample: this program's private directory only.
        QCOMPARE(QCoreApplication::applicationDirPath(), DisplayTestHome::path());
    }
    void init()
    {
        QFile::remove(labelsPath());
        QDir(labelsPath()).removeRecursively();
        UiSeam::reset();
        boxes.clear();
        UiSeam::informationHook = [this](QWidget *, const QString &title, const QString &text) {
            boxes << title + "|" + text;
        };
    }
    void cleanup() { UiSeam::reset(); }

    // value -> decimal, hexadecimal and ASCII texts, and back.
    void conversions_data()
    {
        QTest::addColumn<qint32>("value");
        QTest::addColumn<QString>("dec");
        QTest::addColumn<QString>("hex");
        QTest::addColumn<QString>("ascii");
        QTest::newRow("0 is NUT") << 0 << "0" << "0" << "NUT";
        QTest::newRow("17 is DCI") << 17 << "17" << "11" << "DCI";
        QTest::newRow("23 is TB") << 23 << "23" << "17" << "TB";
        QTest::newRow("32 is space") << 32 << "32" << "20" << "space";
        QTest::newRow("127 is DEL") << 127 << "127" << "7F" << "DEL";
        QTest::newRow("255 is Latin-1") << 255 << "255" << "FF" << QStringLiteral("\u00ff");
        QTest::newRow("256 has no name") << 256 << "256" << "100" << "";
        QTest::newRow("-1: all ones, no name") << -1 << "-1" << "FFFFFFFF" << "";
        QTest::newRow("lowest") << qint32(-2147483647 - 1) << "-2147483648" << "80000000" << "";
    }

    void conversions()
    {
        QFETCH(qint32, value);
        QFETCH(QString, dec);
        QFETCH(QString, hex);
        QFETCH(QString, ascii);
        QCOMPARE(decText(value), dec);
        QCOMPARE(hexText(value), hex);
        QCOMPARE(asciiName(value), ascii);
        bool ok = false;
        QCOMPARE(parseDec(dec, &ok), value);
        QVERIFY(ok);
        QCOMPARE(qint32(parseHex(hex, &ok)), value);
        QVERIFY(ok);
        // Only a non-negative pattern restores the decimal field from hex.
        QCOMPARE(parseSignedHex(hex, &ok), value >= 0 ? value : 0);
        QCOMPARE(ok, value >= 0);
    }

    // A repeated name would turn the ASCII field back into another number.
    void asciiNamesAreDistinct()
    {
        const QMap<QString, int> table = asciiNameTable();
        QCOMPARE(table.size(), 256);
        for (int v = 0; v <= 255; ++v)
            QCOMPARE(asciiValue(table, asciiName(v)), v);
        for (const char *unknown : {"nut", "", "Space"})
            QCOMPARE(asciiValue(table, unknown), -1);
    }

    // Keys go to whichever field has focus; the others and the bit row follow,
    // and OK stores what the decimal field says.
    void typing_data()
    {
        QTest::addColumn<int>("start");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("keys");   // null: nothing typed; empty: the selection deleted
        QTest::addColumn<QStringList>("shown");   // dec, hex, ascii

        QTest::newRow("opened on -1") << -1 << "lineEditDec" << QString() << QStringList{"-1", "FFFFFFFF", ""};
        QTest::newRow("opened on 65") << 65 << "lineEditDec" << QString() << QStringList{"65", "41", "A"};
        QTest::newRow("dec replaces") << 7 << "lineEditDec" << "65" << QStringList{"65", "41", "A"};
        QTest::newRow("dec negative") << 7 << "lineEditDec" << "-5" << QStringList{"-5", "FFFFFFFB", ""};
        QTest::newRow("dec lone minus") << 7 << "lineEditDec" << "-" << QStringList{"-", "7", "BEL"};
        QTest::newRow("dec junk restores") << 7 << "lineEditDec" << "12x" << QStringList{"12", "C", "FF"};
        QTest::newRow("dec junk, high hex") << -1 << "lineEditDec" << "x" << QStringList{"0", "0", "NUT"};
        QTest::newRow("dec cleared") << 7 << "lineEditDec" << "" << QStringList{"", "0", "NUT"};
        QTest::newRow("hex all ones") << 7 << "lineEditHex" << "ffffffff" << QStringList{"-1", "ffffffff", ""};
        QTest::newRow("hex nine digits") << 7 << "lineEditHex" << "123456789" << QStringList{"305419896", "12345678", ""};
        QTest::newRow("hex junk") << 7 << "lineEditHex" << "4g" << QStringList{"4", "4", "EOT"};
        QTest::newRow("ascii space") << 7 << "lineEditAscii" << "space" << QStringList{"32", "20", "space"};
        QTest::newRow("ascii nut is unknown") << 7 << "lineEditAscii" << "nut" << QStringList{"-1", "FFFFFFFF", "nut"};
        QTest::newRow("ascii TB") << 7 << "lineEditAscii" << "TB" << QStringList{"23", "17", "TB"};
    }

    void typing()
    {
        QFETCH(int, start);
        QFETCH(QString, field);
        QFETCH(QString, keys);
        QFETCH(QStringList, shown);
        OpenDialog d(start);
        QVERIFY(d.active);
        // Opening focuses the decimal field with its text selected.
        QCOMPARE(QApplication::focusWidget(), d.edit("lineEditDec"));
        QCOMPARE(d.edit("lineEditDec")->selectedText(), decText(start));
        QLineEdit *target = d.edit(field.toLatin1().constData());
        if (target != QApplication::focusWidget()) {
            QTest::mouseClick(target, Qt::LeftButton);
            target->selectAll();
        }
        if (!keys.isNull() && keys.isEmpty())
            QTest::keyClick(target, Qt::Key_Delete);
        else if (!keys.isNull())
            QTest::keyClicks(target, keys);
        QCOMPARE(d.texts(), shown);
        bool ok = false;
        QCOMPARE(d.bits()->getValue(), parseHex(shown.at(1), &ok));
        d.button(QDialogButtonBox::Ok);
        QCOMPARE(d.value, parseDec(shown.at(0), &ok));   // "-" stores 0 like any failed parse
        QVERIFY(!d.dialog.isVisible());
    }

    void clickingBits()
    {
        OpenDialog d(0);
        QVERIFY(d.active);
        QTest::mouseClick(d.bits()->bit(31), Qt::LeftButton);
        // The ASCII field is deliberately left behind by bit clicks.
        QCOMPARE(d.texts(), QStringList({"-2147483648", "80000000", "NUT"}));
        QCOMPARE(QApplication::focusWidget(), d.bits());
        for (int bit : {31, 0, 6})
            QTest::mouseClick(d.bits()->bit(bit), Qt::LeftButton);
        QCOMPARE(d.texts(), QStringList({"65", "41", "NUT"}));

        // Back in a line edit, the bit row follows the typing again.
        QTest::mouseClick(d.edit("lineEditHex"), Qt::LeftButton);
        QTest::keyClick(d.edit("lineEditHex"), Qt::Key_Backspace);
        QCOMPARE(d.texts(), QStringList({"4", "4", "EOT"}));
        QCOMPARE(d.bits()->getValue(), 4u);
        d.button(QDialogButtonBox::Ok);
        QCOMPARE(d.value, 4);
    }

    void cancelKeepsAndModalOkStores()
    {
        OpenDialog d(123);
        QVERIFY(d.active);
        QTest::keyClicks(QApplication::focusWidget(), "456");
        d.button(QDialogButtonBox::Cancel);
        QCOMPARE(d.value, 123);
        QVERIFY(!d.dialog.isVisible());

        // Run modally the way the display panel does; OK is seen only in *value.
        int value = 9;
        DialogModify modal(&value);
        QTimer::singleShot(0, &modal, [&modal] {
            if (!QTest::qWaitForWindowActive(&modal, 5000))
                return;
            QTest::keyClicks(QApplication::focusWidget(), "-77");
            QTest::mouseClick(modal.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok), Qt::LeftButton);
        });
        QTimer::singleShot(5000, &modal, &QDialog::reject);   // bound the wait
        modal.exec();
        QCOMPARE(value, -77);
    }

    // Most significant bit at the left, a gap after every fourth, numbers painted
    // under every eighth cell; setValue shows without emitting, a click emits.
    void bitRow()
    {
        BinFrame row;
        row.resize(640, 51);
        row.show();
        QVERIFY(QTest::qWaitForWindowExposed(&row));
        QCOMPARE(row.findChildren<QLabel *>().size(), 7);
        for (int i = 1; i < 32; ++i)
            QVERIFY(row.bit(i)->x() < row.bit(i - 1)->x());
        QVERIFY(row.bit(4)->geometry().right() + 1 < row.bit(3)->x());
        QCOMPARE(row.bit(5)->geometry().right() + 1, row.bit(4)->x());

        QSignalSpy spy(&row, &BinFrame::valueChanged);
        row.setValue(0x12);
        QCOMPARE(spy.count(), 0);
        QCOMPARE(row.bit(4)->state, 1);
        QTest::mouseClick(row.bit(1), Qt::LeftButton);
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy.at(0).at(0).value<qint32>(), 0x10);

        auto inkBelow = [](BitFrame *cell) {
            const QImage img = cell->grab().toImage();
            int ink = 0;
            for (int y = img.height() / 2 + 2; y < img.height() - 2; ++y)
                for (int x = 2; x < img.width() - 2; ++x)
                    ink += qGray(img.pixel(x, y)) < 180;
            return ink;
        };
        QVERIFY(inkBelow(row.bit(7)) > 0);
        QCOMPARE(inkBelow(row.bit(8)), 0);
    }

    void loadTakesModuleCountFromFile_data()
    {
        QTest::addColumn<int>("functions");
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("expected");
        QTest::newRow("size equals functions") << 3 << 3 << 3;
        QTest::newRow("size below functions") << 3 << 2 << 2;
        QTest::newRow("size above functions") << 2 << 5 << 2;
        QTest::newRow("no file") << -1 << 0 << 0;
    }
    void loadTakesModuleCountFromFile()
    {
        QFETCH(int, functions);
        QFETCH(int, size);
        QFETCH(int, expected);
        QList<FunctionRecord> list;
        for (int i = 0; i < functions; ++i)
            list << makeModule(QString("m%1").arg(i), {makePage("p", {"usr1", "sys2"})});
        if (functions >= 0)
            writeLabels(list, size);

        setPar editor;
        auto *combo = editor.findChild<QComboBox *>("moduleFunction");
        QCOMPARE(combo->count(), expected);
        const auto pages = editor.findChildren<parInformation *>();
        QCOMPARE(pages.size(), expected);
        for (int i = 0; i < expected; ++i) {
            QCOMPARE(combo->itemText(i), QString("m%1").arg(i));
            QCOMPARE(pages.at(i)->isVisibleTo(&editor), i == 0);
            QCOMPARE(rowTexts(tableOf(pages.at(i), 0), 1), QStringList({"sys2", "n_sys2", "v_sys2", "int", "rw"}));
        }
    }

    void addRenameRemoveSaveRoundTrip()
    {
        const SubFunctionRecord axes = makePage("axes", {"usr1", "usr2"});
        const SubFunctionRecord spindle = makePage("spindle", {"sys0"}, {"Name", "Value"});
        writeLabels({makeModule("A", {axes}, 0x10), makeModule("B", {axes, spindle}, 0x20),
                     makeModule("C", {spindle}, 0x30)}, 3);
        setPar editor;
        auto *combo = editor.findChild<QComboBox *>("moduleFunction");

        click(&editor, "addModule");
        QCOMPARE(combo->currentText(), QString("新增模块_3"));
        parInformation *added = editor.findChildren<parInformation *>().last();
        QVERIFY(added->isVisibleTo(&editor));
        QCOMPARE(rowTexts(tableOf(added, 0), 0), QStringList({"usr0", "", "", "", ""}));

        combo->setCurrentIndex(1);
        combo->lineEdit()->selectAll();
        QTest::keyClicks(combo->lineEdit(), "Renamed");
        QTest::keyClick(combo->lineEdit(), Qt::Key_Return);
        QCOMPARE(combo->count(), 4);

        QStringList asked;
        QList<int> answers = {1, -1, 0}; // "取消", closed, "确定": only the last removes
        UiSeam::questionHook = [&](QWidget *, const QString &t, const QString &x, const QStringList &b) {
            asked << t << x << b;
            return answers.takeFirst();
        };
        combo->setCurrentIndex(0);
        for (int count : {4, 4, 3}) {
            click(&editor, "removeModule");
            QCOMPARE(combo->count(), count);
            QCOMPARE(editor.findChildren<parInformation *>().size(), count);
        }
        QCOMPARE(asked.mid(0, 4), QStringList({"删除模块", "确认删除该模块?", "确定", "取消"}));

        QTest::ignoreMessage(QtDebugMsg, "writeXmlFileState== true");
        click(&editor, "save");
        QVERIFY(boxes.isEmpty());
        QVERIFY(editor.takeSaved());
        QVERIFY(!editor.takeSaved());

        QPair<qint32, qint32> numbers;
        const QList<FunctionRecord> saved = readLabels(&numbers);
        QCOMPARE(numbers, qMakePair(qint32(0x1001), qint32(3)));
        // Pages keep the union of their module's columns, so "spindle" shows four in "Renamed".
        SubFunctionRecord spindleAll = makePage("spindle", {"sys0"});
        QList<FunctionRecord> expected = {makeModule("Renamed", {axes, spindleAll}, 0x20),
                                          makeModule("C", {spindle}, 0x30),
                                          makeModule("新增模块_3", {makePage("table1", {"usr0"})})};
        SubFunctionRecord &blank = expected[2].subFunctions[0];
        blank.names = blank.values = blank.types = blank.accesses = QStringList{""};
        QCOMPARE(saved, expected);
    }

    void duplicateNamesBlockSave_data()
    {
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<QStringList>("expectedBoxes");
        QTest::newRow("distinct") << QStringList{"x", "y", "z"} << QStringList{};
        QTest::newRow("case differs") << QStringList{"a", "A"} << QStringList{};
        QTest::newRow("three equal") << QStringList{"m", "m", "m"}
                                     << QStringList{"错误警告|模块0和模块1设置重名", "错误警告|模块1和模块2设置重名"};
        QTest::newRow("two pairs") << QStringList{"x", "y", "x", "y"}
                                   << QStringList{"错误警告|模块0和模块2设置重名", "错误警告|模块1和模块3设置重名"};
    }
    void duplicateNamesBlockSave()
    {
        QFETCH(QStringList, names);
        QFETCH(QStringList, expectedBoxes);
        QList<FunctionRecord> list;
        for (const QString &n : names)
            list << makeModule(n, {makePage("p", {"usr1"})});
        writeLabels(list, list.size());
        QFile file(labelsPath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray before = file.readAll();
        file.close();

        setPar editor;
        if (expectedBoxes.isEmpty())
            QTest::ignoreMessage(QtDebugMsg, "writeXmlFileState== true");
        click(&editor, "save");
        QCOMPARE(boxes, expectedBoxes);
        QCOMPARE(editor.takeSaved(), expectedBoxes.isEmpty());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll() == before, !expectedBoxes.isEmpty());
    }

    // From an empty editor: a typed name renames nothing; add, add, remove
    // the first, add gives a second "新增模块_1", which blocks the save. A
    // labels file that cannot be written still counts as saved.
    void emptyEditor()
    {
        setPar editor;
        auto *combo = editor.findChild<QComboBox *>("moduleFunction");
        QTest::keyClicks(combo->lineEdit(), "Typed");
        QTest::keyClick(combo->lineEdit(), Qt::Key_Return);
        QCOMPARE(combo->count(), 0);
        UiSeam::questionHook = [](QWidget *, const QString &, const QString &, const QStringList &) { return 0; };
        click(&editor, "addModule");
        click(&editor, "addModule");
        combo->setCurrentIndex(0);
        for (const char *button : {"removeModule", "addModule", "save"})
            click(&editor, button);
        QCOMPARE(boxes, QStringList{"错误警告|模块0和模块1设置重名"});
        QVERIFY(!QFile::exists(labelsPath()));
        QVERIFY(!editor.takeSaved());

        click(&editor, "removeModule");
        QVERIFY(QDir().mkpath(labelsPath()));   // a directory cannot be opened as the file
        QTest::ignoreMessage(QtDebugMsg, "writeXmlFileState== false");
        click(&editor, "save");
        QCOMPARE(boxes.size(), 1);
        QVERIFY(editor.takeSaved());
    }

    void addRows_data()
    {
        QTest::addColumn<QStringList>("addresses");
        QTest::addColumn<int>("selected");
        QTest::addColumn<int>("count");
        QTest::addColumn<bool>("confirmed");
        QTest::addColumn<QStringList>("expected");
        const QStringList five = {"usr1", "usr2", "usr3", "usr4", "usr5"};
        QTest::newRow("empty table") << QStringList{} << -1 << 3 << true << QStringList{"usr0", "usr0", "usr0"};
        QTest::newRow("below selection") << five << 3 << 2 << true
                                         << QStringList{"usr1", "usr2", "usr3", "usr4", "usr4", "usr4", "usr5"};
        QTest::newRow("after last row") << QStringList{"usr1", "reg9"} << -1 << 2 << true
                                        << QStringList{"usr1", "reg9", "reg9", "reg9"};
        QTest::newRow("cancelled") << five << 1 << 4 << false << five;
    }
    void addRows()
    {
        QFETCH(QStringList, addresses);
        QFETCH(int, selected);
        QFETCH(int, count);
        QFETCH(bool, confirmed);
        QFETCH(QStringList, expected);
        parInformation page(makeModule("m", {makePage("p", addresses)}), nullptr);
        QTableWidget *table = tableOf(&page, 0);
        if (selected >= 0)
            table->selectRow(selected);
        QStringList asked;
        UiSeam::intHook = [&](QWidget *, const QString &title, const QString &label, int value, int min, int max,
                              int step, bool *ok) {
            asked << title << label << QString("%1 %2 %3 %4").arg(value).arg(min).arg(max).arg(step);
            *ok = confirmed;
            return count;
        };
        click(&page, "addHor");
        QCOMPARE(asked, QStringList({"增加行数", "请输入增加行数量", "1 1 100 1"}));
        QCOMPARE(table->rowCount(), expected.size());
        for (int r = 0; r < expected.size(); ++r) {
            const QString &a = expected.at(r);
            const QStringList line = addresses.isEmpty() ? QStringList{a, "NULL", "NULL", "NULL", "NULL"}
                                                         : QStringList{a, "n_" + a, "v_" + a, "int", "rw"};
            QCOMPARE(rowTexts(table, r), line);
        }
    }

    void rowAndPageEditsLandInSavedFile()
    {
        writeLabels({makeModule("m", {makePage("p1", {"usr1", "usr2", "usr3"}), makePage("p2", {"sys1"})})}, 1);
        setPar editor;
        parInformation *page = editor.findChild<parInformation *>();
        auto *tabs = page->findChild<QTabWidget *>("tabWidget");
        tableOf(page, 0)->setCurrentCell(1, 2);
        click(page, "removeHor");
        click(page, "addPage");
        QCOMPARE(tabs->currentIndex(), 2);
        QCOMPARE(tabs->tabText(2), QString("新增功能页"));
        tabs->setCurrentIndex(1);
        click(page, "removePage");

        QTest::ignoreMessage(QtDebugMsg, "writeXmlFileState== true");
        click(&editor, "save");
        SubFunctionRecord added = makePage("新增功能页", {"usr0"});
        added.names = added.values = added.types = added.accesses = QStringList{""};
        QCOMPARE(readLabels(), QList<FunctionRecord>({makeModule("m", {makePage("p1", {"usr1", "usr3"}), added})}));
    }

    void checkBoxesDecideHeadings_data()
    {
        QTest::addColumn<QList<QStringList>>("headings");
        QTest::addColumn<QString>("checked");
        QTest::addColumn<QString>("chosen");
        QTest::addColumn<QStringList>("saved");
        QTest::newRow("union of pages") << QList<QStringList>{{"Name"}, {"Access", "Value"}} << "1101"
                                        << "1100" << QStringList{"Name", "Value"};
        QTest::newRow("unknown heading ignored") << QList<QStringList>{{"Foo", "Type"}} << "0010"
                                                 << "0011" << QStringList{"Type", "Access"};
        QTest::newRow("none chosen") << QList<QStringList>{{"Name", "Value", "Type", "Access"}, {}} << "1111"
                                     << "0000" << QStringList{};
    }
    void checkBoxesDecideHeadings()
    {
        QFETCH(QList<QStringList>, headings);
        QFETCH(QString, checked);
        QFETCH(QString, chosen);
        QFETCH(QStringList, saved);
        QList<SubFunctionRecord> pages;
        for (const QStringList &h : headings)
            pages << makePage(QString("p%1").arg(pages.size()), {"usr1"}, h);
        parInformation page(makeModule("m", pages), nullptr);
        const char *boxNames[] = {"nameCheck", "valueCheck", "typeCheck", "accessCheck"};
        QString state;
        for (int i = 0; i < 4; ++i) {
            auto *box = page.findChild<QCheckBox *>(boxNames[i]);
            state += box->isChecked() ? '1' : '0';
            box->setChecked(chosen.at(i) == '1');
        }
        QCOMPARE(state, checked);
        const FunctionRecord record = page.functionRecord();
        QCOMPARE(record.subFunctions.size(), headings.size());
        for (const SubFunctionRecord &sub : record.subFunctions) {
            QCOMPARE(sub.subItems, saved);
            QCOMPARE(sub.displaySize, saved.size());
        }
    }

    void unknownColumnKeepsRecord()
    {
        const FunctionRecord original = makeModule("m", {makePage("p", {"usr1", "usr2"})}, 7);
        parInformation page(original, nullptr);
        QTableWidget *table = tableOf(&page, 0);
        table->removeRow(0);
        table->setHorizontalHeaderItem(2, new QTableWidgetItem("Kind"));
        QCOMPARE(page.functionRecord(), original);
        QCOMPARE(boxes, QStringList{"错误警告|\t保存失败\n\r"});
    }

    void tabRename_data()
    {
        QTest::addColumn<bool>("confirmed");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("expected");
        QTest::newRow("renamed") << true << "Achsen" << "Achsen";
        QTest::newRow("empty keeps name") << true << "" << "p";
        QTest::newRow("cancelled") << false << "Achsen" << "p";
    }
    void tabRename()
    {
        QFETCH(bool, confirmed);
        QFETCH(QString, typed);
        QFETCH(QString, expected);
        parInformation page(makeModule("m", {makePage("p", {"usr1"})}), nullptr);
        QStringList asked;
        UiSeam::textHook = [&](QWidget *, const QString &title, const QString &label, const QString &text, bool *ok) {
            asked << title << label << text;
            *ok = confirmed;
            return typed;
        };
        auto *tabs = page.findChild<QTabWidget *>("tabWidget");
        emit tabs->tabBarDoubleClicked(0);
        QCOMPARE(asked, QStringList({"名称修改", "请输入新名称", "p"}));
        QCOMPARE(tabs->tabText(0), expected);
        QCOMPARE(page.functionRecord().subFunctions.at(0).name, expected);
    }

    void rowDialog_data()
    {
        QTest::addColumn<QString>("header");
        QTest::addColumn<QString>("button");
        QTest::addColumn<QStringList>("shown");
        QTest::addColumn<QStringList>("expected");
        const QStringList edited = {"sys7", "N", "V", "T", "A"};
        const QStringList row12 = {"usr12", "n_usr12", "v_usr12", "int", "rw"};
        const QStringList shown12 = {"usr", "12", "n_usr12", "v_usr12", "int", "rw"};
        QTest::newRow("OK writes back") << "usr12" << "on_OK_clicked" << shown12 << edited;
        QTest::newRow("Cancle keeps") << "usr12" << "on_Cancle_clicked" << shown12 << row12;
        // Too short for a type: the whole header is the number and the type starts blank.
        const QStringList shownAb = {"", "ab", "n_ab", "v_ab", "int", "rw"};
        QTest::newRow("short header OK") << "ab" << "on_OK_clicked" << shownAb << edited;
        QTest::newRow("short header Cancle") << "ab" << "on_Cancle_clicked" << shownAb
                                             << QStringList{"ab", "n_ab", "v_ab", "int", "rw"};
    }
    void rowDialog()
    {
        QFETCH(QString, header);
        QFETCH(QString, button);
        QFETCH(QStringList, shown);
        QFETCH(QStringList, expected);
        parInformation page(makeModule("m", {makePage("p", {"usr1", header})}), nullptr);
        QTableWidget *table = tableOf(&page, 0);
        const char *edits[] = {"lineEdit_address", "lineEdit_name", "lineEdit_value", "lineEdit_type",
                               "lineEdit_access"};
        QStringList seen;
        QList<int> closedAs; // visibility and result code after the button
        UiSeam::execHook = [&](QDialog *d) {
            d->show();
            auto *combo = d->findChild<QComboBox *>("comboBox");
            seen << combo->currentText();
            for (const char *e : edits)
                seen << d->findChild<QLineEdit *>(e)->text();
            combo->setCurrentText("sys");
            for (int i = 0; i < 5; ++i)
                d->findChild<QLineEdit *>(edits[i])->setText(QStringList({"7", "N", "V", "T", "A"}).at(i));
            QMetaObject::invokeMethod(d, button.toLatin1().constData());
            closedAs << d->isVisible() << d->result();
            return d->result();
        };
        emit table->verticalHeader()->sectionDoubleClicked(1); // no table has the focus: nothing opens
        QVERIFY(seen.isEmpty());

        page.show();
        page.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&page));
        table->setFocus();
        QTRY_VERIFY(table->hasFocus());
        emit table->verticalHeader()->sectionDoubleClicked(1);
        QCOMPARE(seen, shown);
        QCOMPARE(closedAs, QList<int>({0, QDialog::Rejected})); // closed, not accepted, either way
        QCOMPARE(rowTexts(table, 1), expected);
        QCOMPARE(rowTexts(table, 0), QStringList({"usr1", "n_usr1", "v_usr1", "int", "rw"}));
    }

};

int main(int argc, char **argv)
{
    return DisplayTestHome::run(argc, argv, [](int argc, char **argv) {
        QApplication app(argc, argv);
        tst_editors test;
        return QTest::qExec(&test, argc, argv);
    });
}
#include "tst_editors.moc"
