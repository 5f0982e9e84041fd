#include "CallLine.h"

#include "CommLog.h"

CallLine::CallLine(const char *first)
    : m_on(CommLog::debugLinesOn())
{
    if (m_on)
        m_line = QLatin1String(first);
}

bool CallLine::nextPart()
{
    if (m_on)
        m_line += QLatin1Char(' ');
    return m_on;
}

CallLine &CallLine::operator<<(const char *part)
{
    if (nextPart())
        m_line += QLatin1String(part);
    return *this;
}

CallLine &CallLine::operator<<(Host part)
{
    if (nextPart())
        CommLog::appendHostText(m_line, part.text);
    return *this;
}

CallLine &CallLine::operator<<(int value)
{
    return *this << long(value);
}

CallLine &CallLine::operator<<(long value)
{
    if (nextPart())
        m_line += QString::number(value);
    return *this;
}

CallLine &CallLine::operator<<(bool value)
{
    return *this << (value ? "true" : "false");
}

void CallLine::write() const
{
    if (m_on)
        CommLog::debugLine(m_line);
}
