#include "VelmoraWindow.h"

#include "UiSeam.h"
#include "setPar.h"
#include "splitForm.h"

#include <QAction>
#include <QDebug>
#include <QGridLayout>
#include <QMenuBar>
#include <QSettings>
#include <QStatusBar>
#include <QToolBar>

namespace {
const int kPanelWidth = 218;   // each panel needs this much of the window
const char kSettingsFile[] = "dialogProtocol.ini";
const char kSizeGroup[] = "/VelmoraInformationSize";
const char kSizeKey[] = "/VelmoraInformationSize/displaySize";
const char kErrorTitle[] = "错误警告";
const char kConfigRefusal[] = "还配置模式中，切换失败\n\r";
const char kDefaultCncIp[] = "192.168.1.10";

QString panelKey(int i, const char *name)
{
    return QStringLiteral("/VelmoraInformation") + QString::number(i) + QLatin1Char('/') + QLatin1String(name);
}
}

Velmora::Velmora(QWidget *parent)
    : QMainWindow(parent), cncIP(QLatin1String(kDefaultCncIp))
{
    setObjectName(QStringLiteral("Velmora"));
    setWindowTitle(QStringLiteral("Velmora"));
    resize(900, 600);

    QWidget *central = new QWidget(this);
    grid = new QGridLayout(central);
    grid->setSpacing(2);
    grid->setContentsMargins(2, 2, 2, 2);
    setCentralWidget(central);
    setMenuBar(new QMenuBar(this));
    QToolBar *toolBar = new QToolBar(this);
    toolBar->setObjectName(QStringLiteral("toolBar"));
    addToolBar(Qt::TopToolBarArea, toolBar);
    setStatusBar(new QStatusBar(this));
    qDebug() << "cncIP==" << cncIP;

    QSettings *settings = new QSettings(QLatin1String(kSettingsFile), QSettings::IniFormat);
    settings->setIniCodec("UTF-8");
    const int count = settings->value(QLatin1String(kSizeKey), 0).toInt();
    for (int i = 0; i < count; ++i) {
        const int module = settings->value(panelKey(i, "moduleIndex"), -1).toInt();
        const int page = settings->value(panelKey(i, "subModuleIndex"), -1).toInt();
        splitForm *panel = createPanel(module, page);
        panel->setUpdataStart(true);
    }
    delete settings;

    addPanelAction = new QAction(QStringLiteral("增加显示窗口"), this);
    removePanelAction = new QAction(QStringLiteral("删除显示窗口"), this);
    switchDeviceAction = new QAction(QStringLiteral("切换设备"), this);
    configAction = new QAction(QStringLiteral("配置参数"), this);
    toolBar->addAction(addPanelAction);
    toolBar->addSeparator();
    toolBar->addAction(removePanelAction);
    toolBar->addAction(switchDeviceAction);
    toolBar->addAction(configAction);
    connect(addPanelAction, &QAction::triggered, this, &Velmora::addSplitForm_clicked);
    connect(removePanelAction, &QAction::triggered, this, &Velmora::removeSplitForm_clicked);
    connect(switchDeviceAction, &QAction::triggered, this, &Velmora::mytestFunction);
    connect(configAction, &QAction::triggered, this, &Velmora::setParFunction);
}

Velmora::~Velmora()
{
    QSettings *settings = new QSettings(QLatin1String(kSettingsFile), QSettings::IniFormat);
    settings->setIniCodec("UTF-8");
    // With no panel nothing is written, so the previous layout comes back.
    for (int i = 0; i < _splitForm.size(); ++i) {
        settings->remove(QLatin1String(kSizeGroup));
        settings->setValue(QLatin1String(kSizeKey), _splitForm.size());
        settings->remove(QStringLiteral("VelmoraInformation") + QString::number(i));
        const QPair<int, int> position = _splitForm.at(i)->position();
        settings->setValue(panelKey(i, "moduleIndex"), position.first);
        settings->setValue(panelKey(i, "subModuleIndex"), position.second);
    }
    delete settings;
    qDeleteAll(_splitForm);
    _splitForm.clear();
}

void Velmora::setCncIp(QString ip)
{
    cncIP = ip;
}

void Velmora::setUpdataStart(bool start)
{
    for (splitForm *panel : qAsConst(_splitForm))
        panel->setUpdataStart(start);
}

splitForm *Velmora::createPanel(int functionIndex, int subFunctionIndex)
{
    splitForm *panel = new splitForm(this);
    _splitForm << panel;
    connect(panel, &splitForm::copySignal, this, &Velmora::splitFormCopyFunction);
    connect(panel, &splitForm::pasteSignal, this, &Velmora::splitFormPasteFunction);
    const int column = _splitForm.size() - 1;
    grid->addWidget(panel, 1, column);
    grid->setColumnStretch(column, 1);
    panel->setPosition(functionIndex, subFunctionIndex);
    panel->connectCnc(cncIP);
    return panel;
}

splitForm *Velmora::focusedPanel() const
{
    for (splitForm *panel : _splitForm) {
        if (panel->tableHasFocus())
            return panel;
    }
    return nullptr;
}

void Velmora::placePanels()
{
    for (int i = 0; i < _splitForm.size(); ++i) {
        grid->addWidget(_splitForm.at(i), 1, i);
        grid->setColumnStretch(i, 1);
    }
    // A column left behind by a removed panel must not keep its share.
    for (int i = _splitForm.size(); i < grid->columnCount(); ++i)
        grid->setColumnStretch(i, 0);
}

void Velmora::warn(const QString &text)
{
    UiSeam::information(this, QString::fromUtf8(kErrorTitle), text);
}

bool Velmora::refusedInConfigMode()
{
    if (!configMode)
        return false;
    warn(QString::fromUtf8(kConfigRefusal));
    return true;
}

splitForm *Velmora::targetPanel(const QString &noneFocused)
{
    if (refusedInConfigMode())
        return nullptr;
    splitForm *panel = focusedPanel();
    if (!panel)
        warn(noneFocused);
    return panel;
}

void Velmora::addSplitForm_clicked()
{
    if (refusedInConfigMode())
        return;
    if ((_splitForm.size() + 1) * kPanelWidth > width()) {
        warn(QStringLiteral("达到最大显示个数\n\r"));
        return;
    }
    splitForm *panel = createPanel(-1, -1);
    qDebug() << "remove";
    qDebug() << "width==" << width();
    qDebug() << "height==" << height();
    qDebug() << "_splitForm.at(_splitForm.size()-1)->minimumWidth()=="
             << _splitForm.at(_splitForm.size() - 1)->minimumWidth();
    panel->setUpdataStart(true);
}

void Velmora::removeSplitForm_clicked()
{
    splitForm *panel = targetPanel(QStringLiteral("选择需要删除窗口\n\r"));
    if (!panel)
        return;
    grid->removeWidget(panel);
    _splitForm.removeOne(panel);
    delete panel;
    placePanels();
}

void Velmora::mytestFunction()
{
    splitForm *panel = targetPanel(QStringLiteral("\t请选中需要切换的设备模块表格\n\r"));
    if (!panel)
        return;
    bool ok = false;
    const QString ip = UiSeam::getText(this, QStringLiteral(" 切换设备"), QStringLiteral("设备IP:"),
                                       QString(), &ok);
    if (!ok || ip.isEmpty())
        return;
    // Only this panel moves; panels added later still use cncIP.
    panel->setUpdataStart(false);
    panel->disconnectCnc();
    panel->connectCnc(ip);
    panel->setUpdataStart(true);
}

void Velmora::setParFunction()
{
    if (!configMode) {
        for (splitForm *panel : qAsConst(_splitForm)) {
            panel->setUpdataStart(false);
            panel->hide();
        }
        enterConfiguration();
        configAction->setText(QStringLiteral("退出配置模式"));
        configMode = true;
        return;
    }

    if (configurationSaved()) {
        // The labels file changed: every panel reads it again.
        leaveConfiguration();
        configAction->setText(QStringLiteral("配置模式"));
        for (splitForm *panel : qAsConst(_splitForm)) {
            panel->reload();
            panel->show();
            panel->setUpdataStart(true);
        }
        configMode = false;
        return;
    }

    const int answer = UiSeam::question(this, QStringLiteral("退出配置模式"),
                                        QStringLiteral("尚未配置，是否继续退出"),
                                        QStringList() << QStringLiteral("是") << QStringLiteral("否"));
    if (answer != 0)
        return;   // "否": stay in configuration mode
    leaveConfiguration();
    configAction->setText(QStringLiteral("配置模式"));
    for (splitForm *panel : qAsConst(_splitForm)) {
        panel->show();
        panel->setUpdataStart(true);
    }
    configMode = false;
}

void Velmora::splitFormPasteFunction()
{
    splitForm *panel = focusedPanel();
    if (panel)
        panel->pasteValues(copied);
}

void Velmora::splitFormCopyFunction(QStringList list)
{
    copied = list;
}

// ---- configuration editor hook ------------------------------------------
// The module editor is created on first use, owned by the window and shown
// in the panels' place.

void Velmora::enterConfiguration()
{
    if (!configEditor)
        configEditor = new setPar(this);
    grid->addWidget(configEditor, 1, 0, 1, qMax(1, _splitForm.size()));
    configEditor->show();
}

void Velmora::leaveConfiguration()
{
    if (!configEditor)
        return;
    configEditor->hide();
    grid->removeWidget(configEditor);
}

// Whether the editor saved since the last question (reading clears it).
bool Velmora::configurationSaved()
{
    return configEditor && configEditor->takeSaved();
}
