#ifndef PARINFORMATION_H
#define PARINFORMATION_H

#include "FunctionRecord.h"

#include <QList>
#include <QWidget>

namespace Ui {
class parInformation;
}

class QTabWidget;
class QTableWidget;
class setPar;
struct parInforRow;

// Editor of one module of the labels file: one tab per page, each a table
// with one row per variable. The row header is the variable's address.
class parInformation : public QWidget
{
    Q_OBJECT

public:
    parInformation(const FunctionRecord &record, setPar *parent);
    ~parInformation() override;

    // Rewrites the module's pages from the tables and check boxes, then
    // returns a copy of the record. When a table has a column heading the
    // labels file does not know, the box "\t保存失败\n\r" is shown and the
    // pages stay as they were before the call.
    FunctionRecord functionRecord();

private slots:
    void setTabName(int index);
    void onVerTableCellClicked(int index);
    void on_addHor_clicked();
    void on_removeHor_clicked();
    void on_addPage_clicked();
    void on_removePage_clicked();

private:
    QTableWidget *createTable(SubFunctionRecord sub);
    QTableWidget *currentTable() const;
    void copyRow(QTableWidget *table, int from, int to) const;
    void readRow(QTableWidget *table, int row, parInforRow *out) const;
    void writeRow(QTableWidget *table, int row, const parInforRow &in) const;
    bool syncRecord();

    Ui::parInformation *ui;
    QList<QTableWidget *> tables;
    QTabWidget *tabWidget;
    FunctionRecord record;
};

#endif
