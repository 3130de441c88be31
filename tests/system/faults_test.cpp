// A dialogue in which everything that the daemon asks of the system fails, one call after another.

#include "faulty_daemon.h"
#include "network.h"

#include <csignal>
#include <functional>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// One rule and whether it is known to be in its list.
struct Sent {
    std::string line;
    enum { kIn, kOut, kUnsure } state;
};

constexpr int kTerminal = 9;

class Faults : protected Namespace, public FaultyDaemon {
  protected:
    Faults() : client(socket_path) { client.patience = 5000; }

    // Sends a request and waits for its answer; when the object can't be found for now, until it
    // can. With `interrupted_` the same request has been sent before, and the broker killed.
    Client::Reply ask(const char *method, const std::string &name, int action, int type,
                      const std::string &rule = "", int handler = 0) {
        blobmsg_add_u8(&client.message, "action", static_cast<uint8_t>(action));
        blobmsg_add_u8(&client.message, "moudle", 0);
        blobmsg_add_u8(&client.message, "type", static_cast<uint8_t>(type));
        if (!name.empty())
            blobmsg_add_string(&client.message, "name", name.c_str());
        if (!rule.empty())
            blobmsg_add_string(&client.message, "rule", rule.c_str());
        if (handler)
            blobmsg_add_u32(&client.message, "cmd_handler", static_cast<uint32_t>(handler));
        if (interrupted_)
            interrupt(method);
        const auto reply = client.call(method);
        EXPECT_TRUE(reply.status != UBUS_STATUS_TIMEOUT || may_be_lost_)
            << method << " was never answered";
        if (reply.status == UBUS_STATUS_NOT_FOUND || reply.status == UBUS_STATUS_TIMEOUT ||
            reply.status == UBUS_STATUS_CONNECTION_FAILED) {
            EXPECT_TRUE(client.reconnect());
        }
        return reply;
    }

    // Sends the request that has been put together, and kills the broker at once.
    void interrupt(const char *method) {
        ubus_request unanswered;
        ubus_invoke_async(client.ctx, client.id, method, client.message.head, &unanswered);
        end_broker(SIGKILL);
        start_broker();
        EXPECT_TRUE(client.reconnect());
        interrupted_ = false;
    }

    void create(const std::string &name, int type) {
        creates_++;
        if (ask("create", name, 0, type).status != 0)
            return;
        created_++;
        rules_[name] = {};
    }

    void rule(const std::string &name, int type, const std::string &line) {
        const bool no = line.starts_with("no ");
        const std::string text = no ? line.substr(3) : line;
        const uint64_t before = failed();
        const auto reply = ask("action", name, 1, type, line);
        const bool disturbed = failed() != before;
        if (!rules_.contains(name))
            return; // a list that could not be made
        auto &sent = rules_[name];
        if (no) {
            for (auto &s : sent)
                if (s.line == text)
                    s.state = disturbed ? Sent::kUnsure : Sent::kOut;
            return;
        }
        // Not every failure is told: a standard list is silent about one, and so is a lookup.
        const bool silent = reply.status == 0 && reply.output.empty();
        const bool refused = reply.status == 0 && !reply.output.empty() && !reply.truncated;
        sent.push_back({text, disturbed && !refused ? Sent::kUnsure
                              : silent              ? Sent::kIn
                              : refused             ? Sent::kOut
                                                    : Sent::kUnsure});
    }

    // A listing that says it is whole must be: the one of the end, as no rule changes any more.
    void show(const char *method, const std::string &name, int action, int type) {
        const auto reply = ask(method, name, action, type);
        if (reply.status == 0 && !reply.truncated)
            shown_.push_back({method, name, action, type, reply.output});
    }

    // Makes lists, edits, shows and leaves them, by reply and by terminal files.
    std::vector<std::function<void()>> steps() {
        const std::string interface = "interface " + interface_;
        return {
            [&] { create("web", 0); },
            [&] { create("app", 1); },
            [&] { rule("web", 0, "permit tcp 10.0.0.0 255.0.0.0 any eq www"); },
            [=, this] { rule("web", 0, "permit ip " + interface + " " + interface); },
            [&] { rule("web", 0, "permit udp any gt 1000 any precedence 6 ttl lt 9"); },
            [&] { rule("app", 1, "permit  10.0.0.1 255.255.255.255"); },
            [&] { rule("app", 1, "deny  10.0.0.2 255.255.255.255"); },
            [&] { rule("app", 1, "no permit  10.0.0.1 255.255.255.255"); },
            [&] { move_address(); },
            [&] { show("action", "web", 4, 0); },
            [&] { ask("action", "web", 5, 0); }, // what memory is short for is left out
            [&] { ask("action", "", 5, 0, "", kTerminal); },
            [&] { show("showrunning", "", 0, 0); },
            [&] { ask("showrunning", "", 0, 0, "", kTerminal); },
            [&] { ask("action", "web", 2, 0); },
            [&] { ask("action", "app", 2, 1); },
            [&] { ask("gsync_init", "", 0, 0); },
        };
    }

    void talk() {
        for (const auto &step : steps())
            step();
    }

    void move_address() {
        if (reason || !moves_address_)
            return;
        SecondAddress second(interface_.c_str());
        EXPECT_TRUE(second.add());
        EXPECT_TRUE(second.remove());
    }

    void remove_lists() {
        for (const auto &[name, type] : {std::pair{"web", 0}, {"app", 1}})
            ask("destroy", name, 0, type);
    }

    // What the running configuration must be like after what has been said about each rule.
    void check_rules(const std::string &text) {
        for (const auto &[name, sent] : rules_) {
            const size_t start = text.find(" " + name + "\n");
            const std::string body = start == std::string::npos
                                         ? ""
                                         : text.substr(start, text.find("!\n", start) - start);
            size_t at = 0;
            for (const auto &s : sent) {
                const size_t found = body.find("\n " + s.line + "\n", at);
                const bool is_there = found != std::string::npos;
                EXPECT_TRUE(s.state == Sent::kUnsure || is_there == (s.state == Sent::kIn))
                    << name << ": " << s.line << "\n"
                    << text;
                at = is_there ? found + 1 : at; // in order
            }
        }
    }

    void check_listings() {
        for (const auto &[method, name, action, type, output] : shown_)
            EXPECT_EQ(ask(method, name, action, type).output, output);
    }

    // The calls that have been made to fail.
    uint64_t failed() const {
        uint64_t sum = 0;
        for (const auto &counter : block_->calls)
            sum += counter.failed;
        return sum;
    }

    // A dialogue, disturbed by what `arm` does, which must leave things as they were.
    void round(const std::function<void()> &arm, const std::function<void()> &disarm) {
        rules_.clear();
        shown_.clear();
        creates_ = created_ = 0;
        const int64_t before = settled_blocks();
        const size_t open = descriptors(daemon);
        arm();
        talk();
        disarm();
        ASSERT_EQ(waitpid(daemon, nullptr, WNOHANG), 0) << "the daemon is dead";
        ASSERT_TRUE(client.reconnect());
        check_rules(ask("showrunning", "", 0, 0).output);
        check_listings();
        remove_lists();
        EXPECT_EQ(ask("showrunning", "", 0, 0).output, "");
        // Each creation loses a record, unless that was what could not be allocated.
        const int64_t lost = settled_blocks() - before;
        EXPECT_LE(lost, creates_ + allowed_);
        EXPECT_GE(lost, created_ - 1);
        EXPECT_EQ(descriptors(daemon), open);
    }

    // Rounds in which `count` calls fail, from the nth on, until none is left to fail. How many.
    int rounds(faults::Call which, int error, uint64_t count) {
        auto &counter = block_->calls[which];
        for (uint64_t nth = 1;; nth++) {
            SCOPED_TRACE("call " + std::to_string(nth));
            round([&] { counter.arm(nth, count, error); }, [&] { counter.disarm(); });
            if (counter.failed == 0 || HasFailure())
                return static_cast<int>(nth - 1);
        }
    }

    // Leaves what is kept between requests allocated and open.
    void warm_up() {
        talk();
        remove_lists();
    }

    Client client;
    std::string interface_ = reason ? "lo" : "vlan10";
    bool interrupted_ = false; // the next request is to be sent twice
    bool moves_address_ = true;
    bool may_be_lost_ = false;      // a request need not be answered
    int creates_ = 0, created_ = 0; // creations asked for, and those that were answered with 0
    int allowed_ = 0;               // other blocks that a round may lose

  private:
    struct Shown {
        const char *method;
        std::string name;
        int action, type;
        std::string output;
    };
    std::map<std::string, std::vector<Sent>> rules_;
    std::vector<Shown> shown_;
};

TEST_F(Faults, EveryAllocationOfADialogueMayFail) {
    warm_up();
    const int single = rounds(faults::kMemory, ENOMEM, 1);
    EXPECT_GT(single, 100);
    moves_address_ = false; // which takes long
    RecordProperty("faults", single + rounds(faults::kMemory, ENOMEM, 3));
}

// The socket of the source side stays open, so that only its first use can fail.
TEST_F(Faults, TheFirstSocketForASourceInterfaceMayFail) {
    const std::string rule = "permit ip interface lo any";
    auto &sockets = block_->calls[faults::kSocket];
    create("web", 0);
    sockets.arm(1, 1, EMFILE);
    ask("action", "web", 1, 0, rule);
    EXPECT_EQ(sockets.failed, 1U);
    EXPECT_EQ(ask("showrunning", "", 0, 0).output, "ip access-list extended web\n!\n");
    ask("action", "web", 1, 0, rule);
    EXPECT_EQ(ask("showrunning", "", 0, 0).output,
              "ip access-list extended web\n " + rule + "\n!\n");
}

TEST_F(Faults, EveryAllocationOfAReconnectionMayFail) {
    warm_up();
    auto &memory = block_->calls[faults::kMemory];
    for (uint64_t nth = 1; !HasFailure(); nth++) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        memory.arm(nth, 1, ENOMEM);
        end_broker(SIGKILL);
        start_broker();
        ASSERT_TRUE(client.reconnect());
        memory.disarm();
        EXPECT_EQ(ask("gsync_init", "", 0, 0).status, 0);
        if (memory.failed == 0) {
            EXPECT_GT(nth, 1U);
            return;
        }
    }
}

struct SystemCall {
    const char *name;
    faults::Call call;
    int error;
    bool loses_requests; // the connection ends with it
    bool is_silent;      // a rule can be refused without a word, and its record is lost

    friend std::ostream &operator<<(std::ostream &out, const SystemCall &shown) {
        return out << shown.name;
    }
};

class EachOf : public Faults, public testing::WithParamInterface<SystemCall> {};

TEST_P(EachOf, MayFailInADialogue) {
    if (reason)
        GTEST_SKIP() << reason;
    const auto &fault = GetParam();
    may_be_lost_ = fault.loses_requests;
    client.patience = may_be_lost_ ? 300 : 5000;
    allowed_ = fault.is_silent ? 1 : 0;
    warm_up();
    const int number = rounds(fault.call, fault.error, 1);
    EXPECT_GT(number, 0) << "the dialogue makes no such call";
    RecordProperty("faults", number);
}

INSTANTIATE_TEST_SUITE_P(
    SystemCalls, EachOf,
    testing::Values(SystemCall{"socket", faults::kSocket, EMFILE, false, true},
                    SystemCall{"ioctl", faults::kIoctl, ENODEV, false, false},
                    SystemCall{"recvmsg_interrupted", faults::kRecvmsg, EINTR, false, false},
                    SystemCall{"recvmsg_overrun", faults::kRecvmsg, ENOBUFS, false, false},
                    SystemCall{"if_indextoname", faults::kIfIndexToName, ENXIO, false, false},
                    SystemCall{"fopen", faults::kFopen, ENOSPC, false, false},
                    SystemCall{"fflush", faults::kFflush, ENOSPC, false, false},
                    SystemCall{"fclose", faults::kFclose, ENOSPC, false, false},
                    SystemCall{"chmod", faults::kChmod, EPERM, false, false},
                    SystemCall{"mkdir", faults::kMkdir, EROFS, false, false},
                    SystemCall{"lstat", faults::kLstat, EACCES, false, false},
                    SystemCall{"sendmsg_interrupted", faults::kSendmsg, EINTR, false, false},
                    SystemCall{"sendmsg_no_memory", faults::kSendmsg, ENOBUFS, false, false},
                    SystemCall{"sendmsg_broken", faults::kSendmsg, EPIPE, true, false},
                    SystemCall{"recv_interrupted", faults::kRecv, EINTR, false, false},
                    SystemCall{"recv_broken", faults::kRecv, ECONNRESET, true, false},
                    SystemCall{"epoll_wait", faults::kEpollWait, EINTR, false, false}),
    [](const auto &fault) { return fault.param.name; });

// Any call of a start or a reconnection may fail: the daemon ends with an error or serves.
TEST_F(Faults, EveryCallOfAStartMayFail) {
    int faults_made = 0;
    for (int which = 0; which < faults::kCalls; which++) {
        auto &counter = block_->calls[which];
        for (uint64_t nth = 1; !HasFailure(); nth++) {
            SCOPED_TRACE("call " + std::to_string(nth) + " of kind " + std::to_string(which));
            end_daemon(SIGTERM);
            counter.arm(nth, 1, which == faults::kEpollWait ? EINTR : ENOMEM);
            launch_daemon();
            int status = 0;
            bool ended = false, serves = false;
            client.patience = 500;
            for (int i = 0; i < 500 && !ended && !serves; i++, usleep(5000)) {
                ended = waitpid(daemon, &status, WNOHANG) == daemon;
                serves = ubus_lookup_id(client.ctx, "L.IPACL", &client.id) == 0 &&
                         client.call("gsync_init").status == 0;
            }
            counter.disarm();
            daemon = ended ? 0 : daemon;
            EXPECT_TRUE(ended || serves) << "it hangs";
            EXPECT_TRUE(!ended || (WIFEXITED(status) && WEXITSTATUS(status) != 0)) << status;
            if (counter.failed == 0)
                break;
            faults_made++;
        }
    }
    EXPECT_GT(faults_made, 20);
    RecordProperty("faults", faults_made);
}

// Whoever calls while the daemon connects again may have to call once more.
TEST_F(Faults, EveryCallOfAReconnectionMayFail) {
    int faults_made = 0;
    may_be_lost_ = true;
    client.patience = 500;
    for (int which :
         {faults::kSocket, faults::kConnect, faults::kSendmsg, faults::kRecv, faults::kEpollCtl}) {
        auto &counter = block_->calls[which];
        for (uint64_t nth = 1; !HasFailure(); nth++) {
            SCOPED_TRACE("call " + std::to_string(nth) + " of kind " + std::to_string(which));
            counter.arm(nth, 1, ENOMEM);
            end_broker(SIGKILL);
            start_broker();
            ASSERT_TRUE(client.reconnect());
            if (ask("gsync_init", "", 0, 0).status != 0) {
                EXPECT_EQ(ask("gsync_init", "", 0, 0).status, 0);
            }
            counter.disarm();
            if (counter.failed == 0)
                break;
            faults_made++;
        }
    }
    EXPECT_GT(faults_made, 5);
}

// The outcome is that of a dialogue that nothing disturbed, wherever the broker is killed.
TEST_F(Faults, TheBrokerMayBeKilledAtEveryStepOfADialogue) {
    talk();
    const std::string undisturbed = running();
    remove_lists();
    for (size_t killed = 0; killed < steps().size() && !HasFailure(); killed++) {
        const auto all = steps();
        for (size_t i = 0; i < all.size(); i++) {
            interrupted_ = i == killed;
            all[i]();
        }
        EXPECT_EQ(running(), undisturbed) << "killed at step " << killed;
        remove_lists();
        EXPECT_EQ(running(), "");
    }
}

} // namespace
