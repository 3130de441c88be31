#include "bus_rows.h"
#include "lists.h"
#include "relay.h"
#include "table.h"

#include "obj_ipacl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

// Many short rounds: a round in which another process had the processor counts no more than one.
constexpr int kShortRounds = 101;
constexpr int kRequests = 50; // a round
constexpr uint32_t kRules = 1000;
constexpr const char *kList = "requests";

// A client of the service.
class Caller {
  public:
    Caller() : ctx_(ubus_connect(getenv("UBUS_SOCKET"))) {
        if (!ctx_ || ubus_lookup_id(ctx_, "L.IPACL", &id_) != 0) {
            fputs("bus_bench: the service is not on the bus\n", stderr);
            exit(1);
        }
    }
    ~Caller() {
        blob_buf_free(&message_);
        ubus_free(ctx_);
    }
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;

    blob_attr *no_arguments() {
        blobmsg_buf_init(&message_);
        return message_.head;
    }
    blob_attr *arguments(ipacl_action_code action, const char *rule) {
        blobmsg_buf_init(&message_);
        blobmsg_add_string(&message_, "name", kList);
        blobmsg_add_u8(&message_, "action", static_cast<uint8_t>(action));
        blobmsg_add_u8(&message_, "moudle", IPACL_MOUDLE_CMD);
        blobmsg_add_u8(&message_, "type", 0);
        if (rule)
            blobmsg_add_string(&message_, "rule", rule);
        return message_.head;
    }
    void call(const char *method, blob_attr *arguments) {
        if (ubus_invoke(ctx_, id_, method, arguments, nullptr, nullptr, 10000) != 0) {
            fprintf(stderr, "bus_bench: %s was refused\n", method);
            exit(1);
        }
    }
    void rule(const std::string &text) {
        call("action", arguments(IPACL_ACTION_EDIT, text.c_str()));
    }

  private:
    ubus_context *ctx_;
    uint32_t id_ = 0;
    blob_buf message_{};
};

size_t padded(size_t payload) { return (sizeof(blob_attr) + payload + 3) & ~size_t{3}; }

// What a call weighs on its way: the broker adds the caller's user and group.
Relay::Bytes bytes_of(const char *method, const blob_attr *arguments) {
    constexpr size_t kFrame = sizeof(ubus_msghdr) + sizeof(blob_attr);
    const size_t call = kFrame + padded(4) + padded(strlen(method) + 1) +
                        padded(static_cast<size_t>(blob_len(arguments)));
    const size_t names = padded(strlen(getpwuid(getuid())->pw_name) + 1) +
                         padded(strlen(getgrgid(getgid())->gr_name) + 1);
    return {call, call + names, kFrame + padded(4) + padded(4)};
}

// A rule that the list lacks, in and out again; only the first is timed.
double time_rules(Caller &caller) {
    const std::string rule = extended_command(kRules + 1);
    double sum = 0;
    for (int i = 0; i < kRequests; i++) {
        blob_attr *arguments = caller.arguments(IPACL_ACTION_EDIT, rule.c_str());
        sum += seconds([&] { caller.call("action", arguments); });
        caller.rule("no " + rule);
    }
    return sum / kRequests;
}

template <class F>
double time_each(F work) {
    return seconds([&] {
               for (int i = 0; i < kRequests; i++)
                   work();
           }) /
           kRequests;
}

} // namespace

void print_request_rows(const Programs &programs) {
    const System system(programs);
    Caller caller;
    Relay relay(bytes_of("gsync_init", caller.no_arguments()));
    caller.call("create", caller.arguments(IPACL_ACTION_CREATE, nullptr));
    for (uint32_t i = 0; i < kRules; i++)
        caller.rule(extended_command(i));
    std::vector<double> floor, no_op, rule;
    for (int round = 0; round < kShortRounds; round++) {
        floor.push_back(time_each([&] { relay.round_trip(); }));
        blob_attr *nothing = caller.no_arguments();
        no_op.push_back(time_each([&] { caller.call("gsync_init", nothing); }));
        rule.push_back(time_rules(caller));
    }
    print_row("request that does nothing, floor: bare relay", median(no_op), median(floor), 1.2);
    print_row("rule into 1000 by request, floor: does nothing", median(rule), median(no_op), 1.3);
}

void print_start_row(const Programs &programs) {
    System system(programs);
    std::vector<double> ours, floor;
    for (int round = 0; round < 3 * kRounds; round++) {
        Process other;
        floor.push_back(until_ready({programs.ready}, other));
        ours.push_back(system.restart_daemon());
    }
    print_row("start to ready, floor: a process that says so", median(ours), median(floor), 0);
}
