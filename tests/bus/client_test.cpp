// The bus library under a broker that misbehaves: a few lines of one, spoken into a socket.

#include "exchange.h"

#include <libubus.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <thread>

namespace {

class Client : public testing::Test {
  protected:
    Client() {
        char name[] = "/tmp/ipacl-client-XXXXXX";
        directory_ = mkdtemp(name);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = unix_address(path());
        bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        listen(listener_, 4);
    }
    ~Client() override {
        if (ctx)
            ubus_free(ctx);
        if (broker_.joinable())
            broker_.join();
        uloop_done();
        close(listener_);
        unlink(path().c_str());
        rmdir(directory_.c_str());
    }

    // Connects to a broker that greets, then does `speak` with its end, and hangs up.
    void connect(const std::function<void(int)> &speak) {
        broker_ = std::thread([this, speak] {
            const int fd = accept(listener_, nullptr, nullptr);
            write_bytes(fd, from_hex("000000000000100000000004"));
            greeted_.get_future().wait();
            speak(fd);
            close(fd);
        });
        ctx = ubus_connect(path().c_str());
        greeted_.set_value();
        ASSERT_NE(ctx, nullptr);
    }
    void wait_for_broker() { broker_.join(); }
    std::string path() const { return directory_ + "/bus.sock"; }

    // Runs the loop until the connection is lost, for at most two seconds. True when it was lost.
    bool is_lost() {
        static bool lost;
        lost = false;
        ctx->connection_lost = [](ubus_context *) {
            lost = true;
            uloop_end();
        };
        uloop_timeout limit{};
        limit.cb = [](uloop_timeout *) { uloop_end(); };
        uloop_timeout_set(&limit, 2000);
        ubus_add_uloop(ctx);
        uloop_run();
        uloop_timeout_cancel(&limit);
        return lost;
    }

    ubus_context *ctx = nullptr;

  private:
    std::string directory_;
    int listener_;
    std::promise<void> greeted_; // and the library has read the greeting
    std::thread broker_;
};

// A status that answers nothing.
const char *const kStrayStatus = "0001004d000000000000000c0100000800000000";

TEST_F(Client, TheEndIsNoticed) {
    connect([](int) {});
    wait_for_broker();
    EXPECT_TRUE(is_lost());
}

TEST_F(Client, TheEndIsNoticedBehindALastMessage) {
    connect([](int fd) { write_bytes(fd, from_hex(kStrayStatus)); });
    wait_for_broker();
    EXPECT_TRUE(is_lost());
}

TEST_F(Client, TheEndIsNoticedBehindMoreThanOneRead) {
    connect([](int fd) {
        for (int i = 0; i < 5000; i++) // 100 kB
            write_bytes(fd, from_hex(kStrayStatus));
    });
    EXPECT_TRUE(is_lost());
}

} // namespace
