/* The sockets of links within one host: Unix stream sockets under abstract
 * names, and what tells whether an address is this host's. */
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <stddef.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "os_socket.h"

/* The address of an abstract name: a zero byte, then the name, unended
 * (the length tells where it stops). */
static int abstract_address(const char* name, struct sockaddr_un* address, socklen_t* length) {
    const size_t size = name != NULL ? strlen(name) : 0;
    if (size == 0) {
        errno = EINVAL;
        return -1;
    }
    if (size > OS_SOCKET_LOCAL_NAME_MAX || size + 1 > sizeof address->sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path + 1, name, size);
    *length = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + size);
    return 0;
}

/* Closes fd keeping the errno of the call that failed. */
static int fail_closing(int fd) {
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

int os_socket_local_listen(const char* name, int backlog, RT_MODE mode) {
    (void)mode;
    struct sockaddr_un address;
    socklen_t length;
    if (abstract_address(name, &address, &length) != 0) return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (bind(fd, (const struct sockaddr*)&address, length) != 0 || listen(fd, backlog) != 0)
        return fail_closing(fd);
    return fd;
}

int os_socket_local_connect(const char* name, RT_MODE mode) {
    (void)mode;
    struct sockaddr_un address;
    socklen_t length;
    if (abstract_address(name, &address, &length) != 0) return -1;
    /* Non-blocking before the connect: a full listen queue then fails at
     * once instead of waiting for room. */
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int rc;
    do {
        rc = connect(fd, (const struct sockaddr*)&address, length);
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? fd : fail_closing(fd);
}

int os_socket_host_addresses(uint32_t* addresses, int max) {
    struct ifaddrs* all = NULL;
    if (getifaddrs(&all) != 0) return -1;
    int count = 0;
    for (const struct ifaddrs* entry = all; entry != NULL; entry = entry->ifa_next) {
        if (entry->ifa_addr == NULL || entry->ifa_addr->sa_family != AF_INET ||
            (entry->ifa_flags & IFF_UP) == 0)
            continue;
        if (addresses != NULL && count < max)
            addresses[count] = ((const struct sockaddr_in*)entry->ifa_addr)->sin_addr.s_addr;
        ++count;
    }
    freeifaddrs(all);
    return count;
}

int os_socket_source_address(uint32_t address, uint32_t* source) {
    if (source == NULL) {
        errno = EINVAL;
        return -1;
    }
    /* A datagram socket's connect only looks the route up. */
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    to.sin_addr.s_addr = address;
    struct sockaddr_in from;
    socklen_t length = sizeof from;
    if (connect(fd, (const struct sockaddr*)&to, sizeof to) != 0 ||
        getsockname(fd, (struct sockaddr*)&from, &length) != 0)
        return fail_closing(fd);
    close(fd);
    *source = from.sin_addr.s_addr;
    return 0;
}
