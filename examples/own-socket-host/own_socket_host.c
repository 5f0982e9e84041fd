/* A C host with sockets of its own. It includes the socket headers beside
 * velmora_prefixed.h, drives a controller through the library, and talks to
 * the same controller on a TCP connection it opens itself with connect().
 *
 * Build (Linux):   cc own_socket_host.c $(pkg-config --cflags --libs velmora-prefixed)
 *         CMake:   target_link_libraries(host PRIVATE Velmora::VelmoraPrefixed)
 * Both put the C library (ws2_32 on Windows) before Velmora on the link line,
 * so that connect() below is the socket call, not the library's.
 *
 * Usage: own_socket_host CONTROLLER_ADDRESS   (e.g. a velmora-sim on 127.0.0.2)
 * Exit status 0 when every check passed. */
#if defined(_WIN32)
#  include <winsock2.h>
#  include <ws2tcpip.h>
#  include <windows.h>
typedef SOCKET HostSocket;
#  define closeSocket closesocket
#  define sleepMs(ms) Sleep(ms)
#else
#  define _POSIX_C_SOURCE 200809L
#  include <arpa/inet.h>
#  include <netdb.h>
#  include <sys/socket.h>
#  include <sys/time.h>
#  include <time.h>
#  include <unistd.h>
typedef int HostSocket;
#  define INVALID_SOCKET (-1)
#  define closeSocket close
static void sleepMs(int ms)
{
    struct timespec t = { ms / 1000, (long)(ms % 1000) * 1000000L };
    nanosleep(&t, 0);
}
#endif

#include "velmora_prefixed.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(cond) \
    do { \
        if (!(cond)) { \
            fprintf(stderr, "own_socket_host:%d: check failed: %s\n", __LINE__, #cond); \
            ++failures; \
        } \
    } while (0)

/* A watchdog probe on the host's own connection: 0 when the controller
 * answers with the probe's letter. */
static int ownWatchdog(const char *address)
{
    static const char probe[8] = { 0, 0, 0, 0, 2, 0, 0, 0x70 };
    char reply[64];
    struct addrinfo hints, *found = 0;
    HostSocket fd;
    int n, ok;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(address, "60000", &hints, &found) != 0)
        return -1;
    fd = socket(found->ai_family, found->ai_socktype, found->ai_protocol);
    ok = fd != INVALID_SOCKET && connect(fd, found->ai_addr, (int)found->ai_addrlen) == 0;
    freeaddrinfo(found);
    if (!ok) {
        if (fd != INVALID_SOCKET)
            closeSocket(fd);
        return -2;
    }
    n = send(fd, probe, sizeof probe, 0) == (int)sizeof probe ? (int)recv(fd, reply, sizeof reply, 0) : -1;
    closeSocket(fd);
    return n >= 8 && reply[7] == 0x70 ? 0 : -3;
}

int main(int argc, char **argv)
{
    long int addresses[3] = { 1000000, 1000001, 1000002 };
    long int values[3] = { -5, 7, 2147483647L };
    long int back[3] = { 0, 0, 0 };
    bool connected = false;
    int i;
#if defined(_WIN32)
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
#endif
    if (argc < 2) {
        fprintf(stderr, "usage: own_socket_host CONTROLLER_ADDRESS\n");
        return 2;
    }
    printf("Velmora %s (built against %s)\n", velmoraVersion(), VELMORA_VERSION_STRING);
    CHECK(strcmp(velmoraVersion(), VELMORA_VERSION_STRING) == 0);

    CHECK(velmora_addTargetCnc(1, 2, argv[1], 0));
    for (i = 0; i < 100 && !connected; ++i) {   /* a simulator just started needs a moment */
        connected = velmora_connect(1);
        if (!connected)
            sleepMs(50);
    }
    CHECK(connected);
    CHECK(velmora_CheckTcpWdt(1) == 0);
    CHECK(velmora_writeVars(addresses, 3, values, 1) == 0);
    CHECK(velmora_readVars(addresses, 3, back, 1) == 0);
    CHECK(back[0] == -5 && back[1] == 7 && back[2] == 2147483647L);
    printf("read back: %ld %ld %ld\n", back[0], back[1], back[2]);
    printf("an empty read: %s\n", velmoraStatusText(velmora_readVars(addresses, 0, back, 1)));

    /* The host's own connection beside the library's. */
    CHECK(ownWatchdog(argv[1]) == 0);

    CHECK(velmora_disconnect(1));
    CHECK(velmora_CheckTcpWdt(1) == 7);
    CHECK(velmora_removeTargetCnc(1));
    CHECK(velmora_CheckTcpWdt(1) == 1);
#if defined(_WIN32)
    WSACleanup();
#endif
    if (failures != 0) {
        printf("own_socket_host: %d checks failed\n", failures);
        return 1;
    }
    printf("own_socket_host: all checks passed\n");
    return 0;
}
