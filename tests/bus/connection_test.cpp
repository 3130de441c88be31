// A connection that ends while something is still to be read from it.

#include "exchange.h"

#include <libubus.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(Connection, ItsEndIsSeenBehindAMessage) {
    char directory[] = "/tmp/ipacl-connection-XXXXXX";
    const std::string path = std::string(mkdtemp(directory)) + "/bus.sock";
    const sockaddr_un address = unix_address(path);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    // The broker: greets, waits to be told, says something and is gone.
    const pid_t child = fork();
    if (child == 0) {
        const int peer = accept(listener, nullptr, nullptr);
        write_bytes(peer, from_hex("000000001234567800000004"));
        char go;
        const bool told = recv(peer, &go, 1, 0) == 1;
        write_bytes(peer, from_hex("00010001000000000000000c0100000800000000"));
        _exit(told ? 0 : 1);
    }
    ubus_context *ctx = ubus_connect(path.c_str());
    ASSERT_NE(ctx, nullptr);
    static bool lost;
    lost = false;
    ctx->connection_lost = [](ubus_context *) { lost = true; };
    ubus_add_uloop(ctx);
    write_bytes(ctx->sock.fd, "!");
    int status;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    for (int i = 0; i < 10 && !lost; i++)
        uloop_run_timeout(10);
    EXPECT_TRUE(lost);
    ubus_free(ctx);
    uloop_done();
    close(listener);
    unlink(path.c_str());
    rmdir(directory);
}

} // namespace
