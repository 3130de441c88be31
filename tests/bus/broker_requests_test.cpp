// What the broker answers to requests that no well-behaved library sends, and who may ask for what.

#include "raw_client.h"

#include <cstring>
#include <filesystem>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>

namespace {

constexpr uint32_t kUnknown = 0x12345678;

class Requests : public BrokerTest {
  protected:
    // The paths that a lookup tells.
    static std::vector<std::string> look_up(int fd, const char *path, int status) {
        std::vector<Bytes> data;
        EXPECT_EQ(request(fd, UBUS_MSG_LOOKUP, text_attribute(UBUS_ATTR_OBJPATH, path), &data),
                  status)
            << path;
        std::vector<std::string> paths;
        for (const auto &answer : data)
            paths.emplace_back(answer.c_str() + 16);
        return paths;
    }
    static Bytes subscription(uint32_t subscriber, uint32_t target) {
        return object_and(subscriber, attribute(UBUS_ATTR_TARGET, target));
    }
    // A call of one of the broker's own objects with named arguments.
    static int call(int fd, uint32_t object, const char *method, const Bytes &arguments = "") {
        return request(fd, UBUS_MSG_INVOKE,
                       object_and(object, text_attribute(UBUS_ATTR_METHOD, method) +
                                              attribute(UBUS_ATTR_DATA, arguments)));
    }
    static Bytes named(int type, const char *name, const Bytes &value) {
        blob_buf buf{};
        blobmsg_buf_init(&buf);
        blobmsg_add_field(&buf, type, name, value.data(), static_cast<unsigned>(value.size()));
        const Bytes bytes(static_cast<const char *>(blob_data(buf.head)), blob_len(buf.head));
        blob_buf_free(&buf);
        return bytes;
    }
    static Bytes registration(uint32_t object, const char *pattern) {
        const Bytes number = attribute(0, object).substr(4);
        return named(BLOBMSG_TYPE_INT32, "object", number) +
               named(BLOBMSG_TYPE_STRING, "pattern", Bytes(pattern) + '\0');
    }
    static Bytes event(const char *name) {
        return named(BLOBMSG_TYPE_STRING, "id", Bytes(name) + '\0') +
               named(BLOBMSG_TYPE_TABLE, "data", "");
    }
    static Bytes signature(const Bytes &tables) {
        return text_attribute(UBUS_ATTR_OBJPATH, "typed") + attribute(UBUS_ATTR_SIGNATURE, tables);
    }

    const int fd = client(), other = client();
};

TEST_F(Requests, ATextWithoutItsTerminatorIsAbsent) {
    for (const Bytes &method : {Bytes(), Bytes("m"), Bytes("\0m", 2)})
        EXPECT_EQ(
            request(fd, UBUS_MSG_INVOKE, object_and(kUnknown, attribute(UBUS_ATTR_METHOD, method))),
            UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(request(fd, UBUS_MSG_INVOKE,
                      object_and(kUnknown, attribute(UBUS_ATTR_METHOD, Bytes("m\0", 2)))),
              UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(
        request(fd, UBUS_MSG_INVOKE,
                attribute(UBUS_ATTR_UNSPEC, kUnknown) + text_attribute(UBUS_ATTR_METHOD, "m")),
        UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(Requests, AnObjectWithoutATypeIsThereButNotTold) {
    add_object(fd, text_attribute(UBUS_ATTR_OBJPATH, "plain"));
    EXPECT_EQ(look_up(other, "plain", UBUS_STATUS_OK), std::vector<std::string>());
    EXPECT_EQ(look_up(other, "", UBUS_STATUS_INVALID_ARGUMENT), std::vector<std::string>());
    std::vector<Bytes> data;
    add_object(fd, text_attribute(UBUS_ATTR_OBJPATH, "unknown type") +
                       attribute(UBUS_ATTR_OBJTYPE, kUnknown));
    EXPECT_EQ(look_up(other, "unknown type", UBUS_STATUS_OK), std::vector<std::string>());
}

TEST_F(Requests, ASignatureIsTablesWithNames) {
    const Bytes table = named(BLOBMSG_TYPE_TABLE, "method", "");
    for (const Bytes &bad : {named(BLOBMSG_TYPE_STRING, "method", Bytes(1, '\0')),
                             named(BLOBMSG_TYPE_TABLE, "", ""), table + "\x83", table + table[0]}) {
        const uint32_t id = add_object(fd, signature(bad));
        EXPECT_EQ(look_up(other, "typed", UBUS_STATUS_OK), std::vector<std::string>())
            << to_hex(bad);
        std::vector<Bytes> data;
        EXPECT_EQ(request(fd, UBUS_MSG_REMOVE_OBJECT, object_and(id), &data), UBUS_STATUS_OK);
        EXPECT_EQ(number_in(data[0], UBUS_ATTR_OBJTYPE), 0U) << "there was no type to go with it";
    }
    add_object(fd, signature(table + table));
    EXPECT_EQ(look_up(other, "typed", UBUS_STATUS_OK), std::vector<std::string>{"typed"});
}

TEST_F(Requests, AWildcardTellsWhatBeginsWithIt) {
    for (const char *path : {"a.1", "a.2", "b.1"})
        add_object(fd, text_attribute(UBUS_ATTR_OBJPATH, path) +
                           attribute(UBUS_ATTR_SIGNATURE, named(BLOBMSG_TYPE_TABLE, "m", "")));
    EXPECT_EQ(look_up(other, "a.*", UBUS_STATUS_OK), (std::vector<std::string>{"a.1", "a.2"}));
    EXPECT_EQ(look_up(other, "b*", UBUS_STATUS_OK), std::vector<std::string>{"b.1"});
    EXPECT_EQ(look_up(other, "aa*", UBUS_STATUS_NOT_FOUND), std::vector<std::string>());
}

TEST_F(Requests, OnlyTheOwnerRemovesAnObject) {
    const uint32_t id = add_object(fd);
    EXPECT_EQ(request(other, UBUS_MSG_REMOVE_OBJECT, object_and(id)),
              UBUS_STATUS_PERMISSION_DENIED);
    for (const uint32_t system :
         std::initializer_list<uint32_t>{UBUS_SYSTEM_OBJECT_EVENT, UBUS_SYSTEM_OBJECT_MONITOR})
        EXPECT_EQ(request(fd, UBUS_MSG_REMOVE_OBJECT, object_and(system)),
                  UBUS_STATUS_PERMISSION_DENIED);
    for (uint32_t unknown : {0U, UBUS_SYSTEM_OBJECT_MONITOR + 1U, kUnknown}) {
        EXPECT_EQ(request(fd, UBUS_MSG_REMOVE_OBJECT, object_and(unknown)), UBUS_STATUS_NOT_FOUND);
        EXPECT_EQ(call(fd, unknown, "m"), UBUS_STATUS_NOT_FOUND);
    }
    EXPECT_EQ(request(fd, UBUS_MSG_REMOVE_OBJECT, object_and(id)), UBUS_STATUS_OK);
    EXPECT_EQ(request(fd, UBUS_MSG_REMOVE_OBJECT, object_and(id)), UBUS_STATUS_NOT_FOUND);
}

TEST_F(Requests, ACallWithoutDataIsPassedOnWithoutData) {
    const uint32_t id = add_object(fd);
    write_bytes(other,
                message(UBUS_MSG_INVOKE, 3, object_and(id, text_attribute(UBUS_ATTR_METHOD, "m"))));
    EXPECT_EQ(read_message(fd).substr(12),
              object_and(id, text_attribute(UBUS_ATTR_METHOD, "m") +
                                 text_attribute(UBUS_ATTR_USER, "root") +
                                 text_attribute(UBUS_ATTR_GROUP, "root")));
}

TEST_F(Requests, ASubscriptionIsBetweenTwoClientsObjects) {
    const uint32_t mine = add_object(fd), mine_too = add_object(fd), theirs = add_object(other);
    const auto subscribe = [&](const Bytes &body) { return request(fd, UBUS_MSG_SUBSCRIBE, body); };
    EXPECT_EQ(subscribe(object_and(mine)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(subscribe(attribute(UBUS_ATTR_TARGET, theirs)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(subscribe(subscription(kUnknown, theirs)), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(subscribe(subscription(mine, kUnknown)), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(subscribe(subscription(theirs, mine)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(subscribe(subscription(mine, mine_too)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(request(fd, UBUS_MSG_UNSUBSCRIBE, subscription(mine, theirs)), UBUS_STATUS_NOT_FOUND);
    expect_served(other); // and has heard of nothing
}

TEST_F(Requests, AnOwnerHearsOfTheFirstSubscriberAndOfTheLastOnesEnd) {
    const uint32_t target = add_object(other), first = add_object(fd), second = add_object(fd);
    const auto heard = [&] { return to_hex(read_message(other).substr(20)); };
    EXPECT_EQ(request(fd, UBUS_MSG_SUBSCRIBE, subscription(first, target)), UBUS_STATUS_OK);
    EXPECT_EQ(heard(), to_hex(attribute(UBUS_ATTR_ACTIVE, Bytes(1, '\1'))));
    EXPECT_EQ(request(fd, UBUS_MSG_SUBSCRIBE, subscription(second, target)), UBUS_STATUS_OK);
    EXPECT_EQ(request(fd, UBUS_MSG_UNSUBSCRIBE, subscription(first, target)), UBUS_STATUS_OK);
    expect_served(other);
    EXPECT_EQ(request(fd, UBUS_MSG_UNSUBSCRIBE, subscription(second, target)), UBUS_STATUS_OK);
    EXPECT_EQ(heard(), to_hex(attribute(UBUS_ATTR_ACTIVE, Bytes(1, '\0'))));
}

TEST_F(Requests, ANotificationNeedsAnObjectOfOnesOwnAMethodAndData) {
    const uint32_t id = add_object(fd);
    const Bytes method = text_attribute(UBUS_ATTR_METHOD, "m"),
                data = attribute(UBUS_ATTR_DATA, Bytes());
    const auto notify = [&](const Bytes &body) { return request(fd, UBUS_MSG_NOTIFY, body); };
    EXPECT_EQ(notify(method + data), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(notify(object_and(id, method)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(notify(object_and(id, data)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(notify(object_and(kUnknown, method + data)), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(request(other, UBUS_MSG_NOTIFY, object_and(id, method + data)),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(notify(object_and(id, method + data)), UBUS_STATUS_OK);
    const Bytes no_reply(1, '\0');
    EXPECT_EQ(notify(object_and(id, attribute(UBUS_ATTR_NO_REPLY, no_reply) + method + data)),
              UBUS_STATUS_OK)
        << "a flag that is not set";
}

TEST_F(Requests, AnAnswerIsTheObjectsOwners) {
    const uint32_t id = add_object(fd);
    write_bytes(other,
                message(UBUS_MSG_INVOKE, 3, object_and(id, text_attribute(UBUS_ATTR_METHOD, "m"))));
    const Bytes caller = read_message(fd).substr(4, 4);
    const auto answer = [&](int from, uint32_t object, const Bytes &to, const Bytes &status) {
        Bytes bytes = message(UBUS_MSG_STATUS, 3, object_and(object, status));
        write_bytes(from, bytes.replace(4, 4, to));
    };
    const Bytes seven = attribute(UBUS_ATTR_STATUS, 7);
    answer(fd, kUnknown, caller, seven);
    answer(other, id, caller, seven);
    answer(fd, id, caller, "");
    answer(fd, id, Bytes(4, '\0'), seven);
    expect_served(fd);
    expect_served(other);
    answer(fd, id, caller, seven);
    EXPECT_EQ(number_in(read_message(other), UBUS_ATTR_STATUS), 7U);
}

TEST_F(Requests, AListenerIsAnObjectOfOnesOwn) {
    const uint32_t id = add_object(fd);
    const auto add = [&](const Bytes &arguments) {
        return call(fd, UBUS_SYSTEM_OBJECT_EVENT, "register", arguments);
    };
    EXPECT_EQ(add(""), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(add(registration(id, "a").substr(0, 20)), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(add(registration(id, "")), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(add(registration(UBUS_SYSTEM_OBJECT_MAX - 1, "a")), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(add(registration(kUnknown, "a")), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(call(other, UBUS_SYSTEM_OBJECT_EVENT, "register", registration(id, "a")),
              UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(add(registration(id, "a")), UBUS_STATUS_OK);
    EXPECT_EQ(call(other, UBUS_SYSTEM_OBJECT_EVENT, "send"), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call(other, UBUS_SYSTEM_OBJECT_EVENT, "send", event("a").substr(0, 16)),
              UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call(other, UBUS_SYSTEM_OBJECT_EVENT, "send", event("b")), UBUS_STATUS_OK);
    expect_served(fd);
    EXPECT_EQ(call(other, UBUS_SYSTEM_OBJECT_EVENT, "send", event("a")), UBUS_STATUS_OK);
    EXPECT_EQ(read_message(fd).substr(12, 16),
              object_and(id, attribute(UBUS_ATTR_METHOD, Bytes("a\0", 2))));
}

TEST_F(Requests, TheSystemObjectsKnowTheirMethodsAlone) {
    EXPECT_EQ(call(fd, UBUS_SYSTEM_OBJECT_EVENT, "none"), UBUS_STATUS_INVALID_COMMAND);
    EXPECT_EQ(call(fd, UBUS_SYSTEM_OBJECT_ACL, "none"), UBUS_STATUS_INVALID_COMMAND);
    EXPECT_EQ(call(fd, UBUS_SYSTEM_OBJECT_MONITOR, "none"), UBUS_STATUS_METHOD_NOT_FOUND);
}

TEST_F(Requests, AMonitorIsOneHoweverOftenItAsks) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may watch";
    const auto monitor = [&](const char *method) {
        return call(fd, UBUS_SYSTEM_OBJECT_MONITOR, method);
    };
    EXPECT_EQ(monitor("add"), UBUS_STATUS_OK);
    write_bytes(fd, message(UBUS_MSG_PING, 9));
    for (int type : {UBUS_MSG_MONITOR, UBUS_MSG_MONITOR, UBUS_MSG_DATA})
        EXPECT_EQ(read_message(fd)[1], type);
    for (int i = 0; i < 2; i++) // the rest of the ping
        read_message(fd);
    EXPECT_EQ(monitor("add"), UBUS_STATUS_OK);
    EXPECT_EQ(monitor("remove"), UBUS_STATUS_OK);
    EXPECT_EQ(monitor("remove"), UBUS_STATUS_OK);
    expect_served(other);
    expect_served(fd);
}

TEST_F(Requests, WhoIsNotRootsGroupMayNotWatch) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to be in another group";
    ASSERT_EQ(setegid(65534), 0);
    const int grouped = client();
    ASSERT_EQ(setegid(0), 0);
    EXPECT_EQ(call(grouped, UBUS_SYSTEM_OBJECT_MONITOR, "add"), UBUS_STATUS_PERMISSION_DENIED);
}

TEST_F(Requests, AUserOrGroupWithoutANameIsTurnedAway) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    constexpr uint32_t kNameless = 3000000000;
    ASSERT_EQ(getgrgid(kNameless), nullptr);
    process.open_to_all();
    for (int step = 0; step < 2; step++) {
        ASSERT_EQ(step == 0 ? setegid(kNameless) : seteuid(kNameless), 0);
        const int stranger = connect_to(process.path());
        ASSERT_EQ(step == 0 ? setegid(0) : seteuid(0), 0);
        ASSERT_GE(stranger, 0);
        expect_closed(stranger);
        close(stranger);
    }
}

// Runs the broker's program to its end; its exit status, and what it said.
int run_broker(const std::vector<std::string> &arguments, int stream, std::string &said) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], stream);
        execute(program(BUSD, arguments));
        _exit(127);
    }
    close(ends[1]);
    said = read_bytes(ends[0], 4096);
    close(ends[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(BrokerProgram, TellsHowItIsUsed) {
    std::string help, usage;
    EXPECT_EQ(run_broker({"-h"}, 1, help), 0);
    EXPECT_TRUE(help.starts_with("Usage: ipacl-busd [-s SOCKET]\n")) << help;
    EXPECT_EQ(run_broker({"-x"}, 2, usage), 2);
    EXPECT_TRUE(usage.ends_with(help)) << usage;
}

TEST(BrokerProgram, SaysWhereItCanNotListen) {
    std::string said;
    EXPECT_EQ(run_broker({"-s", "/proc/bus.sock"}, 2, said), 1);
    EXPECT_EQ(said, "ipacl-busd: can't listen on /proc/bus.sock: No such file or directory\n");
    EXPECT_EQ(run_broker({"-s", std::string(108, 'x')}, 2, said), 1);
    EXPECT_EQ(said,
              "ipacl-busd: can't listen on " + std::string(108, 'x') + ": File name too long\n");
}

TEST(BrokerProgram, ListensWhereTheLibraryLooksWhenNothingElseIsSaid) {
    const pid_t pid = fork();
    if (pid == 0) { // with an empty /var/run of its own
        unsetenv("UBUS_SOCKET");
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/var/run", "tmpfs", 0, nullptr) != 0)
            _exit(126);
        execute(program(BUSD));
        _exit(127);
    }
    // /var/run may be a link, which would lead out of the other's root.
    const std::string path = "/proc/" + std::to_string(pid) + "/root" +
                             std::filesystem::canonical("/var/run").string() +
                             std::string(UBUS_UNIX_SOCKET).substr(strlen("/var/run"));
    int fd = -1, status = 0;
    bool ended = false;
    for (int i = 0; i < 500 && fd < 0 && !ended; i++, usleep(10000)) {
        fd = connect_to(path);
        ended = waitpid(pid, &status, WNOHANG) == pid;
    }
    if (ended && WIFEXITED(status) && WEXITSTATUS(status) == 126)
        GTEST_SKIP() << "no mount namespaces here, or no root";
    if (fd < 0 && !ended)
        kill(pid, SIGKILL);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_message(fd).size(), 12U);
    close(fd);
    kill(pid, SIGTERM);
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
