// The event loop.

#include <libubus.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::string events;

class Loop : public testing::Test {
  protected:
    Loop() {
        uloop_init();
        events.clear();
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_), 0);
        fd_.fd = pair_[0];
        fd_.cb = [](uloop_fd *u, unsigned int what) {
            char c;
            events += std::to_string(what);
            if (u->eof)
                events += "e";
            if (u->error)
                events += "x";
            if (read(u->fd, &c, 1) == 1)
                events += c;
            uloop_end();
        };
    }
    ~Loop() override {
        uloop_fd_delete(&fd_);
        for (int fd : pair_)
            if (fd >= 0)
                close(fd);
        uloop_done();
    }
    void close_peer() {
        close(pair_[1]);
        pair_[1] = -1;
    }
    int pair_[2];
    uloop_fd fd_{};
};

TEST_F(Loop, ADescriptorIsServedAndMadeNonblocking) {
    EXPECT_EQ(uloop_fd_add(&fd_, ULOOP_READ), 0);
    EXPECT_TRUE(fcntl(pair_[0], F_GETFL) & O_NONBLOCK);
    ASSERT_EQ(write(pair_[1], "a", 1), 1);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(events, "1a");
}

TEST_F(Loop, FlagsCanBeChangedAndNoneRemoves) {
    uloop_fd_add(&fd_, ULOOP_READ | ULOOP_BLOCKING);
    EXPECT_FALSE(fcntl(pair_[0], F_GETFL) & O_NONBLOCK);
    uloop_fd_add(&fd_, ULOOP_READ | ULOOP_WRITE);
    ASSERT_EQ(write(pair_[1], "b", 1), 1);
    uloop_run();
    EXPECT_EQ(events, "3b");
    uloop_fd_add(&fd_, 0);
    EXPECT_FALSE(fd_.registered);
}

TEST_F(Loop, AHalfCloseIsTheEnd) {
    uloop_fd_add(&fd_, ULOOP_READ);
    shutdown(pair_[1], SHUT_WR);
    uloop_run();
    EXPECT_EQ(events, "1e");
    EXPECT_TRUE(fd_.registered);
}

TEST_F(Loop, AFullCloseUnregistersUnlessAskedNotTo) {
    uloop_fd_add(&fd_, ULOOP_READ);
    close_peer();
    uloop_run();
    EXPECT_NE(events.find('x'), std::string::npos);
    EXPECT_FALSE(fd_.registered);
    uloop_fd_add(&fd_, ULOOP_READ | ULOOP_ERROR_CB);
    uloop_run();
    EXPECT_TRUE(fd_.registered);
}

TEST_F(Loop, TimersFireInOrderAndOnce) {
    static uloop_timeout first, second, third;
    for (auto *t : {&first, &second, &third})
        *t = {};
    first.cb = [](uloop_timeout *t) { events += t->pending ? "?" : "1"; };
    second.cb = [](uloop_timeout *) { events += "2"; };
    third.cb = [](uloop_timeout *) {
        events += "3";
        uloop_end();
    };
    uloop_timeout_set(&third, 20);
    uloop_timeout_set(&second, 0);
    uloop_timeout_set(&first, -5);
    EXPECT_EQ(uloop_timeout_add(&first), -1);
    EXPECT_GT(uloop_timeout_remaining64(&third), 0);
    uloop_run();
    EXPECT_EQ(events, "123");
    EXPECT_EQ(uloop_timeout_cancel(&first), -1);
    EXPECT_EQ(uloop_timeout_remaining64(&first), -1);
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(Loop, OnePassServesAtMostOneDescriptor) {
    uloop_fd_add(&fd_, ULOOP_READ);
    EXPECT_EQ(uloop_run_timeout(0), 0);
    EXPECT_EQ(events, "");
    ASSERT_EQ(write(pair_[1], "ab", 2), 2);
    uloop_run_timeout(1000);
    EXPECT_EQ(events, "1a");
}

TEST_F(Loop, SigtermEndsTheRunAndItsNumberIsReturned) {
    static uloop_timeout t;
    t = {};
    t.cb = [](uloop_timeout *) { raise(SIGTERM); };
    uloop_timeout_set(&t, 0);
    EXPECT_EQ(uloop_run(), SIGTERM);
}

// A service is asked to end as soon as its object is seen, which may be before it runs its loop.
TEST_F(Loop, SigtermBeforeTheRunEndsItAtOnce) {
    static uloop_timeout guard;
    guard = {};
    guard.cb = [](uloop_timeout *) {
        events += "late";
        uloop_end();
    };
    uloop_timeout_set(&guard, 2000);
    raise(SIGTERM);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_EQ(events, "");
    // It ended that run alone.
    uloop_timeout_set(&guard, 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(events, "late");
}

TEST_F(Loop, ASignalOfOnesOwnIsDeliveredFromTheLoop) {
    static uloop_signal s;
    s = {};
    s.signo = SIGTERM;
    s.cb = [](uloop_signal *) {
        events += "t";
        uloop_end();
    };
    EXPECT_EQ(uloop_signal_add(&s), 0);
    raise(SIGTERM);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(events, "t");
    EXPECT_EQ(uloop_signal_delete(&s), 0);
    EXPECT_EQ(uloop_signal_delete(&s), -1);
}

TEST_F(Loop, EachSignalWakesTheLoopAndReachesItsOwnCallback) {
    static uloop_signal first, second;
    first = second = {};
    first.signo = SIGUSR1;
    second.signo = SIGUSR2;
    first.cb = [](uloop_signal *) { events += "1"; };
    second.cb = [](uloop_signal *) {
        events += "2";
        uloop_end();
    };
    ASSERT_EQ(uloop_signal_add(&first), 0);
    ASSERT_EQ(uloop_signal_add(&second), 0);
    EXPECT_EQ(uloop_signal_add(&second), -1);
    static uloop_timeout later;
    later = {};
    later.cb = [](uloop_timeout *) { raise(SIGUSR2); };
    uloop_timeout_set(&later, 30);
    raise(SIGUSR1);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(events, "12");
    uloop_signal_delete(&first);
    uloop_signal_delete(&second);
}

TEST_F(Loop, WritingAloneIsServedAndAnEdgeIsToldOnce) {
    uloop_fd_add(&fd_, ULOOP_WRITE | ULOOP_EDGE_TRIGGER);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(events, "2");
    uloop_run_timeout(0);
    EXPECT_EQ(events, "2");
}

TEST_F(Loop, TimersAreOrderedBySecondsAndThenByMicroseconds) {
    static uloop_timeout late, soon, never, silent;
    late = soon = never = silent = {};
    late.cb = [](uloop_timeout *) { events += "l"; };
    soon.cb = [](uloop_timeout *) {
        events += "s";
        uloop_end();
    };
    uloop_timeout_set(&late, 5000);
    uloop_timeout_set(&soon, 20);
    uloop_timeout_set(&silent, -5); // without a callback
    EXPECT_EQ(uloop_get_next_timeout(), 0) << "overdue";
    never.time.tv_sec = late.time.tv_sec + 10'000'000;
    ASSERT_EQ(uloop_timeout_add(&never), 0);
    uloop_run();
    EXPECT_EQ(events, "s");
    EXPECT_FALSE(silent.pending);
    EXPECT_EQ(uloop_run_timeout(10), 0) << "the next timer is later";
    EXPECT_EQ(events, "s");
    uloop_timeout_cancel(&late);
    EXPECT_EQ(uloop_get_next_timeout(), INT32_MAX);
    EXPECT_GT(uloop_timeout_remaining64(&never), int64_t{INT32_MAX});
    uloop_timeout_cancel(&never);
}

TEST_F(Loop, ARunWithinARunLeavesTheOuterOneItsEnd) {
    static uloop_timeout t;
    t = {};
    t.cb = [](uloop_timeout *) {
        events += uloop_cancelling() ? "?" : "r";
        uloop_run_timeout(0);
        uloop_end();
        events += uloop_cancelling() ? "c" : "?";
    };
    uloop_timeout_set(&t, 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(events, "rc");
    EXPECT_FALSE(uloop_cancelling()) << "nothing runs";
}

TEST_F(Loop, SignalsThatSomebodyElseHandlesAreLeftToThem) {
    uloop_done();
    signal(SIGTERM, SIG_IGN);
    uloop_handle_sigchld = false;
    uloop_init();
    struct sigaction now;
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    uloop_done();
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
    signal(SIGTERM, SIG_DFL);
    uloop_handle_sigchld = true;
    uloop_init();
}

} // namespace
