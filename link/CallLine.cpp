#include "CallLine.h"

#include "CommLog.h"

CallLine::CallLine(const char *first)
    : m_line(QLatin1String(first))
{
}

void CallLine::space()
{
    m_line += QLatin1Char(' ');
}

CallLine &CallLine::operator<<(const char *part)
{
    space();
    m_line += QLatin1String(part);
    return *this;
}

CallLine &CallLine::operator<<(Host part)
{
    space();
    CommLog::appendHostText(m_line, part.text);
    return *this;
}

CallLine &CallLine::operator<<(int value)
{
    return *this << long(value);
}

CallLine &CallLine::operator<<(long value)
{
    space();
    m_line += QString::number(value);
    return *this;
}

CallLine &CallLine::operator<<(bool value)
{
    return *this << (value ? "true" : "false");
}

void CallLine::write() const
{
    CommLog::debugLine(m_line);
}
