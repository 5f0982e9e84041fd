#define _POSIX_C_SOURCE 200809L
#include "c_sim.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>

extern char **environ;

pid_t c_sim_start(const char *simPath, const char *address, const char *const *faults)
{
    char *argv[16] = { (char *)simPath, (char *)"--address", (char *)address, (char *)"--quiet" };
    int n = 4;
    pid_t pid = -1;
    for (; faults && *faults; ++faults) {
        if (n + 2 >= 16)
            return -1; /* more faults than argv holds: refused, not dropped */
        argv[n++] = (char *)"--fault";
        argv[n++] = (char *)*faults;
    }
    if (posix_spawn(&pid, simPath, 0, 0, argv, environ) != 0)
        return -1;
    return pid;
}

void c_sim_stop(pid_t pid)
{
    int status = 0;
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    waitpid(pid, &status, 0);
}

void c_sleep_ms(int ms)
{
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (long)(ms % 1000) * 1000000L;
    nanosleep(&t, 0);
}
