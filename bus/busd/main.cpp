// ipacl-busd: a broker for the local message bus on hosts that have none.

#include "broker.h"

#include "platform/linux/notify.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

constexpr const char *kUsage =
    "Usage: ipacl-busd [-s SOCKET]\n"
    "  -s SOCKET  listen here (default: $UBUS_SOCKET, or " UBUS_UNIX_SOCKET ")\n"
    "Only root and the user that runs the broker may connect.\n";

// SIGTERM and SIGINT, as a descriptor.
int stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

// A timer that runs out whenever the service manager wants a sign of life, or -1.
int watchdog_timer() {
    const int period = notify::watchdog_period();
    if (period <= 0)
        return -1;
    const timespec each{period / 1000, period % 1000 * 1'000'000L};
    const itimerspec times{each, each};
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    timerfd_settime(timer, 0, &times, nullptr);
    return timer;
}

} // namespace

int main(int argc, char **argv) {
    const char *path = getenv("UBUS_SOCKET");
    for (int option; (option = getopt(argc, argv, "hs:")) != -1;) {
        if (option == 's') {
            path = optarg;
        } else {
            (void)fputs(kUsage, option == 'h' ? stdout : stderr);
            return option == 'h' ? 0 : 2;
        }
    }
    if (!path) {
        path = UBUS_UNIX_SOCKET;
        mkdir("/var/run/ubus", 0755);
    }
    const int stop = stop_signals();
    busd::Broker broker;
    if (const int error = broker.listen(path)) {
        (void)fprintf(stderr, "ipacl-busd: can't listen on %s: %s\n", path, strerror(error));
        return 1;
    }
    notify::send("READY=1");
    broker.run(stop, watchdog_timer(), [] { notify::send(notify::kAlive); });
    return 0;
}
