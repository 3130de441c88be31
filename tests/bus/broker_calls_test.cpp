// The broker in a thread of this process, where its system calls can fail.

#include "bus/busd/broker.h"

#include "failing_calls.h"
#include "raw_client.h"

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <sys/resource.h>
#include <thread>

namespace {

class InThread : public testing::Test {
  protected:
    InThread() {
        char name[] = "/tmp/ipacl-bus-XXXXXX";
        directory_ = mkdtemp(name);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, stop_), 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, timer_), 0);
        ticks = 0;
        failing::failed();
    }
    ~InThread() override {
        stop();
        for (int fd : {stop_[0], stop_[1], timer_[0], timer_[1]})
            close(fd);
        for (int fd : open_)
            close(fd);
        broker.reset();
        rmdir(directory_.c_str());
    }

    int listen() {
        const failing::Here here;
        broker = std::make_unique<busd::Broker>();
        return broker->listen(path().c_str());
    }
    void run() {
        thread_ = std::thread([this] {
            const failing::Here here;
            broker->run(stop_[0], timer_[0], [] {
                ticks++;
                if (in_tick)
                    in_tick();
            });
        });
    }
    void start() {
        ASSERT_EQ(listen(), 0);
        run();
    }
    void stop() {
        if (thread_.joinable()) {
            write_bytes(stop_[1], "s");
            thread_.join();
        }
    }
    // `bytes` of a timer that has run out.
    void time_out(size_t bytes) { write_bytes(timer_[1], Bytes(bytes, '\1')); }
    int client() {
        open_.push_back(connect_to(path()));
        EXPECT_EQ(read_message(open_.back()).size(), 12U);
        return open_.back();
    }
    const std::string &directory() const { return directory_; }
    std::string path() const { return directory_ + "/bus.sock"; }

    std::unique_ptr<busd::Broker> broker;
    static inline std::atomic<int> ticks;
    static inline std::function<void()> in_tick; // what the broker waits for in a tick

  private:
    std::string directory_;
    int stop_[2], timer_[2];
    std::vector<int> open_;
    std::thread thread_;
};

bool is_served(int fd) {
    std::vector<Bytes> data;
    return request(fd, UBUS_MSG_PING, "", &data) == UBUS_STATUS_OK && data.size() == 1;
}

TEST_F(InThread, WhatListeningNeedsMayFail) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers need descriptors of their own";
#endif
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const int next = dup(0);
    close(next);
    for (rlim_t more : {0U, 1U}) { // no epoll, then no socket
        const rlimit full{static_cast<rlim_t>(next) + more, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &full);
        EXPECT_EQ(listen(), EMFILE);
        setrlimit(RLIMIT_NOFILE, &before);
    }
    failing::arm(failing::kListen, EADDRINUSE);
    EXPECT_EQ(listen(), EADDRINUSE);
    unlink(path().c_str());
    failing::arm(failing::kEpollCtl, ENOMEM);
    EXPECT_EQ(listen(), ENOMEM);
    broker.reset();
    EXPECT_NE(access(path().c_str(), F_OK), 0) << "the socket went with the broker";
    start();
    EXPECT_TRUE(is_served(client()));
}

TEST_F(InThread, WithoutASpareDescriptorACallerWaitsUntilThereIsOne) {
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const int next = dup(0);
    close(next);
    const rlimit no_spare{static_cast<rlim_t>(next) + 2, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &no_spare);
    ASSERT_EQ(listen(), 0);
    setrlimit(RLIMIT_NOFILE, &before);
    const int waiting = connect_to(path());
    failing::arm(failing::kAccept, EMFILE, 2);
    run();
    EXPECT_EQ(read_message(waiting).size(), 12U);
    EXPECT_TRUE(is_served(waiting));
    close(waiting);
}

TEST_F(InThread, ATickComesWhenTheTimerHasRunOut) {
    start();
    const int fd = client();
    time_out(1); // nothing that a timer says
    EXPECT_TRUE(is_served(fd) && is_served(fd));
    EXPECT_EQ(ticks, 0);
    time_out(sizeof(uint64_t));
    for (int i = 0; i < 500 && ticks == 0; i++)
        usleep(10000);
    EXPECT_EQ(ticks, 1);
}

TEST_F(InThread, ACallerThatIsGoneOrCanNotBeAskedForIsLeft) {
    start();
    const int good = client();
    for (int error : {ECONNABORTED, ENFILE}) {
        failing::arm(failing::kAccept, error);
        const int fd = connect_to(path());
        if (error == ENFILE) {
            EXPECT_EQ(read_message(fd), "") << "turned away";
        } else {
            EXPECT_EQ(read_message(fd).size(), 12U) << "served at the next attempt";
        }
        close(fd);
    }
    failing::arm(failing::kGetsockopt, ENOBUFS);
    const int nameless = connect_to(path());
    EXPECT_EQ(read_message(nameless), "");
    close(nameless);
    failing::arm(failing::kEpollCtl, ENOSPC);
    const int unwatched = connect_to(path());
    EXPECT_EQ(read_message(unwatched), "");
    close(unwatched);
    EXPECT_EQ(failing::failed(), 4);
    EXPECT_TRUE(is_served(good));
}

TEST_F(InThread, IdsThatCanNotBeUsedAreDrawnAgain) {
    constexpr uint32_t kFree = 0x00ABCDEF, kFirst = 0x0BCDEF01, kReadsAsOne = 0x01000000;
    failing::draw({kFirst, UBUS_SYSTEM_OBJECT_MAX - 1, kReadsAsOne, kFirst, kFree});
    start();
    std::vector<Bytes> ids;
    for (int i = 0; i < 2; i++) {
        const int fd = connect_to(path());
        ids.push_back(read_message(fd).substr(4, 4));
        EXPECT_TRUE(is_served(fd));
        if (i == 1)
            close(fd);
    }
    EXPECT_EQ(to_hex(ids[0]), "0bcdef01");
    EXPECT_EQ(to_hex(ids[1]), "00abcdef");
}

TEST_F(InThread, SendingGoesOnAfterAnInterruptionAndTheEndIsSeenByReading) {
    start();
    const int fd = client();
    for (failing::Call call : {failing::kSend, failing::kRecv})
        for (int error : {EINTR, EAGAIN}) {
            failing::arm(call, error);
            EXPECT_TRUE(is_served(fd));
        }
    failing::arm(failing::kSend, EPIPE);
    write_bytes(fd, message(UBUS_MSG_PING, 3));
    EXPECT_EQ(read_message(fd)[1], UBUS_MSG_STATUS) << "the echo is lost";
    EXPECT_EQ(failing::failed(), 5);
    failing::arm(failing::kRecv, ECONNRESET);
    write_bytes(fd, message(UBUS_MSG_PING, 3));
    EXPECT_EQ(read_message(fd), "");
    EXPECT_TRUE(is_served(client()));
}

TEST_F(InThread, AQueueGoesOnAfterAnInterruptionAndEndsWithItsConnection) {
    start();
    const int good = client();
    for (int error : {EAGAIN, EINTR, EPIPE}) {
        const int deaf = client();
        const Bytes ping = message(UBUS_MSG_PING, 1, Bytes(400000, '\0'));
        write_bytes(deaf, ping);
        EXPECT_TRUE(is_served(good)); // the echo is queued now
        failing::arm(failing::kSend, error);
        const Bytes echo = read_message(deaf);
        EXPECT_EQ(failing::failed(), 1);
        if (error == EPIPE) {
            EXPECT_LT(echo.size(), ping.size());
        } else {
            EXPECT_EQ(echo.size(), ping.size());
        }
    }
    EXPECT_TRUE(is_served(good));
}

// What comes in one pass of the loop: a client goes, and others are told what it was to hear.
TEST_F(InThread, WhatIsForAClientThatHasJustGoneVanishes) {
    start();
    const int caller = connect_to(path()), watcher = connect_to(path()), fd = client();
    read_message(caller);
    read_message(watcher);
    const bool root = geteuid() == 0; // who else may watch?
    const Bytes add =
        object_and(UBUS_SYSTEM_OBJECT_MONITOR, text_attribute(UBUS_ATTR_METHOD, "add"));
    if (root) {
        EXPECT_EQ(request(watcher, UBUS_MSG_INVOKE, add), UBUS_STATUS_OK);
    }
    const uint32_t id = add_object(fd);
    write_bytes(caller,
                message(UBUS_MSG_INVOKE, 3, object_and(id, text_attribute(UBUS_ATTR_METHOD, "m"))));
    Bytes answer = message(UBUS_MSG_STATUS, 3, object_and(id, attribute(UBUS_ATTR_STATUS, 0)));
    answer.replace(4, 4, read_message(fd).substr(4, 4));
    const int last = client();
    if (root) {
        EXPECT_EQ(request(last, UBUS_MSG_INVOKE, add), UBUS_STATUS_OK);
    }
    std::promise<void> entered, leave;
    in_tick = [&] {
        entered.set_value();
        leave.get_future().wait();
    };
    time_out(sizeof(uint64_t));
    entered.get_future().wait();
    close(caller);
    close(watcher);
    write_bytes(fd, answer);
    leave.set_value();
    EXPECT_TRUE(is_served(fd));
    in_tick = nullptr;
}

TEST_F(InThread, ABrokerOfAnotherUserAdmitsThatUserButNotToWatch) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    ASSERT_EQ(chown(directory().c_str(), 65534, 65534), 0);
    ASSERT_EQ(seteuid(65534), 0);
    start();
    const int fd = connect_to(path());
    EXPECT_EQ(read_message(fd).size(), 12U);
    EXPECT_EQ(
        request(fd, UBUS_MSG_INVOKE,
                object_and(UBUS_SYSTEM_OBJECT_MONITOR, text_attribute(UBUS_ATTR_METHOD, "add"))),
        UBUS_STATUS_PERMISSION_DENIED);
    close(fd);
    stop();
    broker.reset();
    ASSERT_EQ(seteuid(0), 0);
}

} // namespace
