// The conversations of tests/cases/*.case that are made of bus requests, against a real daemon.
//
// Terminal text comes back as "output", standard output is the daemon's, announcements are heard
// on the bus. The system log is not looked at here, and neither is the result of a command that a
// case gives to the parser directly, which the bus does not pass on.

#include "daemon.h"
#include "unit/case_file.h"

#include <cstring>

namespace {

// The request of a command that can be sent over the bus; direct rule commands become requests.
std::string live_request(const std::string &line) {
    if (line.starts_with("std ") || line.starts_with("ext ")) {
        Words words(line);
        const std::string kind = words.next(), name = words.next();
        return "action action=1 moudle=0 name=" + name + " type=" + (kind == "std" ? "1" : "0") +
               " rule=" + words.rest();
    }
    return request_of(line);
}

// Handlers number the terminals of one process and sizes are counted in it.
bool needs_fakes(const Step &step) {
    return live_request(step.command).empty() ||
           step.command.find("cmd_handler=") != std::string::npos;
}

std::string without(const std::string &expected, const std::string &channels) {
    std::istringstream lines(expected);
    std::string kept;
    for (std::string line; std::getline(lines, line);)
        if (channels.find(line[0]) == std::string::npos)
            kept += line + "\n";
    return kept;
}

std::string announced;

void on_event(ubus_context *, ubus_event_handler *, const char *, blob_attr *msg) {
    static const blobmsg_policy policy[] = {
        {.name = "name", .type = BLOBMSG_TYPE_STRING},
        {.name = "state", .type = BLOBMSG_TYPE_STRING},
    };
    blob_attr *tb[2];
    blobmsg_parse(policy, 2, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    announced += std::string(blobmsg_get_string(tb[0])) + " " + blobmsg_get_string(tb[1]) + "\n";
}

class LiveCase : public System {
  public:
    explicit LiveCase(Case c) : case_(std::move(c)) {}
    void TestBody() override {
        Client client(socket_path);
        ubus_event_handler listener{};
        listener.cb = on_event;
        ASSERT_EQ(ubus_register_event_handler(client.ctx, &listener, "resource.access-list"), 0);
        ubus_add_uloop(client.ctx);
        size_t said = 0;
        for (const auto &step : case_.steps) {
            announced.clear();
            const std::string method = fill_request(&client.message, live_request(step.command));
            const auto reply = client.call(method.c_str());
            for (int i = 0; i < 3; i++) // what was announced on the way is here already
                uloop_run_timeout(0);
            const std::string all = read_file("daemon.out");
            std::string actual = mark_lines('T', reply.output);
            actual += mark_lines('S', all.substr(said)) + mark_lines('B', announced);
            if (reply.status)
                actual += mark_lines('R', std::to_string(reply.status) + "\n");
            said = all.size();
            const bool direct = request_of(step.command).empty();
            EXPECT_EQ(actual, without(step.expected, direct ? "LR" : "L")) << "> " << step.command;
        }
    }

  private:
    Case case_;
};

// Registers the cases before main runs.
const int registered = [] {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(CASES_DIRECTORY)) {
        for (const auto &c : read_cases(entry.path())) {
            if (std::any_of(c.steps.begin(), c.steps.end(), needs_fakes))
                continue;
            testing::RegisterTest(identifier("Live_" + entry.path().stem().string()).c_str(),
                                  identifier(c.title).c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                  [c]() -> System * { return new LiveCase(c); });
            count++;
        }
    }
    return count;
}();

TEST(LiveCases, AreNotForgotten) { EXPECT_GT(registered, 50); }

} // namespace
