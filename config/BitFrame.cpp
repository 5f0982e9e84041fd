#include "BitFrame.h"
#include "ui_BitFrame.h"

#include <QPainter>

BitFrame::BitFrame(QWidget *parent)
    : QFrame(parent), ui(new Ui::BitFrame)
{
    ui->setupUi(this);
}

BitFrame::~BitFrame()
{
    delete ui;
}

void BitFrame::paintEvent(QPaintEvent *event)
{
    {
        QPainter painter(this);
        painter.setFont(QFont(QStringLiteral("Arial"), 8));
        const int half = height() / 2;
        painter.setPen(QColor(30, 57, 91));
        painter.drawText(QRect(QPoint(0, 0), QPoint(width() - 1, half - 1)), Qt::AlignCenter,
                         QString::number(state));
        painter.setPen(QColor(159, 123, 102));
        if (showIndex)
            painter.drawText(QRect(QPoint(0, half), QPoint(width() - 1, 2 * half - 1)),
                             Qt::AlignCenter, QString::number(index));
    }
    // Our painter has ended: the frame may open its own for the border.
    QFrame::paintEvent(event);
}

void BitFrame::mousePressEvent(QMouseEvent *event)
{
    if (state == 0)
        state = 1;
    else if (state == 1)
        state = 0;
    update();
    emit bitCahnged(index, state);
    QFrame::mousePressEvent(event);
}
