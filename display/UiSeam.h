#ifndef UISEAM_H
#define UISEAM_H

#include <QString>
#include <QStringList>
#include <functional>

class QWidget;
class QDialog;

// Every modal interaction of the display and configuration widgets goes
// through here: information boxes, question boxes, input dialogs and the
// exec() of our own dialogs. By default each call opens the real Qt box or
// dialog and blocks as usual. A test installs a hook instead; the hook gets
// the same arguments and gives the answer the user would have given, so no
// test ever waits on a modal loop.
//
//   UiSeam::informationHook = [&](QWidget *, const QString &title, const QString &text) {
//       seen << title + "|" + text;
//   };
//   UiSeam::questionHook = [](QWidget *, const QString &, const QString &, const QStringList &) {
//       return 0;                       // index of the button "pressed"
//   };
//   UiSeam::textHook = [](QWidget *, const QString &, const QString &, const QString &, bool *ok) {
//       *ok = true; return QString("127.0.0.91");
//   };
//   UiSeam::execHook = [](QDialog *d) {
//       d->findChild<QLineEdit *>("lineEditDec")->setText("42");   // operate the form
//       QMetaObject::invokeMethod(d, "on_buttonBox_accepted");     // and close it
//       return int(QDialog::Accepted);
//   };
//   ...
//   UiSeam::reset();                    // back to the real boxes
//
// Hooks are plain statics used from the GUI thread only.
class UiSeam
{
public:
    // Information box with a single OK button.
    static void information(QWidget *parent, const QString &title, const QString &text);

    // Question box with the given buttons, left to right; buttons[defaultIndex]
    // is the default. Returns the index of the button pressed, or -1 when the
    // box was closed without one.
    static int question(QWidget *parent, const QString &title, const QString &text,
                        const QStringList &buttons, int defaultIndex = 0);

    // Line of text. *ok (never null) tells whether the user confirmed.
    static QString getText(QWidget *parent, const QString &title, const QString &label,
                           const QString &text, bool *ok);

    // Integer in [minimum, maximum]. *ok (never null) tells whether the user confirmed.
    static int getInt(QWidget *parent, const QString &title, const QString &label,
                      int value, int minimum, int maximum, int step, bool *ok);

    // Runs a dialog modally and returns its result code.
    static int exec(QDialog *dialog);

    // Replacements; an empty hook means the real box or dialog.
    static std::function<void(QWidget *, const QString &, const QString &)> informationHook;
    static std::function<int(QWidget *, const QString &, const QString &, const QStringList &)> questionHook;
    static std::function<QString(QWidget *, const QString &, const QString &, const QString &, bool *)> textHook;
    static std::function<int(QWidget *, const QString &, const QString &, int, int, int, int, bool *)> intHook;
    static std::function<int(QDialog *)> execHook;

    // Removes every hook.
    static void reset();
};

#endif
