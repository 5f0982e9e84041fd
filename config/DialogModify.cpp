#include "DialogModify.h"
#include "ui_DialogModify.h"

#include "BinFrame.h"
#include "ValueConversion.h"

using namespace ValueConversion;

DialogModify::DialogModify(int *value, QWidget *parent)
    : QDialog(parent), ui(new Ui::DialogModify), value(value), binFrame(nullptr),
      asciiMap(new QMap<QString, int>())
{
    ui->setupUi(this);
    *asciiMap = asciiNameTable();
    ui->lineEditHex->setText(hexText(*value));
    ui->lineEditDec->setText(decText(*value));
    // Typing replaces the value rather than appending to it.
    ui->lineEditDec->setFocus();
    ui->lineEditDec->selectAll();
    binFrame = new BinFrame();
    ui->binLayout->addWidget(binFrame);
    binFrame->setValue(static_cast<quint32>(*value));
    binFrame->show();
    ui->lineEditAscii->setText(asciiName(*value));
    connect(binFrame, &BinFrame::valueChanged, this, &DialogModify::binValueCahnged);
}

DialogModify::~DialogModify()
{
    delete ui;
    delete asciiMap;
}

// Each text slot acts only for the field that has focus: the texts we set
// into the other fields raise their signals too, and must stay quiet.

void DialogModify::on_lineEditDec_textChanged(const QString &arg1)
{
    if (!ui->lineEditDec->hasFocus())
        return;
    bool ok = false;
    const qint32 v = parseDec(arg1, &ok);
    if (!ok) {
        if (arg1 == QLatin1String("-"))
            return; // a negative number is on its way
        bool hexOk = false;
        ui->lineEditDec->setText(decText(parseSignedHex(ui->lineEditHex->text(), &hexOk)));
        return;
    }
    ui->lineEditHex->setText(hexText(v));
    binFrame->setValue(static_cast<quint32>(v));
    ui->lineEditAscii->setText(asciiName(v));
}

void DialogModify::on_lineEditHex_textChanged(const QString &arg1)
{
    if (!ui->lineEditHex->hasFocus())
        return;
    bool ok = false;
    const quint32 v = parseHex(arg1, &ok);
    if (!ok) {
        bool decOk = false;
        ui->lineEditHex->setText(hexText(parseDec(ui->lineEditDec->text(), &decOk)));
        return;
    }
    ui->lineEditDec->setText(decText(static_cast<qint32>(v)));
    ui->lineEditAscii->setText(asciiName(static_cast<qint32>(v)));
    binFrame->setValue(v);
}

void DialogModify::binValueCahnged(qint32 v)
{
    // Take focus away from the line edits so their slots ignore our texts.
    // The ASCII field keeps its old text until a line edit is used again.
    binFrame->setFocus();
    ui->lineEditDec->setText(decText(v));
    ui->lineEditHex->setText(hexText(v));
}

void DialogModify::on_lineEditAscii_textChanged(const QString &arg1)
{
    if (!ui->lineEditAscii->hasFocus())
        return;
    const int v = asciiValue(*asciiMap, arg1);
    ui->lineEditHex->setText(hexText(v));
    binFrame->setValue(static_cast<quint32>(v));
    ui->lineEditDec->setText(decText(v));
}

void DialogModify::on_buttonBox_accepted()
{
    bool ok = false;
    *value = parseDec(ui->lineEditDec->text(), &ok);
    close();
}

void DialogModify::on_buttonBox_rejected()
{
    close();
}
