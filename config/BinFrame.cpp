#include "BinFrame.h"
#include "ui_BinFrame.h"

#include "BitFrame.h"
#include "ValueConversion.h"

#include <QLabel>

BinFrame::BinFrame(QWidget *parent)
    : QFrame(parent), ui(new Ui::BinFrame)
{
    ui->setupUi(this);
    for (int i = 0; i < 32; ++i) {
        bits[i] = new BitFrame();
        connect(bits[i], &BitFrame::bitCahnged, this, &BinFrame::bitChanged);
        bits[i]->index = i;
    }
    // Most significant bit at the left, read in groups of four.
    for (int i = 31; i >= 0; --i) {
        ui->horizontalLayout->addWidget(bits[i]);
        if (i != 0 && i % 4 == 0) {
            QLabel *separator = new QLabel(this);
            separator->setStyleSheet(QStringLiteral("background-color: rgb(217, 228, 241);"));
            separator->setFixedWidth(4); // leave the width to the two-digit bit numbers
            ui->horizontalLayout->addWidget(separator);
        }
    }
    for (int i : {0, 3, 7, 11, 15, 19, 23, 27, 31})
        bits[i]->showIndex = true;
}

BinFrame::~BinFrame()
{
    for (BitFrame *&b : bits) {
        delete b;
        b = nullptr;
    }
    delete ui;
}

void BinFrame::setValue(quint32 v)
{
    value = v;
    for (int i = 0; i < 32; ++i) {
        bits[i]->state = ValueConversion::bitOf(v, i);
        bits[i]->update();
    }
}

void BinFrame::bitChanged(int index, int bit)
{
    value = ValueConversion::withBit(value, index, bit);
    emit valueChanged(static_cast<qint32>(value));
}
