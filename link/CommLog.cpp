#include "CommLog.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QTextStream>

#include <atomic>

namespace {

std::atomic<CommLog::Clock> g_clock{nullptr};
std::atomic<bool> g_installed{false};

QDateTime now()
{
    const CommLog::Clock clock = g_clock.load();
    return clock ? clock() : QDateTime::currentDateTime();
}

} // namespace

void CommLog::install(bool on)
{
    // Also restores the default handler when another one was installed.
    qInstallMessageHandler(on ? &CommLog::messageHandler : nullptr);
    g_installed.store(on);
}

bool CommLog::isInstalled()
{
    return g_installed.load();
}

void CommLog::setClock(Clock clock)
{
    g_clock.store(clock);
}

QString CommLog::filePath(const QDateTime &time)
{
    return QDir::currentPath() + QStringLiteral("/logs/CommLog")
        + time.toString(QStringLiteral("_yyyy-MM-dd-hh")) + QStringLiteral(".txt");
}

QString CommLog::hostText(const char *text)
{
    const QString in = text ? QString::fromUtf8(text) : QString();
    QString out;
    out.reserve(in.size());
    for (const QChar c : in) {
        const ushort u = c.unicode();
        if (u == '\r')
            out += QLatin1String("\\r");
        else if (u == '\n')
            out += QLatin1String("\\n");
        else if (u == '\t')
            out += QLatin1String("\\t");
        else if (u < 0x20 || u == 0x7f || (u >= 0x80 && u < 0xa0) || u == 0x2028 || u == 0x2029)
            out += QStringLiteral("\\x%1").arg(u, 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out;
}

QString CommLog::formatLine(const QDateTime &time, const QString &message)
{
    return QStringLiteral("%1: %2").arg(time.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss ddd")), message);
}

void CommLog::write(const QString &message)
{
    // Created on first use, so that messages logged during static
    // initialisation of the host still find it.
    static QMutex lock;
    QMutexLocker locker(&lock);
    const QString line = formatLine(now(), message);
    QFile file(filePath(now()));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        return;
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    stream << line << "\r\n";
    stream.flush();
    file.close();
}

void CommLog::messageHandler(QtMsgType, const QMessageLogContext &, const QString &message)
{
    write(message);
}
