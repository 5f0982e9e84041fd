#ifndef DIALOGMODIFY_H
#define DIALOGMODIFY_H

#include <QDialog>
#include <QMap>
#include <QString>

namespace Ui {
class DialogModify;
}
class BinFrame;

// Edits one 32-bit controller value in four views kept in step: decimal,
// hexadecimal, ASCII name and 32 bit cells. The caller passes a pointer to
// the current value; OK writes the new value through it, Cancel leaves it.
// Both buttons close the window, so exec()'s result does not tell them apart:
// compare the value instead.
class DialogModify : public QDialog
{
    Q_OBJECT

public:
    explicit DialogModify(int *value, QWidget *parent = nullptr);
    ~DialogModify() override;

private slots:
    void on_buttonBox_accepted();
    void on_buttonBox_rejected();
    void on_lineEditDec_textChanged(const QString &arg1);
    void on_lineEditHex_textChanged(const QString &arg1);
    void binValueCahnged(qint32 value);
    void on_lineEditAscii_textChanged(const QString &arg1);

private:
    Ui::DialogModify *ui;
    int *value;
    BinFrame *binFrame;
    QMap<QString, int> *asciiMap;
};

#endif
