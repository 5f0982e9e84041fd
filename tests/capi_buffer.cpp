// The remote buffer's C entry points the way a plain C host uses them: no
// QCoreApplication, no event loop, calls from plain OS threads. The
// simulated controller runs in this same process, which shows it needs no
// application object either; 127.0.0.80 from the remote buffer's range,
// and 127.0.0.88 with nothing listening.
#include "velmora.h"
#include "ControllerSim.h"
#include "TestSupport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <thread>

namespace {

int failures = 0;

#define CHECK(cond) \
    do { \
        if (!(cond)) { \
            std::fprintf(stderr, "FAIL %s:%d: %s\n", __FILE__, __LINE__, #cond); \
            ++failures; \
        } \
    } while (0)


int threadCount()
{
    int n = 0;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (dirent *e = readdir(dir))
            if (e->d_name[0] != '.')
                ++n;
        closedir(dir);
    }
    return n;
}

long rssKb()
{
    long kb = -1;
    if (FILE *f = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f))
            if (std::strncmp(line, "VmRSS:", 6) == 0)
                kb = std::strtol(line + 6, nullptr, 10);
        std::fclose(f);
    }
    return kb;
}

char *text(const char *s) { return const_cast<char *>(s); }

void nullAndBadArguments()
{
    CHECK(getBufState(nullptr) == 4);
    CHECK(getBufValidCnt(nullptr) == 0);
    CHECK(getBufStateInf(nullptr) == nullptr);
    CHECK(bufWrite(nullptr, text("G0")) == 0);
    CHECK(bufClear(nullptr) == 0);
    CHECK(bufClose(nullptr) == 0);
    CHECK(bufOpen(nullptr, 0, 1) == nullptr);
    CHECK(bufOpen(text("127.0.0.88"), 2, 1) == nullptr);
    CHECK(bufOpen(text("127.0.0.88"), 1, 0) == nullptr);
    CHECK(bufOpen(text("127.0.0.88"), 0, 100) == nullptr);
}

std::string frame(const std::string &pdu)
{
    std::string f(7, '\0');
    f[4] = char(pdu.size() + 1);
    return f + pdu;
}

bool received(const ControllerSim &sim, const std::string &frameBytes)
{
    return sim.requests().contains(QByteArray(frameBytes.data(), int(frameBytes.size())));
}

void streamThroughSimulator(const ControllerSim &sim)
{
    const std::string setFile = frame(std::string("\x64\x01\x03\x01" "DNC", 7) + '\0');
    void *h = bufOpen(text("127.0.0.80"), 1, 3);
    CHECK(waitFor([&] { return getBufState(h) == 5; }, 3000));
    CHECK(received(sim, setFile));
    CHECK(std::strcmp(getBufStateInf(h), "Command queue is empty.") == 0);
    CHECK(getBufValidCnt(h) == 480000);
    CHECK(bufWrite(h, text("N1 G1 X1\n")) == 1);
    CHECK(bufWrite(h, text("N2 M30\n")) == 1);
    CHECK(bufWrite(h, nullptr) == 0);
    CHECK(waitFor([&] { return received(sim, frame(std::string("\x64\x02N2 M30\n") + '\0')); }, 3000));
    CHECK(received(sim, frame(std::string("\x64\x02N1 G1 X1\n") + '\0')));
    CHECK(waitFor([&] { return getBufState(h) == 5; }, 3000));
    CHECK(bufClear(h) == 1);
    CHECK(waitFor([&] { return received(sim, frame(std::string("\x64\x03", 2) + '\0')); }, 3000));

    CHECK(bufClose(h) == 1);
    // Winding down: a closed buffer, not a crash.
    CHECK(getBufState(h) == 3);
    CHECK(bufWrite(h, text("late")) == 0);
    CHECK(bufClear(h) == 0);
    // Freed without an event loop: the handle then answers like a null one.
    CHECK(waitFor([&] { return getBufState(h) == 4; }, 3000));
    CHECK(getBufStateInf(h) == nullptr);
    CHECK(bufClose(h) == 0);
}

void openCloseLoop()
{
    const int rounds = 200;
    void *handles[rounds];
    auto loop = [&](int n) {
        for (int i = 0; i < n; ++i) {
            handles[i] = bufOpen(text("127.0.0.80"), unsigned(i % 2), 1);
            bufWrite(handles[i], text("G0 X0\n"));
            bufClose(handles[i]);
        }
    };
    auto allFreed = [&](int n) {
        for (int i = 0; i < n; ++i)
            if (getBufState(handles[i]) != 4)
                return false;
        return true;
    };
    // Warm-up so lazily made runtime state is in the baseline.
    std::thread(loop, 5).join();
    CHECK(waitFor([&] { return allFreed(5); }, 5000));
    const int threadsBefore = threadCount();
    const long rssBefore = rssKb();

    std::thread(loop, rounds).join();
    CHECK(waitFor([&] { return allFreed(rounds); }, 10000));
    CHECK(waitFor([&] { return threadCount() <= threadsBefore; }, 5000));
    const long growth = rssKb() - rssBefore;
    std::printf("open/close x%d: threads %d -> %d, VmRSS growth %ld kB\n", rounds, threadsBefore,
                threadCount(), growth);
#ifndef VELMORA_SANITIZED   // see docs/reliability.md: sanitizer bookkeeping, not a leak
    CHECK(growth < 8 * 1024);
#endif
}

} // namespace

int main()
{
    nullAndBadArguments();
    ControllerSim sim(QStringLiteral("127.0.0.80"));
    CHECK(sim.start());
    std::thread([&] { streamThroughSimulator(sim); }).join();
    openCloseLoop();
    std::printf("%s\n", failures ? "FAILED" : "PASSED");
    return failures ? 1 : 0;
}
