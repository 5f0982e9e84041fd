// velmora-cli: drives one or many controllers from a shell, through the
// public C interface. Controllers given with --cnc run in parallel, one
// result row each. Data go to stdout, messages to stderr; the exit status is
// 0 or the library's status code of the first controller that failed, and
// every message says what the code means. See usage() for the commands.
#include "velmora.h"
#include "velmora_prefixed.h"   // velmora_connect: a sanitizer runtime linked first has a `connect` too

#include "AddressConversion.h"

#include <QHostAddress>
#include <QTcpSocket>

#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// Exit codes of the tool itself; the library's status codes never take them.
enum : int { ExitUsage = 2 };
// The library's codes the tool reports itself.
enum : long { StatusParam = 1, StatusNotConnected = 7, StatusNoReply = 111 };

const char *const usageText =
    "usage: velmora-cli --cnc ADDR[,ADDR...] [options] COMMAND [ARGS]\n"
    "Commands (each controller in parallel, one result row per controller):\n"
    "  read VAR...              read variables\n"
    "  write VAR=VALUE...       write variables\n"
    "  watch VAR...             read again every --period, in place on a terminal\n"
    "  bits CH TYPE BIT...      read bits of bit area TYPE (0..6) of channel CH\n"
    "  reset CH                 reset channel CH (1..99)\n"
    "  start CH PROGRAM         cycle start of PROGRAM on channel CH\n"
    "  running CH               name of the program running on channel CH\n"
    "  upload CH TYPE NAME FILE copy FILE into DNC memory of CH as NAME (TYPE 0..2)\n"
    "  errors [INDEX]           error file of channel index INDEX (0..8, default 0)\n"
    "  wdt                      watchdog probe\n"
    "  stream FILE              send FILE through the remote buffer of --channel\n"
    "VAR is a variable number (1000005) or an address text of the labels file\n"
    "(usr5, sys10, reg3, mcm0, bus1, com2) on --channel.\n"
    "Options:\n"
    "  --cnc ADDR[,ADDR...]     controller IPv4 addresses (port 60000)\n"
    "  --channel CH             channel of address texts and of stream (default 1)\n"
    "  --period MS              watch period (default 500)\n"
    "  --count N                watch: stop after N rounds (default: at Ctrl-C)\n"
    "  --history                errors: the history instead of the current errors\n"
    "  --mode dnc|mdi           stream: remote buffer mode (default dnc)\n"
    "  --timeout S              give up after S seconds without progress (default 10)\n"
    "  -v, --verbose            show the library's diagnostic lines on stderr\n"
    "  -h, --help               this text\n"
    "Exit status: 0, 2 for a bad command line, else the library's status code\n"
    "(1 parameter error, 3 error reply, 4 queue or DNC memory full, 7 not\n"
    "connected, 100 controller alarm, 111 no reply; errors: 5 file cut at its\n"
    "bound, 8 file not written or not read in time).\n";

// Words for a status code: the library's own, and for the digits that only
// an error file's text carries, the tool's.
std::string statusWords(long status)
{
    switch (status) {
    case 5: return "The error file was cut at 64 KiB or after 10 s of reading";
    case 8: return "The controller did not write the error file in time, or did not answer while it was read";
    case 9: return "Bad error-file selector";
    default: return velmoraStatusText(status);
    }
}

struct BadArgument {
    std::string text;
};

[[noreturn]] void bad(const std::string &text)
{
    throw BadArgument{text};
}

long long toNumber(const std::string &text, const char *what, long long lo, long long hi)
{
    char *end = nullptr;
    errno = 0;
    const long long v = text.empty() ? 0 : std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || errno != 0 || *end != '\0' || v < lo || v > hi)
        bad("bad " + std::string(what) + " \"" + text + "\" (" + std::to_string(lo) + ".." + std::to_string(hi) + ")");
    return v;
}

// A variable number, or an address text such as "usr5" on the given channel.
long toVariable(const std::string &text, int channel)
{
    if (!text.empty() && (std::isdigit(static_cast<unsigned char>(text[0]))))
        return long(toNumber(text, "variable number", 0, 9999999));
    const int area = AddressConversion::areaIndex(QString::fromStdString(text.substr(0, 3)));
    const std::string offset = text.size() > 3 ? text.substr(3) : std::string();
    if (area < 0 || offset.empty() || offset.find_first_not_of("0123456789") != std::string::npos)
        bad("bad address \"" + text + "\" (a variable number or usr/sys/reg/mcm/bus/com and an offset)");
    return long(channel) * AddressConversion::ChannelStride + AddressConversion::areaBase(area)
           + long(toNumber(offset, "address offset", 0, 169999));
}

std::string readFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    if (!file || !(content << file.rdbuf()) || file.bad()) {
        // An empty file reads as a failed copy: tell it apart.
        if (file.is_open() && file.peek() == std::ifstream::traits_type::eof() && !file.bad())
            return std::string();
        bad("cannot read " + path + ": " + std::strerror(errno ? errno : EIO));
    }
    return content.str();
}

// The controller takes program text only up to its first byte that is 0 or
// above 0x7f; refuse such a file instead of letting its end go missing.
void checkProgramText(const std::string &path, const std::string &text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == 0 || c > 0x7f) {
            char buf[160];
            std::snprintf(buf, sizeof buf, "%s: byte 0x%02X at offset %zu: the controller takes 7-bit text only, "
                          "and would silently drop everything from there on", path.c_str(), c, i);
            bad(buf);
        }
    }
}

struct Options {
    std::vector<std::string> cncs;
    int channel = 1;
    int periodMs = 500;
    long count = -1;
    bool history = false;
    unsigned mode = 1;  // remote buffer: 1 DNC, 0 MDI
    int timeoutS = 10;
    bool verbose = false;
    std::string command;
    std::vector<std::string> args;
};

Options parse(int argc, char **argv, bool *help)
{
    Options o;
    *help = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                bad("option " + a + " needs a value");
            return argv[++i];
        };
        if (a == "-h" || a == "--help") {
            *help = true;
            return o;
        } else if (a == "-v" || a == "--verbose") {
            o.verbose = true;
        } else if (a == "--history") {
            o.history = true;
        } else if (a == "--cnc") {
            std::stringstream list(value());
            for (std::string c; std::getline(list, c, ',');)
                o.cncs.push_back(c);
        } else if (a == "--channel") {
            o.channel = int(toNumber(value(), "channel", 1, 99));
        } else if (a == "--period") {
            o.periodMs = int(toNumber(value(), "period", 10, 3600000));
        } else if (a == "--count") {
            o.count = long(toNumber(value(), "count", 1, 1000000000));
        } else if (a == "--timeout") {
            o.timeoutS = int(toNumber(value(), "timeout", 1, 86400));
        } else if (a == "--mode") {
            const std::string m = value();
            if (m != "dnc" && m != "mdi")
                bad("bad mode \"" + m + "\" (dnc or mdi)");
            o.mode = m == "dnc" ? 1 : 0;
        } else if (a.size() > 1 && a[0] == '-' && !std::isdigit(static_cast<unsigned char>(a[1]))) {
            bad("unknown option " + a);
        } else if (o.command.empty()) {
            o.command = a;
        } else {
            o.args.push_back(a);
        }
    }
    if (o.cncs.empty())
        bad("no controller: give --cnc ADDR[,ADDR...]");
    for (const std::string &c : o.cncs) {
        QHostAddress address;
        if (!address.setAddress(QString::fromStdString(c)) || address.protocol() != QAbstractSocket::IPv4Protocol)
            bad("bad controller address \"" + c + "\" (an IPv4 address such as 127.0.0.1)");
    }
    if (o.command.empty())
        bad("no command (read, write, watch, bits, reset, start, running, upload, errors, wdt, stream)");
    return o;
}

// Why a connection could not be made: the library only says that it failed,
// so a plain connection attempt finds the reason to tell the user.
std::string whyNoConnection(const std::string &address)
{
    QTcpSocket probe;
    probe.connectToHost(QString::fromStdString(address), 60000);
    if (probe.waitForConnected(500)) {
        probe.abort();
        return "the connection failed, although port 60000 answers now";
    }
    switch (probe.error()) {
    case QAbstractSocket::ConnectionRefusedError:
        return "connection refused: nothing listens on port 60000 there";
    case QAbstractSocket::SocketTimeoutError:
        return "no answer within 500 ms: the controller is off, unreachable or filtered";
    case QAbstractSocket::NetworkError:
        return "unreachable: " + probe.errorString().toStdString();
    default:
        return probe.errorString().toStdString();
    }
}

// One controller's share of the work.
struct Job {
    std::string address;
    int id = 0;
    long status = 0;
    std::string row;            // the result row, printed when status is 0
    bool printAnyway = false;   // ... or even with a status
    std::string message;        // what went wrong, in words
    std::atomic<long long> progress{0};
    std::atomic<long long> total{0};   // set by the job's thread, drawn by the main one
    std::chrono::steady_clock::time_point started;
};

std::mutex outputLock;
std::atomic<bool> interrupted{false};

void onSignal(int)
{
    interrupted = true;
}

void message(const std::string &text)
{
    std::lock_guard<std::mutex> lock(outputLock);
    std::fprintf(stderr, "velmora-cli: %s\n", text.c_str());
}

std::string tabbed(const std::vector<long> &values)
{
    std::string s;
    for (long v : values)
        s += "\t" + std::to_string(v);
    return s;
}

// Sets the job's status and, for a failure, its message.
bool check(Job &job, const char *call, long status)
{
    job.status = status;
    if (status != 0)
        job.message = std::string(call) + ": " + statusWords(status) + " (status " + std::to_string(status) + ")";
    return status == 0;
}

class Tool
{
public:
    explicit Tool(Options o) : opt(std::move(o)) {}

    int run();

private:
    using Work = std::function<void(Job &)>;
    Work prepare();
    void readRow(Job &job, const std::vector<long> &vars);
    void upload(Job &job, long channel, long type, std::string name);
    void stream(Job &job);
    void watch();
    void drawProgress(bool last);
    int finish();

    Options opt;
    std::deque<Job> jobs;   // a deque: a Job holds atomics and never moves
    std::string header;
    std::string text;           // upload and stream: the file
    std::vector<long> watchVars;
    int maxChannel = 1;
    bool connectFirst = true;   // stream has its own connection
    bool showProgress = false;
};

Tool::Work Tool::prepare()
{
    const std::string &c = opt.command;
    const auto &a = opt.args;
    const auto needs = [&](size_t lo, size_t hi) {
        if (a.size() < lo || a.size() > hi)
            bad(c + ": wrong number of arguments (" + std::to_string(a.size()) + ")");
    };
    const auto variables = [&]() {
        needs(1, 100000);
        std::vector<long> vars;
        header = "cnc";
        for (const std::string &v : a) {
            vars.push_back(toVariable(v, opt.channel));
            header += "\t" + v;
        }
        return vars;
    };
    if (c == "read") {
        const std::vector<long> vars = variables();
        return [this, vars](Job &job) { readRow(job, vars); };
    }
    if (c == "watch") {
        watchVars = variables();
        return [](Job &) {};
    }
    if (c == "write") {
        needs(1, 100000);
        std::vector<long> vars, values;
        for (const std::string &p : a) {
            const size_t eq = p.find('=');
            if (eq == std::string::npos)
                bad("write: \"" + p + "\" is not VAR=VALUE");
            vars.push_back(toVariable(p.substr(0, eq), opt.channel));
            // A 32-bit word: signed values and bit patterns up to 0xFFFFFFFF.
            values.push_back(long(int32_t(uint32_t(toNumber(p.substr(eq + 1), "value", -2147483648LL, 0xFFFFFFFFLL)))));
        }
        return [vars, values](Job &job) {
            // Each controller's thread passes copies: the calls take writable arrays.
            std::vector<long> a = vars, v = values;
            if (check(job, "writeVars", writeVars(a.data(), int(a.size()), v.data(), job.id)))
                job.row = job.address + "\tok";
        };
    }
    if (c == "bits") {
        needs(3, 100000);
        const long channel = long(toNumber(a[0], "channel", 1, 99));
        const int type = int(toNumber(a[1], "bit area", 0, 6));
        std::vector<long> bits;
        header = "cnc";
        for (size_t i = 2; i < a.size(); ++i) {
            bits.push_back(long(toNumber(a[i], "bit", 0, 1000000)));
            header += "\t" + a[i];
        }
        return [channel, type, bits](Job &job) {
            std::vector<long> b = bits, values(bits.size(), 0);
            if (check(job, "readBits", readBits(channel, type, b.data(), int(b.size()), values.data(), job.id)))
                job.row = job.address + tabbed(values);
        };
    }
    if (c == "reset") {
        needs(1, 1);
        // The library decides what a channel may be: 0 gives its parameter
        // error like any call would.
        const long channel = long(toNumber(a[0], "channel", -2147483648LL, 2147483647LL));
        return [channel](Job &job) {
            if (check(job, "reset", reset(channel, job.id)))
                job.row = job.address + "\tok";
        };
    }
    if (c == "start") {
        needs(2, 2);
        const long channel = long(toNumber(a[0], "channel", -2147483648LL, 2147483647LL));
        const std::string program = a[1];
        return [channel, program](Job &job) {
            std::string name = program;  // the call takes a writable text
            if (check(job, "cycStart", cycStart(channel, &name[0], job.id)))
                job.row = job.address + "\tok";
        };
    }
    if (c == "running") {
        needs(1, 1);
        const int channel = int(toNumber(a[0], "channel", 1, 98));
        return [channel](Job &job) {
            const char *name = getRuningPrg(channel, job.id);
            // "o" alone is the library's way of saying that no reply came.
            if (!name || std::strcmp(name, "o") == 0)
                check(job, "getRuningPrg", name ? StatusNoReply : StatusParam);
            else
                job.row = job.address + "\t" + name;
        };
    }
    if (c == "upload") {
        needs(4, 4);
        const long channel = long(toNumber(a[0], "channel", 1, 99));
        const long type = long(toNumber(a[1], "file type", 0, 2));
        if (a[2].empty() || a[2].find('/') != std::string::npos)
            bad("bad program name \"" + a[2] + "\" (not empty, no '/')");
        text = readFile(a[3]);
        checkProgramText(a[3], text);
        maxChannel = int(channel);
        showProgress = isatty(STDOUT_FILENO);
        const std::string name = a[2];
        return [this, channel, type, name](Job &job) { upload(job, channel, type, name); };
    }
    if (c == "errors") {
        needs(0, 1);
        const long index = a.empty() ? 0 : long(toNumber(a[0], "channel index", 0, 8));
        const long selector = index * 10 + (opt.history ? 1 : 0);
        return [this, selector](Job &job) {
            const char *t = getCncCurrentError(selector, job.id);
            if (!t || !*t) {
                check(job, "getCncCurrentError", StatusParam);
                return;
            }
            // The first character is the status digit ('1' stands for the
            // alarm 100); after '7', '8' and '9' come the library's words
            // instead of the file, after '5' the file as far as it was read.
            const long status = t[0] == '1' ? 100 : t[0] - '0';
            if (status != 0 && status != 5) {
                check(job, "getCncCurrentError", status);
                if ((status == 7 || status == 8 || status == 9) && t[1])
                    job.message.insert(job.message.rfind(" (status"), std::string("; the library says \"") + (t + 1) + "\"");
                return;
            }
            if (status == 5)
                check(job, "getCncCurrentError", status);
            std::string body = t + 1;
            if (opt.cncs.size() > 1) {
                // Several controllers: every line carries its controller.
                std::string prefixed;
                std::stringstream lines(body);
                for (std::string line; std::getline(lines, line);)
                    prefixed += job.address + "\t" + line + "\n";
                body = prefixed;
            }
            if (!body.empty() && body.back() == '\n')
                body.pop_back();
            job.row = body;
            // Cut at the bound: the text so far is still data.
            if (status == 5)
                job.printAnyway = true;
        };
    }
    if (c == "wdt") {
        needs(0, 0);
        return [](Job &job) {
            if (check(job, "CheckTcpWdt", CheckTcpWdt(job.id)))
                job.row = job.address + "\tok";
        };
    }
    if (c == "stream") {
        needs(1, 1);
        text = readFile(a[0]);
        checkProgramText(a[0], text);
        // An MDI write is one whole program, and the buffer cuts a write
        // into 480-byte pieces of which it drops every full one.
        if (opt.mode == 0 && text.size() >= 480)
            bad(a[0] + ": an MDI program must be shorter than 480 bytes (use --mode dnc)");
        connectFirst = false;
        showProgress = isatty(STDOUT_FILENO);
        return [this](Job &job) { stream(job); };
    }
    bad("unknown command \"" + c + "\"");
}

void Tool::readRow(Job &job, const std::vector<long> &vars)
{
    std::vector<long> addresses = vars, values(vars.size(), 0);
    if (check(job, "readVars", readVars(addresses.data(), int(addresses.size()), values.data(), job.id)))
        job.row = job.address + tabbed(values);
}

void Tool::upload(Job &job, long channel, long type, std::string name)
{
    // The steps of uploadFile, a piece at a time, so the progress shows.
    // Pieces of 399 bytes: a call given 400 or more sends an empty piece after them.
    const size_t piece = 399;
    job.total = (long long)text.size();
    // Statuses after which the library keeps the channel locked: no later
    // call may touch it.
    const auto locked = [&](const char *call, long status, bool lockingStatus) {
        if (!lockingStatus)
            return;
        job.message += std::string("; the library keeps channel ") + std::to_string(channel) + " locked after " + call
                       + " returns " + std::to_string(status) + ", so the transfer is not ended";
    };
    long s = setTransFileType(type, channel, &name[0], job.id);
    if (!check(job, "setTransFileType", s)) {
        // Types 0 and 1 also empty the file with an overwrite, whose 3 and 4 lock too.
        locked("setTransFileType", s, s == 100 || (type != 2 && (s == 3 || s == 4)));
        return;
    }
    for (size_t at = 0; at == 0 || at < text.size(); at += piece) {
        std::string part = text.substr(at, piece);
        const bool first = at == 0;
        s = first ? overwrite(&part[0], channel, job.id) : append(&part[0], channel, job.id);
        if (!check(job, first ? "overwrite" : "append", s)) {
            locked(first ? "overwrite" : "append", s, s == 100 || (first && (s == 3 || s == 4)));
            return;
        }
        job.progress = (long long)std::min(text.size(), at + piece);
    }
    if (check(job, "fileEnd", fileEnd(channel, job.id)))
        job.row = job.address + "\tok\t" + std::to_string(text.size()) + " bytes";
}

void Tool::stream(Job &job)
{
    // Pieces below 480 bytes: the buffer drops every piece of exactly 480.
    const size_t piece = 479;
    job.total = (long long)text.size();
    std::string address = job.address;
    void *buffer = bufOpen(&address[0], opt.mode, unsigned(opt.channel));
    if (!buffer) {
        check(job, "bufOpen", StatusParam);
        return;
    }
    const auto state = [&] { return getBufState(buffer); };
    // State 3 until its own thread has connected (at most 500 ms).
    for (int i = 0; i < 100 && state() == 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (state() == 3) {
        bufClose(buffer);
        job.status = StatusNotConnected;
        job.message = "bufOpen: " + whyNoConnection(job.address) + " (status 7)";
        return;
    }
    size_t sent = 0;
    while (!interrupted) {
        const int st = state();
        const int room = getBufValidCnt(buffer);
        const bool accepting = st == 0 || st == 5;
        if (sent < text.size() && accepting && room >= int(piece)) {
            std::string part = text.substr(sent, piece);
            if (bufWrite(buffer, &part[0]) == 1)
                sent += part.size();
        } else if (sent >= text.size() && st == 5) {
            break;  // everything sent and acknowledged
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        // In DNC mode the room says how many pieces still wait to be sent.
        const long long waiting = opt.mode == 1 && accepting ? (1000 - room / 480) : 0;
        job.progress = std::max(0LL, (long long)sent - waiting * (long long)piece);
    }
    job.progress = (long long)sent;
    const std::string last = getBufStateInf(buffer) ? getBufStateInf(buffer) : "";
    bufClose(buffer);
    if (interrupted) {
        job.status = StatusNoReply;
        job.message = "stream: interrupted after " + std::to_string(sent) + " bytes; last word of the buffer: " + last;
        return;
    }
    job.row = job.address + "\tok\t" + std::to_string(text.size()) + " bytes";
}

void Tool::watch()
{
    const bool terminal = isatty(STDOUT_FILENO);
    // Controllers that could not be connected were reported; their rows stay empty.
    std::vector<long> last;
    std::vector<bool> up;
    for (Job &job : jobs) {
        if (job.status != 0)
            message(job.address + ": " + job.message);
        last.push_back(job.status);
        up.push_back(job.status == 0);
    }
    for (long round = 0; !interrupted && (opt.count < 0 || round < opt.count); ++round) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < jobs.size(); ++i) {
            if (!up[i])
                continue;
            threads.emplace_back([this, i] {
                jobs[i].row.clear();
                readRow(jobs[i], watchVars);
            });
        }
        for (std::thread &t : threads)
            t.join();
        std::lock_guard<std::mutex> lock(outputLock);
        if (terminal && round > 0)
            std::printf("\033[%zuA", jobs.size() + 1);  // back to the header, redraw in place
        const char *clear = terminal ? "\033[K" : "";
        std::printf("%s%s\n", header.c_str(), clear);
        for (size_t i = 0; i < jobs.size(); ++i) {
            Job &job = jobs[i];
            std::printf("%s%s\n", job.status == 0 ? job.row.c_str() : (job.address + "\t-").c_str(), clear);
            if (job.status != 0 && job.status != last[i])
                std::fprintf(stderr, "velmora-cli: %s: %s\n", job.address.c_str(), job.message.c_str());
            last[i] = job.status;
        }
        std::fflush(stdout);
        for (int slept = 0; slept < opt.periodMs && !interrupted; slept += 10)
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min(10, opt.periodMs - slept)));
    }
}

void Tool::drawProgress(bool last)
{
    std::lock_guard<std::mutex> lock(outputLock);
    const auto now = std::chrono::steady_clock::now();
    for (Job &job : jobs) {
        const long long done = job.progress;
        const double seconds = std::chrono::duration<double>(now - job.started).count();
        const int width = 30;
        const int filled = job.total > 0 ? int(width * done / job.total) : width;
        std::printf("\r%-15s [%s%s] %3d%% %8.1f kB/s\033[K\n", job.address.c_str(), std::string(filled, '#').c_str(),
                    std::string(width - filled, '.').c_str(), job.total > 0 ? int(100 * done / job.total) : 100,
                    seconds > 0 ? done / 1024.0 / seconds : 0.0);
    }
    if (!last)
        std::printf("\033[%zuA", jobs.size());
    std::fflush(stdout);
}

int Tool::run()
{
    Work work = prepare();
    // Register every controller before any call: the registry takes no
    // concurrent registration.
    for (size_t i = 0; i < opt.cncs.size(); ++i) {
        jobs.emplace_back();
        jobs.back().address = opt.cncs[i];
        jobs.back().id = int(i + 1);
    }
    for (Job &job : jobs)
        addTargetCnc(job.id, maxChannel, &job.address[0], 0);

    const bool watching = opt.command == "watch";
    std::vector<std::thread> threads;
    std::atomic<int> running{int(jobs.size())};
    for (Job &job : jobs) {
        threads.emplace_back([&, this] {
            job.started = std::chrono::steady_clock::now();
            if (!connectFirst || velmora_connect(job.id)) {
                if (!watching) {
                    work(job);
                    if (connectFirst)
                        velmora_disconnect(job.id);
                }
            } else {
                job.status = StatusNotConnected;
                job.message = "cannot connect: " + whyNoConnection(job.address) + " (status 7)";
            }
            --running;
        });
    }
    // Connected in parallel; watch then reads every controller each round.
    if (watching) {
        for (std::thread &t : threads)
            t.join();
        threads.clear();
        watch();
        for (Job &job : jobs)
            velmora_disconnect(job.id);
    }
    // Never hang: a controller that stops making progress is given up on.
    auto lastProgress = std::chrono::steady_clock::now();
    long long lastSum = -1;
    while (running > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        long long sum = 0;
        for (Job &job : jobs)
            sum += job.progress;
        const auto now = std::chrono::steady_clock::now();
        if (sum != lastSum) {
            lastSum = sum;
            lastProgress = now;
        }
        if (showProgress)
            drawProgress(false);
        if (now - lastProgress > std::chrono::seconds(opt.timeoutS)) {
            for (Job &job : jobs) {
                if (job.status == 0 && job.row.empty())
                    message(job.address + ": no progress for " + std::to_string(opt.timeoutS)
                            + " s: the controller keeps refusing or does not answer; giving up (status 111)");
            }
            std::fflush(stdout);
            // The stuck call cannot be interrupted; leave without waiting for it.
            std::_Exit(int(StatusNoReply));
        }
    }
    for (std::thread &t : threads)
        t.join();
    if (showProgress)
        drawProgress(true);
    for (Job &job : jobs)
        removeTargetCnc(job.id);
    return finish();
}

int Tool::finish()
{
    int rc = 0;
    if (!header.empty() && opt.command != "watch")
        std::printf("%s\n", header.c_str());
    for (Job &job : jobs) {
        if (opt.command == "watch" && job.status == 0)
            continue;
        if ((job.status == 0 || job.printAnyway) && opt.command != "watch")
            std::printf("%s\n", job.row.c_str());
        if (job.status != 0 && opt.command != "watch")
            message(job.address + ": " + job.message);
        if (rc == 0 && job.status != 0)
            rc = int(job.status);
    }
    if (opt.command == "watch")
        for (Job &job : jobs)
            if (rc == 0 && job.status != 0)
                rc = int(job.status);
    std::fflush(stdout);
    return rc;
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    try {
        bool help = false;
        opt = parse(argc, argv, &help);
        if (help) {
            std::fputs(usageText, stdout);
            return 0;
        }
        // The library writes its diagnostic lines to the debug stream, which
        // would otherwise mix into the messages.
        if (!opt.verbose)
            setenv("QT_LOGGING_RULES", "default.debug=false;default.warning=false", 1);
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
        Tool tool(opt);
        return tool.run();
    } catch (const BadArgument &e) {
        std::fprintf(stderr, "velmora-cli: %s (see velmora-cli --help)\n", e.text.c_str());
        return ExitUsage;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "velmora-cli: %s\n", e.what());
        return ExitUsage;
    }
}
