/* Loads the library at run time from a plain pthread, as a C# or Python host
 * does, and drives a controller through dlsym'd entry points.
 * Usage: c_dlopen PATH_TO_VELMORA_SIM PATH_TO_LIBVELMORA */
#define _GNU_SOURCE
#include "c_sim.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>

typedef bool (*AddFn)(int, int, char *, int);
typedef bool (*IdFn)(int);
typedef long int (*WdtFn)(int);
typedef long int (*VarsFn)(long int *, int, long int *, int);

static const char *libraryPath;
static char ip[] = "127.0.0.41";

static void *host(void *arg)
{
    int *failures = (int *)arg;
    void *lib = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL);
    AddFn add;
    IdFn conn, removeCnc;
    WdtFn wdt;
    VarsFn writeVars, readVars;
    long int address = 3000001, value = -77, back = 0;
    bool connected = false;
    int i;

    if (!lib) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        ++*failures;
        return 0;
    }
    add = (AddFn)dlsym(lib, "addTargetCnc");
    conn = (IdFn)dlvsym(lib, "connect", "VELMORA_1.0");
    removeCnc = (IdFn)dlsym(lib, "removeTargetCnc");
    wdt = (WdtFn)dlsym(lib, "CheckTcpWdt");
    writeVars = (VarsFn)dlsym(lib, "writeVars");
    readVars = (VarsFn)dlsym(lib, "readVars");
    if (!add || !conn || !removeCnc || !wdt || !writeVars || !readVars) {
        fprintf(stderr, "dlsym: missing entry point\n");
        ++*failures;
        return 0;
    }
    if (!add(5, 1, ip, 0))
        ++*failures;
    for (i = 0; i < 100 && !connected; ++i) {
        connected = conn(5);
        if (!connected)
            c_sleep_ms(50);
    }
    if (!connected || wdt(5) != 0 || writeVars(&address, 1, &value, 5) != 0
        || readVars(&address, 1, &back, 5) != 0 || back != -77) {
        fprintf(stderr, "traffic through the loaded library failed\n");
        ++*failures;
    }
    if (!removeCnc(5) || wdt(5) != 1)
        ++*failures;
    return 0;
}

int main(int argc, char **argv)
{
    pthread_t thread;
    int failures = 0;
    pid_t sim;
    if (argc < 3) {
        fprintf(stderr, "usage: c_dlopen VELMORA_SIM LIBVELMORA\n");
        return 2;
    }
    libraryPath = argv[2];
    sim = c_sim_start(argv[1], ip, 0);
    if (sim <= 0 || pthread_create(&thread, 0, host, &failures) != 0)
        failures = 1;
    else
        pthread_join(thread, 0);
    c_sim_stop(sim);
    if (failures == 0)
        printf("c_dlopen: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
