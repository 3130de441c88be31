// Every recorded exchange, played against our broker: what it sends must be the recorded bytes,
// but for ids, which are bound as they come, and the broker's own sequence numbers.

#include "busd_process.h"

#include <libubus.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

constexpr const char *kSetups[][2] = {
    // an exchange, and those that come before it, in order
    {"add_object_by_type_id", "add_object"},
    {"add_object_duplicate_path", "add_object"},
    {"cli_call_booleans", "add_object"},
    {"cli_call_numbers", "add_object"},
    {"cli_list_v", "add_object"},
    {"event_object_add", "listen ubus.object.*"},
    {"event_object_remove", "listen ubus.object.*,event_object_add"},
    {"event_send", "listen my.event*"},
    {"invoke_all_types", "add_object"},
    {"invoke_create_status_0", "add_object"},
    {"invoke_deferred", "add_object"},
    {"invoke_full_policy", "add_object"},
    {"invoke_no_message", "add_object"},
    {"invoke_reply_data", "add_object"},
    {"invoke_reply_data_twice", "add_object"},
    {"invoke_status_2", "add_object"},
    {"invoke_status_minus_1", "add_object"},
    {"invoke_unknown_method", "add_object"},
    {"lookup_all", "add_object"},
    {"lookup_object", "add_object"},
    {"lookup_wildcard", "add_object"},
    {"monitor_invoke", "add_object,connect C,monitor_add"},
    {"notify_no_reply", "add_object,subscribe"},
    {"notify_with_reply", "add_object,subscribe"},
    {"remove_object", "add_object"},
    {"remove_object_subscribed", "add_object,subscribe,listen ubus.object.*"},
    {"remove_object_type_kept", "add_object,add_object_by_type_id"},
    {"server_disconnect", "add_object,subscribe,listen ubus.object.*"},
    {"subscribe", "add_object"},
    {"unsubscribe", "add_object,subscribe"},
};

class Player {
  public:
    ~Player() {
        for (const auto &[who, fd] : connections_)
            close(fd);
    }

    void play(const std::string &name) {
        const Exchange exchange = read_exchange(name);
        if (name == "server_disconnect") {
            close(connections_.at('S'));
            connections_.erase('S');
        }
        for (const auto &line : exchange.lines) {
            if (line.to_broker)
                write_bytes(connection(line.who, false), substitute(exchange, line.bytes));
            else
                expect(exchange, line);
        }
    }

    // One step before the exchange itself.
    void prepare(const std::string &step) {
        if (step.starts_with("listen "))
            listen(step.substr(7));
        else if (step.starts_with("connect "))
            connection(step.back(), false);
        else
            play(step);
    }

  private:
    // L gets an anonymous object that listens to a pattern.
    void listen(const std::string &pattern) {
        const Exchange recorded = read_exchange("event_register");
        const int fd = connection('L', false);
        write_bytes(fd, recorded.lines[0].bytes);
        expect(recorded, recorded.lines[1]);
        expect(recorded, recorded.lines[2]);
        blob_buf data{}, body{};
        blobmsg_buf_init(&data);
        uint32_t id;
        bound_.at("LOBJ").copy(reinterpret_cast<char *>(&id), 4);
        blobmsg_add_u32(&data, "object", be32_to_cpu(id));
        blobmsg_add_string(&data, "pattern", pattern.c_str());
        blob_buf_init(&body, 0);
        blob_put_u32(&body, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
        blob_put_string(&body, UBUS_ATTR_METHOD, "register");
        blob_put(&body, UBUS_ATTR_DATA, blob_data(data.head),
                 static_cast<unsigned>(blob_len(data.head)));
        write_bytes(fd, from_hex("0005000200000001") +
                            Bytes(reinterpret_cast<char *>(body.head), blob_raw_len(body.head)));
        blob_buf_free(&data);
        blob_buf_free(&body);
        expect(recorded, recorded.lines.back());
    }

    int connection(char who, bool greeting_is_recorded) {
        const auto it = connections_.find(who);
        if (it != connections_.end())
            return it->second;
        const int fd = connections_[who] = connect_to(broker_.path());
        if (!greeting_is_recorded)
            bound_[std::string(1, who)] = read_message(fd).substr(4, 4);
        return fd;
    }

    Bytes substitute(const Exchange &exchange, Bytes bytes) const {
        for (const auto &[role, recorded] : exchange.ids)
            if (const auto it = bound_.find(role); it != bound_.end())
                for (size_t at = 0; (at = bytes.find(recorded, at)) != Bytes::npos; at += 4)
                    bytes.replace(at, 4, it->second);
        return bytes;
    }

    void expect(const Exchange &exchange, const Line &line) {
        const bool greeting = line.type() == UBUS_MSG_HELLO;
        Bytes actual = read_message(connection(line.who, greeting));
        ASSERT_GE(actual.size(), 12U) << "nothing came";
        // Bind the roles that turn up for the first time.
        for (const auto &[role, recorded] : exchange.ids) {
            const size_t at = line.bytes.find(recorded);
            if (at != Bytes::npos && !bound_.contains(role) && actual.size() >= at + 4)
                bound_[role] = actual.substr(at, 4);
        }
        Bytes expected = substitute(exchange, line.bytes);
        const bool own_number =
            line.type() == UBUS_MSG_NOTIFY || line.type() == UBUS_MSG_UNSUBSCRIBE ||
            line.type() == UBUS_MSG_MONITOR ||
            (line.type() == UBUS_MSG_INVOKE && expected.substr(4, 4) == Bytes(4, '\0'));
        if (own_number)
            expected.replace(2, 2, actual.substr(2, 2));
        EXPECT_EQ(to_hex(actual), to_hex(expected));
    }

    BrokerProcess broker_;
    std::map<char, int> connections_;
    std::map<std::string, Bytes> bound_;
};

class Replay : public testing::TestWithParam<std::string> {};

TEST_P(Replay, OurBrokerSendsTheRecordedBytes) {
    if (geteuid() != 0)
        GTEST_SKIP() << "the recorded user and group are root";
    Player player;
    for (const auto &[name, setup] : kSetups) {
        if (GetParam() != name)
            continue;
        std::istringstream steps(setup);
        for (std::string step; std::getline(steps, step, ',');)
            player.prepare(step);
    }
    player.play(GetParam());
}

std::vector<std::string> all_exchanges() {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(VECTORS))
        names.push_back(entry.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Broker, Replay, testing::ValuesIn(all_exchanges()),
                         [](const auto &exchange) { return exchange.param; });

} // namespace
