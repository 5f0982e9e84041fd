#ifndef COMMLOG_H
#define COMMLOG_H

#include <QDateTime>
#include <QString>
#include <QtGlobal>

// Hourly communication log: while installed, every debug message of the
// process is appended to "<cwd>/logs/CommLog_yyyy-MM-dd-hh.txt". The file is
// opened and closed per message so it can be moved or read at any time.
class CommLog
{
public:
    typedef QDateTime (*Clock)();

    // Installs the process-wide message handler (on) or restores the
    // default output (off).
    static void install(bool on);
    static bool isInstalled();

    // Clock seam for tests; null restores the local wall clock.
    static void setClock(Clock clock);

    // "<cwd>/logs/CommLog" + "_yyyy-MM-dd-hh" + ".txt" for the given time.
    static QString filePath(const QDateTime &time);
    // "yyyy-MM-dd hh:mm:ss ddd: message" (without the line end).
    static QString formatLine(const QDateTime &time, const QString &message);
    // A text from the host as it goes into a log line: control bytes are
    // written as \r, \n, \t or \xNN, so no text can end a line or forge
    // the next one. Null gives an empty text.
    static QString hostText(const char *text);
    // The same, appended to a line being built: a whole program text is
    // converted once, straight into the line.
    static void appendHostText(QString &line, const char *text);
    // A fixed line into the debug message stream, as qDebug() writes it
    // (category "default", its filter, the installed handler), at less
    // cost than building it through a QDebug stream.
    static void debugLine(const QString &line);
    // Whether qDebug() lines are written at all (QT_LOGGING_RULES can turn
    // them off): a line that carries a whole program text is built only then.
    static bool debugLinesOn();
    // Appends one line (with "\r\n") under the log lock; failures are silent.
    static void write(const QString &message);

    static void messageHandler(QtMsgType type, const QMessageLogContext &context, const QString &message);
};

#endif
