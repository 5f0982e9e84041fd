#include "SimScenario.h"
#include "ControllerSim.h"

#include <QStringList>

namespace {

bool toInt(const QString &text, int *out)
{
    bool ok = false;
    const qint64 v = text.trimmed().toLongLong(&ok, 0);
    // Values are 32-bit words: negative numbers and bit patterns up to
    // 0xFFFFFFFF both fit.
    if (!ok || v < -2147483648LL || v > 0xFFFFFFFFLL)
        return false;
    *out = int(qint32(quint32(v)));
    return true;
}

// "A=B" split at its first '='.
bool pair(const QString &value, QString *left, QString *right)
{
    const int eq = value.indexOf(QLatin1Char('='));
    if (eq < 1)
        return false;
    *left = value.left(eq).trimmed();
    *right = value.mid(eq + 1);
    return true;
}

// Texts in scenario lines carry "\n" for a line break and "\\" for a backslash.
QByteArray unescape(const QString &text)
{
    QByteArray out;
    const QByteArray in = text.toUtf8();
    for (int i = 0; i < in.size(); ++i) {
        if (in[i] == '\\' && i + 1 < in.size()) {
            ++i;
            out.append(in[i] == 'n' ? '\n' : in[i] == 'r' ? '\r' : in[i] == 't' ? '\t' : in[i]);
        } else {
            out.append(in[i]);
        }
    }
    return out;
}

} // namespace

const QList<SimScenario::Setting> &SimScenario::settings()
{
    static const QList<Setting> list = {
        {QStringLiteral("var"), QStringLiteral("ADDR=VALUE"),
         QStringLiteral("Variable ADDR (a variable number such as 1000005) holds VALUE.")},
        {QStringLiteral("fault"), QStringLiteral("LETTER[:SUB]=KIND[:ARG[:TIMES]]"),
         QStringLiteral("Answer a command badly (see Faults).")},
        {QStringLiteral("animate"), QString(), QStringLiteral("Never-written variables vary over time.")},
        {QStringLiteral("dnc-size"), QStringLiteral("BYTES"), QStringLiteral("DNC memory size.")},
        {QStringLiteral("program"), QStringLiteral("NAME"),
         QStringLiteral("A program name that cycle start accepts besides the DNC files.")},
        {QStringLiteral("program-time"), QStringLiteral("MS"),
         QStringLiteral("A started program ends after MS milliseconds (default: at reset).")},
        {QStringLiteral("running"), QStringLiteral("CH=NAME"), QStringLiteral("Program NAME runs on channel CH.")},
        {QStringLiteral("busy"), QStringLiteral("N[:POLLS]"),
         QStringLiteral("The next N text requests are answered busy, each followed by POLLS (1) busy send-next polls.")},
        {QStringLiteral("error-file"), QStringLiteral("INDEX[:history]=TEXT"),
         QStringLiteral("Error file of channel index 0..8 (current, or the history); \\n in TEXT is a line break.")},
        {QStringLiteral("error-file-stuck"), QString(),
         QStringLiteral("The controller never finishes writing an error file.")},
    };
    return list;
}

bool SimScenario::apply(ControllerSim &sim, const QString &name, const QString &value, QString *error)
{
    const auto bad = [&](const QString &why) {
        if (error)
            *error = QStringLiteral("bad %1 \"%2\": %3").arg(name, value, why);
        return false;
    };
    QString left, right;
    int a = 0, b = 0;
    if (name == QLatin1String("var")) {
        if (!pair(value, &left, &right) || !toInt(left, &a) || !toInt(right, &b))
            return bad(QStringLiteral("expected ADDR=VALUE, both numbers"));
        sim.setVariable(a, b);
    } else if (name == QLatin1String("fault")) {
        char letter = 0;
        ControllerSim::Fault fault;
        if (!ControllerSim::parseFault(value, &letter, &a, &fault))
            return bad(QStringLiteral("expected LETTER[:SUB]=KIND[:ARG[:TIMES]]"));
        sim.addFault(letter, a, fault);
    } else if (name == QLatin1String("animate")) {
        sim.setAnimated(true);
    } else if (name == QLatin1String("dnc-size") || name == QLatin1String("program-time")) {
        if (!toInt(value, &a) || a < 0)
            return bad(QStringLiteral("expected a number of at least 0"));
        if (name == QLatin1String("dnc-size"))
            sim.setDncMemorySize(a);
        else
            sim.setProgramDuration(a);
    } else if (name == QLatin1String("program")) {
        if (value.trimmed().isEmpty())
            return bad(QStringLiteral("expected a program name"));
        sim.addKnownProgram(value.trimmed().toUtf8());
    } else if (name == QLatin1String("running")) {
        if (!pair(value, &left, &right) || !toInt(left, &a) || a < 1 || a > 99)
            return bad(QStringLiteral("expected CH=NAME, CH 1..99"));
        sim.setRunningProgram(a, right.trimmed().toUtf8());
    } else if (name == QLatin1String("busy")) {
        const QStringList parts = value.split(QLatin1Char(':'));
        b = 1;
        if (parts.size() > 2 || !toInt(parts[0], &a) || a < 0
            || (parts.size() == 2 && (!toInt(parts[1], &b) || b < 0)))
            return bad(QStringLiteral("expected N[:POLLS]"));
        sim.setBusyReplies(a, b);
    } else if (name == QLatin1String("error-file")) {
        const QStringList target = pair(value, &left, &right) ? left.split(QLatin1Char(':')) : QStringList();
        if (target.isEmpty() || target.size() > 2 || !toInt(target[0], &a) || a < 0 || a > 8
            || (target.size() == 2 && target[1] != QLatin1String("history")))
            return bad(QStringLiteral("expected INDEX[:history]=TEXT, INDEX 0..8"));
        sim.setErrorFile(a, target.size() == 2, unescape(right));
    } else if (name == QLatin1String("error-file-stuck")) {
        sim.setErrorFileStuck(true);
    } else {
        if (error)
            *error = QStringLiteral("unknown setting \"%1\"").arg(name);
        return false;
    }
    return true;
}

bool SimScenario::applyText(ControllerSim &sim, const QString &text, QString *error)
{
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        QString line = lines[i];
        // A '#' starts a comment unless escaped ("\\#" inside an error-file text).
        for (int hash = line.indexOf(QLatin1Char('#')); hash >= 0; hash = line.indexOf(QLatin1Char('#'), hash + 1)) {
            if (hash == 0 || line[hash - 1] != QLatin1Char('\\')) {
                line.truncate(hash);
                break;
            }
        }
        line = line.trimmed();
        if (line.isEmpty())
            continue;
        const int space = line.indexOf(QLatin1Char(' '));
        const QString name = space < 0 ? line : line.left(space);
        const QString value = space < 0 ? QString() : line.mid(space + 1).trimmed();
        QString why;
        if (!apply(sim, name, value, &why)) {
            if (error)
                *error = QStringLiteral("%1: %2").arg(i + 1).arg(why);
            return false;
        }
    }
    return true;
}

QString SimScenario::formatHelp()
{
    return QStringLiteral(
        "Faults (--fault or a scenario's fault line): LETTER[:SUB]=KIND[:ARG[:TIMES]]\n"
        "  LETTER is the command letter (B read, D write, p watchdog, f reset/start,\n"
        "  g running program, d file transfer and remote buffer, c error files,\n"
        "  i oscilloscope); SUB its sub-code (d:2 append, d:3 overwrite, d:1 set\n"
        "  file, f:3 reset, f:4 start, c:2 read piece; the count for B and D);\n"
        "  without SUB every sub-code. TIMES n: only the next n matching requests.\n"
        "  Faults for one command act in the order given; one with TIMES gives way\n"
        "  to the next when its count runs out, one without stays.\n"
        "  silence         no reply; the request is not carried out\n"
        "  error           error reply (letter | 0x80); not carried out\n"
        "  state:S         carried out, its reply state byte is S (e.g. 3 memory\n"
        "                  full, 100 alarm)\n"
        "  delay:MS        the reply MS milliseconds late\n"
        "  split:MS        the reply in two TCP segments MS (50) ms apart\n"
        "  close:N         N requests answered, the next closes the connection\n"
        "  garbage:N       N (16) bytes that are no frame; not carried out\n"
        "  oversize:N      the reply grown to N (600) bytes\n"
        "  stream          the reply, then bytes without end\n"
        "  stale:L         first a reply with letter L (0x44 'D'), then the real one\n"
        "  bare            carried out, the reply is the letter alone\n"
        "  count:N         B only: the reply carries N values\n"
        "  restart:MS      every connection closes, new ones refused for MS (1000)\n"
        "Examples: B=delay:300  d:2=state:3:3 (refuse the next 3 appends: memory\n"
        "  full)  p=silence:0:2  f:3=stale:0x44\n"
        "\n"
        "Scenario file (--scenario FILE): one setting per line, an option without\n"
        "its dashes; '#' starts a comment. Settings:\n");
}
