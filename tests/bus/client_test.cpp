// The bus library under a broker that misbehaves.

#include "spoken_broker.h"

namespace {

// A status that answers nothing.
const char *const kStrayStatus = "0001004d000000000000000c0100000800000000";

TEST_F(Client, WhatIsNoMessageIsSkipped) {
    connect([](int fd) {
        write_bytes(fd, from_hex("010100000000000000000004") +     // another version
                            from_hex("000100000000000000000003") + // shorter than its own word
                            from_hex("000100000000000000100001")); // longer than any
        answer(fd, attribute(UBUS_ATTR_OBJID, 0x11223344));
    });
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
    EXPECT_EQ(id, 0x11223344U);
}

TEST_F(Client, AGreetingIsAHelloWithAnId) {
    for (const char *greeting :
         {"0001000066e9652f00000004", "000000000100000000000004", "000000000000000000000004", ""}) {
        std::thread broker([&] {
            const int fd = accept(listener_, nullptr, nullptr);
            write_bytes(fd, from_hex(greeting));
            close(fd);
        });
        EXPECT_EQ(ubus_connect(path().c_str()), nullptr) << greeting;
        broker.join();
    }
}

TEST_F(Client, APathThatIsTooLongOrNobodysIsNoConnection) {
    EXPECT_EQ(ubus_connect(std::string(108, 'x').c_str()), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(ubus_connect("/proc/bus.sock"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    if (access(UBUS_UNIX_SOCKET, F_OK) == 0)
        GTEST_SKIP() << "this host has a bus of its own";
    EXPECT_EQ(ubus_connect(nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Client, AnObjectThatGetsNoIdIsNotAdded) {
    connect([](int fd) {
        answer(fd, "");
        answer(fd, attribute(UBUS_ATTR_OBJID, 5));
        answer(fd, "");
        answer(fd, attribute(UBUS_ATTR_OBJID, 5));
    });
    ubus_object object{};
    EXPECT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    EXPECT_EQ(ubus_remove_object(ctx, &object), 0);
    EXPECT_EQ(object.id, 5U) << "nothing said that it went";
    ubus_object never_added{};
    never_added.id = 5;
    EXPECT_EQ(ubus_remove_object(ctx, &never_added), 0);
    EXPECT_EQ(never_added.id, 0U);
}

TEST_F(Client, ALookupTellsObjectsThatAreDescribedWhole) {
    const Bytes path = text_attribute(UBUS_ATTR_OBJPATH, "p"), id = attribute(UBUS_ATTR_OBJID, 5),
                type = attribute(UBUS_ATTR_OBJTYPE, 6);
    const std::vector<Bytes> partial = {path + id, path + type, id + type, path + id + type};
    connect([&](int fd) {
        for (const Bytes &body : partial)
            answer(fd, body);
        answer(fd, attribute(UBUS_ATTR_OBJPATH, Bytes("p")) + id + type +
                       attribute(UBUS_ATTR_ACTIVE, 1)); // lengths that can't be
        answer(fd, attribute(UBUS_ATTR_OBJPATH, Bytes()) + attribute(UBUS_ATTR_UNSPEC, 1) + id);
        answer(fd, from_hex("0300000300000000"));
        answer(fd, from_hex("03000008000000057f000004"));
        answer(fd, from_hex("03000008000000050500000c"));
    });
    int told = 0;
    for (size_t i = 0; i < partial.size() + 5; i++)
        EXPECT_EQ(ubus_lookup(
                      ctx, "p",
                      [](ubus_context *, ubus_object_data *, void *n) { ++*static_cast<int *>(n); },
                      &told),
                  0);
    EXPECT_EQ(told, 1);
    wait_for_broker();
}

// One object of id 5 that answers 7, and what it is sent.
class Called : public Client {
  protected:
    void call(const std::vector<Bytes> &messages) {
        connect([this, messages](int fd) {
            answer(fd, attribute(UBUS_ATTR_OBJID, 5));
            answer(fd, attribute(UBUS_ATTR_OBJID, 6));
            for (const Bytes &bytes : messages)
                write_bytes(fd, bytes);
            shutdown(fd, SHUT_WR);
            answers = read_all(fd);
        });
        static const ubus_method method = {"m",
                                           [](ubus_context *, ubus_object *, ubus_request_data *,
                                              const char *, blob_attr *) { return 7; },
                                           0,
                                           0,
                                           nullptr,
                                           0};
        object.methods = &method;
        object.n_methods = 1;
        ASSERT_EQ(ubus_add_object(ctx, &object), 0);
        ASSERT_EQ(ubus_add_object(ctx, &second), 0);
        EXPECT_TRUE(is_lost());
        ubus_free(ctx);
        ctx = nullptr;
        wait_for_broker();
    }
    // The statuses that were sent, each with its peer's last byte.
    std::string statuses() const {
        std::string all;
        for (const Bytes &bytes : answers) {
            all += std::to_string(bytes[7]);
            all += ":";
            all += std::to_string(number_in(bytes, UBUS_ATTR_STATUS));
            all += " ";
        }
        return all;
    }
    static Bytes from_peer(int type, const Bytes &body) {
        return message(type, 1, body).replace(7, 1, 1, '\3');
    }

    std::vector<Bytes> answers;
    ubus_object object{}, second{};
};

TEST_F(Called, OnlyAWholeCallIsServed) {
    const Bytes m = text_attribute(UBUS_ATTR_METHOD, "m"),
                data = attribute(UBUS_ATTR_DATA, Bytes());
    call({from_peer(UBUS_MSG_INVOKE, m + data),                // nobody's: no answer
          from_peer(UBUS_MSG_INVOKE, object_and(9, m + data)), // not found, to nobody
          from_peer(UBUS_MSG_INVOKE, object_and(5, data)),     // no method, to nobody
          from_peer(UBUS_MSG_INVOKE, object_and(5, m)),        // no data
          from_peer(UBUS_MSG_INVOKE, object_and(5, text_attribute(UBUS_ATTR_METHOD, "n") + data)),
          from_peer(UBUS_MSG_INVOKE, object_and(6, m + data)), // an object without methods
          from_peer(UBUS_MSG_INVOKE, object_and(5, m + data)),
          from_peer(UBUS_MSG_INVOKE,
                    object_and(5, m + data + attribute(UBUS_ATTR_NO_REPLY, Bytes(1, '\1')))),
          from_peer(UBUS_MSG_LOOKUP, object_and(5, m))});
    EXPECT_EQ(statuses(), "0:4 0:2 3:2 3:3 3:3 3:7 ");
}

TEST_F(Called, WordsAboutSubscribersThatConcernNothingArePassedOver) {
    static int told;
    told = 0;
    object.subscribe_cb = [](ubus_context *, ubus_object *) { told++; };
    const Bytes active = attribute(UBUS_ATTR_ACTIVE, Bytes(1, '\1')),
                target = attribute(UBUS_ATTR_TARGET, 8);
    call({from_peer(UBUS_MSG_NOTIFY, active), from_peer(UBUS_MSG_NOTIFY, object_and(5)),
          from_peer(UBUS_MSG_NOTIFY, object_and(9, active)),
          from_peer(UBUS_MSG_NOTIFY, object_and(5, active)),
          from_peer(UBUS_MSG_UNSUBSCRIBE, target), from_peer(UBUS_MSG_UNSUBSCRIBE, object_and(5)),
          from_peer(UBUS_MSG_UNSUBSCRIBE, object_and(9, target)),
          from_peer(UBUS_MSG_UNSUBSCRIBE, object_and(5, target))}); // no subscriber
    EXPECT_EQ(told, 1);
    EXPECT_TRUE(object.has_subscribers);
    EXPECT_EQ(statuses(), "");
}

TEST_F(Client, ABrokerThatReadsSlowlyIsWaitedFor) {
    static size_t sizes;
    sizes = 0;
    connect([](int fd) {
        usleep(50000);
        for (const Bytes &bytes : read_all(fd))
            sizes += bytes.size();
    });
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "s", std::string(500000, 'x').c_str());
    ubus_request request;
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(ubus_invoke_async(ctx, 5, "m", buf.head, &request), 0);
    blob_buf_free(&buf);
    ubus_free(ctx);
    ctx = nullptr;
    wait_for_broker();
    EXPECT_GT(sizes, 4 * 500000U);
}

TEST_F(Client, AMessageThatIsTooLongIsNotSent) {
    connect([](int fd) { EXPECT_EQ(read_all(fd).size(), 0U); });
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "s", std::string(UBUS_MAX_MSGLEN, 'x').c_str());
    ubus_request request;
    EXPECT_EQ(ubus_invoke_async(ctx, 5, "m", buf.head, &request), UBUS_STATUS_INVALID_ARGUMENT);
    ubus_request_data reply{};
    EXPECT_EQ(ubus_send_reply(ctx, &reply, buf.head), UBUS_STATUS_NO_DATA);
    blob_buf_free(&buf);
}

TEST_F(Client, RequestsAreToldOfTheirEnd) {
    connect([](int fd) {
        read_message(fd);
        const Bytes second = read_message(fd);
        read_message(fd);
        Bytes status = message(UBUS_MSG_STATUS, 0); // with the right number, then the right peer
        write_bytes(fd, Bytes(status).replace(2, 2, second.substr(2, 2)));
        write_bytes(fd, Bytes(status).replace(4, 4, second.substr(4, 4)));
        Bytes data = message(UBUS_MSG_DATA, 0);
        write_bytes(fd, data.replace(2, 6, second.substr(2, 6))); // nothing in it
        write_bytes(fd, status.replace(2, 6, second.substr(2, 6)));
    });
    static std::string ended, parts;
    ended.clear();
    parts.clear();
    ubus_request requests[3];
    for (auto &request : requests) {
        ASSERT_EQ(ubus_invoke_async(ctx, 5, "m", nullptr, &request), 0);
        request.data_cb = [](ubus_request *, int, blob_attr *) { parts += "d"; };
        request.complete_cb = [](ubus_request *, int status) { ended += std::to_string(status); };
        ubus_complete_request_async(ctx, &request);
        ubus_complete_request_async(ctx, &request); // once
    }
    ubus_abort_request(ctx, &requests[2]);
    ubus_abort_request(ctx, &requests[2]);
    EXPECT_TRUE(requests[2].cancelled);
    wait_for_broker();
    EXPECT_TRUE(is_lost());
    EXPECT_EQ(ended, "27") << "a status that says nothing is an invalid argument; then the end";
    EXPECT_EQ(parts, "");
    EXPECT_EQ(ubus_complete_request(ctx, &requests[1], 10), 2) << "it has ended already";
}

TEST_F(Client, TheEndCanBeNobodysConcern) {
    connect([](int) {});
    wait_for_broker();
    ctx->connection_lost = nullptr;
    ubus_handle_event(ctx);
    EXPECT_TRUE(ctx->sock.eof);
}

TEST_F(Client, TheEndIsNoticed) {
    connect([](int) {});
    wait_for_broker();
    EXPECT_TRUE(is_lost());
}

TEST_F(Client, TheEndIsNoticedBehindALastMessage) {
    connect([](int fd) { write_bytes(fd, from_hex(kStrayStatus)); });
    wait_for_broker();
    EXPECT_TRUE(is_lost());
}

TEST_F(Client, TheEndIsNoticedBehindMoreThanOneRead) {
    connect([](int fd) {
        for (int i = 0; i < 5000; i++) // 100 kB
            write_bytes(fd, from_hex(kStrayStatus));
    });
    EXPECT_TRUE(is_lost());
}

} // namespace
