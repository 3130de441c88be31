// Waits that signals interrupt: a timer raises one every few milliseconds, and its handler lets no
// system call be taken up again.

#include "spoken_broker.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <sys/time.h>

namespace {

class Interrupted : public Client {
  protected:
    Interrupted() {
        count = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { count = count + 1; };
        sigaction(SIGALRM, &action, &previous_);
        const timeval each{0, 2000};
        const itimerval often{each, each};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interrupted() override {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &previous_, nullptr);
    }
    // For the broker's thread, whose own waits are not the matter.
    static void block_signal() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }
    // Waits until some signals have come since this was called; not for ever, when none does.
    static void wait_for_signals() {
        const int until = count + 5;
        for (int i = 0; i < 1000 && count < until; i++)
            usleep(1000);
    }
    static int64_t now_ms() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * int64_t{1000} + now.tv_nsec / 1'000'000;
    }

    static inline std::atomic<int> count;

  private:
    struct sigaction previous_ {};
};

TEST_F(Interrupted, ABrokerThatGreetsLateIsWaitedFor) {
    connect([](int) {},
            [] {
                block_signal();
                wait_for_signals();
            });
    EXPECT_GE(count, 5);
}

TEST_F(Interrupted, AnAnswerThatComesLateIsWaitedFor) {
    connect(
        [](int fd) {
            for (int timed = 0; timed < 2; timed++) {
                wait_for_signals();
                answer(fd, object_and(7));
            }
        },
        block_signal);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
    EXPECT_EQ(id, 7U);
    EXPECT_EQ(ubus_invoke(ctx, 9, "m", nullptr, nullptr, nullptr, 600'000), 0);
}

TEST_F(Interrupted, AnAnswerThatNeverComesIsWaitedForAsLongAsWasAsked) {
    connect([](int fd) { read_all(fd); }, block_signal);
    const int64_t begin = now_ms();
    EXPECT_EQ(ubus_invoke(ctx, 9, "m", nullptr, nullptr, nullptr, 60), UBUS_STATUS_TIMEOUT);
    EXPECT_GE(now_ms() - begin, 60);
}

TEST_F(Interrupted, ABrokerThatReadsLateIsSentTheWholeMessage) {
    static size_t size;
    connect(
        [](int fd) {
            wait_for_signals();
            size = read_message(fd).size();
        },
        block_signal);
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "s", std::string(900'000, 'x').c_str());
    ubus_request request;
    EXPECT_EQ(ubus_invoke_async(ctx, 9, "m", buf.head, &request), 0);
    blob_buf_free(&buf);
    wait_for_broker();
    EXPECT_GT(size, 900'000U);
}

TEST_F(Interrupted, TheLoopRunsOnUntilItIsEnded) {
    uloop_init();
    static bool fired;
    fired = false;
    uloop_timeout end{};
    end.cb = [](uloop_timeout *) {
        fired = true;
        uloop_end();
    };
    uloop_timeout_set(&end, 60);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_TRUE(fired);
    EXPECT_GT(count, 0);
}

} // namespace
