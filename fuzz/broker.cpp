// Bytes into the broker: up to four clients connect, send sound messages and any bytes in any
// pieces, read or don't, and go. What they are sent is a sequence of whole messages.
//
// The broker runs as it is, in this thread: whenever it would wait, the next step of the input is
// taken, and when there is none it is told to stop. Ids are given out in sequence, so that an input
// can name them.

#include "wire.h"

#include "bus/busd/broker.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr const char *kPath = "/fuzz/bus.sock"; // exists nowhere
uint32_t next_id;

// A socket name of this process that leaves no file behind.
socklen_t private_address(sockaddr_un &address) {
    address.sun_family = AF_UNIX;
    const int length =
        snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "ipacl-fuzz-%d", getpid());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
                                  static_cast<size_t>(length));
}

struct Peer {
    int fd = -1;
    bool reads = true;
    fuzz::Framing heard;
};

class Script {
  public:
    explicit Script(fuzz::Input &in) : in_(in) {
        stop_ = eventfd(0, EFD_CLOEXEC);
        connect(peers_[0]);
    }
    ~Script() {
        for (Peer &peer : peers_)
            disconnect(peer);
        close(stop_);
    }
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;

    int stop() const { return stop_; }

    // What happens while the broker waits.
    void step() {
        for (Peer &peer : peers_)
            if (peer.reads)
                read(peer);
        if (in_.empty()) {
            eventfd_write(stop_, 1);
            return;
        }
        Peer &peer = peers_[in_.below(kPeers)];
        switch (in_.below(8)) {
        case 0:
            connect(peer);
            break;
        case 1:
            disconnect(peer);
            break;
        case 2:
            shutdown(peer.fd, SHUT_WR);
            break;
        case 3:
            peer.reads = in_.below(2);
            break;
        default:
            send(peer);
        }
    }

  private:
    static constexpr size_t kPeers = 4;

    void connect(Peer &peer) {
        disconnect(peer);
        sockaddr_un address{};
        const socklen_t length = private_address(address);
        peer.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        fuzz::require(::connect(peer.fd, reinterpret_cast<sockaddr *>(&address), length) == 0,
                      "the broker listens");
    }
    void disconnect(Peer &peer) {
        if (peer.fd >= 0)
            close(peer.fd);
        peer = Peer{};
    }
    void read(Peer &peer) {
        char bytes[4096];
        for (ssize_t got; peer.fd >= 0 && (got = recv(peer.fd, bytes, sizeof bytes, 0)) > 0;)
            peer.heard.take({bytes, static_cast<size_t>(got)});
    }
    void send(Peer &peer) {
        const std::string bytes = fuzz::traffic(in_);
        for (uint8_t times = in_.below(8) == 7 ? 32 : 1; peer.fd >= 0 && times > 0; times--)
            ::send(peer.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    fuzz::Input &in_;
    int stop_;
    std::array<Peer, kPeers> peers_;
};

Script *script;

} // namespace

// The system calls that decide where, when and as whom.
extern "C" {

int bind(int fd, const sockaddr *, socklen_t) noexcept {
    sockaddr_un address{};
    const socklen_t length = private_address(address);
    return static_cast<int>(syscall(SYS_bind, fd, &address, length));
}

int unlink(const char *path) noexcept {
    return strcmp(path, kPath) == 0 ? 0 : unlinkat(AT_FDCWD, path, 0);
}

int epoll_wait(int fd, epoll_event *events, int max, int) {
    for (;;) {
        const auto count =
            static_cast<int>(syscall(SYS_epoll_pwait, fd, events, max, 0, nullptr, 0));
        if (count != 0)
            return count;
        script->step();
    }
}

// As little room as there can be, so that a client that doesn't read is soon full.
int accept4(int fd, sockaddr *address, socklen_t *length, int flags) {
    const auto accepted = static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
    const int least = 1;
    if (accepted >= 0)
        setsockopt(accepted, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    return accepted;
}

ssize_t getrandom(void *bytes, size_t size, unsigned int) {
    const uint32_t id = fuzz::kFirstId + next_id++;
    memcpy(bytes, &id, std::min(size, sizeof id));
    return static_cast<ssize_t>(size);
}

passwd *getpwuid(uid_t) {
    static char root[] = "root";
    static passwd user{};
    user.pw_name = root;
    return &user;
}

group *getgrgid(gid_t) {
    static char root[] = "root";
    static group users{};
    users.gr_name = root;
    return &users;
}

} // extern "C"

void fuzz::play(Input &in) {
    next_id = 0;
    busd::Broker broker;
    fuzz::require(broker.listen(kPath) == 0, "the broker can listen");
    Script steps(in);
    script = &steps;
    broker.run(steps.stop(), -1, nullptr);
    script = nullptr;
}
