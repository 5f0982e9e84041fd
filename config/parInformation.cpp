#include "parInformation.h"
#include "ui_parInformation.h"

#include "parInforDialog.h"
#include "setPar.h"
#include "UiSeam.h"

#include <QDebug>
#include <QHeaderView>
#include <QTableWidget>

namespace {

// The four columns of every page table, in the order the file's readers know them.
const QStringList &columnHeadings()
{
    static const QStringList headings = {QStringLiteral("Name"), QStringLiteral("Value"),
                                         QStringLiteral("Type"), QStringLiteral("Access")};
    return headings;
}

// The object list of a page that a column heading stands for; null for a
// heading the labels file has no list for.
QStringList *objectList(SubFunctionRecord &sub, const QString &heading)
{
    switch (columnHeadings().indexOf(heading)) {
    case 0: return &sub.names;
    case 1: return &sub.values;
    case 2: return &sub.types;
    case 3: return &sub.accesses;
    default: return nullptr;
    }
}

QString *rowField(parInforRow &row, const QString &heading)
{
    switch (columnHeadings().indexOf(heading)) {
    case 0: return &row.name;
    case 1: return &row.value;
    case 2: return &row.type;
    case 3: return &row.access;
    default: return nullptr;
    }
}

QString headingText(const QTableWidget *table, int column)
{
    const QTableWidgetItem *item = table->horizontalHeaderItem(column);
    return item ? item->text() : QString();
}

QString addressText(const QTableWidget *table, int row)
{
    const QTableWidgetItem *item = table->verticalHeaderItem(row);
    return item ? item->text() : QString();
}

QString cellText(const QTableWidget *table, int row, int column)
{
    const QTableWidgetItem *item = table->item(row, column);
    return item ? item->text() : QString();
}

} // namespace

parInformation::parInformation(const FunctionRecord &record, setPar *parent)
    : QWidget(parent), ui(new Ui::parInformation), record(record)
{
    ui->setupUi(this);
    tabWidget = ui->tabWidget;
    connect(tabWidget, &QTabWidget::tabBarDoubleClicked, this, &parInformation::setTabName);

    // The boxes show every column any page of the module displays; at save
    // time they decide the columns of all pages alike.
    for (const SubFunctionRecord &sub : record.subFunctions) {
        for (const QString &heading : sub.subItems) {
            if (heading == QLatin1String("Name"))
                ui->nameCheck->setChecked(true);
            else if (heading == QLatin1String("Value"))
                ui->valueCheck->setChecked(true);
            else if (heading == QLatin1String("Type"))
                ui->typeCheck->setChecked(true);
            else if (heading == QLatin1String("Access"))
                ui->accessCheck->setChecked(true);
        }
    }

    for (const SubFunctionRecord &sub : record.subFunctions) {
        QTableWidget *table = createTable(sub);
        tables.append(table);
        tabWidget->addTab(table, sub.name);
    }
}

parInformation::~parInformation()
{
    delete ui;
}

QTableWidget *parInformation::createTable(SubFunctionRecord sub)
{
    QTableWidget *table = new QTableWidget(this);
    connect(table->verticalHeader(), &QHeaderView::sectionDoubleClicked,
            this, &parInformation::onVerTableCellClicked);
    table->setColumnCount(columnHeadings().size());
    table->setRowCount(sub.addresses.size());
    table->setHorizontalHeaderLabels(columnHeadings());
    table->setVerticalHeaderLabels(sub.addresses);
    table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    table->verticalHeader()->setSectionResizeMode(QHeaderView::Stretch);

    for (int c = 0; c < table->columnCount(); ++c) {
        // A file whose objects lack a child has shorter lists; those cells stay empty.
        const QStringList *list = objectList(sub, headingText(table, c));
        for (int r = 0; r < table->rowCount(); ++r)
            table->setItem(r, c, new QTableWidgetItem(list ? list->value(r) : QString()));
    }
    return table;
}

QTableWidget *parInformation::currentTable() const
{
    const int index = tabWidget->currentIndex();
    return index >= 0 && index < tables.size() ? tables.at(index) : nullptr;
}

void parInformation::copyRow(QTableWidget *table, int from, int to) const
{
    table->setVerticalHeaderItem(to, new QTableWidgetItem(addressText(table, from)));
    for (int c = 0; c < table->columnCount(); ++c)
        table->setItem(to, c, new QTableWidgetItem(cellText(table, from, c)));
}

void parInformation::readRow(QTableWidget *table, int row, parInforRow *out) const
{
    // "usr12" is type "usr" and number "12". A header too short to hold a
    // type is kept whole as the number, so that nothing of it is lost.
    const QString header = addressText(table, row);
    if (header.size() < 3) {
        out->addressType.clear();
        out->addressNumber = header;
    } else {
        out->addressType = header.left(3);
        out->addressNumber = header.mid(3);
    }
    for (int c = 0; c < table->columnCount(); ++c) {
        if (QString *field = rowField(*out, headingText(table, c)))
            *field = cellText(table, row, c);
    }
}

void parInformation::writeRow(QTableWidget *table, int row, const parInforRow &in) const
{
    table->setVerticalHeaderItem(row, new QTableWidgetItem(in.addressType + in.addressNumber));
    parInforRow fields = in;
    for (int c = 0; c < table->columnCount(); ++c) {
        if (const QString *field = rowField(fields, headingText(table, c)))
            table->setItem(row, c, new QTableWidgetItem(*field));
    }
}

void parInformation::setTabName(int index)
{
    if (index < 0 || index >= tabWidget->count())
        return;
    bool ok = false;
    const QString text = UiSeam::getText(this, QStringLiteral("名称修改"), QStringLiteral("请输入新名称"),
                                         tabWidget->tabText(index), &ok);
    if (ok && !text.isEmpty())
        tabWidget->setTabText(index, text);
}

void parInformation::onVerTableCellClicked(int index)
{
    QTableWidget *table = nullptr;
    for (QTableWidget *t : qAsConst(tables)) {
        if (t->hasFocus()) {
            table = t;
            break;
        }
    }
    if (!table || index < 0 || index >= table->rowCount())
        return;

    parInforRow row;
    readRow(table, index, &row);
    parInforDialog *dialog = new parInforDialog(row.addressType, &row, this);
    UiSeam::exec(dialog);
    delete dialog;
    // Written back whichever button closed the dialog: after Cancle the
    // record still holds what was read, so the row keeps its texts.
    writeRow(table, index, row);
}

void parInformation::on_addHor_clicked()
{
    bool ok = false;
    int count = UiSeam::getInt(this, QStringLiteral("增加行数"), QStringLiteral("请输入增加行数量"),
                               1, 1, 100, 1, &ok);
    if (!ok)
        return;
    count = qBound(1, count, 100);
    qDebug() << "count===" << count;

    QTableWidget *table = currentTable();
    if (!table)
        return;
    const int rows = table->rowCount();
    const QList<QTableWidgetItem *> items = table->selectedItems();
    qDebug() << "items.size==" << items.size();

    if (items.isEmpty()) {
        for (int k = 0; k < count; ++k) {
            table->insertRow(rows + k);
            if (rows > 0) {
                copyRow(table, rows - 1, rows + k);
                continue;
            }
            table->setVerticalHeaderItem(rows + k, new QTableWidgetItem(QStringLiteral("usr0")));
            for (int c = 0; c < table->columnCount(); ++c)
                table->setItem(rows + k, c, new QTableWidgetItem(QStringLiteral("NULL")));
        }
        return;
    }

    const int r = items.first()->row();
    for (int k = 1; k <= count; ++k) {
        table->insertRow(r + k);
        copyRow(table, r, r + k);
    }
}

void parInformation::on_removeHor_clicked()
{
    QTableWidget *table = currentTable();
    if (table && table->currentRow() >= 0)
        table->removeRow(table->currentRow());
}

void parInformation::on_addPage_clicked()
{
    SubFunctionRecord sub;
    sub.addresses << QStringLiteral("usr0");
    QTableWidget *table = createTable(sub);
    tables.append(table);
    tabWidget->setCurrentIndex(tabWidget->addTab(table, QStringLiteral("新增功能页")));
}

void parInformation::on_removePage_clicked()
{
    const int index = tabWidget->currentIndex();
    if (index < 0 || index >= tables.size())
        return;
    QTableWidget *table = tables.takeAt(index);
    tabWidget->removeTab(index);
    delete table;
}

bool parInformation::syncRecord()
{
    // One choice of columns for the whole module, in the file's order.
    QStringList headings;
    if (ui->nameCheck->isChecked())
        headings << QStringLiteral("Name");
    if (ui->valueCheck->isChecked())
        headings << QStringLiteral("Value");
    if (ui->typeCheck->isChecked())
        headings << QStringLiteral("Type");
    if (ui->accessCheck->isChecked())
        headings << QStringLiteral("Access");

    QList<SubFunctionRecord> pages;
    for (int i = 0; i < tables.size(); ++i) {
        const QTableWidget *table = tables.at(i);
        SubFunctionRecord sub;
        sub.name = tabWidget->tabText(i);
        sub.displaySize = headings.size();
        sub.subItems = headings;
        for (int r = 0; r < table->rowCount(); ++r)
            sub.addresses << addressText(table, r);
        for (int c = 0; c < table->columnCount(); ++c) {
            QStringList *list = objectList(sub, headingText(table, c));
            if (!list) {
                UiSeam::information(nullptr, QStringLiteral("错误警告"), QStringLiteral("\t保存失败\n\r"));
                return false;
            }
            for (int r = 0; r < table->rowCount(); ++r)
                *list << cellText(table, r, c);
        }
        pages << sub;
    }
    record.subFunctions = pages;
    return true;
}

FunctionRecord parInformation::functionRecord()
{
    syncRecord();
    return record;
}
