#include "CommLog.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>
#include <QTextStream>

#include <atomic>
#include <cstring>

#ifdef __SSE2__
#  include <emmintrin.h>
#endif

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

namespace {

// Whether a text is printable ASCII throughout (nothing to escape),
// sixteen or eight bytes at a time: no byte with its top bit set, below
// 0x20 or equal to 0x7f.
bool printableAscii(const char *text, size_t length)
{
    const quint64 ones = 0x0101010101010101ULL;
    const quint64 tops = 0x8080808080808080ULL;
    size_t i = 0;
#ifdef __SSE2__
    // As signed bytes, 0x80 and above are below 0x20 too.
    const __m128i space = _mm_set1_epi8(0x20);
    const __m128i del = _mm_set1_epi8(0x7f);
    for (; i + 16 <= length; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(text + i));
        if (_mm_movemask_epi8(_mm_or_si128(_mm_cmplt_epi8(v, space), _mm_cmpeq_epi8(v, del))))
            return false;
    }
#endif
    for (quint64 w; i + 8 <= length; i += 8) {
        std::memcpy(&w, text + i, 8);
        const quint64 del = w ^ (0x7f * ones);
        if ((w & tops) || ((w - 0x20 * ones) & ~w & tops) || ((del - ones) & ~del & tops))
            return false;
    }
    for (; i < length; ++i)
        if (quint8(text[i]) < 0x20 || quint8(text[i]) >= 0x7f)
            return false;
    return true;
}

} // namespace

bool CommLog::debugLinesOn()
{
    const QLoggingCategory *category = QLoggingCategory::defaultCategory();
    return category && category->isDebugEnabled();
}

QString CommLog::hostText(const char *text)
{
    QString out;
    appendHostText(out, text);
    return out;
}

void CommLog::appendHostText(QString &line, const char *text)
{
    // Program text in log lines is mostly plain: taken as it is, in one
    // conversion, not character by character.
    const size_t length = text ? std::strlen(text) : 0;
    if (printableAscii(text, length)) {
        line += QLatin1String(text, int(length));
        return;
    }
    const QString in = QString::fromUtf8(text, int(length));
    line.reserve(line.size() + in.size());
    for (const QChar c : in) {
        const ushort u = c.unicode();
        if (u == '\r')
            line += QLatin1String("\\r");
        else if (u == '\n')
            line += QLatin1String("\\n");
        else if (u == '\t')
            line += QLatin1String("\\t");
        else if (u < 0x20 || u == 0x7f || (u >= 0x80 && u < 0xa0) || u == 0x2028 || u == 0x2029)
            line += QStringLiteral("\\x%1").arg(u, 2, 16, QLatin1Char('0'));
        else
            line += c;
    }
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

void CommLog::debugLine(const QString &line)
{
    // What qDebug() << ... would do, without building a stream: the
    // default category's filter and the installed handler both apply.
    qt_message_output(QtDebugMsg, QMessageLogContext(), line);
}

void CommLog::messageHandler(QtMsgType, const QMessageLogContext &, const QString &message)
{
    write(message);
}
