#include "failing_calls.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace failing {
namespace {

thread_local bool here;
std::atomic<int> countdown[kCalls], errors[kCalls], failures;
std::vector<uint32_t> drawn; // the last one comes first

bool fails(Call call) {
    if (!here || countdown[call] == 0)
        return false;
    countdown[call]--;
    errno = errors[call];
    failures++;
    return true;
}

} // namespace

void arm(Call call, int error, int times) {
    errors[call] = error;
    countdown[call] = times;
}

int failed() { return failures.exchange(0); }

void draw(const std::vector<uint32_t> &words) { drawn.assign(words.rbegin(), words.rend()); }

Here::Here() { here = true; }
Here::~Here() { here = false; }

} // namespace failing

using namespace failing;

extern "C" {

int listen(int fd, int backlog) noexcept {
    return fails(kListen) ? -1 : static_cast<int>(syscall(SYS_listen, fd, backlog));
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags) {
    return fails(kAccept) ? -1 : static_cast<int>(syscall(SYS_accept4, fd, address, size, flags));
}

int getsockopt(int fd, int level, int name, void *value, socklen_t *size) noexcept {
    return fails(kGetsockopt)
               ? -1
               : static_cast<int>(syscall(SYS_getsockopt, fd, level, name, value, size));
}

int epoll_ctl(int set, int what, int fd, epoll_event *event) noexcept {
    return fails(kEpollCtl) ? -1 : static_cast<int>(syscall(SYS_epoll_ctl, set, what, fd, event));
}

ssize_t send(int fd, const void *bytes, size_t size, int flags) {
    return fails(kSend) ? -1 : syscall(SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    return fails(kSend) ? -1 : syscall(SYS_sendmsg, fd, message, flags);
}

ssize_t recv(int fd, void *bytes, size_t size, int flags) {
    return fails(kRecv) ? -1 : syscall(SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr);
}

ssize_t getrandom(void *bytes, size_t size, unsigned flags) {
    if (!here || drawn.empty() || size != sizeof(uint32_t))
        return syscall(SYS_getrandom, bytes, size, flags);
    memcpy(bytes, &drawn.back(), size);
    drawn.pop_back();
    return static_cast<ssize_t>(size);
}

} // extern "C"
