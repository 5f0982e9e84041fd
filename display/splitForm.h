#ifndef SPLITFORM_H
#define SPLITFORM_H

#include "FunctionRecord.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QWidget>

namespace Ui {
class splitForm;
}
class AsynchronousClient;
class QMenu;
class QTabWidget;
class QTableWidget;
class QTimer;

// One display panel: the pages of one module of the labels file as tables,
// with the "Value" column refreshed from one controller every 200 ms over a
// connection of the panel's own.
class splitForm : public QWidget
{
    Q_OBJECT

public:
    // Per module: its name, its index and where its pages' tables sit in `tables`.
    struct FunctionEntry {
        QString name;
        int index = -1;
        QList<int> tableIndexes;
    };

    explicit splitForm(QWidget *parent = nullptr);
    ~splitForm() override;

    // Connects this panel's client; the label then names the device.
    bool connectCnc(const QString &address);
    void disconnectCnc();
    bool isConnected() const { return connected; }

    void setUpdataStart(bool start);
    bool isUpdating() const;

    // Selects a module and a page, each only when in range.
    void setPosition(int functionIndex, int subFunctionIndex);
    // (module index, page index); -1 for either when there is none.
    QPair<int, int> position() const;

    bool tableHasFocus() const;

    // Writes a copied column into the current table from the one selected
    // cell down, and to the controller.
    void pasteValues(const QStringList &values);

    // Forgets the modules and reads the labels file again.
    void reload();

    int channelNumber() const { return channel; }

signals:
    void copySignal(QStringList list);
    void pasteSignal();

private slots:
    void on_functionModule_activated(const QString &name);
    void show_menu(const QPoint &pos);
    void copyColumData();
    void pasteColumData();
    void on_channel_activated(int index);
    void updataTimeOutFunction();
    void onVarTableCellClicked(int row, int column);

private:
    void loadLabels();
    void clearLabels();
    void selectFunction(int index);
    QTableWidget *createTable(const SubFunctionRecord &sub);
    // The table shown and the page behind it; null / false when there is none.
    QTableWidget *currentTable(const SubFunctionRecord **sub = nullptr) const;
    QList<long> toVariableNumbers(const QStringList &addresses) const;
    static int valueColumn(const QTableWidget *table);
    static void setColumnTexts(QTableWidget *table, const QStringList &texts);

    Ui::splitForm *ui;
    QTabWidget *tabWidget;
    QList<QTableWidget *> tables;
    QList<FunctionRecord> functions;
    QList<FunctionEntry> functionEntries;
    qint32 version = 0;
    qint32 moduleCount = 0;
    AsynchronousClient *client = nullptr;
    int channel = 1;
    QTimer *timer = nullptr;
    QList<long> variableNumbers;
    bool connected = false;
    QMenu *menu = nullptr;
};

#endif
