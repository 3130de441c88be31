// The bus library against a broker that is a few lines of a test, spoken into a socket.
#pragma once

#include "raw_client.h"

#include <cstdlib>
#include <functional>
#include <future>
#include <thread>

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

    // Connects to a broker that does `begin`, greets, then does `speak` with its end, and hangs up.
    void connect(
        const std::function<void(int)> &speak, const std::function<void()> &begin = [] {}) {
        broker_ = std::thread([this, speak, begin] {
            begin();
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
    int listener_;

  private:
    std::string directory_;
    std::promise<void> greeted_; // and the library has read the greeting
    std::thread broker_;
};

// Reads one request and answers it, under its number and to its peer, with these attributes; a
// status of 0 follows.
inline void answer(int fd, const Bytes &body) {
    const Bytes request = read_message(fd);
    for (int type : {UBUS_MSG_DATA, UBUS_MSG_STATUS}) {
        Bytes bytes = message(type, 0, type == UBUS_MSG_DATA ? body : from_hex("0100000800000000"));
        write_bytes(fd, bytes.replace(2, 6, request.substr(2, 6)));
    }
}

// Reads to the end of the connection.
inline std::vector<Bytes> read_all(int fd) {
    std::vector<Bytes> all;
    for (Bytes bytes; !(bytes = read_message(fd)).empty();)
        all.push_back(bytes);
    return all;
}
