#ifndef BITFRAME_H
#define BITFRAME_H

#include <QFrame>

namespace Ui {
class BitFrame;
}

// One clickable bit cell: the state on top, the bit number below when asked.
class BitFrame : public QFrame
{
    Q_OBJECT

public:
    explicit BitFrame(QWidget *parent = nullptr);
    ~BitFrame() override;

    int state = 0;
    int index = 0;
    bool showIndex = false;

signals:
    void bitCahnged(int index, int value);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;

private:
    Ui::BitFrame *ui;
};

#endif
