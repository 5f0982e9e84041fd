/* A plain C99 host without Qt: links the library, registers a controller,
 * connects, reads, writes, removes it, and opens a socket of its own.
 * Usage: c_host PATH_TO_VELMORA_SIM */
#include "velmora.h"

#include "c_sim.h"

#include <stdio.h>

int raw_watchdog(const char *ip);

static int failures = 0;

#define CHECK(cond) \
    do { \
        if (!(cond)) { \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures; \
        } \
    } while (0)

int main(int argc, char **argv)
{
    char ip[] = "127.0.0.40";
    long int addresses[3] = { 1000000, 1000001, 1000002 };
    long int values[3] = { -5, 7, 2147483647L };
    long int back[3] = { 0, 0, 0 };
    pid_t sim;
    int i;
    bool connected = false;

    if (argc < 2) {
        fprintf(stderr, "usage: c_host VELMORA_SIM\n");
        return 2;
    }
    sim = c_sim_start(argv[1], ip);
    CHECK(sim > 0);

    CHECK(addTargetCnc(1, 2, ip, 0));
    CHECK(!addTargetCnc(1, 2, ip, 0));
    for (i = 0; i < 100 && !connected; ++i) {   /* until the simulator listens */
        connected = connect(1);
        if (!connected)
            c_sleep_ms(50);
    }
    CHECK(connected);
    CHECK(getTcpConnectFlag(1));
    CHECK(CheckTcpWdt(1) == 0);
    CHECK(writeVars(addresses, 3, values, 1) == 0);
    CHECK(readVars(addresses, 3, back, 1) == 0);
    CHECK(back[0] == -5 && back[1] == 7 && back[2] == 2147483647L);
    CHECK(readVars(addresses, 0, back, 1) == 1);
    CHECK(readVars(addresses, 3, back, 99) == 1);

    /* The C library's connect still works beside the library's. */
    CHECK(raw_watchdog(ip) == 0);

    CHECK(disconnect(1));
    CHECK(CheckTcpWdt(1) == 7);
    CHECK(removeTargetCnc(1));
    CHECK(CheckTcpWdt(1) == 1);
    CHECK(!removeTargetCnc(1));

    c_sim_stop(sim);
    if (failures == 0)
        printf("c_host: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
