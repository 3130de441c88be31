// The event loop over epoll.
//
// Level triggered, one descriptor a pass: epoll rotates what is ready, so no descriptor starves
// another, and a callback may remove any descriptor without leaving an event behind.

#include <libubox/uloop.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <sys/epoll.h>
#include <unistd.h>

bool uloop_cancelled;
bool uloop_handle_sigchld = true;

namespace {

int poll_fd = -1;
int wake_pipe[2] = {-1, -1};
int run_depth;
// The signal that ends the run; or the next one, when it came before that.
volatile sig_atomic_t ended_by;
uloop_fd wake;
list_head timers = {&timers, &timers};
list_head signals = {&signals, &signals};
volatile sig_atomic_t signal_pending[NSIG];

constexpr int kEnding[] = {SIGINT, SIGTERM};
struct sigaction saved[NSIG];
bool taken[NSIG];

void on_signal(int signo) {
    const int error = errno;
    signal_pending[signo] = 1;
    [[maybe_unused]] const ssize_t written = write(wake_pipe[1], "", 1);
    errno = error;
}

void on_ending_signal(int signo) {
    ended_by = signo;
    uloop_cancelled = true;
    on_signal(signo);
}

void install(int signo, void (*handler)(int), struct sigaction *previous) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, previous);
}

// Takes a signal over whose disposition is the default.
void take(int signo, void (*handler)(int)) {
    struct sigaction now {};
    sigaction(signo, nullptr, &now);
    if (now.sa_handler != SIG_DFL)
        return;
    install(signo, handler, &saved[signo]);
    taken[signo] = true;
}

void give_back(int signo) {
    if (taken[signo])
        sigaction(signo, &saved[signo], nullptr);
    taken[signo] = false;
}

void drain_pipe(uloop_fd *u, unsigned int) {
    char bytes[64];
    while (read(u->fd, bytes, sizeof bytes) > 0) {
    }
}

void deliver_signals() {
    uloop_signal *s, *following;
    list_for_each_entry_safe(s, following, &signals, list) {
        if (!signal_pending[s->signo])
            continue;
        signal_pending[s->signo] = 0;
        s->cb(s);
    }
}

int64_t milliseconds(const timeval &from, const timeval &to) {
    return (to.tv_sec - from.tv_sec) * int64_t{1000} + (to.tv_usec - from.tv_usec) / 1000;
}

timeval now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {ts.tv_sec, static_cast<suseconds_t>(ts.tv_nsec / 1000)};
}

bool earlier(const timeval &a, const timeval &b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

void run_timers() {
    const timeval current = now();
    while (!list_empty(&timers)) {
        auto *t = list_first_entry(&timers, uloop_timeout, list);
        if (milliseconds(current, t->time) > 0)
            return;
        uloop_timeout_cancel(t);
        if (t->cb)
            t->cb(t);
        if (uloop_cancelled)
            return;
    }
}

void serve(uloop_fd *u, uint32_t ready) {
    unsigned int events = 0;
    if (ready & EPOLLIN)
        events |= ULOOP_READ;
    if (ready & EPOLLOUT)
        events |= ULOOP_WRITE;
    if (ready & (EPOLLERR | EPOLLHUP)) {
        u->error = true;
        if (!(u->flags & ULOOP_ERROR_CB))
            uloop_fd_delete(u);
    }
    if (ready & EPOLLRDHUP)
        u->eof = true;
    u->cb(u, events);
}

void poll_once(int timeout) {
    epoll_event event{};
    if (epoll_wait(poll_fd, &event, 1, timeout) == 1)
        serve(static_cast<uloop_fd *>(event.data.ptr), event.events);
}

} // namespace

int uloop_init(void) {
    if (poll_fd >= 0)
        return 0;
    poll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (poll_fd < 0)
        return -1;
    if (pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
        uloop_done();
        return -1;
    }
    wake = {.cb = drain_pipe,
            .fd = wake_pipe[0],
            .eof = false,
            .error = false,
            .registered = false,
            .flags = 0};
    if (uloop_fd_add(&wake, ULOOP_READ) < 0) {
        uloop_done();
        return -1;
    }
    ended_by = 0;
    for (int signo : kEnding)
        take(signo, on_ending_signal);
    if (uloop_handle_sigchld)
        take(SIGCHLD, on_signal);
    struct sigaction pipe_action {};
    sigaction(SIGPIPE, nullptr, &pipe_action);
    if (pipe_action.sa_handler == SIG_DFL)
        install(SIGPIPE, SIG_IGN, nullptr);
    return 0;
}

void uloop_done(void) {
    for (int signo : kEnding)
        give_back(signo);
    give_back(SIGCHLD);
    for (int *fd : {&poll_fd, &wake_pipe[0], &wake_pipe[1]}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
    while (!list_empty(&timers))
        uloop_timeout_cancel(list_first_entry(&timers, uloop_timeout, list));
}

int uloop_run_timeout(int timeout) {
    uloop_cancelled = false;
    if (ended_by)
        uloop_cancelled = true;
    run_depth++;
    while (!uloop_cancelled) {
        run_timers();
        deliver_signals();
        if (uloop_cancelled)
            break;
        const int next = uloop_get_next_timeout();
        const bool timer_first = next >= 0 && (timeout < 0 || next < timeout);
        poll_once(timer_first ? next : timeout);
        if (timeout >= 0)
            break;
    }
    const int status = ended_by;
    if (--run_depth == 0)
        ended_by = 0;
    return status;
}

void uloop_end(void) { uloop_cancelled = true; }

bool uloop_cancelling(void) { return run_depth > 0 && uloop_cancelled; }

int uloop_fd_add(uloop_fd *sock, unsigned int flags) {
    if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
        return uloop_fd_delete(sock);
    if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
        const int mode = fcntl(sock->fd, F_GETFL, 0);
        fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK);
    }
    epoll_event event{};
    if (flags & ULOOP_READ)
        event.events |= EPOLLIN | EPOLLRDHUP;
    if (flags & ULOOP_WRITE)
        event.events |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER)
        event.events |= EPOLLET;
    event.data.ptr = sock;
    const int operation = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    const int result = epoll_ctl(poll_fd, operation, sock->fd, &event);
    if (result < 0)
        return result;
    sock->flags = static_cast<uint8_t>(flags);
    sock->registered = true;
    sock->eof = false;
    sock->error = false;
    return 0;
}

int uloop_fd_delete(uloop_fd *sock) {
    if (!sock->registered)
        return 0;
    sock->registered = false;
    return epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

int uloop_timeout_add(uloop_timeout *timeout) {
    if (timeout->pending)
        return -1;
    // Equal times fire in order of arming: go in front of the first later one.
    list_head *before = &timers;
    uloop_timeout *t;
    list_for_each_entry(t, &timers, list) {
        if (earlier(timeout->time, t->time)) {
            before = &t->list;
            break;
        }
    }
    list_add_tail(&timeout->list, before);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs) {
    if (timeout->pending)
        uloop_timeout_cancel(timeout);
    timeout->time = now();
    timeout->time.tv_sec += msecs / 1000;
    timeout->time.tv_usec += msecs % 1000 * 1000L;
    if (timeout->time.tv_usec >= 1'000'000) {
        timeout->time.tv_sec++;
        timeout->time.tv_usec -= 1'000'000;
    }
    return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(uloop_timeout *timeout) {
    if (!timeout->pending)
        return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int64_t uloop_timeout_remaining64(uloop_timeout *timeout) {
    return timeout->pending ? milliseconds(now(), timeout->time) : -1;
}

int uloop_get_next_timeout(void) {
    if (list_empty(&timers))
        return -1;
    const int64_t left = milliseconds(now(), list_first_entry(&timers, uloop_timeout, list)->time);
    return left < 0 ? 0 : left > INT32_MAX ? INT32_MAX : static_cast<int>(left);
}

int uloop_signal_add(uloop_signal *s) {
    if (s->pending)
        return -1;
    list_add_tail(&s->list, &signals);
    s->pending = true;
    install(s->signo, on_signal, &s->orig);
    return 0;
}

int uloop_signal_delete(uloop_signal *s) {
    if (!s->pending)
        return -1;
    list_del(&s->list);
    s->pending = false;
    sigaction(s->signo, &s->orig, nullptr);
    return 0;
}
