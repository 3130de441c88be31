// Handlers and callbacks that wait for something themselves: by a call that waits for its answer,
// or by running the loop. Whatever comes meanwhile is served in its turn, and nothing needs a
// further message to wake it.

#include "spoken_broker.h"

namespace {

constexpr uint32_t kObject = 5;

// A client with one object. What is said to it is written by the test itself, ahead of time where
// the library waits for it.
class Nested : public Client {
  protected:
    Nested() {
        served.clear();
        within = nullptr;
        connect([this](int fd) { peer_ = dup(fd); });
        wait_for_broker();
        ubus_add_uloop(ctx);
        object.methods = &kMethod;
        object.n_methods = 1;
        say(answer_to_next(object_and(kObject)));
        EXPECT_EQ(ubus_add_object(ctx, &object), 0);
    }
    ~Nested() override { close(peer_); }

    void say(const Bytes &bytes) const { write_bytes(peer_, bytes); }
    static Bytes call(const char *method) {
        return message(UBUS_MSG_INVOKE, 1,
                       object_and(kObject, text_attribute(UBUS_ATTR_METHOD, method) +
                                               attribute(UBUS_ATTR_DATA, Bytes())));
    }
    // The answer to the request that comes next, whose peer is `peer`.
    Bytes answer_to_next(const Bytes &data, uint32_t peer = 0) const {
        const auto seq = static_cast<uint16_t>(ctx->request_seq + 1);
        Bytes both;
        for (const auto &[type, body] :
             {std::pair<int, Bytes>{UBUS_MSG_DATA, data},
              {UBUS_MSG_STATUS, attribute(UBUS_ATTR_STATUS, uint32_t{0})}})
            both += message(type, seq, body).replace(4, 4, message(0, 0, "", peer).substr(8));
        return both;
    }
    // A call that waits for its answer; before that comes, `first` does.
    void look_up(const Bytes &first = "") {
        say(first + answer_to_next(object_and(7)));
        uint32_t id = 0;
        EXPECT_EQ(ubus_lookup_id(ctx, "x", &id), 0);
        EXPECT_EQ(id, 7U);
    }
    // Runs the loop until `done`, or long enough to know that it will never be.
    static bool await(const std::function<bool()> &done) {
        for (int i = 0; i < 300 && !done(); i++)
            uloop_run_timeout(10);
        return done();
    }
    // A few passes of the loop, without waiting.
    static void run_passes() {
        for (int i = 0; i < 3; i++)
            uloop_run_timeout(0);
    }
    // Says `bytes` and runs the loop until the library has taken them.
    void arrive_in_loop(const Bytes &bytes) {
        say(bytes);
        for (int i = 0; i < 3; i++)
            uloop_run_timeout(10);
    }
    // Calls "wait", whose handler does `wait`; behind it comes `behind`. What is served then, in
    // order, is `expected`: "(" and ")" stand for the begin and the end of "wait".
    void expect_served(const std::string &expected, const std::function<void()> &wait,
                       const Bytes &behind = "") {
        within = wait;
        say(call("wait") + behind);
        await([&] { return served.size() >= expected.size(); });
        run_passes();
        EXPECT_EQ(served, expected);
    }

    static inline std::string served;
    static inline std::function<void()> within;
    ubus_object object{};
    int peer_ = -1;

  private:
    static int serve(ubus_context *, ubus_object *, ubus_request_data *, const char *method,
                     blob_attr *) {
        if (std::string(method) != "wait") {
            served += method;
            return 0;
        }
        served += "(";
        within();
        served += ")";
        return 0;
    }
    static constexpr ubus_method kMethod = {nullptr, serve, 0, 0, nullptr, 0};
};

TEST_F(Nested, ACallThatComesInACallThatWaitsIsServedAfterwards) {
    expect_served("()a", [this] { look_up(call("a")); });
}

TEST_F(Nested, ACallThatComesInALoopIsServedAfterwards) {
    expect_served("()a", [this] { arrive_in_loop(call("a")); });
}

TEST_F(Nested, ACallBehindIsServedAfterALoop) { expect_served("()a", run_passes, call("a")); }

TEST_F(Nested, ACallBehindIsServedAfterACallThatWaitsAndALoop) {
    expect_served(
        "()a",
        [this] {
            look_up();
            run_passes();
        },
        call("a"));
}

TEST_F(Nested, CallsInTwoCallsThatWaitAreServedInOrder) {
    expect_served(
        "()abc",
        [this] {
            look_up(call("b"));
            look_up(call("c"));
        },
        call("a"));
}

TEST_F(Nested, CallsInTwoLoopsAroundACallThatWaitsAreServedInOrder) {
    expect_served(
        "()abcd",
        [this] {
            arrive_in_loop(call("b"));
            look_up(call("c"));
            arrive_in_loop(call("d"));
        },
        call("a"));
}

TEST_F(Nested, ACallThatComesInALoopThatIsEndedIsServedAfterwards) {
    expect_served("()a", [this] {
        say(call("a"));
        uloop_timeout end{};
        end.cb = [](uloop_timeout *) { uloop_end(); };
        uloop_timeout_set(&end, 20);
        uloop_run();
    });
}

TEST_F(Nested, AWaitingCallThatComesInAWaitingCallHasItsTurnToo) {
    int depth = 0;
    expect_served("()()a", [&] {
        if (depth++ == 0)
            arrive_in_loop(call("wait") + call("a"));
        else
            run_passes();
    });
}

TEST_F(Nested, ACallThatComesWhileAnAnswerIsTakenIsServedAfterwards) {
    const Bytes asked = answer_to_next(object_and(7), 9);
    ubus_request request;
    ASSERT_EQ(ubus_invoke_async(ctx, 9, "m", nullptr, &request), 0);
    within = [this] {
        look_up(call("a"));
        arrive_in_loop(call("b"));
    };
    request.complete_cb = [](ubus_request *, int) {
        within();
        served += ".";
    };
    say(asked);
    EXPECT_EQ(ubus_complete_request(ctx, &request, 0), 0);
    EXPECT_TRUE(await([] { return served == ".ab"; })) << served;
}

TEST_F(Nested, AnAnswerBehindACallReachesTheLoopOfItsHandler) {
    static bool answered;
    answered = false;
    const Bytes asked = answer_to_next(object_and(7), 9);
    ubus_request request;
    ASSERT_EQ(ubus_invoke_async(ctx, 9, "m", nullptr, &request), 0);
    request.complete_cb = [](ubus_request *, int) { answered = true; };
    ubus_complete_request_async(ctx, &request);
    expect_served(
        "()a", [] { EXPECT_TRUE(await([] { return answered; })); }, asked + call("a"));
}

TEST_F(Nested, WithoutALoopOfOursACallThatWasQueuedIsServedWithTheNextEvent) {
    uloop_fd_delete(&ctx->sock);
    look_up(call("a"));
    EXPECT_EQ(served, "");
    ubus_handle_event(ctx);
    EXPECT_EQ(served, "a");
}

TEST_F(Nested, ALateCallIsNotServedBeforeAnEarlierOne) {
    look_up(call("a"));
    say(call("b"));
    ubus_handle_event(ctx); // before the loop runs
    EXPECT_EQ(served, "ab");
}

TEST_F(Nested, TheEndOfTheConnectionBehindACallReachesTheLoopOfItsHandlerOnce) {
    static int lost;
    static bool failed;
    lost = 0;
    failed = false;
    ctx->connection_lost = [](ubus_context *) { lost++; };
    ubus_request request;
    ASSERT_EQ(ubus_invoke_async(ctx, 9, "m", nullptr, &request), 0);
    request.complete_cb = [](ubus_request *, int) { failed = true; };
    ubus_complete_request_async(ctx, &request);
    within = [] { EXPECT_TRUE(await([] { return failed; })); };
    say(call("wait"));
    shutdown(peer_, SHUT_RDWR);
    EXPECT_TRUE(await([] { return lost > 0; }));
    run_passes();
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(served, "()");
}

TEST_F(Nested, WhatIsQueuedWhenTheConnectionEndsIsDropped) {
    ctx->connection_lost = nullptr;
    expect_served("()", [this] {
        arrive_in_loop(call("a"));
        shutdown(peer_, SHUT_RDWR);
        run_passes();
    });
    EXPECT_TRUE(ctx->sock.eof);
}

} // namespace
