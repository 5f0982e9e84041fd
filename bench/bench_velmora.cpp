// The library through its C interface beside a raw blocking socket doing the
// same frames, both against the same minimal server (MiniServer, a forked
// process with blocking sockets, not the simulator) in the same run, the
// whole run pinned to one CPU. Prints same-run ratios; see bench/README.md.
//
//   bench_velmora [--address A] [--rounds R] [--quick] [--only TEXT] [--log FILE] [--no-messages]
#include "velmora_prefixed.h"

#include "MiniServer.h"
#include "RawClient.h"

#include <QString>
#include <QtGlobal>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Options {
    std::string address = "127.0.0.240";
    int rounds = 5;
    bool quick = false;
    std::string only;
    std::string log;
    bool noMessages = false;
};

Options g_options;
MiniServer g_server;

std::int64_t nowNs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return std::int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void sleepMs(int ms)
{
    timespec t{ ms / 1000, long(ms % 1000) * 1000000L };
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

double cpuSeconds()
{
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// The threads of this process named `name` (Qt names a thread after its
// class), by id.
std::vector<int> threadsNamed(const char *name)
{
    std::vector<int> ids;
    if (DIR *d = opendir("/proc/self/task")) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] == '.')
                continue;
            char path[300], comm[64] = {};
            std::snprintf(path, sizeof path, "/proc/self/task/%s/comm", e->d_name);
            if (FILE *f = std::fopen(path, "r")) {
                if (std::fgets(comm, sizeof comm, f) && !std::strncmp(comm, name, std::strlen(name)))
                    ids.push_back(std::atoi(e->d_name));
                std::fclose(f);
            }
        }
        closedir(d);
    }
    return ids;
}

// CPU seconds a thread of this process has run, from the scheduler's count.
double threadCpuSeconds(int id)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/schedstat", id);
    double ns = 0;
    if (FILE *f = std::fopen(path, "r")) {
        if (std::fscanf(f, "%lf", &ns) != 1)
            ns = 0;
        std::fclose(f);
    }
    return ns / 1e9;
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The measures by name. --only picks the one named exactly, or else every
// one whose name contains the text.
const char *const kMeasures[] = { "readVars 64", "readVars 64 out of order", "readVars 1000", "writeVars 31",
                                  "CheckTcpWdt", "uploadFile 64 kB", "uploadFile 1 MB", "buffer continuous",
                                  "buffer bursts", "buffer send-next", "buffer idle",
                                  "thread mode 10,000 variables", "thread mode idle client", "200 controllers" };

bool selected(const char *name)
{
    const std::string &only = g_options.only;
    if (only.empty() || only == name)
        return true;
    for (const char *measure : kMeasures)
        if (only == measure)
            return false;
    return std::string(name).find(only) != std::string::npos;
}

int scaled(int calls)
{
    return g_options.quick ? std::max(3, calls / 10) : calls;
}

// One call of a measure: its nanoseconds, or < 0 when it failed.
typedef std::function<double()> Sample;

// A call timed as a whole.
Sample timed(const std::function<bool()> &call)
{
    return [call] {
        const std::int64_t start = nowNs();
        return call() ? double(nowNs() - start) : -1.0;
    };
}

// One call on each side, kept out of line so that callgrind can count each
// side alone (--toggle-collect=runLibrary / runRaw).
#if defined(__clang__)
#  define BENCH_OUT_OF_LINE __attribute__((noinline))
#else
#  define BENCH_OUT_OF_LINE __attribute__((noipa))   // also never folded into its twin
#endif

BENCH_OUT_OF_LINE double runLibrary(const Sample &sample)
{
    return sample();
}

BENCH_OUT_OF_LINE double runRaw(const Sample &sample)
{
    return sample();
}

struct Comparison {
    double library = 0;   // median ns per call over the rounds
    double raw = 0;
    double ratio = 0;     // median of the rounds' library / raw
    double low = 0;
    double high = 0;
    bool ok = false;
};

// Rounds of `calls` calls on each side, after a warm-up of each. The two
// sides take turns call by call, so that both meet the same load of the
// machine; each round gives the ratio of its medians.
Comparison compare(int calls, const Sample &library, const Sample &raw)
{
    Comparison c;
    for (int i = 0; i < std::max(1, calls / 10); ++i)
        if (library() < 0 || raw() < 0)
            return c;
    std::vector<double> lib, floor, ratios;
    std::vector<double> l, r;
    for (int round = 0; round < g_options.rounds; ++round) {
        l.clear();
        r.clear();
        for (int i = 0; i < calls; ++i) {
            if ((i + round) % 2 == 0) {
                l.push_back(runLibrary(library));
                r.push_back(runRaw(raw));
            } else {
                r.push_back(runRaw(raw));
                l.push_back(runLibrary(library));
            }
            if (l.back() < 0 || r.back() < 0)
                return c;
        }
        lib.push_back(median(l));
        floor.push_back(median(r));
        ratios.push_back(lib.back() / floor.back());
    }
    c.library = median(lib);
    c.raw = median(floor);
    c.ratio = median(ratios);
    c.low = *std::min_element(ratios.begin(), ratios.end());
    c.high = *std::max_element(ratios.begin(), ratios.end());
    c.ok = true;
    return c;
}

void header(const char *title)
{
    std::printf("\n%s\n", title);
}

// One line of a time comparison: lower is better, the goal is a ceiling.
void timeLine(const char *name, const Comparison &c, double goal)
{
    if (!c.ok) {
        std::printf("  %-34s FAILED\n", name);
        return;
    }
    std::printf("  %-34s %10.1f us %10.1f us   ratio %5.2f (%.2f-%.2f)   goal <= %.2f %s\n", name, c.library / 1e3,
                c.raw / 1e3, c.ratio, c.low, c.high, goal, c.ratio <= goal ? "met" : "NOT MET");
}

// One line of a rate comparison: the library's share of the floor's rate.
void rateLine(const char *name, const Comparison &c, double bytes, double goal)
{
    if (!c.ok) {
        std::printf("  %-34s FAILED\n", name);
        return;
    }
    const double share = 1.0 / c.ratio;
    std::printf("  %-34s %8.2f MB/s %8.2f MB/s   share %5.2f (%.2f-%.2f)   goal >= %.2f %s\n", name,
                bytes / c.library * 1e3, bytes / c.raw * 1e3, share, 1.0 / c.high, 1.0 / c.low, goal,
                share >= goal ? "met" : "NOT MET");
}

std::string pattern(int length)
{
    std::string text(size_t(length), '\0');
    for (int i = 0; i < length; ++i)
        text[size_t(i)] = char('A' + i % 26);
    return text;
}

std::vector<long> addressRange(long first, int count)
{
    std::vector<long> a(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        a[size_t(i)] = first + i;
    return a;
}

// ---------------------------------------------------------------- direct calls

const int kMain = 1;   // the controller of the direct-mode measures

void directCalls()
{
    if (!selected("readVars 64") && !selected("readVars 64 out of order") && !selected("readVars 1000")
        && !selected("writeVars 31")
        && !selected("CheckTcpWdt"))
        return;
    RawClient raw;
    RawClient modbus;
    if (!raw.open(g_options.address.c_str(), MiniServer::kPort)
        || !modbus.open(g_options.address.c_str(), MiniServer::kModbusPort)) {
        std::printf("raw client cannot connect\n");
        return;
    }
    header("Direct calls (median per call; library through the C interface, raw = blocking socket, same frames)");
    const std::vector<long> addresses = addressRange(1000000, 1000);
    // The same 64 addresses out of order, as a page of a display may list them.
    std::vector<long> scattered(64);
    for (int i = 0; i < 64; ++i)
        scattered[size_t(i)] = addresses[size_t(i * 37 % 64)];
    std::vector<long> values(1000), rawValues(1000);
    auto readVars = [&](int n, const std::vector<long> &from) {
        return timed([&, n] {
            return velmora_readVars(const_cast<long *>(from.data()), n, values.data(), kMain) == 0
                && values[size_t(n - 1)] == from[size_t(n - 1)];
        });
    };
    auto rawRead = [&](int n, const std::vector<long> &from) {
        return timed([&, n] { return raw.readVars(from.data(), n, rawValues.data()); });
    };
    Comparison read1000;
    if (selected("readVars 64"))
        timeLine("readVars 64", compare(scaled(4000), readVars(64, addresses), rawRead(64, addresses)), 1.2);
    if (selected("readVars 64 out of order"))
        timeLine("readVars 64 out of order", compare(scaled(4000), readVars(64, scattered), rawRead(64, scattered)),
                 1.2);
    if (selected("readVars 1000")) {
        read1000 = compare(scaled(400), readVars(1000, addresses), rawRead(1000, addresses));
        timeLine("readVars 1000", read1000, 1.2);
    }
    if (selected("readVars 1000")) {
        // The same 1000 variables read Modbus-TCP-style from the same server,
        // 124 registers per request, taking turns with the library: 2000
        // registers (a variable is 32 bits), and 1000 registers counted one
        // variable each. No client of that protocol is faster than this.
        std::uint16_t registers[124];
        auto modbusRead = [&](int total) {
            return timed([&, total] {
                for (int first = 0; first < total; first += 124)
                    if (!modbus.readRegisters(first, std::min(124, total - first), registers))
                        return false;
                return true;
            });
        };
        const Comparison per32 = compare(scaled(400), readVars(1000, addresses), modbusRead(2000));
        const Comparison per16 = compare(scaled(400), readVars(1000, addresses), modbusRead(1000));
        if (per32.ok && per16.ok) {
            // Three decimals: the two are close, and "1.00 met" next to
            // "1.00 NOT MET" would say nothing.
            std::printf("  %-34s %10.1f us %10.1f us   ratio %5.3f (%.3f-%.3f)  goal < 1 %s\n",
                        "1000 variables, Modbus floor", per32.library / 1e3, per32.raw / 1e3, per32.ratio, per32.low,
                        per32.high, per32.ratio < 1 ? "met" : "NOT MET");
            std::printf("  %-34s %10.1f us %10.1f us   ratio %5.2f (1000 registers of 16 bits, one per variable)\n",
                        "", per16.library / 1e3, per16.raw / 1e3, per16.ratio);
            std::printf("  %-34s (17 and 9 requests of up to 124 registers; this protocol: 16 of up to 64 variables)\n",
                        "");
        }
    }
    if (selected("writeVars 31")) {
        timeLine("writeVars 31",
                 compare(scaled(4000), timed([&] {
                             return velmora_writeVars(const_cast<long *>(addresses.data()), 31, values.data(), kMain)
                                 == 0;
                         }),
                         timed([&] { return raw.writeVars(addresses.data(), 31, values.data()); })),
                 1.1);
    }
    if (!selected("CheckTcpWdt"))
        return;
    const Sample watchdog = timed([] { return velmora_CheckTcpWdt(kMain) == 0; });
    const Comparison bare = compare(scaled(4000), watchdog, timed([&] { return raw.watchdog(); }));
    timeLine(g_options.noMessages ? "CheckTcpWdt (its lines filtered out)" : "CheckTcpWdt (its two lines logged)", bare,
             1.25);
    if (g_options.noMessages || !bare.ok)
        return;
    // The two lines have to go through Qt's message output, and what the
    // default output costs is Qt's and the sink's, not the library's. So
    // the same exchange is timed once more against a floor that hands the
    // same two lines to Qt the same way: the ratio is then the library's
    // own share, and the difference of the floors is Qt's cost per line.
    const QString in = QStringLiteral("CheckTcpWdt IN FUNCTION");
    const QString out = QStringLiteral("CheckTcpWdt OUT FUNCTION");
    const Comparison lined = compare(scaled(4000), watchdog, timed([&] {
                                         qt_message_output(QtDebugMsg, QMessageLogContext(), in);
                                         const bool ok = raw.watchdog();
                                         qt_message_output(QtDebugMsg, QMessageLogContext(), out);
                                         return ok;
                                     }));
    std::vector<double> lineNs;
    for (int i = 0; i < scaled(4000); ++i) {
        const std::int64_t start = nowNs();
        qt_message_output(QtDebugMsg, QMessageLogContext(), in);
        lineNs.push_back(double(nowNs() - start));
    }
    if (lined.ok)
        std::printf("  %-34s %10.1f us %10.1f us   ratio %5.2f (%.2f-%.2f)   Qt's output: %.2f us a line\n",
                    "  against raw + the lines via Qt", lined.library / 1e3, lined.raw / 1e3, lined.ratio, lined.low,
                    lined.high, median(lineNs) / 1e3);
}

// ---------------------------------------------------------------- file upload

bool rawUpload(RawClient &raw, const std::string &text)
{
    // The library's frames: set file, overwrite of the first 400 bytes,
    // appends of 400 (an empty one after an exact multiple), file end.
    if (!raw.setFile(1, 3, "RAW"))
        return false;
    const int size = int(text.size());
    int at = std::min(400, size);
    if (!raw.text(true, text.data(), at))
        return false;
    if (at == 400) {
        for (;;) {
            const int n = std::min(400, size - at);
            if (!raw.text(false, text.data() + at, n))
                return false;
            at += n;
            if (n < 400)
                break;
        }
    }
    return raw.fileEnd();
}

void upload()
{
    if (!selected("uploadFile 64 kB") && !selected("uploadFile 1 MB"))
        return;
    RawClient raw;
    if (!raw.open(g_options.address.c_str(), MiniServer::kPort))
        return;
    header("uploadFile into DNC memory (share of the raw 400-byte chunk floor's rate)");
    const struct { const char *name; int size; int calls; } rows[] = {
        { "uploadFile 64 kB", 64 * 1024, 20 },
        { "uploadFile 1 MB", 1024 * 1024, 5 },
    };
    for (const auto &row : rows) {
        if (!selected(row.name))
            continue;
        std::string text = pattern(row.size);
        std::string copy = text;
        char name[] = "BENCH";
        const Sample upload = timed([&] { return velmora_uploadFile(2, 1, name, &copy[0], kMain) == 0; });
        const int calls = std::max(2, scaled(row.calls));
        const Comparison c = compare(calls, upload, timed([&] { return rawUpload(raw, text); }));
        rateLine(row.name, c, row.size, 0.9);
        if (g_options.noMessages || !c.ok)
            continue;
        // As for CheckTcpWdt: the floor also hands the call's line, with
        // the whole text, to Qt's message output, so that the share left
        // is the library's own.
        const Comparison lined = compare(calls, upload, timed([&] {
            const bool ok = rawUpload(raw, text);
            const QString line
                = QStringLiteral("uploadFile txt= ") + QString::fromLatin1(text.data(), int(text.size()));
            qt_message_output(QtDebugMsg, QMessageLogContext(), line);
            return ok;
        }));
        if (lined.ok)
            std::printf("  %-34s %8.2f MB/s %8.2f MB/s   share %5.2f (%.2f-%.2f)\n", "  against raw + the line via Qt",
                        row.size / lined.library * 1e3, row.size / lined.raw * 1e3, 1.0 / lined.ratio,
                        1.0 / lined.high, 1.0 / lined.low);
    }
}

// ---------------------------------------------------------------- remote buffer

const int kBufferChannel = 2;
const int kStreamPiece = 479;   // the largest write that goes out whole
const int kBurstWrites = 8;

void *openIdleBuffer()
{
    void *h = velmora_bufOpen(const_cast<char *>(g_options.address.c_str()), 1, kBufferChannel);
    for (int i = 0; i < 5000 && velmora_getBufState(h) != 5; ++i)
        sleepMs(1);
    return h;
}

// Streams `total` bytes in writes of kStreamPiece, `burst` writes at a time
// (0: as fast as the buffer's room allows) until the server has them all:
// the nanoseconds from the first write to the last byte at the server, or
// -1. Opening (connect, announcement) and closing (which waits for the
// buffer's thread) are not timed, as the floor's connect is not.
double libraryStream(int total, int burst)
{
    void *h = openIdleBuffer();
    if (velmora_getBufState(h) != 5) {
        velmora_bufClose(h);
        return -1;
    }
    std::string piece = pattern(kStreamPiece);
    const std::uint64_t base = g_server.counters().textBytes.load();
    const std::int64_t start = nowNs();
    bool ok = true;
    int inBurst = 0;
    for (int written = 0; written < total && ok;) {
        const int n = std::min(kStreamPiece, total - written);
        std::string text = piece.substr(0, size_t(n));
        if (velmora_getBufValidCnt(h) < 480 || !velmora_bufWrite(h, &text[0])) {
            sleepMs(1);   // the queue is full: let the buffer's thread send
            continue;
        }
        written += n;
        if (burst > 0 && ++inBurst == burst) {
            inBurst = 0;
            ok = g_server.waitText(base + std::uint64_t(written), 10000);
        }
    }
    ok = ok && g_server.waitText(base + std::uint64_t(total), 60000);
    const double ns = double(nowNs() - start);
    velmora_bufClose(h);
    return ok ? ns : -1;
}

double rawStream(RawClient &raw, int total)
{
    const std::string piece = pattern(kStreamPiece);
    const std::int64_t start = nowNs();
    for (int written = 0; written < total;) {
        const int n = std::min(kStreamPiece, total - written);
        if (!raw.text(false, piece.data(), n))
            return -1;
        written += n;
    }
    return double(nowNs() - start);
}

// The send-next wait: one append answered "busy", then 20 send-next
// requests answered "busy" too; the buffer waits 50 ms before each. The
// CPU its thread spends from the write until it is idle again, per wait
// (each with its send-next exchange).
void sendNextWaits()
{
    const int waits = 21;
    const std::vector<int> before = threadsNamed("HRemoteBuffer");
    void *h = openIdleBuffer();
    int thread = -1;
    for (int id : threadsNamed("HRemoteBuffer"))
        if (std::find(before.begin(), before.end(), id) == before.end())
            thread = id;
    std::string text = pattern(kStreamPiece);
    MiniServer::Counters &c = g_server.counters();
    c.busyEvery.store(1);
    c.busyPolls.store(waits - 1);
    const std::uint64_t busyBefore = c.busyReplies.load();
    const double cpu0 = threadCpuSeconds(thread);
    const std::int64_t t0 = nowNs();
    const bool written = velmora_bufWrite(h, &text[0]) == 1;
    while (written && c.busyReplies.load() == busyBefore && nowNs() - t0 < 5000000000LL)
        sleepMs(1);
    c.busyEvery.store(0);
    // Busy (1) while it polls, idle (5) once a send-next is answered 0.
    while (written && c.busyPolls.load() > 0 && nowNs() - t0 < 5000000000LL)
        sleepMs(10);
    while (written && velmora_getBufState(h) != 5 && nowNs() - t0 < 5000000000LL)
        sleepMs(10);
    const double cpu = threadCpuSeconds(thread) - cpu0;
    const double seconds = (nowNs() - t0) / 1e9;
    const bool done = written && thread >= 0 && velmora_getBufState(h) == 5;
    velmora_bufClose(h);
    // The floor: what one bare 50 ms sleep costs a thread here (a wake-up
    // is not free, least of all in a virtual machine).
    const int self = int(syscall(SYS_gettid));
    const double sleep0 = threadCpuSeconds(self);
    for (int i = 0; i < 10; ++i)
        sleepMs(50);
    const double sleep = (threadCpuSeconds(self) - sleep0) / 10;
    if (done)
        std::printf("  %-34s %10.4f ms %10.4f ms   CPU per 50 ms wait (%d waits in %.2f s; floor: a bare 50 ms sleep)\n",
                    "buffer send-next waits", cpu * 1e3 / waits, sleep * 1e3, waits, seconds);
    else
        std::printf("  %-34s FAILED\n", "buffer send-next waits");
}

// An open buffer with nothing to send.
void idleBuffer()
{
    void *h = openIdleBuffer();
    sleepMs(300);
    const double cpu0 = cpuSeconds();
    const std::int64_t t0 = nowNs();
    sleepMs(g_options.quick ? 1000 : 3000);
    const double share = (cpuSeconds() - cpu0) / ((nowNs() - t0) / 1e9);
    std::printf("  %-34s %.4f %% of a core (whole process)   goal < 0.05 %% %s\n", "buffer idle (open, nothing to send)", 100 * share,
                100 * share < 0.05 ? "met" : "NOT MET");
    velmora_bufClose(h);
    sleepMs(400);   // its thread ends after its 200 ms tail
}

void remoteBuffer()
{
    if (!selected("buffer continuous") && !selected("buffer bursts") && !selected("buffer send-next")
        && !selected("buffer idle"))
        return;
    RawClient raw;
    if (!raw.open(g_options.address.c_str(), MiniServer::kPort) || !raw.setFile(kBufferChannel, 1, "DNC"))
        return;
    header("Remote buffer, DNC mode, 1 MB in 479-byte writes (share of the raw floor's rate)");
    const int total = g_options.quick ? 256 * 1024 : 1024 * 1024;
    if (selected("buffer continuous"))
        rateLine("buffer continuous", compare(5, [&] { return libraryStream(total, 0); },
                                              [&] { return rawStream(raw, total); }),
                 total, 0.9);
    if (selected("buffer bursts"))
        rateLine("buffer bursts of 8 writes", compare(5, [&] { return libraryStream(total, kBurstWrites); },
                                                      [&] { return rawStream(raw, total); }),
                 total, 0.7);
    if (selected("buffer send-next"))
        sendNextWaits();
    if (selected("buffer idle"))
        idleBuffer();
}

// ---------------------------------------------------------------- thread mode

const int kThreaded = 2;

void threadMode()
{
    if (!selected("thread mode 10,000 variables") && !selected("thread mode idle client"))
        return;
    char *address = const_cast<char *>(g_options.address.c_str());
    if (!velmora_addTargetCnc(kThreaded, 0, address, 1) || !velmora_connect(kThreaded)) {
        std::printf("thread-mode client cannot connect\n");
        return;
    }
    RawClient raw;
    if (!raw.open(g_options.address.c_str(), MiniServer::kPort))
        return;
    header("Thread mode (variables polled per second; raw = the same 62-variable frames back to back)");
    const int count = 10000;
    std::vector<long> addresses = addressRange(1000000, count);
    std::vector<long> values(static_cast<size_t>(count));
    const int ms = g_options.quick ? 300 : 1000;
    std::vector<double> lib, floor, shares;
    for (int round = 0; selected("thread mode 10,000 variables") && round < std::max(1, g_options.rounds / 2);
         ++round) {
        velmora_registerVars(addresses.data(), count, kThreaded);
        sleepMs(100);
        const std::uint64_t v0 = g_server.counters().values.load();
        std::int64_t t0 = nowNs();
        sleepMs(ms);
        const double libRate = (g_server.counters().values.load() - v0) / ((nowNs() - t0) / 1e9);
        velmora_clearVars(kThreaded);
        sleepMs(20);
        t0 = nowNs();
        std::uint64_t polled = 0;
        while (nowNs() - t0 < std::int64_t(ms) * 1000000) {
            if (!raw.readVars(addresses.data(), count, values.data(), 62))
                return;
            polled += std::uint64_t(count);
        }
        const double rawRate = polled / ((nowNs() - t0) / 1e9);
        lib.push_back(libRate);
        floor.push_back(rawRate);
        shares.push_back(libRate / rawRate);
    }
    if (!shares.empty()) {
        const double share = median(shares);
        std::printf("  %-34s %10.0f /s %10.0f /s   share %5.2f   goal >= 0.50 %s\n", "thread mode 10,000 variables",
                    median(lib), median(floor), share, share >= 0.5 ? "met" : "NOT MET");
    }

    // Connected, nothing registered, nothing queued.
    if (!selected("thread mode idle client")) {
        velmora_removeTargetCnc(kThreaded);
        return;
    }
    sleepMs(200);
    const double cpu0 = cpuSeconds();
    const std::int64_t t0 = nowNs();
    sleepMs(g_options.quick ? 1000 : 3000);
    const double idle = (cpuSeconds() - cpu0) / ((nowNs() - t0) / 1e9);
    std::printf("  %-34s %.4f %% of a core (whole process)\n", "thread mode idle client", 100 * idle);
    velmora_removeTargetCnc(kThreaded);
}

// ---------------------------------------------------------------- many controllers

struct ProcessCounts {
    long threads = 0;
    long fds = 0;
    long rssKb = 0;
};

ProcessCounts processCounts()
{
    ProcessCounts p;
    if (FILE *f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f)) {
            if (!std::strncmp(line, "Threads:", 8))
                p.threads = std::atol(line + 8);
            else if (!std::strncmp(line, "VmRSS:", 6))
                p.rssKb = std::atol(line + 6);
        }
        std::fclose(f);
    }
    if (DIR *d = opendir("/proc/self/fd")) {
        while (dirent *e = readdir(d))
            p.fds += e->d_name[0] != '.';
        closedir(d);
        --p.fds;   // the directory's own
    }
    return p;
}

void manyControllers()
{
    if (!selected("200 controllers"))
        return;
    header("200 controllers from one process (main, program and one channel client each)");
    char *address = const_cast<char *>(g_options.address.c_str());
    const int first = 1000;
    const int total = 200;
    const ProcessCounts before = processCounts();
    ProcessCounts at10;
    for (int i = 0; i < total; ++i) {
        if (!velmora_addTargetCnc(first + i, 1, address, 0) || !velmora_connect(first + i)) {
            std::printf("controller %d cannot connect\n", i);
            return;
        }
        if (i == 9)
            at10 = processCounts();
    }
    const ProcessCounts after = processCounts();
    auto per = [](long a, long b, int n) { return double(a - b) / n; };
    std::printf("  %-34s %6.1f threads %6.1f fds %8.1f kB each\n", "first 10 controllers",
                per(at10.threads, before.threads, 10), per(at10.fds, before.fds, 10),
                per(at10.rssKb, before.rssKb, 10));
    std::printf("  %-34s %6.1f threads %6.1f fds %8.1f kB each\n", "all 200 controllers",
                per(after.threads, before.threads, total), per(after.fds, before.fds, total),
                per(after.rssKb, before.rssKb, total));

    // The cost of a call spread over 200 connections (colder caches, 200
    // server threads) against one, for the library and for raw sockets.
    std::vector<long> addresses = addressRange(1000000, 64);
    std::vector<long> values(64);
    std::vector<RawClient> raws(static_cast<size_t>(total));
    for (RawClient &raw : raws)
        if (!raw.open(g_options.address.c_str(), MiniServer::kPort))
            return;
    int next = 0;
    int nextRaw = 0;
    const Comparison lib = compare(scaled(2000), timed([&] {
                                       next = (next + 1) % total;
                                       return velmora_readVars(addresses.data(), 64, values.data(), first + next) == 0;
                                   }),
                                   timed([&] {
                                       return velmora_readVars(addresses.data(), 64, values.data(), first) == 0;
                                   }));
    const Comparison raw = compare(scaled(2000), timed([&] {
                                       nextRaw = (nextRaw + 1) % total;
                                       return raws[size_t(nextRaw)].readVars(addresses.data(), 64, values.data());
                                   }),
                                   timed([&] { return raws[0].readVars(addresses.data(), 64, values.data()); }));
    if (lib.ok && raw.ok) {
        std::printf("  %-34s %10.1f us %10.1f us   200 / 1: %5.2f\n", "readVars 64, library, 200 vs 1",
                    lib.library / 1e3, lib.raw / 1e3, lib.ratio);
        std::printf("  %-34s %10.1f us %10.1f us   200 / 1: %5.2f\n", "readVars 64, raw, 200 vs 1",
                    raw.library / 1e3, raw.raw / 1e3, raw.ratio);
    }
    for (int i = 0; i < total; ++i)
        velmora_removeTargetCnc(first + i);
}

// ---------------------------------------------------------------- main

bool parse(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--address" && hasValue)
            g_options.address = argv[++i];
        else if (arg == "--rounds" && hasValue)
            g_options.rounds = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--only" && hasValue)
            g_options.only = argv[++i];
        else if (arg == "--log" && hasValue)
            g_options.log = argv[++i];
        else if (arg == "--quick")
            g_options.quick = true;
        else if (arg == "--no-messages")
            g_options.noMessages = true;
        else
            return false;
    }
    return true;
}

int pinToOneCpu()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0)
        return -1;
    int cpu = 0;
    while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &set))
        ++cpu;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0 ? cpu : -1;
}

} // namespace

int main(int argc, char **argv)
{
    if (!parse(argc, argv)) {
        std::fprintf(stderr,
                     "usage: bench_velmora [--address A] [--rounds R] [--quick] [--only TEXT] [--log FILE]\n"
                     "                     [--no-messages]\n"
                     "  --no-messages filters the library's debug lines out (QT_LOGGING_RULES), to show\n"
                     "  what writing them costs\n"
                     "  --only runs the measure named TEXT, or those whose name contains it:\n"
                     "  readVars 64, readVars 64 out of order, readVars 1000, writeVars 31, CheckTcpWdt,\n"
                     "  uploadFile 64 kB, uploadFile 1 MB, buffer continuous, buffer bursts,\n"
                     "  buffer send-next, buffer idle, thread mode 10,000 variables,\n"
                     "  thread mode idle client, 200 controllers\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // Read by Qt when the library logs for the first time.
    if (g_options.noMessages)
        setenv("QT_LOGGING_RULES", "default.debug=false", 1);
    // 200 controllers hold about 1200 descriptors.
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Pinned before anything starts: the server process and every thread of
    // the library inherit the CPU.
    const int cpu = pinToOneCpu();
    char dir[] = "/tmp/bench_velmora_XXXXXX";
    if (!mkdtemp(dir) || chdir(dir) != 0) {
        std::fprintf(stderr, "cannot make a working directory\n");
        return 1;
    }
    // The library's messages (CheckTcpWdt's two lines per call among them)
    // go through Qt's default output, stderr, here into a regular file as
    // with a host whose output is logged.
    const std::string log = g_options.log.empty() ? std::string(dir) + "/messages.log" : g_options.log;
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || dup2(fd, 2) < 0) {
        std::printf("cannot open %s\n", log.c_str());
        return 1;
    }
    close(fd);
    if (!g_server.start(g_options.address.c_str())) {
        std::printf("the minimal server cannot listen on %s\n", g_options.address.c_str());
        return 1;
    }
    std::printf("bench_velmora: pinned to CPU %d; minimal server pid %d on %s; %d rounds, medians; "
                "library messages %s %s\n",
                cpu, int(g_server.pid()), g_options.address.c_str(), g_options.rounds,
                g_options.noMessages ? "filtered out, not written; would go to" : "written to", log.c_str());

    char *address = const_cast<char *>(g_options.address.c_str());
    if (!velmora_addTargetCnc(kMain, 1, address, 0) || !velmora_connect(kMain)) {
        std::printf("cannot connect to the minimal server\n");
        return 1;
    }
    directCalls();
    upload();
    remoteBuffer();
    threadMode();
    manyControllers();
    velmora_removeTargetCnc(kMain);
    g_server.stop();
    if (g_options.log.empty()) {
        unlink(log.c_str());
    }
    std::string logs = std::string(dir) + "/logs";
    rmdir(logs.c_str());
    rmdir(dir);
    return 0;
}
