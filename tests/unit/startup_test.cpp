// Start-up: what main calls, in which order, and what it does when a step fails.

#include "fixture.h"

#include "ipacl_netlink.h"

#define main ipacl_daemon_main
#include "ipacl_main.cpp"
#undef main

namespace {

using Startup = ServiceTest;
using Calls = std::vector<std::string>;

TEST_F(Startup, EverythingInOrder) {
    EXPECT_EQ(ipacl_daemon_main(), 0);
    EXPECT_EQ(fake::take_calls(), (Calls{"ebus_connect", "uloop_init", "ebus_add_object",
                                         "ebus_add_uloop", "uloop_fd_add 1", "syncinit_finish",
                                         "uloop_run_timeout -1", "uloop_done", "ebus_disconnect"}));
    EXPECT_EQ(fake::bound_groups(), 0x10);
    EXPECT_EQ(fake::bound_length(), 12);
    EXPECT_EQ(ipacl_server.cb, ipacl_cb);
    EXPECT_EQ(fake::sockets().closed, 0);
}

TEST_F(Startup, WithoutABus) {
    fake::fail_call("ebus_connect", -5);
    EXPECT_EQ(ipacl_daemon_main(), -1);
    EXPECT_EQ(fake::take_calls(), (Calls{"ebus_connect", "ebus_disconnect"}));
    EXPECT_EQ(fake::take_log_text(), "3 ipacl ebus_context failed\n");
}

TEST_F(Startup, WithAnObjectThatIsRefused) {
    fake::fail_call("ebus_add_object", 2);
    EXPECT_EQ(ipacl_daemon_main(), -1);
    EXPECT_EQ(fake::take_calls(),
              (Calls{"ebus_connect", "uloop_init", "ebus_add_object", "ebus_disconnect"}));
    EXPECT_EQ(fake::take_log_text(), "3 ipacl Failed to add qboard object: 2\n");
}

TEST_F(Startup, WithoutANetlinkSocket) {
    fake::fail_socket(true);
    EXPECT_EQ(ipacl_daemon_main(), -1);
    EXPECT_EQ(fake::take_calls().back(), "ebus_disconnect");
    EXPECT_EQ(fake::take_log_text(), "3 ipacl socket creating failed(-1).\n");
}

TEST_F(Startup, WithASocketThatCannotBeBound) {
    fake::fail_bind(-3);
    EXPECT_EQ(ipacl_daemon_main(), -3);
    EXPECT_EQ(fake::take_calls().back(), "ebus_disconnect");
    EXPECT_EQ(fake::take_log_text(), "3 ipacl bind error(-3).\n");
    EXPECT_EQ(fake::sockets().closed, 0);
}

TEST_F(Startup, ADescriptorThatCannotBeAddedIsNotLookedAt) {
    fake::fail_call("uloop_fd_add 1", -1);
    EXPECT_EQ(ipacl_daemon_main(), 0);
}

} // namespace
