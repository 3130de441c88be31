// What the service manager is told: readiness, and signs of life.

#include "notify.h"

#include "platform/syncinit.h"
#include "platform/sys.h"

#include <libubus.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr const char *kAlive = "WATCHDOG=1";

uloop_timeout watchdog_timer;
int watchdog_period; // milliseconds; 0: nobody watches

void kick(uloop_timeout *timer) {
    notify::send(kAlive);
    uloop_timeout_set(timer, watchdog_period);
}

// Half of the time within which the service manager wants to hear of this process.
int wanted_period() {
    const char *micros = getenv("WATCHDOG_USEC");
    const char *pid = getenv("WATCHDOG_PID");
    if (!micros || (pid && strtol(pid, nullptr, 10) != getpid()))
        return 0;
    return static_cast<int>(strtoull(micros, nullptr, 10) / 2000);
}

} // namespace

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

void syncinit_finish(void) {
    notify::send("READY=1");
    watchdog_period = wanted_period();
    if (watchdog_period > 0) {
        watchdog_timer.cb = kick;
        uloop_timeout_set(&watchdog_timer, watchdog_period);
    }
}

// Called once a list in long listings: tells the manager at most once a second.
void reset_watch_dog(void) {
    static time_t last;
    if (watchdog_period == 0)
        return;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec != last)
        notify::send(kAlive);
    last = now.tv_sec;
}
