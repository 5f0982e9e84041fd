#include "splitForm.h"
#include "ui_splitForm.h"

#include "AddressConversion.h"
#include "AsynchronousClient.h"
#include "DialogModify.h"
#include "LabelsFile.h"
#include "UiSeam.h"

#include <QAction>
#include <QCoreApplication>
#include <QCursor>
#include <QDebug>
#include <QHeaderView>
#include <QMenu>
#include <QTabWidget>
#include <QTableWidget>
#include <QTimer>
#include <vector>

namespace {
const int kUpdateIntervalMs = 200;
const char kValueHeading[] = "Value";
const int kMaxColumns = 256;
}

splitForm::splitForm(QWidget *parent)
    : QWidget(parent), ui(new Ui::splitForm)
{
    ui->setupUi(this);
    tabWidget = new QTabWidget(this);
    ui->gridLayout_2->addWidget(tabWidget, 3, 1, 20, 2);
    ui->gridLayout_2->setSpacing(0);
    channel = 1;

    loadLabels();

    client = new AsynchronousClient();
    client->setDebugMask(0);   // no communication log for display traffic
    connected = false;

    timer = new QTimer();
    connect(timer, &QTimer::timeout, this, &splitForm::updataTimeOutFunction);
}

splitForm::~splitForm()
{
    timer->stop();
    delete timer;
    delete client;
    delete ui;
}

void splitForm::loadLabels()
{
    LabelsFile *file = new LabelsFile();
    if (!file->readFile(QCoreApplication::applicationDirPath() + "/Velmora.xml")) {
        delete file;
        return;   // no labels: an empty panel
    }
    const QPair<qint32, qint32> header = file->getVersionAndSize();
    version = header.first;
    moduleCount = header.second;
    functions = file->getFunctions();
    delete file;

    // The module count of the file decides what is shown, not the list length.
    if (moduleCount > functions.size())
        moduleCount = functions.size();
    for (int f = 0; f < moduleCount; ++f) {
        const FunctionRecord &function = functions.at(f);
        ui->functionModule->addItem(function.name);
        FunctionEntry entry;
        entry.name = function.name;
        entry.index = f;
        for (const SubFunctionRecord &sub : function.subFunctions) {
            entry.tableIndexes << tables.size();
            tables << createTable(sub);
        }
        functionEntries << entry;
    }
    if (!functionEntries.isEmpty())
        selectFunction(0);
}

void splitForm::clearLabels()
{
    tabWidget->clear();
    qDeleteAll(tables);
    tables.clear();
    menu = nullptr;   // it went with its table
    functions.clear();
    functionEntries.clear();
    variableNumbers.clear();
    ui->functionModule->clear();
    version = 0;
    moduleCount = 0;
}

void splitForm::reload()
{
    clearLabels();
    loadLabels();
}

QTableWidget *splitForm::createTable(const SubFunctionRecord &sub)
{
    QTableWidget *table = new QTableWidget(this);
    table->hide();
    table->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(table, &QTableWidget::customContextMenuRequested, this, &splitForm::show_menu);
    connect(table, &QTableWidget::cellDoubleClicked, this, &splitForm::onVarTableCellClicked);

    // Each table brings its own menu; the panel keeps the newest one.
    menu = new QMenu(table);
    QAction *copyAction = menu->addAction(QStringLiteral("复制"));
    QAction *pasteAction = menu->addAction(QStringLiteral("粘贴"));
    connect(copyAction, &QAction::triggered, this, &splitForm::copyColumData);
    connect(pasteAction, &QAction::triggered, this, &splitForm::pasteColumData);

    const int rows = sub.addresses.size();
    // A damaged Size must not build a table no one can show.
    const int columns = qBound(0, int(sub.displaySize), kMaxColumns);
    table->setColumnCount(columns);
    table->setRowCount(rows);
    table->setHorizontalHeaderLabels(sub.subItems);
    table->setVerticalHeaderLabels(sub.addresses);
    table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    table->verticalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);

    for (int c = 0; c < columns; ++c) {
        const QString heading = c < sub.subItems.size() ? sub.subItems.at(c) : QString();
        const QStringList *source = nullptr;
        if (heading == QLatin1String("Name"))
            source = &sub.names;
        else if (heading == QLatin1String(kValueHeading))
            source = &sub.values;
        else if (heading == QLatin1String("Type"))
            source = &sub.types;
        else if (heading == QLatin1String("Access"))
            source = &sub.accesses;
        for (int r = 0; r < rows; ++r) {
            // Every cell gets an item, so selection and refresh see it.
            const QString text = (source && r < source->size()) ? source->at(r) : QString();
            table->setItem(r, c, new QTableWidgetItem(text));
        }
    }
    return table;
}

void splitForm::selectFunction(int index)
{
    if (index < 0 || index >= functionEntries.size())
        return;
    tabWidget->clear();
    const FunctionEntry &entry = functionEntries.at(index);
    const QList<SubFunctionRecord> &subs = functions.at(entry.index).subFunctions;
    for (int s = 0; s < entry.tableIndexes.size(); ++s)
        tabWidget->addTab(tables.at(entry.tableIndexes.at(s)), subs.at(s).name);
}

void splitForm::on_functionModule_activated(const QString &name)
{
    for (const FunctionEntry &entry : qAsConst(functionEntries)) {
        if (entry.name == name) {
            selectFunction(entry.index);
            return;
        }
    }
}

void splitForm::setPosition(int functionIndex, int subFunctionIndex)
{
    if (functionIndex >= 0 && functionIndex < functionEntries.size()) {
        ui->functionModule->setCurrentIndex(functionIndex);
        selectFunction(functionIndex);
    }
    if (subFunctionIndex >= 0 && subFunctionIndex < tabWidget->count())
        tabWidget->setCurrentIndex(subFunctionIndex);
}

QPair<int, int> splitForm::position() const
{
    const int module = ui->functionModule->count() > 0 ? ui->functionModule->currentIndex() : -1;
    const int page = tabWidget->count() > 0 ? tabWidget->currentIndex() : -1;
    return qMakePair(module, page);
}

bool splitForm::tableHasFocus() const
{
    for (const QTableWidget *table : tables) {
        if (table->hasFocus())
            return true;
    }
    return false;
}

void splitForm::on_channel_activated(int index)
{
    channel = index + 1;
}

bool splitForm::connectCnc(const QString &address)
{
    if (!client)
        return connected;
    connected = client->tcpConnect(address.toLatin1());
    qDebug() << "connect state==" << connected;
    if (connected)
        ui->label->setText(QStringLiteral("当前设备:") + address);
    return connected;
}

void splitForm::disconnectCnc()
{
    if (client)
        client->tcpDisconnect();
    connected = false;
}

void splitForm::setUpdataStart(bool start)
{
    if (start)
        timer->start(kUpdateIntervalMs);
    else
        timer->stop();
}

bool splitForm::isUpdating() const
{
    return timer->isActive();
}

QList<long> splitForm::toVariableNumbers(const QStringList &addresses) const
{
    return AddressConversion::toVariableNumbers(addresses, channel);
}

QTableWidget *splitForm::currentTable(const SubFunctionRecord **sub) const
{
    int f = -1;
    for (const FunctionEntry &entry : functionEntries) {
        if (entry.name == ui->functionModule->currentText()) {
            f = entry.index;
            break;
        }
    }
    const int s = tabWidget->currentIndex();
    if (f < 0 || s < 0 || s >= functionEntries.at(f).tableIndexes.size())
        return nullptr;
    if (sub)
        *sub = &functions.at(f).subFunctions.at(s);
    return tables.at(functionEntries.at(f).tableIndexes.at(s));
}

int splitForm::valueColumn(const QTableWidget *table)
{
    for (int c = 0; c < table->columnCount(); ++c) {
        const QTableWidgetItem *heading = table->horizontalHeaderItem(c);
        if (heading && heading->text() == QLatin1String(kValueHeading))
            return c;
    }
    return -1;
}

void splitForm::setColumnTexts(QTableWidget *table, const QStringList &texts)
{
    const int column = valueColumn(table);
    if (column < 0)
        return;
    for (int r = 0; r < table->rowCount() && r < texts.size(); ++r) {
        QTableWidgetItem *item = table->item(r, column);
        if (!item)
            table->setItem(r, column, new QTableWidgetItem(texts.at(r)));
        else if (item->text() != texts.at(r))
            item->setText(texts.at(r));
    }
}

void splitForm::updataTimeOutFunction()
{
    if (moduleCount < 1)
        return;
    variableNumbers.clear();
    const SubFunctionRecord *sub = nullptr;
    QTableWidget *table = currentTable(&sub);
    if (!table)
        return;
    variableNumbers = toVariableNumbers(sub->addresses);
    if (variableNumbers.isEmpty())
        return;

    std::vector<long> ids(variableNumbers.begin(), variableNumbers.end());
    std::vector<long> values(ids.size(), 0);
    if (client->readVars(ids.data(), int(ids.size()), values.data()) != 0)
        return;   // the last values stay; no box per tick
    QStringList texts;
    for (long v : values)
        texts << QString::number(qint32(v));
    setColumnTexts(table, texts);
}

void splitForm::onVarTableCellClicked(int row, int column)
{
    const SubFunctionRecord *sub = nullptr;
    QTableWidget *table = currentTable(&sub);
    if (!table || row < 0 || row >= sub->addresses.size())
        return;
    const QList<long> number = toVariableNumbers(QStringList() << sub->addresses.at(row));
    const int valueCol = valueColumn(table);
    if (valueCol < 0 || column != valueCol)
        return;
    const QList<QTableWidgetItem *> selected = table->selectedItems();
    if (selected.isEmpty())
        return;
    QTableWidgetItem *cell = selected.first();

    int value = cell->text().toInt(nullptr, 10);
    DialogModify *dialog = new DialogModify(&value, nullptr);
    dialog->setWindowTitle(QStringLiteral("set value"));
    UiSeam::exec(dialog);
    delete dialog;

    // OK and Cancel both close the editor; an unchanged value is simply
    // written back, so the write always happens.
    long id = number.first();
    long newValue = value;
    client->writeVars(&id, 1, &newValue);
    cell->setText(QString::number(value));
}

void splitForm::copyColumData()
{
    QTableWidget *table = currentTable();
    if (!table)
        return;
    const int column = valueColumn(table);
    if (column < 0)
        return;
    QStringList list;
    for (const QTableWidgetItem *item : table->selectedItems()) {
        if (item->column() == column)
            list << item->text();
    }
    emit copySignal(list);
}

void splitForm::pasteColumData()
{
    emit pasteSignal();
}

void splitForm::pasteValues(const QStringList &values)
{
    QTableWidget *table = currentTable();
    if (!table)
        return;
    const int column = valueColumn(table);
    const QList<QTableWidgetItem *> selected = table->selectedItems();
    if (column < 0 || selected.size() != 1 || selected.first()->column() != column)
        return;

    const int first = selected.first()->row();
    QStringList addresses;
    std::vector<long> newValues;
    for (int k = 0; k < values.size(); ++k) {
        const int row = first + k;
        if (row >= table->rowCount())
            break;
        QTableWidgetItem *item = table->item(row, column);
        if (item)
            item->setText(values.at(k));
        else
            table->setItem(row, column, new QTableWidgetItem(values.at(k)));
        const QTableWidgetItem *header = table->verticalHeaderItem(row);
        addresses << (header ? header->text() : QString());
        newValues.push_back(values.at(k).toLong(nullptr, 10));
    }
    if (addresses.isEmpty())
        return;
    const QList<long> numbers = toVariableNumbers(addresses);
    std::vector<long> ids(numbers.begin(), numbers.end());
    client->writeVars(ids.data(), int(ids.size()), newValues.data());
}

void splitForm::show_menu(const QPoint &pos)
{
    Q_UNUSED(pos);
    if (menu)
        menu->popup(QCursor::pos());
}
