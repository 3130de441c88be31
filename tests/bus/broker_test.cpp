// Rough treatment: what a client may do to the broker costs that client at most its connection.

#include "raw_client.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/un.h>

namespace {

using Broker = BrokerTest;

TEST_F(Broker, AnOversizedHeaderClosesOnlyTheSender) {
    const int bad = client(), good = client();
    write_bytes(bad, message(UBUS_MSG_PING, 1, "", 1048577));
    expect_closed(bad);
    expect_served(good);
}

TEST_F(Broker, ARootShorterThanItsWordClosesOnlyTheSender) {
    const int good = client();
    for (size_t length : {0U, 1U, 3U}) {
        const int bad = client();
        write_bytes(bad, message(UBUS_MSG_PING, 1, "", length));
        expect_closed(bad);
    }
    expect_served(good);
}

TEST_F(Broker, TheLongestMessageIsServed) {
    const int fd = client();
    const Bytes body(1048576 - 4, '\0');
    write_bytes(fd, message(UBUS_MSG_PING, 1, body));
    EXPECT_EQ(read_message(fd).size(), body.size() + 12);
    EXPECT_EQ(read_message(fd).size(), 20U);
}

TEST_F(Broker, AHalfSentMessageHoldsNobodyUp) {
    const int slow = client(), good = client();
    const Bytes whole = message(UBUS_MSG_PING, 9);
    write_bytes(slow, whole.substr(0, 5));
    expect_served(good);
    write_bytes(slow, whole.substr(5, 6));
    expect_served(good);
    write_bytes(slow, whole.substr(11));
    EXPECT_EQ(read_message(slow).size(), 12U);
    close(client());
    const int dying = client();
    write_bytes(dying, whole.substr(0, 7));
    shutdown(dying, SHUT_RDWR);
    expect_served(good);
}

TEST_F(Broker, AMessageInSinglesBytesIsServed) {
    const int fd = client();
    for (char c : message(UBUS_MSG_PING, 9))
        write_bytes(fd, Bytes(1, c));
    EXPECT_EQ(read_message(fd).size(), 12U);
}

TEST_F(Broker, UnknownTypesAreRefusedAndTheClientStays) {
    const int fd = client();
    for (int type : {0, 11, 12, 255}) {
        write_bytes(fd, message(type, 3));
        EXPECT_EQ(to_hex(read_message(fd)), "00010003000000000000000c0100000800000001");
    }
    expect_served(fd);
}

TEST_F(Broker, AttributesThatLieAboutTheirLengthAreIgnored) {
    const int fd = client();
    for (const char *body : {"03ffffff", "0300000812", "03000001", "00000000", "0300000500000000",
                             "7f000004", "83000008ffffffff"}) {
        write_bytes(fd, message(UBUS_MSG_INVOKE, 3, from_hex(body)));
        EXPECT_EQ(to_hex(read_message(fd)), "00010003000000000000000c0100000800000002") << body;
    }
    for (int type = 1; type < 11; type++)
        write_bytes(fd, message(type, 3, Bytes(64, '\xff')));
    const int good = client();
    expect_served(good);
}

TEST_F(Broker, AClientThatNeverReadsHoldsNobodyUp) {
    const int deaf = client(), good = client();
    const Bytes ping = message(UBUS_MSG_PING, 1, Bytes(60000, '\0'));
    for (int i = 0; i < 100; i++) // 6 MB of echoes, of which at most a part is kept
        write_bytes(deaf, ping);
    expect_served(good);
    std::ifstream status("/proc/" + std::to_string(process.pid()) + "/status");
    for (std::string line; std::getline(status, line);)
        EXPECT_TRUE(!line.starts_with("VmRSS:") || std::stol(line.substr(6)) < 64 * 1024) << line;
    expect_served(good);
    // What was kept comes whole, and then the client is served again.
    size_t echoes = 0;
    for (pollfd p{deaf, POLLIN, 0}; poll(&p, 1, 500) == 1;) {
        const size_t size = read_message(deaf).size();
        EXPECT_TRUE(size == ping.size() || size == 20) << size;
        echoes += size == ping.size();
    }
    EXPECT_GE(echoes, 1048576 / ping.size());
    EXPECT_LT(echoes, 100U);
    expect_served(deaf);
}

TEST_F(Broker, AnswersToACallerThatIsGoneVanish) {
    ubus_context *server = ubus_connect(process.path().c_str());
    ASSERT_NE(server, nullptr);
    ubus_object object{};
    static const ubus_method method = {
        nullptr,
        [](ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
            blob_buf reply{};
            blobmsg_buf_init(&reply);
            blobmsg_add_string(&reply, "a", "b");
            ubus_send_reply(ctx, req, reply.head);
            blob_buf_free(&reply);
            uloop_end();
            return 0;
        },
        0,
        0,
        nullptr,
        0};
    static ubus_object_type type = {"t", 0, &method, 0};
    object.name = "test";
    object.type = &type;
    object.methods = &method;
    object.n_methods = 1;
    ASSERT_EQ(ubus_add_object(server, &object), 0);
    ubus_add_uloop(server);

    ubus_context *caller = ubus_connect(process.path().c_str());
    ubus_request request;
    ASSERT_EQ(ubus_invoke_async(caller, object.id, "x", nullptr, &request), 0);
    // Only once the broker has answered something later has it passed the call on.
    uint32_t id;
    ubus_lookup_id(caller, "test", &id);
    ubus_free(caller);
    uloop_run();
    EXPECT_EQ(ubus_lookup_id(server, "test", &id), 0);
    ubus_free(server);
    uloop_done();
}

TEST_F(Broker, OnlyItsUserMayOpenTheSocket) {
    struct stat info;
    ASSERT_EQ(stat(process.path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST_F(Broker, AnotherUserIsTurnedAwayEvenWhereTheModeWouldLetHimIn) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    process.open_to_all();
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(3);
        const int fd = connect_to(process.path());
        _exit(fd < 0 ? 2 : read_message(fd).empty() ? 0 : 1);
    }
    int status;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Broker, EndsInOrderAndTakesAStaleSocketOver) {
    EXPECT_EQ(process.end(SIGTERM), 0);
    process.start();
    kill(process.pid(), SIGKILL);
    int status;
    waitpid(process.pid(), &status, 0);
    process.start();
    expect_served(client());
}

TEST_F(Broker, TellsTheServiceManagerThatItIsReadyAndAlive) {
    process.end(SIGTERM);
    const std::string path = process.path() + ".notify";
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    const timeval patience{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);
    process.start();
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    std::string said;
    for (int i = 0; i < 3; i++) {
        char text[64];
        const ssize_t size = recv(fd, text, sizeof text, 0);
        said.append(text, size > 0 ? static_cast<size_t>(size) : 0).append(" ");
    }
    EXPECT_EQ(said, "READY=1 WATCHDOG=1 WATCHDOG=1 ");
    close(fd);
    unlink(path.c_str());
}

TEST_F(Broker, TheAccessControlObjectKnowsNoRules) {
    ubus_context *ctx = ubus_connect(process.path().c_str());
    int fields = 0;
    EXPECT_EQ(ubus_invoke(
                  ctx, UBUS_SYSTEM_OBJECT_ACL, "query", nullptr,
                  [](ubus_request *req, int, blob_attr *msg) {
                      blob_attr *attr;
                      size_t left;
                      blob_for_each_attr(attr, msg, left)++ *static_cast<int *>(req->priv);
                  },
                  &fields, 1000),
              0);
    EXPECT_EQ(fields, 2);
    ubus_free(ctx);
    uloop_done();
}

} // namespace
