// The value editor: its pure conversions, then the dialog driven by keys and
// clicks the way an operator uses it.
#include "../config/BinFrame.h"
#include "../config/BitFrame.h"
#include "../config/DialogModify.h"
#include "../config/ValueConversion.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

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

class tst_valueeditor : public QObject
{
    Q_OBJECT

private slots:
    void conversions_data();
    void conversions();
    void asciiNamesAreDistinct();
    void typing_data();
    void typing();
    void clickingBits();
    void cancelKeepsAndModalOkStores();
    void bitRow();
};

// value -> decimal, hexadecimal and ASCII texts, and back.
void tst_valueeditor::conversions_data()
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

void tst_valueeditor::conversions()
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
void tst_valueeditor::asciiNamesAreDistinct()
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
void tst_valueeditor::typing_data()
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

void tst_valueeditor::typing()
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

void tst_valueeditor::clickingBits()
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

void tst_valueeditor::cancelKeepsAndModalOkStores()
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
void tst_valueeditor::bitRow()
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

QTEST_MAIN(tst_valueeditor)
#include "tst_valueeditor.moc"
