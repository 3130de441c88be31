// The library on both sides of a real broker: objects, subscriptions, events.

#include "busd_process.h"

#include <libubus.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

class Library : public testing::Test {
  protected:
    Library() {
        server = connect();
        other = connect();
    }
    ~Library() override {
        ubus_free(server);
        ubus_free(other);
        uloop_done();
    }
    ubus_context *connect() {
        ubus_context *ctx = ubus_connect(process.path().c_str());
        ubus_add_uloop(ctx);
        return ctx;
    }
    // Runs the loop until `done`, for at most some seconds.
    static bool await(const std::function<bool()> &done) {
        for (int i = 0; i < 500 && !done(); i++)
            uloop_run_timeout(10);
        return done();
    }

    BrokerProcess process;
    ubus_context *server, *other;
};

int serve(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    return 0;
}

const blobmsg_policy kPolicy[] = {{.name = "first", .type = BLOBMSG_TYPE_STRING},
                                  {.name = "second", .type = BLOBMSG_TYPE_INT32}};
const ubus_method kMethods[] = {UBUS_METHOD("all", serve, kPolicy),
                                {"one", serve, 2, 0, kPolicy, 2}};

struct Typed {
    explicit Typed(const char *name, ubus_object_type &type) {
        object.name = name;
        object.type = &type;
        object.methods = kMethods;
        object.n_methods = 2;
    }
    ubus_object object{};
};

TEST_F(Library, ASubscriberHearsOfNotificationsAndOfTheObjectsEnd) {
    static int notified, removed, active;
    notified = removed = 0;
    active = -1;
    ubus_object_type type = UBUS_OBJECT_TYPE("t", kMethods);
    Typed loud("loud", type), quiet("quiet", type);
    loud.object.subscribe_cb = [](ubus_context *, ubus_object *object) {
        active = object->has_subscribers;
    };
    ASSERT_EQ(ubus_add_object(server, &loud.object), 0);
    ASSERT_EQ(ubus_add_object(server, &quiet.object), 0);
    ubus_subscriber hears{}, deaf{};
    hears.cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *method,
                  blob_attr *) {
        notified += strcmp(method, "news") == 0;
        return 0;
    };
    hears.remove_cb = [](ubus_context *, ubus_subscriber *, uint32_t) { removed++; };
    ASSERT_EQ(ubus_register_subscriber(other, &hears), 0);
    const uint32_t id = hears.obj.id;
    ASSERT_EQ(ubus_register_subscriber(other, &hears), 0);
    EXPECT_EQ(hears.obj.id, id) << "registered once";
    ASSERT_EQ(ubus_register_subscriber(other, &deaf), 0);
    for (ubus_subscriber *subscriber : {&hears, &deaf})
        for (const Typed *target : {&loud, &quiet})
            ASSERT_EQ(ubus_subscribe(other, subscriber, target->object.id), 0);
    EXPECT_TRUE(await([&] { return active == 1 && quiet.object.has_subscribers; }));
    ASSERT_EQ(ubus_notify(server, &loud.object, "news", nullptr, -1), 0);
    EXPECT_TRUE(await([] { return notified == 1; }));
    ASSERT_EQ(ubus_remove_object(server, &loud.object), 0);
    EXPECT_TRUE(await([] { return removed == 1; }));
    ASSERT_EQ(ubus_unregister_subscriber(other, &hears), 0);
    ASSERT_EQ(ubus_unregister_subscriber(other, &deaf), 0);
    EXPECT_TRUE(await([&] { return !quiet.object.has_subscribers; }));
    EXPECT_EQ(removed, 1) << "one's own going is no news";
}

TEST_F(Library, AListenerHearsWhatItAskedForUntilItIsUnregistered) {
    static std::string heard;
    heard.clear();
    ubus_event_handler listener{};
    listener.cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *) {
        heard += type;
    };
    EXPECT_EQ(ubus_register_event_handler(other, &listener, nullptr), UBUS_STATUS_INVALID_ARGUMENT);
    ASSERT_EQ(ubus_register_event_handler(other, &listener, "a"), 0);
    ASSERT_EQ(ubus_register_event_handler(other, &listener, "b*"), 0);
    for (const char *name : {"a", "ab", "bc"})
        ASSERT_EQ(ubus_send_event(server, name, nullptr), 0);
    EXPECT_TRUE(await([] { return heard == "abc"; })) << heard;
    ASSERT_EQ(ubus_unregister_event_handler(other, &listener), 0);
    ASSERT_EQ(ubus_send_event(server, "a", nullptr), 0);
    process.end(SIGTERM);
    EXPECT_TRUE(await([&] { return other->sock.eof; }));
    EXPECT_EQ(heard, "abc");
    ubus_event_handler late{};
    EXPECT_NE(ubus_register_event_handler(other, &late, "a"), 0) << "nobody to ask";
    EXPECT_NE(ubus_notify(server, &late.obj, "news", nullptr, 10), 0);
}

TEST_F(Library, ASignatureTellsTheFieldsThatAMethodsMaskNames) {
    ubus_object_type type = UBUS_OBJECT_TYPE("t", kMethods);
    Typed one("one", type);
    ASSERT_EQ(ubus_add_object(server, &one.object), 0);
    std::string told;
    const auto tell = [](ubus_context *, ubus_object_data *data, void *priv) {
        auto &text = *static_cast<std::string *>(priv);
        blob_attr *method, *field;
        size_t left, inside;
        blob_for_each_attr(method, data->signature, left) {
            text += std::string(blobmsg_name(method)) + ":";
            blobmsg_for_each_attr(field, method, inside) text +=
                std::string(" ") + blobmsg_name(field);
            text += "\n";
        }
    };
    ASSERT_EQ(ubus_lookup(other, "one", tell, &told), 0);
    EXPECT_EQ(told, "all: first second\none: second\n");
}

TEST_F(Library, ATypeIsSharedUntilItsLastObjectGoes) {
    ubus_object_type type = UBUS_OBJECT_TYPE("t", kMethods);
    Typed first("first", type), second("second", type);
    ubus_object untyped{}, nameless{};
    untyped.name = "untyped";
    ASSERT_EQ(ubus_add_object(server, &first.object), 0);
    const uint32_t id = type.id;
    EXPECT_NE(id, 0U);
    for (ubus_object *object : {&second.object, &untyped, &nameless})
        ASSERT_EQ(ubus_add_object(server, object), 0);
    EXPECT_EQ(type.id, id);
    uint32_t found = 0;
    EXPECT_EQ(ubus_lookup_id(other, "untyped", &found), UBUS_STATUS_NOT_FOUND);
    ASSERT_EQ(ubus_reconnect(server, process.path().c_str()), 0);
    ubus_add_uloop(server);
    EXPECT_NE(type.id, id) << "a new one, of a new connection";
    EXPECT_EQ(ubus_lookup_id(other, "second", &found), 0);
    EXPECT_EQ(found, second.object.id);
    EXPECT_EQ(ubus_remove_object(server, &untyped), 0);
    EXPECT_EQ(ubus_remove_object(server, &first.object), 0);
    EXPECT_NE(type.id, 0U);
    EXPECT_EQ(ubus_remove_object(server, &second.object), 0);
    EXPECT_EQ(type.id, 0U);
    EXPECT_EQ(ubus_remove_object(server, &second.object), UBUS_STATUS_NOT_FOUND);
}

TEST(Status, HasAText) {
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_OK), "Success");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_SYSTEM_ERROR), "System error");
    EXPECT_STREQ(ubus_strerror(__UBUS_STATUS_LAST), "Unknown error: 14");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

} // namespace
