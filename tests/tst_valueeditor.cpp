#include "../config/BinFrame.h"
#include "../config/BitFrame.h"
#include "../config/DialogModify.h"
#include "../config/ValueConversion.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QDir>
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
        dialog.setWindowTitle(QStringLiteral("set value"));
        dialog.show();
        active = QTest::qWaitForWindowActive(&dialog, 5000);
    }
    QLineEdit *edit(const char *name) { return dialog.findChild<QLineEdit *>(name); }
    QString dec() { return edit("lineEditDec")->text(); }
    QString hex() { return edit("lineEditHex")->text(); }
    QString ascii() { return edit("lineEditAscii")->text(); }
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
    void names_data();
    void names();
    void nameTable();
    void numberTexts_data();
    void numberTexts();
    void opening_data();
    void opening();
    void typing_data();
    void typing();
    void clickingBits();
    void okAndCancel();
    void bitRowLayout();
    void screenshot();
};

void tst_valueeditor::names_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("name");
    QTest::newRow("0") << 0 << "NUT";
    QTest::newRow("17") << 17 << "DCI";
    QTest::newRow("23") << 23 << "TB";
    QTest::newRow("32") << 32 << "space";
    QTest::newRow("65") << 65 << "A";
    QTest::newRow("127") << 127 << "DEL";
    QTest::newRow("128") << 128 << QString(QChar(0x80));
    QTest::newRow("255") << 255 << QStringLiteral("\u00ff");
    QTest::newRow("-1") << -1 << "";
    QTest::newRow("256") << 256 << "";
}

void tst_valueeditor::names()
{
    QFETCH(int, value);
    QFETCH(QString, name);
    QCOMPARE(asciiName(value), name);
}

// Every name must be distinct, or the ASCII field would turn back into a
// different number than the one shown.
void tst_valueeditor::nameTable()
{
    const QMap<QString, int> table = asciiNameTable();
    QCOMPARE(table.size(), 256);
    for (int v = 0; v <= 255; ++v)
        QCOMPARE(asciiValue(table, asciiName(v)), v);
    QCOMPARE(asciiValue(table, "nut"), -1);
    QCOMPARE(asciiValue(table, ""), -1);
    QCOMPARE(asciiValue(table, "Space"), -1);
}

void tst_valueeditor::numberTexts_data()
{
    QTest::addColumn<qint32>("value");
    QTest::addColumn<QString>("dec");
    QTest::addColumn<QString>("hex");
    QTest::newRow("zero") << 0 << "0" << "0";
    QTest::newRow("255") << 255 << "255" << "FF";
    QTest::newRow("-1") << -1 << "-1" << "FFFFFFFF";
    QTest::newRow("min") << qint32(-2147483647 - 1) << "-2147483648" << "80000000";
}

void tst_valueeditor::numberTexts()
{
    QFETCH(qint32, value);
    QFETCH(QString, dec);
    QFETCH(QString, hex);
    QCOMPARE(decText(value), dec);
    QCOMPARE(hexText(value), hex);
    bool ok = false;
    QCOMPARE(parseDec(dec, &ok), value);
    QVERIFY(ok);
    QCOMPARE(static_cast<qint32>(parseHex(hex, &ok)), value);
    QVERIFY(ok);
    // The signed reading of the pattern is what restores the decimal field.
    const qint32 signedHex = parseSignedHex(hex, &ok);
    QCOMPARE(ok, value >= 0);
    QCOMPARE(signedHex, value >= 0 ? value : 0);
}

void tst_valueeditor::opening_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("dec");
    QTest::addColumn<QString>("hex");
    QTest::addColumn<QString>("ascii");
    QTest::newRow("-1") << -1 << "-1" << "FFFFFFFF" << "";
    QTest::newRow("65") << 65 << "65" << "41" << "A";
    QTest::newRow("0") << 0 << "0" << "0" << "NUT";
}

void tst_valueeditor::opening()
{
    QFETCH(int, value);
    QFETCH(QString, dec);
    QFETCH(QString, hex);
    QFETCH(QString, ascii);
    OpenDialog d(value);
    QVERIFY(d.active);
    QCOMPARE(d.dec(), dec);
    QCOMPARE(d.hex(), hex);
    QCOMPARE(d.ascii(), ascii);
    QCOMPARE(QApplication::focusWidget(), d.edit("lineEditDec"));
    QCOMPARE(d.edit("lineEditDec")->selectedText(), dec);
    QCOMPARE(d.bits()->getValue(), quint32(value));
    for (int i = 0; i < 32; ++i)
        QCOMPARE(d.bits()->bit(i)->state, bitOf(quint32(value), i));
}

// Keys go to whichever field has focus; the others must follow it.
void tst_valueeditor::typing_data()
{
    QTest::addColumn<int>("start");
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("keys");
    QTest::addColumn<QString>("dec");
    QTest::addColumn<QString>("hex");
    QTest::addColumn<QString>("ascii");

    QTest::newRow("dec replaces") << 7 << "lineEditDec" << "65" << "65" << "41" << "A";
    QTest::newRow("dec negative") << 7 << "lineEditDec" << "-5" << "-5" << "FFFFFFFB" << "";
    QTest::newRow("dec lone minus") << 7 << "lineEditDec" << "-" << "-" << "7" << "BEL";
    QTest::newRow("dec junk restores") << 7 << "lineEditDec" << "12x" << "12" << "C" << "FF";
    QTest::newRow("dec junk, high hex") << -1 << "lineEditDec" << "x" << "0" << "0" << "NUT";
    QTest::newRow("dec cleared") << 7 << "lineEditDec" << "" << "" << "0" << "NUT";
    QTest::newRow("hex 20") << 7 << "lineEditHex" << "20" << "32" << "20" << "space";
    QTest::newRow("hex all ones") << 7 << "lineEditHex" << "ffffffff" << "-1" << "ffffffff" << "";
    QTest::newRow("hex nine digits") << 7 << "lineEditHex" << "123456789" << "305419896" << "12345678" << "";
    QTest::newRow("hex junk") << 7 << "lineEditHex" << "4g" << "4" << "4" << "EOT";
    QTest::newRow("ascii space") << 7 << "lineEditAscii" << "space" << "32" << "20" << "space";
    QTest::newRow("ascii NUT") << 7 << "lineEditAscii" << "NUT" << "0" << "0" << "NUT";
    QTest::newRow("ascii nut") << 7 << "lineEditAscii" << "nut" << "-1" << "FFFFFFFF" << "nut";
    QTest::newRow("ascii TB") << 7 << "lineEditAscii" << "TB" << "23" << "17" << "TB";
}

void tst_valueeditor::typing()
{
    QFETCH(int, start);
    QFETCH(QString, field);
    QFETCH(QString, keys);
    QFETCH(QString, dec);
    QFETCH(QString, hex);
    QFETCH(QString, ascii);
    OpenDialog d(start);
    QVERIFY(d.active);
    QLineEdit *target = d.edit(field.toLatin1().constData());
    if (target != QApplication::focusWidget()) {
        QTest::mouseClick(target, Qt::LeftButton);
        target->selectAll();
    }
    QCOMPARE(QApplication::focusWidget(), target);
    if (keys.isEmpty())
        QTest::keyClick(target, Qt::Key_Delete);
    else
        QTest::keyClicks(QApplication::focusWidget(), keys);
    QCOMPARE(d.dec(), dec);
    QCOMPARE(d.hex(), hex);
    QCOMPARE(d.ascii(), ascii);
    bool ok = false;
    QCOMPARE(d.bits()->getValue(), parseHex(hex, &ok));

    d.button(QDialogButtonBox::Ok);
    QCOMPARE(d.value, parseDec(dec, &ok)); // "-" stores 0 like any failed parse
    QVERIFY(!d.dialog.isVisible());
}

void tst_valueeditor::clickingBits()
{
    OpenDialog d(0);
    QVERIFY(d.active);
    QTest::mouseClick(d.bits()->bit(31), Qt::LeftButton);
    QCOMPARE(d.dec(), QString("-2147483648"));
    QCOMPARE(d.hex(), QString("80000000"));
    QCOMPARE(d.ascii(), QString("NUT")); // deliberately left behind
    QCOMPARE(QApplication::focusWidget(), d.bits());

    QTest::mouseClick(d.bits()->bit(31), Qt::LeftButton);
    QTest::mouseClick(d.bits()->bit(0), Qt::LeftButton);
    QTest::mouseClick(d.bits()->bit(6), Qt::LeftButton);
    QCOMPARE(d.dec(), QString("65"));
    QCOMPARE(d.hex(), QString("41"));
    QCOMPARE(d.ascii(), QString("NUT"));
    QCOMPARE(d.bits()->bit(6)->state, 1);

    // Back in a line edit, the bit row follows the typing again.
    QTest::mouseClick(d.edit("lineEditHex"), Qt::LeftButton);
    QTest::keyClick(d.edit("lineEditHex"), Qt::Key_Backspace);
    QCOMPARE(d.dec(), QString("4"));
    QCOMPARE(d.ascii(), QString("EOT"));
    QCOMPARE(d.bits()->bit(2)->state, 1);
    QCOMPARE(d.bits()->bit(6)->state, 0);
    d.button(QDialogButtonBox::Ok);
    QCOMPARE(d.value, 4);
}

void tst_valueeditor::okAndCancel()
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
    QTimer::singleShot(5000, &modal, &QDialog::reject); // bound the wait
    modal.exec();
    QCOMPARE(value, -77);
}

void tst_valueeditor::bitRowLayout()
{
    BinFrame row;
    row.resize(640, 51);
    row.show();
    QVERIFY(QTest::qWaitForWindowExposed(&row));
    QCOMPARE(row.findChildren<QLabel *>().size(), 7);
    for (int i = 1; i < 32; ++i)
        QVERIFY(row.bit(i)->x() < row.bit(i - 1)->x());
    // Separators stand after bits 28, 24, ..., 4 only.
    QVERIFY(row.bit(4)->geometry().right() + 1 < row.bit(3)->x());
    QCOMPARE(row.bit(5)->geometry().right() + 1, row.bit(4)->x());

    QSignalSpy spy(&row, &BinFrame::valueChanged);
    row.setValue(0x12);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(row.bit(1)->state, 1);
    QCOMPARE(row.bit(4)->state, 1);
    QTest::mouseClick(row.bit(1), Qt::LeftButton);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).value<qint32>(), 0x10);

    // Numbered cells paint their number in the lower half, the others do not.
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

void tst_valueeditor::screenshot()
{
    OpenDialog d(65);
    QVERIFY(d.active);
    const QString dir = qEnvironmentVariable("VELMORA_BINARY_DIR", QDir::currentPath()) + "/screenshots";
    QVERIFY(QDir().mkpath(dir));
    // The bit row with its readable minimum cells fits the designed width.
    QCOMPARE(d.dialog.width(), 447);
    const QPixmap shot = d.dialog.grab();
    QVERIFY(!shot.isNull());
    QVERIFY(shot.save(dir + "/dialogmodify.png"));
}

QTEST_MAIN(tst_valueeditor)
#include "tst_valueeditor.moc"
