// The main window, its panels and the editors they open, driven as a user
// would, with two simulated controllers (127.0.0.91, .92; .93 has none), in
// a directory of its own for the labels and layout files (CMakeLists.txt).
#include "BinFrame.h"
#include "BitFrame.h"
#include "ControllerSim.h"
#include "DialogModify.h"
#include "LabelsFile.h"
#include "UiSeam.h"
#include "ValueConversion.h"
#include "VelmoraWindow.h"
#include "parInformation.h"
#include "setPar.h"
#include "splitForm.h"

#include <QtTest>
#include <QtWidgets>

using namespace ValueConversion;

namespace {
const QString first = QStringLiteral("127.0.0.91"), second = QStringLiteral("127.0.0.92");
const QString ini = QStringLiteral("dialogProtocol.ini");
QString labelsPath() { return setPar::labelsFilePath(); }

// A page whose rows are "address name value type access", blank-separated;
// a row of an address alone reads "n_<address>", "v_<address>", "int", "rw".
SubFunctionRecord page(const QString &name, const QStringList &rows,
                       const QStringList &headings = {"Name", "Value", "Type", "Access"})
{
    SubFunctionRecord s{name, int(headings.size()), headings, {}, {}, {}, {}, {}};
    for (const QString &row : rows) {
        const QStringList f = row.contains(' ') ? row.split(' ') : QStringList{row, "n_" + row, "v_" + row, "int", "rw"};
        s.addresses << f.value(0), s.names << f.value(1), s.values << f.value(2), s.types << f.value(3);
        s.accesses << f.value(4);
    }
    return s;
}
QList<FunctionRecord> one(const QList<SubFunctionRecord> &pages, const QString &name = "m", int id = 7)
{
    return {{id, name, pages}};
}

// The panels' file. "轴参数": a page with the four known columns and a "Note"
// (its last row has no prefix and takes the area of the row above), and a
// page without "Value". "寄存器": one page of five reg rows.
const QList<FunctionRecord> labels =
    one({page("页面一", {"usr5 速度 1 int rw", "usr6 加速度 2 int rw", "sys5 位置 3 int r", "x7 备用 4 int r"},
              {"Name", "Value", "Type", "Access", "Note"}),
         page("页面二", {"usr9 只读 9 int r"}, {"Name", "Type"})}, "轴参数", 1)
    + one({page("寄存器页", {"reg10 R10 0", "reg11 R11 0", "reg12 R12 0", "reg13 R13 0", "reg14 R14 0"}, {"Name", "Value"})},
          "寄存器", 2);

// A table row as the user sees it: its address, then its cells.
QStringList rowTexts(const QTableWidget *t, int r)
{
    QStringList out{t->verticalHeaderItem(r) ? t->verticalHeaderItem(r)->text() : QString()};
    for (int c = 0; c < t->columnCount(); ++c)
        out << (t->item(r, c) ? t->item(r, c)->text() : QString());
    return out;
}
QTableWidget *shown(QWidget *w) { return qobject_cast<QTableWidget *>(w->findChild<QTabWidget *>()->currentWidget()); }
QString cell(splitForm *p, int r, int c) { return rowTexts(shown(p), r).value(c + 1); }
QStringList values(splitForm *p)   // the "Value" column
{
    QStringList texts;
    for (int r = 0; r < shown(p)->rowCount(); ++r)
        texts << cell(p, r, 1);
    return texts;
}
QString device(splitForm *p) { return p->findChild<QLabel *>("label")->text(); }
QList<splitForm *> panels(Velmora &w) { return w.findChildren<splitForm *>(); }
QAction *action(Velmora &w, int i) { return w.findChild<QToolBar *>()->actions().at(i); }
bool invoke(QObject *o, const char *slot) { return QMetaObject::invokeMethod(o, slot); }
QStringList methods(const QMetaObject &mo, QMetaMethod::MethodType type)
{
    QStringList list;
    for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
        if (mo.method(i).methodType() == type)
            list << QString::fromLatin1(mo.method(i).methodSignature());
    return list;
}

struct Typing { int start; QString field, keys; QStringList texts; bool ok = true; };   // see typing_data()
struct SetValue { QList<int> at; QString typed; bool accept; QString opened; qint32 address, written; };
struct Edit   // see editing_data()
{
    QList<FunctionRecord> file;       // written as version 1
    QStringList steps;
    QList<FunctionRecord> expected;   // read back after the final save
    int size = -2;                    // the file's module count: -2 as many as it has, -1 no file
    QStringList seen = {};
    QVariantList answers = {};
    int shown = 0;                    // the module page visible at the end
    bool saved = true;                // the save passed the name check
};
} // namespace
Q_DECLARE_METATYPE(Typing)
Q_DECLARE_METATYPE(SetValue)
Q_DECLARE_METATYPE(Edit)

class tst_window : public QObject
{
    Q_OBJECT
    ControllerSim sim{first}, sim2{second};
    QStringList seen;       // every box, question, input and form, in order
    QVariantList answers;   // taken in turn; none left: a question closed, an input cancelled

    // Shown active at width x 500, pointed at the first controller, with `count` panels added.
    void open(Velmora &w, int count, int width = 700)
    {
        w.setCncIp(first);
        w.resize(width, 500);
        w.show();
        w.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&w, 5000));
        for (int i = 0; i < count; ++i)
            w.addSplitForm_clicked();
    }
    static void focus(QWidget *table)
    {
        table->setFocus();
        QTRY_VERIFY_WITH_TIMEOUT(table->hasFocus(), 5000);
    }
    // The layout file as "key=value" lines, after setting `set`.
    static QStringList layout(const QVariantMap &set = {})
    {
        QSettings s(ini, QSettings::IniFormat);
        for (auto i = set.begin(); i != set.end(); ++i)
            s.setValue(i.key(), i.value());
        QStringList lines;
        for (const QString &key : s.allKeys())
            lines << key + "=" + s.value(key).toString();
        return lines;
    }

private slots:
    void initTestCase()
    {
        UiSeam::informationHook = [this](QWidget *, const QString &title, const QString &text) { seen << title + "|" + text; };
        UiSeam::questionHook = [this](QWidget *, const QString &title, const QString &text, const QStringList &buttons) {
            seen << title + "|" + text + "|" + buttons.join(',');
            return answers.isEmpty() ? -1 : answers.takeFirst().toInt();
        };
        UiSeam::textHook = [this](QWidget *, const QString &title, const QString &label, const QString &text, bool *ok) {
            seen << title + "|" + label + "|" + text;
            return (*ok = !answers.isEmpty()) ? answers.takeFirst().toString() : QString();
        };
        UiSeam::intHook = [this](QWidget *, const QString &title, const QString &label, int v, int min, int max, int step,
                                 bool *ok) {
            seen << QString("%1|%2|%3 %4..%5 by %6").arg(title, label).arg(v).arg(min).arg(max).arg(step);
            return (*ok = !answers.isEmpty()) ? answers.takeFirst().toInt() : 0;
        };
    }
    void init()
    {
        seen.clear();
        answers.clear();
        QFile::remove(ini);
        QDir(labelsPath()).removeRecursively();
        QVERIFY(LabelsFile().writeFile(labelsPath(), labels, 0x1001, 2));
        for (ControllerSim *s : {&sim, &sim2}) {
            QVERIFY(s->isRunning() || s->start());
            s->clearFaults();
            s->clearRequests();
        }
    }
    void cleanup() { UiSeam::execHook = nullptr; }

    // ---- the value editor -------------------------------------------------

    // Keys go to whichever field has focus; the others and the bit row follow,
    // and OK stores what the decimal field says, Cancel nothing.
    void typing_data()
    {
        QTest::addColumn<Typing>("t");   // keys: null, nothing typed; empty, the selection deleted; texts: dec, hex, ascii
        const QString dec = "lineEditDec", hex = "lineEditHex", ascii = "lineEditAscii";
        QTest::newRow("dec replaces") << Typing{7, dec, "65", {"65", "41", "A"}};
        QTest::newRow("dec 17 is DCI") << Typing{7, dec, "17", {"17", "11", "DCI"}};
        QTest::newRow("dec 127 is DEL") << Typing{7, dec, "127", {"127", "7F", "DEL"}};
        QTest::newRow("dec 255 is Latin-1") << Typing{7, dec, "255", {"255", "FF", QStringLiteral("\u00ff")}};
        QTest::newRow("dec 256 has no name") << Typing{7, dec, "256", {"256", "100", ""}};
        QTest::newRow("Cancel stores nothing") << Typing{7, dec, "65", {"65", "41", "A"}, false};
        QTest::newRow("dec negative") << Typing{7, dec, "-5", {"-5", "FFFFFFFB", ""}};
        QTest::newRow("dec lone minus stores 0") << Typing{7, dec, "-", {"-", "7", "BEL"}};
        QTest::newRow("dec junk restores") << Typing{7, dec, "12x", {"12", "C", "FF"}};
        QTest::newRow("dec junk, high hex") << Typing{-1, dec, "x", {"0", "0", "NUT"}};
        QTest::newRow("dec cleared") << Typing{7, dec, "", {"", "0", "NUT"}};
        QTest::newRow("hex all ones") << Typing{7, hex, "ffffffff", {"-1", "ffffffff", ""}};
        QTest::newRow("hex nine digits") << Typing{7, hex, "123456789", {"305419896", "12345678", ""}};
        QTest::newRow("hex junk") << Typing{7, hex, "4g", {"4", "4", "EOT"}};
        QTest::newRow("ascii space") << Typing{7, ascii, "space", {"32", "20", "space"}};
        QTest::newRow("ascii nut is unknown") << Typing{7, ascii, "nut", {"-1", "FFFFFFFF", "nut"}};
        QTest::newRow("ascii TB") << Typing{7, ascii, "TB", {"23", "17", "TB"}};
        // Bit clicks deliberately leave the ASCII field behind.
        QTest::newRow("bit 31 clicked") << Typing{0, "bits", "31", {"-2147483648", "80000000", "NUT"}};
        QTest::newRow("bits 31, 31, 0, 6 clicked") << Typing{0, "bits", "31 31 0 6", {"65", "41", "NUT"}};
    }
    void typing()
    {
        QFETCH(Typing, t);
        QCOMPARE(asciiNameTable().size(), 256);   // a repeated name would turn the ASCII field into another number
        int value = t.start;
        DialogModify dialog(&value);
        dialog.show();
        QVERIFY(QTest::qWaitForWindowActive(&dialog, 5000));
        auto edit = [&dialog](const QString &name) { return dialog.findChild<QLineEdit *>(name); };
        BinFrame *bits = dialog.findChild<BinFrame *>();
        // Opening focuses the decimal field with its text selected.
        QCOMPARE(QApplication::focusWidget(), edit("lineEditDec"));
        QCOMPARE(edit("lineEditDec")->selectedText(), QString::number(t.start));
        for (const QString &bit : t.field == "bits" ? t.keys.split(' ') : QStringList())
            QTest::mouseClick(bits->bit(bit.toInt()), Qt::LeftButton);
        if (QLineEdit *target = edit(t.field)) {
            if (target != QApplication::focusWidget()) {
                QTest::mouseClick(target, Qt::LeftButton);
                target->selectAll();
            }
            if (!t.keys.isNull() && t.keys.isEmpty())
                QTest::keyClick(target, Qt::Key_Delete);
            else if (!t.keys.isNull())
                QTest::keyClicks(target, t.keys);
        }
        QCOMPARE(QStringList({edit("lineEditDec")->text(), edit("lineEditHex")->text(), edit("lineEditAscii")->text()}), t.texts);
        bool parsed = false;
        QCOMPARE(bits->getValue(), parseHex(t.texts.at(1), &parsed));
        QTest::mouseClick(dialog.findChild<QDialogButtonBox *>()->button(t.ok ? QDialogButtonBox::Ok : QDialogButtonBox::Cancel),
                          Qt::LeftButton);
        QCOMPARE(value, t.ok ? t.texts.at(0).toInt() : t.start);   // "-" stores 0 like any failed parse
        QVERIFY(!dialog.isVisible());
    }

    // Most significant bit at the left, read in groups of four. (Its signals:
    // the typing table's bit rows.)
    void bitRow()
    {
        BinFrame row;
        row.resize(640, 51);
        row.show();
        QVERIFY(QTest::qWaitForWindowExposed(&row));
        for (int i = 1; i < 32; ++i)   // a gap before bits 27, 23, ... 3, bit 31 first
            QCOMPARE(row.bit(i)->geometry().right() + 1 < row.bit(i - 1)->x(), i % 4 == 0);
    }

    // ---- the labels-file editors ------------------------------------------

    // Steps, then a click on "save", judged by what was seen and the file
    // written. A step is a button's object name (the shown module's first),
    // "module N" (chosen in the list), "name X" (typed over the list's text,
    // then Enter), "cell R C", "tab N", "rename N" (tab double-clicked),
    // "untick BOX", "heading C X" (a column renamed), "focus" (the page's
    // table), "header R" (double-clicked; a form answers "TYPE five fields
    // SLOT"), "block" (the file made a directory).
    void editing_data()
    {
        QTest::addColumn<Edit>("edit");
        const SubFunctionRecord axes = page("axes", {"usr1", "usr2"}), spindle = page("spindle", {"sys0"}, {"Name", "Value"});
        const QList<FunctionRecord> abc = {{0x10, "A", {axes}}, {0x20, "B", {axes, spindle}}, {0x30, "C", {spindle}}};
        QList<FunctionRecord> saved = abc;   // a module's pages all take the union of its columns
        saved[1].subFunctions[1] = page("spindle", {"sys0"});
        QList<FunctionRecord> renamed = saved;
        renamed[1].name = "Renamed";
        const QString blank = "usr0    ";   // an address and four empty fields
        const QStringList removal = {"删除模块|确认删除该模块?|确定,取消"}, rows = {"增加行数|请输入增加行数量|1 1..100 by 1"};
        const QStringList rename = {"名称修改|请输入新名称|p"}, five = {"usr1", "usr2", "usr3", "usr4", "usr5"};
        const QList<FunctionRecord> p1 = one({page("p", {"usr1"})}), twoRows = one({page("p", {"usr1", "usr12"})});
        const QList<FunctionRecord> formed = one({page("p", {"usr1", "sys7 N V T A"})});
        auto named = [](const QStringList &names) {
            QList<FunctionRecord> list;
            for (const QString &n : names)
                list += one({page("p", {"usr1"})}, n, 0);
            return list;
        };
        auto same = [](int j, int k) { return QString("错误警告|模块%1和模块%2设置重名").arg(j).arg(k); };
        auto form = [](const QString &texts) { return QStringList{"form|" + texts, "closed 0 0"}; };   // not accepted, either way
        const QStringList usr12 = form("usr|12|n_usr12|v_usr12|int|rw");

        QTest::newRow("loaded and saved, the first module shown") << Edit{abc, {}, saved};
        QTest::newRow("file Size below its functions: that many modules") << Edit{abc, {}, saved.mid(0, 2), 2};
        QTest::newRow("file Size above its functions: up to the list's end") << Edit{abc.mid(0, 2), {}, saved.mid(0, 2), 5};
        QTest::newRow("add: 新增模块_N by the count, shown, a blank usr0 row")
            << Edit{abc, {"addModule"}, saved + one({page("table1", {blank})}, "新增模块_3", 0), -2, {}, {}, 3};
        QTest::newRow("Enter on a typed name renames the chosen module")
            << Edit{abc, {"module 1", "name Renamed"}, renamed, -2, {}, {}, 1};
        QTest::newRow("remove asks; 取消 and closing keep, 确定 removes")
            << Edit{abc, {"module 1", "removeModule", "removeModule", "removeModule"}, {abc[0], abc[2]}, -2,
                    removal + removal + removal, {1, -1, 0}};
        QTest::newRow("distinct names, some differing in case") << Edit{named({"x", "X", "y"}), {}, named({"x", "X", "y"})};
        QTest::newRow("repeated names: a box per first index, nothing written")
            << Edit{named({"m", "x", "m", "x", "m"}), {}, named({"m", "x", "m", "x", "m"}), -2,
                    {same(0, 2), same(1, 3), same(2, 4)}, {}, 0, false};
        QTest::newRow("no file: a typed name is no module; a second 新增模块_1 blocks the save")
            << Edit{{}, {"name Typed", "addModule", "addModule", "module 0", "removeModule", "addModule"}, {}, -1,
                    removal + QStringList{same(0, 1)}, {0}, 1, false};
        QTest::newRow("a file that cannot be written still counts as saved") << Edit{abc, {"block"}, {}};
        QTest::newRow("a row removed, a page added and current, a page removed")
            << Edit{one({page("p1", {"usr1", "usr2", "usr3"}), page("p2", {"sys1"})}),
                    {"cell 1 2", "removeHor", "addPage", "addHor", "tab 1", "removePage"},
                    one({page("p1", {"usr1", "usr3"}), page("新增功能页", {blank, blank})}), -2, rows, {1}};
        QTest::newRow("rows added to an empty page read usr0 and NULL")
            << Edit{one({page("p", {})}), {"addHor"}, one({page("p", QStringList{"usr0 NULL NULL NULL NULL", "usr0 NULL NULL NULL NULL", "usr0 NULL NULL NULL NULL"})}), -2, rows, {3}};
        QTest::newRow("rows added below the selected one copy it; adding cancelled adds none")
            << Edit{one({page("p", five)}), {"cell 3 0", "addHor", "addHor"},
                    one({page("p", {"usr1", "usr2", "usr3", "usr4", "usr4", "usr4", "usr5"})}), -2, rows + rows, {2}};
        QTest::newRow("rows added with none selected copy the last")
            << Edit{one({page("p", {"usr1", "reg9"})}), {"addHor"}, one({page("p", {"usr1", "reg9", "reg9", "reg9"})}), -2, rows, {2}};
        QTest::newRow("the ticked columns go to every page")
            << Edit{one({page("p0", {"usr1"}, {"Name"}), page("p1", {"usr1"}, {"Access", "Value"})}), {"untick accessCheck"},
                    one({page("p0", {"usr1"}, {"Name", "Value"}), page("p1", {"usr1"}, {"Name", "Value"})})};
        QTest::newRow("a heading the file does not know is dropped")
            << Edit{one({page("p", {"usr1"}, {"Foo", "Type"})}), {}, one({page("p", {"usr1"}, {"Type"})})};
        QTest::newRow("no column ticked") << Edit{one({page("p", {"usr1"}, {"Name"})}), {"untick nameCheck"}, one({page("p", {"usr1"}, {})})};
        QTest::newRow("an unknown table column: 保存失败, the module saved as it was")
            << Edit{twoRows, {"cell 0 0", "removeHor", "heading 2 Kind"}, twoRows, -2, {"错误警告|\t保存失败\n\r"}};
        QTest::newRow("page renamed") << Edit{p1, {"rename 0"}, one({page("Achsen", {"usr1"})}), -2, rename, {"Achsen"}};
        QTest::newRow("page renamed to nothing, or rename cancelled: its name kept")
            << Edit{p1, {"rename 0", "rename 0"}, p1, -2, rename + rename, {""}};
        QTest::newRow("row header of an unfocused table: no form") << Edit{twoRows, {"header 1"}, twoRows, -2, {}, {"sys 7 N V T A on_OK_clicked"}};
        QTest::newRow("row form: Cancle keeps the row, OK writes it back")
            << Edit{twoRows, {"focus", "header 1", "header 1"}, formed, -2, usr12 + usr12,
                    {"sys 7 N V T A on_Cancle_clicked", "sys 7 N V T A on_OK_clicked"}};
        // Too short for a type: the whole header is the number, the type starts blank.
        QTest::newRow("row form on a short header") << Edit{one({page("p", {"usr1", "ab"})}), {"focus", "header 1"}, formed, -2,
                                                            form("|ab|n_ab|v_ab|int|rw"), {"sys 7 N V T A on_OK_clicked"}};
    }
    void editing()
    {
        QFETCH(Edit, edit);
        QFile::remove(labelsPath());
        if (edit.size != -1)
            QVERIFY(LabelsFile().writeFile(labelsPath(), edit.file, 1, edit.size < 0 ? edit.file.size() : edit.size));
        answers = edit.answers;
        const QStringList fields = {"comboBox", "lineEdit_address", "lineEdit_name", "lineEdit_value", "lineEdit_type", "lineEdit_access"};
        UiSeam::execHook = [&](QDialog *d) {
            const QStringList answer = answers.takeFirst().toString().split(' ');
            QStringList texts;
            for (int i = 0; i < 6; ++i) {
                QWidget *field = d->findChild<QWidget *>(fields[i]);
                texts << field->property(i ? "text" : "currentText").toString();
                field->setProperty(i ? "text" : "currentText", answer[i]);
            }
            invoke(d, answer[6].toLatin1().constData());
            seen << "form|" + texts.join('|') << QString("closed %1 %2").arg(d->isVisible()).arg(d->result());
            return d->result();
        };
        setPar editor;
        auto *modules = editor.findChild<QComboBox *>("moduleFunction");
        for (const QString &step : edit.steps + QStringList{"save"}) {
            const QStringList w = step.split(' ');
            parInformation *module = nullptr;
            for (parInformation *p : editor.findChildren<parInformation *>())
                module = p->isVisibleTo(&editor) ? p : module;
            QTabWidget *tabs = module ? module->findChild<QTabWidget *>() : nullptr;
            QTableWidget *table = tabs ? qobject_cast<QTableWidget *>(tabs->currentWidget()) : nullptr;
            QPushButton *button = module ? module->findChild<QPushButton *>(w[0]) : nullptr;
            if (button || (button = editor.findChild<QPushButton *>(w[0])))
                QTest::mouseClick(button, Qt::LeftButton);
            else if (w[0] == "module") {   // as a user picks it
                modules->setCurrentIndex(w[1].toInt());
                emit modules->activated(w[1].toInt());
            } else if (w[0] == "name") {
                modules->lineEdit()->selectAll();
                QTest::keyClicks(modules->lineEdit(), w[1]);
                QTest::keyClick(modules->lineEdit(), Qt::Key_Return);
            } else if (w[0] == "cell")
                table->setCurrentCell(w[1].toInt(), w[2].toInt());
            else if (w[0] == "tab")
                tabs->setCurrentIndex(w[1].toInt());
            else if (w[0] == "rename")
                emit tabs->tabBarDoubleClicked(w[1].toInt());
            else if (w[0] == "untick")
                module->findChild<QCheckBox *>(w[1])->setChecked(false);
            else if (w[0] == "heading")
                table->setHorizontalHeaderItem(w[1].toInt(), new QTableWidgetItem(w[2]));
            else if (w[0] == "focus") {
                editor.show();
                editor.activateWindow();
                QVERIFY(QTest::qWaitForWindowActive(&editor));
                focus(table);
            } else if (w[0] == "header")
                emit table->verticalHeader()->sectionDoubleClicked(w[1].toInt());
            else
                QVERIFY(step == "block" && QFile::remove(labelsPath()) && QDir().mkpath(labelsPath()));
        }
        QCOMPARE(seen, edit.seen);
        QCOMPARE(editor.takeSaved(), edit.saved);
        const QList<parInformation *> pages = editor.findChildren<parInformation *>();
        for (int i = 0; i < pages.size(); ++i)
            QCOMPARE(pages.at(i)->isVisibleTo(&editor), i == edit.shown);
        LabelsFile reader;
        reader.readFile(labelsPath());
        QCOMPARE(reader.getFunctions(), edit.expected);
        if (QFileInfo(labelsPath()).isFile())   // untouched unless saved
            QCOMPARE(reader.getVersionAndSize(), edit.saved ? qMakePair(0x1001, int(edit.expected.size()))
                                                            : qMakePair(1, int(edit.file.size())));
    }

    // ---- the panels -------------------------------------------------------

    void panelShowsTheLabelsFile()
    {
        // Hosts reach slots and signals through the meta-object, by index as well as by name.
        QCOMPARE(methods(splitForm::staticMetaObject, QMetaMethod::Signal) + methods(splitForm::staticMetaObject, QMetaMethod::Slot)
                     + methods(Velmora::staticMetaObject, QMetaMethod::Slot),
                 QStringList({"copySignal(QStringList)", "pasteSignal()", "on_functionModule_activated(QString)",
                              "show_menu(QPoint)", "copyColumData()", "pasteColumData()", "on_channel_activated(int)",
                              "updataTimeOutFunction()", "onVarTableCellClicked(int,int)", "addSplitForm_clicked()",
                              "removeSplitForm_clicked()", "mytestFunction()", "setParFunction()",
                              "splitFormPasteFunction()", "splitFormCopyFunction(QStringList)"}));
        splitForm panel;
        auto *modules = panel.findChild<QComboBox *>("functionModule");
        auto *channels = panel.findChild<QComboBox *>("channel");
        auto *tabs = panel.findChild<QTabWidget *>();
        const QMenu *menu = shown(&panel)->findChild<QMenu *>();
        QCOMPARE(QStringList({panel.windowTitle(), device(&panel), modules->itemText(1), channels->itemText(7),
                              tabs->tabText(1), shown(&panel)->horizontalHeaderItem(4)->text(),
                              menu->actions().at(0)->text(), menu->actions().at(1)->text()}),
                 QStringList({"Form", "TextLabel", "寄存器", "通道8", "页面二", "Note", "复制", "粘贴"}));
        QCOMPARE(QList<int>({modules->count(), channels->count(), tabs->count(), shown(&panel)->rowCount()}),
                 QList<int>({2, 8, 2, 4}));
        QCOMPARE(rowTexts(shown(&panel), 2), QStringList({"sys5", "位置", "3", "int", "r", ""}));
        // The combo boxes' slots are connected by name; an unknown module name changes nothing.
        for (const QString &name : {QStringLiteral("寄存器"), QStringLiteral("nothing")}) {
            QVERIFY(QMetaObject::invokeMethod(modules, "activated", Q_ARG(QString, name)));
            QCOMPARE(tabs->tabText(0), QStringLiteral("寄存器页"));
        }
        QVERIFY(QMetaObject::invokeMethod(channels, "activated", Q_ARG(int, 7)));
        QCOMPARE(panel.channelNumber(), 8);
        // Out-of-range positions are ignored part by part.
        panel.setPosition(0, 1);
        panel.setPosition(5, 7);
        QCOMPARE(panel.position(), qMakePair(0, 1));
        panel.setPosition(1, 3);
        QCOMPARE(panel.position(), qMakePair(1, 0));

        // A damaged column count cannot make the table huge.
        QFile file(labelsPath());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("<VelmoraInf><Module Size=\"1\"><Function><SubFunction><Display Size=\"7fffffff\"><SubItem>Value</SubItem>"
                   "</Display><Object><Address>usr1</Address><Value>5</Value></Object></SubFunction></Function></Module></VelmoraInf>");
        file.close();
        splitForm damaged;
        QVERIFY(shown(&damaged)->columnCount() <= 256 && cell(&damaged, 0, 0) == "5");
    }

    void refreshFillsOnlyTheValueColumn()
    {
        for (const QPair<qint32, qint32> &v : {qMakePair(1000005, 123), qMakePair(1000006, -7), qMakePair(1010005, 42),
                                                qMakePair(1010007, 99) /* x7 after sys5 */, qMakePair(2000005, 2005)})
            sim.setVariable(v.first, v.second);
        splitForm panel;
        QVERIFY(panel.connectCnc(first));
        shown(&panel)->item(0, 4)->setText("user note");
        panel.setUpdataStart(true);
        QTRY_COMPARE_WITH_TIMEOUT(values(&panel), QStringList({"123", "-7", "42", "99"}), 5000);
        QCOMPARE(rowTexts(shown(&panel), 0), QStringList({"usr5", "速度", "123", "int", "rw", "user note"}));
        sim.setVariable(1000006, 77);   // the timer keeps reading
        QTRY_COMPARE_WITH_TIMEOUT(cell(&panel, 1, 1), QStringLiteral("77"), 5000);
        // Channel 2 reads the same page from the next channel's block.
        QVERIFY(QMetaObject::invokeMethod(&panel, "on_channel_activated", Q_ARG(int, 1)));
        QTRY_COMPARE_WITH_TIMEOUT(cell(&panel, 0, 1), QStringLiteral("2005"), 5000);
        panel.setUpdataStart(false);
        // A page without a "Value" column keeps its cells.
        panel.setPosition(0, 1);
        QVERIFY(invoke(&panel, "updataTimeOutFunction"));
        QCOMPARE(rowTexts(shown(&panel), 0), QStringList({"usr9", "只读", "int"}));

        // A silent controller holds the GUI thread for the reply budget, three
        // waits of 600 ms, per refresh; the values stay.
        panel.setPosition(0, 0);
        sim.setSilence('B');
        QElapsedTimer refresh;
        refresh.start();
        QVERIFY(invoke(&panel, "updataTimeOutFunction"));
        QVERIFY2(refresh.elapsed() >= 1700 && refresh.elapsed() < 2500, QByteArray::number(refresh.elapsed()));
        QCOMPARE(cell(&panel, 0, 1), QStringLiteral("2005"));
        // A controller gone, or never there: the values stay, no box.
        sim.stop();
        splitForm other;
        QVERIFY(!other.connectCnc(QStringLiteral("127.0.0.93")));
        for (int i = 0; i < 3; ++i)
            QVERIFY(invoke(&panel, "updataTimeOutFunction") && invoke(&other, "updataTimeOutFunction"));
        QCOMPARE(QStringList({cell(&panel, 0, 1), cell(&other, 0, 1)}), QStringList({"2005", "1"}));
        QVERIFY(seen.isEmpty());
    }

    // A double click in the "Value" column opens the editor with the cell's
    // value and writes what it holds when it closes, OK or not.
    void setValue_data()
    {
        QTest::addColumn<SetValue>("s");   // page, row, column; typed, OK; the value shown (null: no editor); the write
        QTest::newRow("OK writes the typed value") << SetValue{{0, 1, 1}, "4242", true, "2", 1000006, 4242};
        QTest::newRow("Cancel writes the value it opened with") << SetValue{{0, 2, 1}, "999", false, "3", 1010005, 3};
        QTest::newRow("x7 alone is the bare offset 7") << SetValue{{0, 3, 1}, "8", true, "4", 7, 8};
        QTest::newRow("not the Value column: nothing") << SetValue{{0, 0, 0}, "1", true, QString(), 1000005, 12345};
        QTest::newRow("page without Value: nothing") << SetValue{{1, 0, 1}, "1", true, QString(), 1000009, 12345};
    }
    void setValue()
    {
        QFETCH(SetValue, s);
        sim.setVariable(s.address, 12345);
        splitForm panel;
        QVERIFY(panel.connectCnc(first));
        UiSeam::execHook = [&](QDialog *d) {
            QLineEdit *dec = d->findChild<QLineEdit *>("lineEditDec");
            seen << d->windowTitle() << dec->text();
            dec->setText(s.typed);
            invoke(d, s.accept ? "on_buttonBox_accepted" : "on_buttonBox_rejected");
            return int(QDialog::Rejected);   // closing never accepts; the panel must not care
        };
        panel.setPosition(0, s.at[0]);
        shown(&panel)->setCurrentCell(s.at[1], s.at[2]);
        QVERIFY(QMetaObject::invokeMethod(&panel, "onVarTableCellClicked", Q_ARG(int, s.at[1]), Q_ARG(int, s.at[2])));
        QCOMPARE(seen, s.opened.isNull() ? QStringList() : QStringList({"set value", s.opened}));
        QCOMPARE(sim.variable(s.address), s.written);
        if (!s.opened.isNull())
            QCOMPARE(cell(&panel, s.at[1], 1), QString::number(s.written));
    }

    // Copy takes the selected "Value" cells in selection order; paste needs one
    // selected "Value" cell in a focused panel and writes down to the last row.
    void copyAndPaste()
    {
        for (const QPair<qint32, qint32> &v : {qMakePair(1000005, 15), qMakePair(1000006, 16), qMakePair(1010007, 107)})
            sim.setVariable(v.first, v.second);
        Velmora w;
        open(w, 2);
        w.setUpdataStart(false);
        splitForm *from = panels(w).at(0), *to = panels(w).at(1);
        QVERIFY(invoke(from, "updataTimeOutFunction"));
        QSignalSpy copied(from, &splitForm::copySignal);
        shown(from)->setSelectionMode(QAbstractItemView::MultiSelection);
        for (const QPoint &c : {QPoint(3, 1), QPoint(0, 1), QPoint(1, 1), QPoint(2, 0) /* not a value: left out */})
            shown(from)->item(c.x(), c.y())->setSelected(true);
        shown(from)->findChild<QMenu *>()->actions().at(0)->trigger();
        from->setPosition(0, 1);   // a page without "Value": nothing to copy
        shown(from)->selectAll();
        QVERIFY(invoke(from, "copyColumData"));
        QCOMPARE(copied.count(), 1);
        QCOMPARE(copied.at(0).at(0).toStringList(), QStringList({"107", "15", "16"}));

        to->setPosition(1, 0);   // reg10 .. reg14
        QVERIFY(QMetaObject::invokeMethod(to, "on_channel_activated", Q_ARG(int, 2)));
        QTableWidget *target = shown(to);
        target->setSelectionMode(QAbstractItemView::MultiSelection);
        for (const QList<QPoint> &selection : {QList<QPoint>{{0, 1}, {1, 1}}, QList<QPoint>{{0, 0}}}) {
            target->clearSelection();   // two cells; not a value: refused
            for (const QPoint &c : selection)
                target->item(c.x(), c.y())->setSelected(true);
            to->pasteValues({"1", "2"});
        }
        QVERIFY(sim.requests('D').isEmpty());
        // Through the window: the focused panel takes the paste, from its
        // second-to-last row two of three values fit.
        target->clearSelection();
        target->item(3, 1)->setSelected(true);
        focus(target);
        target->findChild<QMenu *>()->actions().at(1)->trigger();
        QCOMPARE(values(to), QStringList({"0", "0", "0", "107", "15"}));
        QCOMPARE(QList<qint32>({sim.variable(3040013), sim.variable(3040014)}), QList<qint32>({107, 15}));
        // Without a focused panel, paste does nothing.
        target->clearFocus();
        w.findChild<QToolBar *>()->setFocus();
        QTRY_VERIFY_WITH_TIMEOUT(!to->tableHasFocus(), 5000);
        w.splitFormPasteFunction();
        QCOMPARE(sim.requests('D').size(), 1);
    }

    // ---- the window -------------------------------------------------------

    // As many panels as the width allows at 218 pixels each, connected to
    // the window's address and refreshing; remove takes the focused one and
    // the rest close ranks.
    void panelsComeAndGo()
    {
        Velmora w;
        QVERIFY(panels(w).isEmpty());   // no layout file yet
        const QList<QAction *> actions = w.findChild<QToolBar *>()->actions();
        QVERIFY(actions.size() == 5 && actions.at(1)->isSeparator());
        QCOMPARE(QStringList({w.windowTitle(), actions.at(0)->text(), actions.at(2)->text(), actions.at(3)->text(),
                              actions.at(4)->text()}),
                 QStringList({"Velmora", "增加显示窗口", "删除显示窗口", "切换设备", "配置参数"}));
        open(w, 0, 436);
        actions.at(0)->trigger();
        w.addSplitForm_clicked();   // 2 x 218 = 436 still fits
        w.addSplitForm_clicked();
        QCOMPARE(panels(w).size(), 2);
        for (splitForm *p : panels(w))
            QVERIFY(p->isConnected() && p->isUpdating() && device(p) == "当前设备:" + first);
        w.resize(660, 500);
        QTRY_COMPARE_WITH_TIMEOUT(w.width(), 660, 5000);
        w.addSplitForm_clicked();
        const QList<splitForm *> three = panels(w);
        QCOMPARE(three.size(), 3);
        w.removeSplitForm_clicked();
        QCOMPARE(seen, QStringList({"错误警告|达到最大显示个数\n\r", "错误警告|选择需要删除窗口\n\r"}));
        QPointer<splitForm> middle = three.at(1);
        focus(shown(middle));
        w.removeSplitForm_clicked();
        QVERIFY(middle.isNull());
        QTRY_VERIFY_WITH_TIMEOUT(three.at(2)->width() > 300, 5000);
        QVERIFY(three.at(0)->width() > 300 && three.at(0)->geometry().right() < three.at(2)->geometry().left());
    }

    // Only the focused panel moves; panels added later use the window's address.
    void switchDevice()
    {
        sim2.setVariable(1000005, 7007);
        Velmora w;
        open(w, 2);
        const QList<splitForm *> ps = panels(w);
        w.mytestFunction();   // no panel focused: not even asked
        focus(shown(ps.at(1)));
        answers = {QString(), second};
        w.mytestFunction();   // an empty answer changes nothing
        QCOMPARE(device(ps.at(1)), "当前设备:" + first);
        w.mytestFunction();
        const QString asked = QStringLiteral(" 切换设备|设备IP:|");
        QCOMPARE(seen, QStringList({"错误警告|\t请选中需要切换的设备模块表格\n\r", asked, asked}));
        QCOMPARE(QStringList({device(ps.at(0)), device(ps.at(1))}), QStringList({"当前设备:" + first, "当前设备:" + second}));
        QTRY_COMPARE_WITH_TIMEOUT(cell(ps.at(1), 0, 1), QStringLiteral("7007"), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(sim.connectionCount(), 1, 5000);
        w.addSplitForm_clicked();
        QCOMPARE(device(panels(w).last()), "当前设备:" + first);
    }

    // Entering hides and stops the panels and refuses panel changes; leaving
    // unsaved asks first and reloads nothing; leaving after a save reloads every
    // panel from the saved file without asking.
    void configurationMode()
    {
        layout({{"VelmoraInformationSize/displaySize", 1}});
        Velmora w;
        open(w, 0);
        splitForm *panel = panels(w).at(0);
        QComboBox *modules = panel->findChild<QComboBox *>("functionModule");
        w.setParFunction();
        setPar *editor = w.findChild<setPar *>();
        QCOMPARE(action(w, 4)->text(), QStringLiteral("退出配置模式"));
        QVERIFY(!panel->isVisible() && !panel->isUpdating() && editor && editor->isVisible());
        w.addSplitForm_clicked();
        w.removeSplitForm_clicked();
        w.mytestFunction();   // refused before the address is asked
        QCOMPARE(panels(w).size(), 1);
        answers = {1, 0};   // "否" stays; "是" leaves, the unsaved rename not shown
        editor->findChild<QComboBox *>("moduleFunction")->setItemText(0, QStringLiteral("主轴"));
        w.setParFunction();
        QVERIFY(editor->isVisible());
        w.setParFunction();
        const QString refusal = QStringLiteral("错误警告|还配置模式中，切换失败\n\r");
        const QString question = QStringLiteral("退出配置模式|尚未配置，是否继续退出|是,否");
        QCOMPARE(seen, QStringList({refusal, refusal, refusal, question, question}));
        QCOMPARE(action(w, 4)->text(), QStringLiteral("配置模式"));
        QVERIFY(!editor->isVisible() && panel->isVisible() && panel->isUpdating());
        QCOMPARE(modules->itemText(0), QStringLiteral("轴参数"));

        w.setParFunction();
        editor->findChild<QComboBox *>("moduleFunction")->setItemText(0, QStringLiteral("主轴"));
        QVERIFY(invoke(editor, "on_save_clicked"));
        w.setParFunction();
        w.addSplitForm_clicked();
        QCOMPARE(seen.size(), 5);
        QCOMPARE(QStringList({modules->itemText(0), modules->itemText(1)}), QStringList({"主轴", "寄存器"}));
        QCOMPARE(panel->findChild<QTabWidget *>()->count(), 2);
        QVERIFY(panel->isVisible() && panel->isUpdating() && panels(w).size() == 2);
    }

    // The window writes its panels' positions to "dialogProtocol.ini" when it
    // is destroyed, whole groups, and restores them; with no panels it leaves
    // the previous layout; with no labels file a panel is at -1, -1.
    void layoutFile()
    {
        layout({{"VelmoraInformationSize/stale", 1}, {"VelmoraInformation1/stale", 1}});
        {
            Velmora w;
            w.resize(900, 500);
            for (int i = 0; i < 3; ++i)
                w.addSplitForm_clicked();
            panels(w).at(0)->setPosition(0, 1);
            panels(w).at(1)->setPosition(1, 0);
        }
        const QStringList three = {"VelmoraInformation0/moduleIndex=0", "VelmoraInformation0/subModuleIndex=1",
                                   "VelmoraInformation1/moduleIndex=1", "VelmoraInformation1/subModuleIndex=0",
                                   "VelmoraInformation2/moduleIndex=0", "VelmoraInformation2/subModuleIndex=0",
                                   "VelmoraInformationSize/displaySize=3"};
        QCOMPARE(layout(), three);
        {
            Velmora w;
            open(w, 0);
            QCOMPARE((QList<QPair<int, int>>{panels(w).at(0)->position(), panels(w).at(1)->position()}),
                     (QList<QPair<int, int>>{{0, 1}, {1, 0}}));
            QVERIFY(panels(w).size() == 3 && panels(w).at(2)->isUpdating());
            while (!panels(w).isEmpty()) {
                focus(shown(panels(w).at(0)));
                w.removeSplitForm_clicked();
            }
        }
        QCOMPARE(layout(), three);
        layout({{"VelmoraInformationSize/displaySize", 1}});
        QFile::remove(labelsPath());
        {
            Velmora w;
            QCOMPARE(panels(w).size(), 1);
            QCOMPARE(panels(w).at(0)->position(), qMakePair(-1, -1));
            QVERIFY(invoke(panels(w).at(0), "copyColumData"));   // no table: nothing
            panels(w).at(0)->pasteValues({"1"});
        }
        QCOMPARE(layout().mid(0, 2), QStringList({"VelmoraInformation0/moduleIndex=-1", "VelmoraInformation0/subModuleIndex=-1"}));
    }
};

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    tst_window test;
    return QDir::setCurrent(QCoreApplication::applicationDirPath()) ? QTest::qExec(&test, argc, argv) : 1;
}
#include "tst_window.moc"
