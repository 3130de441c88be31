// Datagrams to the service manager. The daemon and the broker each have a copy, so this file needs
// nothing but the C library.

#include "notify.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int notify::watchdog_period() {
    const char *micros = getenv("WATCHDOG_USEC");
    const char *pid = getenv("WATCHDOG_PID");
    if (!micros || (pid && strtol(pid, nullptr, 10) != getpid()))
        return 0;
    constexpr unsigned long long kMost = INT_MAX;
    return static_cast<int>(std::min(strtoull(micros, nullptr, 10) / 2000, kMost));
}

void notify::send(const char *state) {
    const char *path = getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!path || strlen(path) >= sizeof address.sun_path)
        return;
    memcpy(address.sun_path, path, strlen(path));
    if (*path == '@')
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    sendto(fd, state, strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr *>(&address), size);
    close(fd);
}
