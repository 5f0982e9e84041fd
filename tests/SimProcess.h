#ifndef SIMPROCESS_H
#define SIMPROCESS_H

// A velmora-sim process for tests that must not create a QCoreApplication
// (the in-process simulator needs one for its event loop). Plain POSIX, so
// the host side of the test stays free of Qt's application object.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

extern char **environ;

class SimProcess
{
public:
    // faults: velmora-sim --fault texts, e.g. "B=silence".
    SimProcess(const std::string &address, const std::vector<std::string> &faults = {})
    {
        const char *dir = std::getenv("VELMORA_BINARY_DIR");
        const std::string path = std::string(dir ? dir : ".") + "/sim/velmora-sim";
        std::vector<std::string> args = { path, "--address", address, "--quiet" };
        for (const std::string &f : faults) {
            args.push_back("--fault");
            args.push_back(f);
        }
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, path.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
            m_pid = -1;
    }
    ~SimProcess()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            int status = 0;
            waitpid(m_pid, &status, 0);
        }
    }
    bool started() const { return m_pid > 0; }

private:
    SimProcess(const SimProcess &) = delete;
    SimProcess &operator=(const SimProcess &) = delete;
    pid_t m_pid = -1;
};

#endif
