#include "setPar.h"
#include "ui_setPar.h"

#include "LabelsFile.h"
#include "parInformation.h"
#include "UiSeam.h"

#include <QCoreApplication>
#include <QDebug>

setPar::setPar(QWidget *parent)
    : QWidget(parent), ui(new Ui::setPar)
{
    ui->setupUi(this);
    ui->moduleFunction->setEditable(true);
    ui->moduleFunction->setInsertPolicy(QComboBox::InsertAtCurrent);
    // Otherwise Enter on a name that some module has already, in any case,
    // jumps to that module instead of renaming; the save reports true duplicates.
    ui->moduleFunction->setDuplicatesEnabled(true);
    connect(ui->moduleFunction, &QComboBox::currentTextChanged, this, &setPar::moduleFunctionTextChanged);

    LabelsFile *file = new LabelsFile;
    if (file->readFile(labelsFilePath())) {
        const QPair<qint32, qint32> numbers = file->getVersionAndSize();
        version = numbers.first;
        moduleSize = numbers.second;
        functions = file->getFunctions();
        // The file's Size says how many modules there are. A Size above the
        // number of functions is never written by us; stop at the list's end
        // rather than read past it.
        const int count = qMin<qint64>(moduleSize, functions.size());
        for (int i = 0; i < count; ++i) {
            ui->moduleFunction->addItem(functions.at(i).name);
            addPage(functions.at(i));
        }
        if (count > 0)
            showPage(0);
    }
    delete file;
    saved = false;
}

setPar::~setPar()
{
    delete ui;
}

QString setPar::labelsFilePath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/Velmora.xml");
}

bool setPar::takeSaved()
{
    const bool was = saved;
    saved = false;
    return was;
}

void setPar::addPage(const FunctionRecord &record)
{
    parInformation *page = new parInformation(record, this);
    pages.append(page);
    // All pages share one cell; only the current module's is visible.
    ui->gridLayout_2->addWidget(page, 1, 0, 20, 4);
    page->hide();
}

void setPar::showPage(int index)
{
    for (parInformation *page : qAsConst(pages))
        page->hide();
    if (index >= 0 && index < pages.size())
        pages.at(index)->show();
}

void setPar::on_addModule_clicked()
{
    SubFunctionRecord sub;
    sub.name = QStringLiteral("table1");
    sub.displaySize = 4;
    sub.subItems << QStringLiteral("Name") << QStringLiteral("Value") << QStringLiteral("Type")
                 << QStringLiteral("Access");
    sub.addresses << QStringLiteral("usr0");
    sub.names << QString();
    sub.values << QString();
    sub.types << QString();
    sub.accesses << QString();

    // Numbered by the modules present now, so a name can come back after a
    // removal; the duplicate check at save time catches that.
    FunctionRecord record;
    record.name = QStringLiteral("新增模块_") + QString::number(ui->moduleFunction->count());
    record.subFunctions << sub;

    ui->moduleFunction->addItem(record.name);
    addPage(record);
    ui->moduleFunction->setCurrentIndex(ui->moduleFunction->count() - 1);
    showPage(pages.size() - 1);
}

void setPar::on_save_clicked()
{
    functions.clear();
    version = 4097;
    moduleSize = pages.size();

    QStringList names;
    for (int i = 0; i < moduleSize; ++i) {
        FunctionRecord record = pages.at(i)->functionRecord();
        record.name = ui->moduleFunction->itemText(i);
        functions << record;
        names << record.name;
    }

    // One box per first index: the first later module with the same name.
    bool unique = true;
    for (int j = 0; j < names.size(); ++j) {
        for (int k = j + 1; k < names.size(); ++k) {
            if (names.at(j) == names.at(k)) {
                UiSeam::information(nullptr, QStringLiteral("错误警告"),
                                    QStringLiteral("模块") + QString::number(j) + QStringLiteral("和模块")
                                        + QString::number(k) + QStringLiteral("设置重名"));
                unique = false;
                break;
            }
        }
    }
    if (!unique)
        return;

    LabelsFile file;
    const bool written = file.writeFile(labelsFilePath(), functions, version, moduleSize);
    qDebug() << "writeXmlFileState==" << written;
    // The main window reloads its panels on this flag even after a failed
    // write; the debug line above is the only report of the failure.
    saved = true;
}

void setPar::moduleFunctionTextChanged(QString text)
{
    // Renames reach the file through the combo box texts read at save time;
    // this entry list is never filled, so the walk finds nothing to rename.
    for (ModuleEntry &entry : moduleEntries) {
        if (entry.index == ui->moduleFunction->currentIndex()) {
            entry.name = text;
            if (entry.index >= 0 && entry.index < functions.size())
                functions[entry.index].name = text;
        }
    }
}

void setPar::on_removeModule_clicked()
{
    const int answer = UiSeam::question(this, QStringLiteral("删除模块"), QStringLiteral("确认删除该模块?"),
                                        {QStringLiteral("确定"), QStringLiteral("取消")}, 0);
    if (answer != 0)
        return;
    if (ui->moduleFunction->count() == 0)
        return;

    const int index = ui->moduleFunction->currentIndex();
    if (index < 0 || index >= pages.size())
        return;
    delete pages.takeAt(index);
    ui->moduleFunction->removeItem(index);
    ui->moduleFunction->setCurrentIndex(0);
    showPage(0);
}

void setPar::on_moduleFunction_activated(int index)
{
    // Enter in the empty box inserts the typed text as an item. Modules
    // come only from addModule: an item without a page would take the name
    // of the next module added at save time, so it goes again.
    while (ui->moduleFunction->count() > pages.size())
        ui->moduleFunction->removeItem(ui->moduleFunction->count() - 1);
    showPage(index);
}
