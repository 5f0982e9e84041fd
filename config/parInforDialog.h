#ifndef PARINFORDIALOG_H
#define PARINFORDIALOG_H

#include <QDialog>
#include <QString>

namespace Ui {
class parInforDialog;
}

// One table row of a labels-file page, split into the fields the row dialog
// edits. The header text of a row is addressType + addressNumber.
struct parInforRow
{
    QString addressType;    // "usr", "sys", "reg", "mcm", "bus" or "com"
    QString addressNumber;  // the rest of the row header, as typed
    QString name;
    QString value;
    QString type;
    QString access;
};

// Edits one row in a form. The caller owns the row record; OK copies the
// form back into it, Cancle leaves it as it was. Both just close the window,
// so the result code is the same either way: the record tells the caller.
class parInforDialog : public QDialog
{
    Q_OBJECT

public:
    // An addressType that is not one of the six types (for instance the empty
    // type of a header shorter than three characters) leaves the combo box
    // blank, and OK then keeps the type empty unless the user picks one.
    parInforDialog(const QString &addressType, parInforRow *row, QWidget *parent = nullptr);
    ~parInforDialog() override;

private slots:
    void on_OK_clicked();
    void on_Cancle_clicked();

private:
    Ui::parInforDialog *ui;
    parInforRow *row;
};

#endif
