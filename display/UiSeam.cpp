#include "UiSeam.h"

#include <QAbstractButton>
#include <QDialog>
#include <QInputDialog>
#include <QMessageBox>
#include <QPushButton>

std::function<void(QWidget *, const QString &, const QString &)> UiSeam::informationHook;
std::function<int(QWidget *, const QString &, const QString &, const QStringList &)> UiSeam::questionHook;
std::function<QString(QWidget *, const QString &, const QString &, const QString &, bool *)> UiSeam::textHook;
std::function<int(QWidget *, const QString &, const QString &, int, int, int, int, bool *)> UiSeam::intHook;
std::function<int(QDialog *)> UiSeam::execHook;

void UiSeam::information(QWidget *parent, const QString &title, const QString &text)
{
    if (informationHook) {
        informationHook(parent, title, text);
        return;
    }
    QMessageBox::information(parent, title, text, QMessageBox::Ok);
}

int UiSeam::question(QWidget *parent, const QString &title, const QString &text,
                     const QStringList &buttons, int defaultIndex)
{
    if (questionHook)
        return questionHook(parent, title, text, buttons);

    QMessageBox box(QMessageBox::Question, title, text, QMessageBox::NoButton, parent);
    QList<QPushButton *> pushButtons;
    for (int i = 0; i < buttons.size(); ++i) {
        // The first button accepts, the others reject, so Escape means "not the first".
        QPushButton *b = box.addButton(buttons.at(i), i == 0 ? QMessageBox::AcceptRole
                                                             : QMessageBox::RejectRole);
        pushButtons << b;
    }
    if (defaultIndex >= 0 && defaultIndex < pushButtons.size())
        box.setDefaultButton(pushButtons.at(defaultIndex));
    box.exec();
    return pushButtons.indexOf(qobject_cast<QPushButton *>(box.clickedButton()));
}

QString UiSeam::getText(QWidget *parent, const QString &title, const QString &label,
                        const QString &text, bool *ok)
{
    if (textHook)
        return textHook(parent, title, label, text, ok);
    return QInputDialog::getText(parent, title, label, QLineEdit::Normal, text, ok);
}

int UiSeam::getInt(QWidget *parent, const QString &title, const QString &label,
                   int value, int minimum, int maximum, int step, bool *ok)
{
    if (intHook)
        return intHook(parent, title, label, value, minimum, maximum, step, ok);
    return QInputDialog::getInt(parent, title, label, value, minimum, maximum, step, ok);
}

int UiSeam::exec(QDialog *dialog)
{
    if (execHook)
        return execHook(dialog);
    return dialog->exec();
}

void UiSeam::reset()
{
    informationHook = nullptr;
    questionHook = nullptr;
    textHook = nullptr;
    intHook = nullptr;
    execHook = nullptr;
}
