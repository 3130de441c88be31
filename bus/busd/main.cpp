// ipacl-busd: a broker for the local message bus on hosts that have none.

#include "broker.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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
    signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

// Tells the service manager, where there is one, that clients may connect.
void report_ready() {
    const char *path = getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!path || strlen(path) >= sizeof address.sun_path)
        return;
    memcpy(address.sun_path, path, strlen(path));
    if (path[0] == '@')
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    sendto(fd, "READY=1", 7, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), size);
    close(fd);
}

} // namespace

int main(int argc, char **argv) {
    const char *path = getenv("UBUS_SOCKET");
    for (int option; (option = getopt(argc, argv, "hs:")) != -1;) {
        if (option == 's') {
            path = optarg;
        } else {
            fputs(kUsage, option == 'h' ? stdout : stderr);
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
        fprintf(stderr, "ipacl-busd: can't listen on %s: %s\n", path, strerror(error));
        return 1;
    }
    report_ready();
    broker.run(stop);
    return 0;
}
