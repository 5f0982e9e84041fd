/* The host's own TCP socket, opened with the C library's connect().
 *
 * The Velmora library exports a function named `connect` as well, and this
 * program calls it. The linker keeps one `connect` symbol per program: a
 * reference pinned with .symver in this file is merged with the program's
 * reference to the library's function. So the C library's version is looked
 * up by its version node at run time. This file must not include velmora.h:
 * the two declarations of `connect` cannot meet in one translation unit. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#if defined(__x86_64__)
#define LIBC_CONNECT_VERSION "GLIBC_2.2.5"
#elif defined(__aarch64__)
#define LIBC_CONNECT_VERSION "GLIBC_2.17"
#else
#define LIBC_CONNECT_VERSION "GLIBC_2.0"
#endif

typedef int (*ConnectFn)(int, const struct sockaddr *, socklen_t);

/* Sends a watchdog probe on a connection of its own; 0 when the reply is
 * the probe's letter. */
int raw_watchdog(const char *ip)
{
    static const unsigned char probe[8] = { 0, 0, 0, 0, 2, 0, 0, 0x70 };
    unsigned char reply[64];
    struct sockaddr_in address;
    struct timeval timeout = { 2, 0 };
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ssize_t n;
    ConnectFn libcConnect = (ConnectFn)dlvsym(RTLD_DEFAULT, "connect", LIBC_CONNECT_VERSION);
    if (fd < 0)
        return -1;
    if (!libcConnect) {
        close(fd);
        return -1;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(60000);
    if (inet_pton(AF_INET, ip, &address.sin_addr) != 1
        || libcConnect(fd, (struct sockaddr *)&address, sizeof address) != 0
        || send(fd, probe, sizeof probe, 0) != (ssize_t)sizeof probe) {
        close(fd);
        return -2;
    }
    n = recv(fd, reply, sizeof reply, 0);
    close(fd);
    return n >= 8 && reply[7] == 0x70 ? 0 : -3;
}
