#ifndef SETPAR_H
#define SETPAR_H

#include "FunctionRecord.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QWidget>

namespace Ui {
class setPar;
}

class parInformation;

// Editor of the labels file's modules. Loads "Velmora.xml" from the
// application directory when created; the combo box lists the modules (type
// a name and press Enter to rename the current one) and one page editor per
// module shows its pages. Nothing is written before the user saves.
class setPar : public QWidget
{
    Q_OBJECT

public:
    explicit setPar(QWidget *parent = nullptr);
    ~setPar() override;

    // True when a save has passed the duplicate-name check since the last
    // call (whether or not the file could be written); clears the flag.
    bool takeSaved();

    // Application directory + "/Velmora.xml".
    static QString labelsFilePath();

private slots:
    void on_addModule_clicked();
    void on_save_clicked();
    void moduleFunctionTextChanged(QString text);
    void on_removeModule_clicked();
    void on_moduleFunction_activated(int index);

private:
    // A (name, index, values) entry of a module list that never got filled.
    struct ModuleEntry
    {
        QString name;
        int index;
        QStringList values;
    };

    void addPage(const FunctionRecord &record);
    void showPage(int index);

    Ui::setPar *ui;
    qint32 version = 0;
    qint32 moduleSize = 0;
    QList<FunctionRecord> functions;
    QList<ModuleEntry> moduleEntries;
    QList<parInformation *> pages;
    bool saved = false;
};

#endif
