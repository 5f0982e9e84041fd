/* A plain C99 host without Qt and with sockets of its own: it includes the
 * socket headers beside velmora_prefixed.h, drives a controller through the
 * library, and talks to the same controller on a connection it opens itself
 * with connect(). Linked through VelmoraPrefixed, which puts the C library
 * before Velmora so that this connect() is the socket call.
 * Usage: c_host PATH_TO_VELMORA_SIM */
#define _POSIX_C_SOURCE 200809L
#include "velmora_prefixed.h"

#include "c_sim.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

static int failures = 0;

#define CHECK(cond) \
    do { \
        if (!(cond)) { \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures; \
        } \
    } while (0)

/* Sends a watchdog probe on a connection of the host's own; 0 when the reply
 * is the probe's letter. */
static int raw_watchdog(const char *ip)
{
    static const unsigned char probe[8] = { 0, 0, 0, 0, 2, 0, 0, 0x70 };
    unsigned char reply[64];
    struct sockaddr_in address;
    struct timeval timeout = { 2, 0 };
    ssize_t n;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(60000);
    if (inet_pton(AF_INET, ip, &address.sin_addr) != 1
        || connect(fd, (struct sockaddr *)&address, sizeof address) != 0
        || send(fd, probe, sizeof probe, 0) != (ssize_t)sizeof probe) {
        close(fd);
        return -2;
    }
    n = recv(fd, reply, sizeof reply, 0);
    close(fd);
    return n >= 8 && reply[7] == 0x70 ? 0 : -3;
}

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

    CHECK(velmora_addTargetCnc(1, 2, ip, 0));
    CHECK(!velmora_addTargetCnc(1, 2, ip, 0));
    for (i = 0; i < 100 && !connected; ++i) {   /* until the simulator listens */
        connected = velmora_connect(1);
        if (!connected)
            c_sleep_ms(50);
    }
    CHECK(connected);
    CHECK(velmora_getTcpConnectFlag(1));
    CHECK(velmora_CheckTcpWdt(1) == 0);
    CHECK(velmora_writeVars(addresses, 3, values, 1) == 0);
    CHECK(velmora_readVars(addresses, 3, back, 1) == 0);
    CHECK(back[0] == -5 && back[1] == 7 && back[2] == 2147483647L);
    CHECK(velmora_readVars(addresses, 0, back, 1) == 1);
    CHECK(velmora_readVars(addresses, 3, back, 99) == 1);

    /* The host's own connection beside the library's. */
    CHECK(raw_watchdog(ip) == 0);

    CHECK(velmora_disconnect(1));
    CHECK(velmora_CheckTcpWdt(1) == 7);
    CHECK(velmora_removeTargetCnc(1));
    CHECK(velmora_CheckTcpWdt(1) == 1);
    CHECK(!velmora_removeTargetCnc(1));

    c_sim_stop(sim);
    if (failures == 0)
        printf("c_host: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
