// Recorded exchanges against our client and server library: a broker made of the recording speaks
// its lines, and what the library sends must be the recorded bytes, but for sequence numbers.

#include "exchange.h"

#include <libubus.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <ostream>
#include <thread>

namespace {

int serve_nothing(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    return 0;
}
int serve_status_2(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    return 2;
}
int serve_minus_1(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    return -1;
}

blob_buf buf;

int serve_list(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
               blob_attr *) {
    blobmsg_buf_init(&buf);
    blobmsg_add_u32(&buf, "count", 1);
    void *array = blobmsg_open_array(&buf, "lists");
    void *table = blobmsg_open_table(&buf, nullptr);
    blobmsg_add_string(&buf, "name", "web");
    blobmsg_add_u8(&buf, "type", 0);
    blobmsg_close_table(&buf, table);
    blobmsg_close_array(&buf, array);
    ubus_send_reply(ctx, req, buf.head);
    return 0;
}
int serve_parts(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *) {
    for (uint32_t part : {1U, 2U}) {
        blobmsg_buf_init(&buf);
        blobmsg_add_u32(&buf, "part", part);
        ubus_send_reply(ctx, req, buf.head);
    }
    return 0;
}

ubus_request_data deferred;

int serve_later(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
                blob_attr *) {
    ubus_defer_request(ctx, req, &deferred);
    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "late", "yes");
    ubus_send_reply(ctx, &deferred, buf.head);
    ubus_complete_deferred_request(ctx, &deferred, 0);
    return 7; // not looked at
}

const blobmsg_policy policy[] = {
    {.name = "name", .type = BLOBMSG_TYPE_STRING},
    {.name = "action", .type = BLOBMSG_TYPE_INT8},
    {.name = "moudle", .type = BLOBMSG_TYPE_INT8},
    {.name = "type", .type = BLOBMSG_TYPE_INT8},
    {.name = "rule", .type = BLOBMSG_TYPE_STRING},
    {.name = "rule_struct", .type = BLOBMSG_TYPE_UNSPEC},
    {.name = "cmd_handler", .type = BLOBMSG_TYPE_INT32},
};

const ubus_method methods[] = {
    UBUS_METHOD("create", serve_nothing, policy),
    UBUS_METHOD("destroy", serve_status_2, policy),
    UBUS_METHOD("action", serve_minus_1, policy),
    UBUS_METHOD("gsync_init", serve_later, policy),
    UBUS_METHOD("gsync_decode", serve_parts, policy),
    UBUS_METHOD("showrunning", serve_list, policy),
};

// What the library does in an exchange. It is on the side of `who`.
struct Role {
    const char *exchange;
    char who;
    const char *before; // exchanges that come first, on the same side
    std::function<void(struct Side &)> act;

    friend std::ostream &operator<<(std::ostream &out, const Role &shown) {
        return out << shown.exchange << " as " << shown.who;
    }
};

struct Side {
    ubus_context *ctx;
    Exchange exchange;
    ubus_object_type type = UBUS_OBJECT_TYPE("L.IPACL", methods);
    ubus_object object{};
    ubus_subscriber subscriber{};
    ubus_event_handler listener{};

    uint32_t id(const char *role) const {
        uint32_t value;
        exchange.ids.at(role).copy(reinterpret_cast<char *>(&value), 4);
        return be32_to_cpu(value);
    }
};

void fill_call() {
    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "name", "web");
    blobmsg_add_u8(&buf, "action", 0);
    blobmsg_add_u8(&buf, "moudle", 0);
    blobmsg_add_u8(&buf, "type", 0);
}

void add_object(Side &s) {
    s.object.name = "L.IPACL";
    s.object.type = &s.type;
    s.object.methods = methods;
    s.object.n_methods = ARRAY_SIZE(methods);
    ubus_add_object(s.ctx, &s.object);
}

void invoke(Side &s, const char *method, blob_attr *message) {
    ubus_invoke(s.ctx, s.id("OBJ"), method, message, nullptr, nullptr, 2000);
}

void send_event(Side &s, const char *name, bool fields) {
    blob_buf data{};
    blobmsg_buf_init(&data);
    if (fields) {
        blobmsg_add_u32(&data, "k", 7);
        if (std::string(name) == "my.event.x")
            blobmsg_add_string(&data, "s", "v");
    }
    ubus_send_event(s.ctx, name, data.head);
    blob_buf_free(&data);
}

void notify(Side &s, uint32_t n, int timeout) {
    blobmsg_buf_init(&buf);
    blobmsg_add_u32(&buf, "n", n);
    ubus_notify(s.ctx, &s.object, "changed", buf.head, timeout);
}

void look_up(Side &s, const char *path) {
    ubus_lookup(
        s.ctx, path, [](ubus_context *, ubus_object_data *, void *) {}, nullptr);
}

void serve(Side &s) { // until the broker has heard the answer and closes
    ubus_add_uloop(s.ctx);
    uloop_run();
}

const Role kRoles[] = {
    {"connect_hello", 'C', "", [](Side &) {}},
    {"add_object", 'S', "", add_object},
    {"add_object_anonymous", 'S', "", [](Side &s) { ubus_add_object(s.ctx, &s.object); }},
    {"lookup_object", 'C', "",
     [](Side &s) {
         uint32_t id = 0;
         ubus_lookup_id(s.ctx, "L.IPACL", &id);
         EXPECT_EQ(id, s.id("OBJ"));
     }},
    {"lookup_not_found", 'C', "",
     [](Side &s) {
         uint32_t id = 5;
         EXPECT_EQ(ubus_lookup_id(s.ctx, "L.NONE", &id), UBUS_STATUS_NOT_FOUND);
         EXPECT_EQ(id, 5U);
     }},
    {"lookup_wildcard", 'C', "", [](Side &s) { look_up(s, "L.*"); }},
    {"lookup_all", 'C', "", [](Side &s) { look_up(s, nullptr); }},
    {"lookup_empty_broker_all", 'C', "", [](Side &s) { look_up(s, nullptr); }},
    {"lookup_empty_broker_star", 'C', "", [](Side &s) { look_up(s, "*"); }},
    {"invoke_create_status_0", 'C', "",
     [](Side &s) {
         fill_call();
         invoke(s, "create", buf.head);
     }},
    {"invoke_create_status_0", 'S', "add_object", serve},
    {"invoke_status_2", 'S', "add_object", serve},
    {"invoke_status_2", 'C', "",
     [](Side &s) {
         fill_call();
         EXPECT_EQ(ubus_invoke(s.ctx, s.id("OBJ"), "destroy", buf.head, nullptr, nullptr, 0), 2);
     }},
    {"invoke_status_minus_1", 'S', "add_object", serve},
    {"invoke_status_minus_1", 'C', "",
     [](Side &s) {
         fill_call();
         EXPECT_EQ(ubus_invoke(s.ctx, s.id("OBJ"), "action", buf.head, nullptr, nullptr, 0), -1);
     }},
    {"invoke_reply_data", 'S', "add_object", serve},
    {"invoke_reply_data", 'C', "",
     [](Side &s) {
         fill_call();
         int count = 0;
         ubus_invoke(
             s.ctx, s.id("OBJ"), "showrunning", buf.head,
             [](ubus_request *req, int, blob_attr *) { ++*static_cast<int *>(req->priv); }, &count,
             0);
         EXPECT_EQ(count, 1);
     }},
    {"invoke_reply_data_twice", 'S', "add_object", serve},
    {"invoke_deferred", 'S', "add_object", serve},
    {"invoke_no_message", 'C', "", [](Side &s) { invoke(s, "create", nullptr); }},
    {"invoke_no_message", 'S', "add_object", serve},
    {"invoke_unknown_method", 'S', "add_object", serve},
    {"invoke_unknown_object", 'C', "",
     [](Side &s) {
         blobmsg_buf_init(&buf);
         blobmsg_add_string(&buf, "name", "web");
         EXPECT_EQ(ubus_invoke(s.ctx, 0x12345678, "create", buf.head, nullptr, nullptr, 0),
                   UBUS_STATUS_NOT_FOUND);
     }},
    {"invoke_all_types", 'S', "add_object", serve},
    {"invoke_full_policy", 'S', "add_object", serve},
    {"event_register", 'L', "",
     [](Side &s) { ubus_register_event_handler(s.ctx, &s.listener, "my.event*"); }},
    {"event_send", 'C', "", [](Side &s) { send_event(s, "my.event.x", true); }},
    {"event_send_no_listener", 'C', "", [](Side &s) { send_event(s, "other.event", true); }},
    {"event_send_reserved", 'C', "", [](Side &s) { send_event(s, "ubus.x", false); }},
    {"notify_no_reply", 'S', "add_object", [](Side &s) { notify(s, 2, -1); }},
    {"notify_with_reply", 'S', "add_object", [](Side &s) { notify(s, 1, 1000); }},
    {"subscribe", 'C', "",
     [](Side &s) {
         ubus_register_subscriber(s.ctx, &s.subscriber);
         ubus_subscribe(s.ctx, &s.subscriber, s.id("OBJ"));
     }},
    {"unsubscribe", 'C', "",
     [](Side &s) {
         s.subscriber.obj.id = s.id("SUBOBJ");
         ubus_unsubscribe(s.ctx, &s.subscriber, s.id("OBJ"));
     }},
    {"remove_object_subscribed", 'S', "add_object",
     [](Side &s) { EXPECT_EQ(ubus_remove_object(s.ctx, &s.object), 0); }},
    {"remove_unknown", 'C', "",
     [](Side &s) {
         s.object.id = 0x12345678;
         EXPECT_EQ(ubus_remove_object(s.ctx, &s.object), UBUS_STATUS_NOT_FOUND);
     }},
};

// Speaks the broker's lines of one exchange to the side `who`. Answers carry the sequence number
// of the library's request.
void speak(int fd, const Exchange &exchange, char who) {
    Bytes seq(2, '\0');
    for (const auto &line : exchange.lines) {
        if (line.who != who || line.type() == UBUS_MSG_HELLO)
            continue;
        if (!line.to_broker) {
            Bytes bytes = line.bytes;
            if (line.type() == UBUS_MSG_STATUS || line.type() == UBUS_MSG_DATA)
                bytes.replace(2, 2, seq);
            write_bytes(fd, bytes);
            continue;
        }
        Bytes actual = read_message(fd);
        ASSERT_GE(actual.size(), 12U) << "the library sent nothing";
        Bytes expected = line.bytes;
        if (line.type() != UBUS_MSG_STATUS && line.type() != UBUS_MSG_DATA) {
            seq = actual.substr(2, 2);
            expected.replace(2, 2, seq);
        }
        EXPECT_EQ(to_hex(actual), to_hex(expected));
    }
}

class ClientReplay : public testing::TestWithParam<Role> {};

TEST_P(ClientReplay, OurLibrarySendsTheRecordedBytes) {
    const Role &role = GetParam();
    char directory[] = "/tmp/ipacl-replay-XXXXXX";
    const std::string path = std::string(mkdtemp(directory)) + "/bus.sock";
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unix_address(path);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);

    std::thread broker([&] {
        const int fd = accept(listener, nullptr, nullptr);
        write_bytes(fd, from_hex("0000000066e9652f00000004"));
        if (*role.before)
            speak(fd, read_exchange(role.before), role.who);
        speak(fd, read_exchange(role.exchange), role.who);
        close(fd);
    });
    Side side;
    side.exchange = read_exchange(role.exchange);
    side.ctx = ubus_connect(path.c_str());
    ASSERT_NE(side.ctx, nullptr);
    if (*role.before)
        add_object(side);
    role.act(side);
    broker.join();
    ubus_free(side.ctx);
    blob_buf_free(&buf);
    uloop_done();
    close(listener);
    unlink(path.c_str());
    rmdir(directory);
}

INSTANTIATE_TEST_SUITE_P(Bus, ClientReplay, testing::ValuesIn(kRoles), [](const auto &role) {
    return std::string(role.param.exchange) + "_as_" + role.param.who;
});

} // namespace
