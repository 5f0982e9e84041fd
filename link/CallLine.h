#ifndef CALLLINE_H
#define CALLLINE_H

#include <QString>

// One line of the debug message stream, written as
// qDebug().noquote() << a << b << ... writes it: the parts joined by single
// spaces, numbers in decimal, bools as "true" or "false". Parts given as
// char* are the library's own ASCII texts; a host's text goes in as Host,
// escaped. It is built straight into one string: a QDebug stream converts
// character by character, which for a line carrying a whole program text
// cost more than Qt's own output of it. When debug lines are filtered out
// (QT_LOGGING_RULES), nothing is built: a line may carry a whole program
// text.
class CallLine
{
public:
    // A text from the host, escaped as CommLog::hostText does.
    struct Host
    {
        const char *text;
    };

    explicit CallLine(const char *first);

    CallLine &operator<<(const char *part);
    CallLine &operator<<(Host part);
    CallLine &operator<<(int value);
    CallLine &operator<<(long value);
    CallLine &operator<<(bool value);

    const QString &text() const { return m_line; }
    // Into the debug message stream, as qDebug() would (CommLog::debugLine).
    void write() const;

private:
    // The space before the next part; false when nothing is built.
    bool nextPart();

    bool m_on;   // debug lines are written at all
    QString m_line;
};

#endif
