// Velmora: the exported main window, for hosts built with Qt 5 Widgets.
// It shares nothing with the C interface but velmora_global.h, so both
// public headers go into one translation unit.
#ifndef VELMORA_WINDOW_H
#define VELMORA_WINDOW_H

#include "velmora_global.h"

#include <QList>
#include <QMainWindow>
#include <QString>
#include <QStringList>

class QAction;
class QGridLayout;
class setPar;
class splitForm;

// The main window a host embeds: display panels side by side, as many as
// the width allows at 218 pixels each, and a configuration mode in which the module editor
// takes their place. The panel layout is kept in "dialogProtocol.ini" in the
// working directory.
class VELMORA_EXPORT Velmora : public QMainWindow
{
    Q_OBJECT

public:
    explicit Velmora(QWidget *parent = nullptr);
    ~Velmora() override;

    // Address for panels created from now on; existing panels keep theirs.
    void setCncIp(QString ip);
    // Starts or stops the refresh of every panel.
    void setUpdataStart(bool start);

public slots:
    void addSplitForm_clicked();
    void removeSplitForm_clicked();
    void mytestFunction();
    void setParFunction();
    void splitFormPasteFunction();
    void splitFormCopyFunction(QStringList list);

private:
    splitForm *createPanel(int functionIndex, int subFunctionIndex);
    splitForm *focusedPanel() const;
    void placePanels();
    // Information box titled "错误警告".
    void warn(const QString &text);
    bool refusedInConfigMode();
    // The focused panel an action applies to; null, after telling the user
    // why, in configuration mode or when no panel's table has focus.
    splitForm *targetPanel(const QString &noneFocused);

    // configuration editor hook
    void enterConfiguration();
    void leaveConfiguration();
    bool configurationSaved();

    QList<splitForm *> _splitForm;
    QString cncIP;
    QStringList copied;
    setPar *configEditor = nullptr;
    bool configMode = false;
    QGridLayout *grid = nullptr;
    // Named apart from QWidget::addAction/removeAction, which hosts call on the window.
    QAction *addPanelAction = nullptr;
    QAction *removePanelAction = nullptr;
    QAction *switchDeviceAction = nullptr;
    QAction *configAction = nullptr;
};

#endif
