/* Runs a host program while a velmora-sim serves the given address.
 * Usage: c_with_sim VELMORA_SIM ADDRESS PROGRAM [ARGUMENTS...]
 * Exit status: the program's, or 1 when it could not run. */
#define _POSIX_C_SOURCE 200809L
#include "c_sim.h"

#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>

extern char **environ;

int main(int argc, char **argv)
{
    pid_t sim, host;
    int status = 0;
    if (argc < 4) {
        fprintf(stderr, "usage: c_with_sim VELMORA_SIM ADDRESS PROGRAM [ARGUMENTS...]\n");
        return 2;
    }
    sim = c_sim_start(argv[1], argv[2], 0);
    if (sim <= 0 || posix_spawn(&host, argv[3], 0, 0, argv + 3, environ) != 0) {
        fprintf(stderr, "c_with_sim: cannot start %s\n", sim <= 0 ? argv[1] : argv[3]);
        c_sim_stop(sim);
        return 1;
    }
    waitpid(host, &status, 0);
    c_sim_stop(sim);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
