#ifndef BINFRAME_H
#define BINFRAME_H

#include <QFrame>

namespace Ui {
class BinFrame;
}
class BitFrame;

// A row of 32 bit cells, most significant bit at the left, in groups of four.
class BinFrame : public QFrame
{
    Q_OBJECT

public:
    explicit BinFrame(QWidget *parent = nullptr);
    ~BinFrame() override;

    // Shows v without emitting valueChanged.
    void setValue(quint32 v);
    quint32 getValue() const { return value; }
    BitFrame *bit(int index) const { return (index >= 0 && index < 32) ? bits[index] : nullptr; }

signals:
    void valueChanged(qint32 value);

public slots:
    void bitChanged(int index, int value);

private:
    Ui::BinFrame *ui;
    BitFrame *bits[32] = {};
    quint32 value = 0;
};

#endif
