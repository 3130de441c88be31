// Long dialogues over the bus.

#include "daemon.h"

#include <csignal>
#include <unistd.h>

namespace {

using Dialogue = System;

TEST_F(Dialogue, NumbersThatCameTooWideAreNarrowedWhereTheyFit) {
    Client client(socket_path);
    const auto fill = [&](uint32_t action, uint32_t type) {
        blobmsg_add_string(&client.message, "name", "web");
        blobmsg_add_u32(&client.message, "action", action);
        blobmsg_add_u64(&client.message, "moudle", 0);
        blobmsg_add_u16(&client.message, "type", static_cast<uint16_t>(type));
    };
    fill(0, 0);
    EXPECT_EQ(client.call("create").status, 0);
    EXPECT_EQ(client.call("showrunning").output, "ip access-list extended web\n!\n");
    fill(256, 0); // does not fit: as if it were not there
    EXPECT_EQ(client.call("create").status, 2);
    fill(0xFFFFFFFF, 0);
    EXPECT_EQ(client.call("action").status, 2);
    fill(5, 0);
    blobmsg_add_u64(&client.message, "cmd_handler", 0); // 64 to 32 bits
    EXPECT_EQ(client.call("action").output, "[]\n");
    fill(255, 255);
    EXPECT_EQ(client.call("action").status, 0);
}

TEST_F(Dialogue, BooleansAndUnknownAttributesPass) {
    Client client(socket_path);
    blobmsg_add_string(&client.message, "name", "web");
    blobmsg_add_u8(&client.message, "type", 1);
    blobmsg_add_u32(&client.message, "action", 0);
    blobmsg_add_u32(&client.message, "moudle", 0);
    blobmsg_add_u32(&client.message, "unknown", 70000);
    void *table = blobmsg_open_table(&client.message, "nested");
    blobmsg_add_u32(&client.message, "action", 1);
    blobmsg_close_table(&client.message, table);
    EXPECT_EQ(client.call("create").status, 0);
    EXPECT_EQ(client.call("showrunning").output, "ip access-list standard web\n!\n");
}

TEST_F(Dialogue, AMalformedMessageIsRefusedAndTheServiceLivesOn) {
    Client client(socket_path);
    blobmsg_add_u32(&client.message, "action", 0);
    blobmsg_add_field(&client.message, BLOBMSG_TYPE_INT32, "type", "ab", 2);
    blobmsg_add_string(&client.message, "name", "web");
    EXPECT_EQ(client.call("create").status, 2);
    EXPECT_EQ(client.call("gsync_init").status, 0);
    EXPECT_EQ(client.call("nosuch").status, 3);
}

TEST_F(Dialogue, ARequestWithoutTextHasNoOutput) {
    Client client(socket_path);
    EXPECT_EQ(client.call("showrunning").output, "");
}

// Adds rules to ten lists in turn, kills the broker on the way, and asks every rule that was not
// acknowledged again. At the end every list holds every rule, once and in order.
TEST_F(Dialogue, AHundredThousandRequestsWithTenBrokersLoseNothing) {
    constexpr int kRequests = 100000, kLists = 10, kWindow = 200, kRestarts = 10;
    Client client(socket_path);
    const auto name_of = [](int list) { return "list" + std::to_string(list); };
    int restarts = 0;
    const auto ask = [&](int list, int action, const std::string &rule) {
        for (;;) {
            blobmsg_buf_init(&client.message);
            blobmsg_add_string(&client.message, "name", name_of(list).c_str());
            blobmsg_add_u8(&client.message, "action", static_cast<uint8_t>(action));
            blobmsg_add_u8(&client.message, "moudle", 0);
            blobmsg_add_u8(&client.message, "type", 1);
            if (!rule.empty())
                blobmsg_add_string(&client.message, "rule", rule.c_str());
            const auto reply = client.call(action == 0 ? "create" : "action");
            if (reply.status == 0)
                return reply.output;
            EXPECT_TRUE(client.reconnect());
        }
    };
    for (int list = 0; list < kLists; list++)
        ask(list, 0, "");
    // Each list keeps the last kWindow rules: one is added and one removed in each round.
    const auto rule_of = [](int n) {
        return "permit 10." + std::to_string(n >> 16 & 255) + "." + std::to_string(n >> 8 & 255) +
               "." + std::to_string(n & 255);
    };
    int round = 0;
    for (int request = 0; request < kRequests; round++) {
        const int list = round % kLists, n = round / kLists;
        const std::string said = ask(list, 1, rule_of(n));
        // Acknowledged at once, or refused as a duplicate of itself after a broker's death.
        EXPECT_TRUE(said.empty() || said == "The rule has existed in the access list.\n") << said;
        request++;
        if (n >= kWindow) {
            ask(list, 1, "no " + rule_of(n - kWindow));
            request++;
        }
        if (request > (restarts + 1) * (kRequests / (kRestarts + 1)) && restarts < kRestarts) {
            end_broker(restarts % 2 ? SIGKILL : SIGTERM);
            start_broker();
            restarts++;
        }
    }
    EXPECT_EQ(restarts, kRestarts);
    const int last = round / kLists; // exclusive
    std::string expected[kLists];
    const std::string text = [&] {
        client.reconnect();
        return client.call("showrunning").output;
    }();
    for (int list = 0; list < kLists; list++) {
        std::string body = "ip access-list standard " + name_of(list) + "\n";
        const int end = last + (list < round % kLists);
        for (int n = end - kWindow; n < end; n++)
            body += " permit  " + rule_of(n).substr(7) + " 255.255.255.255\n";
        EXPECT_NE(text.find(body + "!\n"), std::string::npos) << name_of(list);
    }
}

TEST_F(Dialogue, TheServiceWaitsForABrokerThatStaysAwayForAWhile) {
    ctl({"load", "-"}, "ip access-list standard web\n permit any\n!\n");
    const std::string before = running();
    end_broker(SIGKILL);
    usleep(300000);
    start_broker();
    await_service();
    EXPECT_EQ(running(), before);
}

TEST_F(Dialogue, AListenerHearsOfChangesAndRemovals) {
    Client listener(socket_path);
    static std::string heard;
    heard.clear();
    static ubus_event_handler handler;
    handler = {};
    handler.cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) {
        static const blobmsg_policy policy[] = {
            {.name = "name", .type = BLOBMSG_TYPE_STRING},
            {.name = "state", .type = BLOBMSG_TYPE_STRING},
        };
        blob_attr *tb[2];
        blobmsg_parse(policy, 2, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
        heard += std::string(type) + " " + blobmsg_get_string(tb[0]) + " " +
                 blobmsg_get_string(tb[1]) + "\n";
        if (heard.ends_with("removed\n"))
            uloop_end();
    };
    ASSERT_EQ(ubus_register_event_handler(listener.ctx, &handler, "resource.*"), 0);
    ubus_add_uloop(listener.ctx);
    ctl({"create", "web", "--type", "standard"});
    ctl({"destroy", "web"});
    uloop_run();
    EXPECT_EQ(heard, "resource.access-list web changed\nresource.access-list web removed\n");
}

} // namespace
