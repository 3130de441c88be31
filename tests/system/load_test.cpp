// Thirty-two clients at once. Each keeps a list of its own, of which it knows every rule, and adds
// to and takes from one list that all share; every reply is compared with what it must be.
//
// IPACL_LOAD_REQUESTS is how many requests are made in all; 200,000 without it.

#include "faulty_daemon.h"

#include "ipacl.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>

namespace {

constexpr int kClients = 32;
constexpr size_t kOwnRules = 24, kSharedRules = 6; // the most of one client
constexpr const char *kShared = "shared";

int requests_in_all() {
    const char *text = getenv("IPACL_LOAD_REQUESTS");
    return text ? atoi(text) : 200000;
}

// What each client has done, in memory that all see.
struct Tally {
    int requests, creates;
};

// The rules of one client in one list: numbers that come in at the end and go out at the front.
using Numbers = std::deque<int>;

std::string joined(std::initializer_list<std::string> parts) {
    std::string text;
    for (const auto &part : parts)
        text += part;
    return text;
}

std::string name_of(int client) { return joined({"own", std::to_string(client)}); }
bool is_standard(int client) { return client % 2 == 0; }

std::string address(int client, int number) {
    return joined({"10.", std::to_string(client), ".", std::to_string(number / 256 % 256), ".",
                   std::to_string(number % 256)});
}

// A rule as it is given and as an indexed listing shows it; `gap` is what the running
// configuration puts behind the action.
std::string rule_text(bool standard, int client, int number, const char *gap = "") {
    const std::string host = address(client, number) + " 255.255.255.255";
    return standard ? joined({"permit ", gap, host}) : joined({"permit ip ", host, " any"});
}

std::string heading(bool standard, const std::string &name) {
    return joined({"ip access-list ", standard ? "standard " : "extended ", name, "\n"});
}

class Worker {
  public:
    Worker(const std::string &socket_path, std::string terminals, int number, Tally &tally)
        : client_(socket_path), terminals_(std::move(terminals)), number_(number),
          name_(name_of(number)), standard_(is_standard(number)), tally_(tally),
          dice_(static_cast<unsigned>(number)) {}

    void work(int requests) {
        while (tally_.requests < requests)
            step();
        destroy();
        while (!shared_.empty())
            take(kShared, false, shared_);
    }

  private:
    using Step = void (Worker::*)();

    void step() {
        // By how often each comes up.
        static constexpr std::pair<int, Step> kSteps[] = {
            {30, &Worker::edit_own},      {30, &Worker::edit_shared}, {14, &Worker::show_own},
            {10, &Worker::json_own},      {4, &Worker::show_running}, {3, &Worker::show_by_files},
            {2, &Worker::json_directory}, {5, &Worker::enter},        {1, &Worker::destroy},
            {1, &Worker::nothing},
        };
        int roll = std::uniform_int_distribution(0, 99)(dice_);
        for (const auto &[share, what] : kSteps) {
            if (roll < share)
                return (this->*what)();
            roll -= share;
        }
    }

    void expect(bool right, const std::string &what, const std::string &got) const {
        if (!right)
            throw std::runtime_error(
                joined({"client ", std::to_string(number_), ": ", what, ":\n", got}));
    }

    std::string ask(const char *method, int action, const char *name, bool standard,
                    const std::string &rule = "", int handler = 0) {
        blob_buf *message = &client_.message;
        blobmsg_add_u8(message, "action", static_cast<uint8_t>(action));
        blobmsg_add_u8(message, "moudle", 0);
        if (name) {
            blobmsg_add_string(message, "name", name);
            blobmsg_add_u8(message, "type", standard);
        }
        if (!rule.empty())
            blobmsg_add_string(message, "rule", rule.c_str());
        if (handler)
            blobmsg_add_u32(message, "cmd_handler", static_cast<uint32_t>(handler));
        const auto reply = client_.call(method);
        tally_.requests++;
        expect(reply.status == 0 && !reply.truncated, method, std::to_string(reply.status));
        return reply.output;
    }

    void command(const char *list, bool standard, const std::string &rule) {
        const std::string said = ask("action", 1, list, standard, rule);
        expect(said.empty(), rule, said);
    }
    void add(const char *list, bool standard, Numbers &numbers, int &next) {
        command(list, standard, rule_text(standard, number_, next));
        numbers.push_back(next++);
    }
    void take(const char *list, bool standard, Numbers &numbers) {
        command(list, standard, joined({"no ", rule_text(standard, number_, numbers.front())}));
        numbers.pop_front();
    }
    void edit(const char *list, bool standard, Numbers &numbers, int &next, size_t most) {
        const bool full = numbers.size() == most;
        if (full || (!numbers.empty() && dice_() % 3 == 0))
            take(list, standard, numbers);
        else
            add(list, standard, numbers, next);
    }

    void edit_own() {
        if (!exists_)
            return enter();
        edit(name_.c_str(), standard_, own_, next_own_, kOwnRules);
    }
    void edit_shared() { edit(kShared, false, shared_, next_shared_, kSharedRules); }

    void enter() {
        ask("create", 0, name_.c_str(), standard_);
        tally_.creates++;
        exists_ = true;
        ask("action", 2, name_.c_str(), standard_);
    }
    void destroy() {
        if (!exists_)
            return;
        ask("destroy", 0, name_.c_str(), standard_);
        exists_ = false;
        own_.clear();
    }
    void nothing() { ask("gsync_init", 0, nullptr, false); }

    void show_own() {
        std::string listing;
        if (exists_ && !own_.empty()) {
            listing = std::string(standard_ ? "Standard" : "Extended") + " IP access list " +
                      name_ + "\n Index          Rule content\n " + std::string(68, '-') + "\n";
            for (size_t i = 0; i < own_.size(); i++) {
                const std::string index = std::to_string(i + 1);
                listing += std::string(6 - index.size(), ' ') + index + std::string(10, ' ') +
                           rule_text(standard_, number_, own_[i]) + "\n";
            }
        }
        const std::string shown = ask("action", 4, name_.c_str(), standard_);
        if (exists_ && !own_.empty())
            expect(shown == listing, "not " + listing + "but", shown);
        else
            expect(shown.find("permit") == std::string::npos, "rules of an empty list", shown);
    }

    void json_own() {
        const std::string text = ask("action", 5, name_.c_str(), standard_);
        const std::unique_ptr<cJSON, void (*)(cJSON *)> rules(cJSON_Parse(text.c_str()),
                                                              cJSON_Delete);
        expect(cJSON_GetArraySize(rules.get()) == static_cast<int>(own_.size()), "JSON", text);
        const cJSON *rule = nullptr;
        auto number = own_.begin();
        cJSON_ArrayForEach(rule, rules.get()) {
            const char *host =
                cJSON_GetStringValue(cJSON_GetObjectItem(rule, standard_ ? "SrcIp" : "SrcAddress"));
            const std::string wanted =
                address(number_, *number++) + (standard_ ? "" : " 255.255.255.255");
            expect(host && wanted == host && cJSON_GetArraySize(rule) == (standard_ ? 6 : 16),
                   "not " + wanted, text);
        }
    }

    void json_directory() {
        const std::string text = ask("action", 5, nullptr, false);
        const std::unique_ptr<cJSON, void (*)(cJSON *)> lists(cJSON_Parse(text.c_str()),
                                                              cJSON_Delete);
        int mine = 0, common = 0;
        const cJSON *list = nullptr;
        cJSON_ArrayForEach(list, lists.get()) {
            const char *name = cJSON_GetStringValue(cJSON_GetObjectItem(list, "IpAccessListName"));
            expect(name, "a list without a name", text);
            mine += name == name_;
            common += strcmp(name, kShared) == 0;
        }
        expect(mine == exists_ && common == 1, "directory", text);
    }

    void show_running() { check_running(ask("showrunning", 0, nullptr, false)); }

    void show_by_files() {
        const std::string prefix = joined({terminals_, "/vty_", std::to_string(number_ + 1), "_"});
        const std::string said = ask("showrunning", 0, nullptr, false, "", number_ + 1);
        expect(said.empty(), "text beside the files", said);
        check_running(slurp(prefix + "0"));
        expect(slurp(prefix + "1").empty(), "an answer", slurp(prefix + "1"));
        for (const char *end : {"0", "1"})
            unlink((prefix + end).c_str());
    }

    // Every list is there once and whole, mine and my share of the common one as I know them.
    void check_running(const std::string &text) {
        std::map<std::string, std::string> lists; // heading to rules
        std::string head, rules;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line == "!") {
                expect(lists.emplace(head, rules).second, "twice " + head, text);
                head.clear();
                rules.clear();
            } else if (head.empty()) {
                expect(line.starts_with("ip access-list "), "no heading: " + line, text);
                head = line + "\n";
            } else {
                rules += line + "\n";
            }
        }
        expect(head.empty() && (text.empty() || text.back() == '\n'), "a list without an end",
               text);
        const auto mine = lists.find(heading(standard_, name_));
        expect((mine != lists.end()) == exists_, "mine", text);
        expect(!exists_ || mine->second == running_rules(standard_, own_), "my rules", text);
        for (const auto &[name, body] : lists)
            check_runs(body, text);
        const auto common = lists.find(heading(false, kShared));
        expect(common != lists.end(), "the common list", text);
        std::string my_share;
        std::istringstream share(common->second);
        for (std::string line; std::getline(share, line);)
            if (line.find(joined({" 10.", std::to_string(number_), "."})) != std::string::npos)
                my_share += line + "\n";
        expect(my_share == running_rules(false, shared_), "my rules of the common list", text);
    }

    std::string running_rules(bool standard, const Numbers &numbers) const {
        std::string text;
        for (int number : numbers)
            text += joined({" ", rule_text(standard, number_, number, " "), "\n"});
        return text;
    }

    // The rules of each client in a list are consecutive: nothing is missing between two of them.
    void check_runs(const std::string &rules, const std::string &text) {
        std::map<int, int> last;
        std::istringstream lines(rules);
        for (std::string line; std::getline(lines, line);) {
            int client = 0, high = 0, low = 0;
            const size_t at = line.find("10.");
            expect(at != std::string::npos &&
                       sscanf(line.c_str() + at, "10.%d.%d.%d", &client, &high, &low) == 3,
                   "no rule: " + line, text);
            const int number = high * 256 + low;
            const auto [before, first] = last.emplace(client, number);
            expect(first || number == (before->second + 1) % 65536, "a gap at " + line, text);
            before->second = number;
        }
    }

    Client client_;
    const std::string terminals_;
    const int number_;
    const std::string name_;
    const bool standard_;
    Tally &tally_;
    std::mt19937 dice_;
    bool exists_ = false;
    Numbers own_, shared_;
    int next_own_ = 0, next_shared_ = 0;
};

using Load = FaultyDaemon;

TEST_F(Load, ThirtyTwoClientsAtOnceAreServedRight) {
    auto *tallies =
        static_cast<Tally *>(mmap(nullptr, kClients * sizeof(Tally), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(tallies, MAP_FAILED);
    ctl({"create", kShared, "--type", "extended"});
    Client(socket_path).call("showrunning"); // what is kept between requests is allocated
    const int64_t blocks = settled_blocks(), bytes = block_->bytes;
    const size_t open = descriptors(daemon), broker_open = descriptors(broker);

    std::vector<pid_t> workers;
    for (int i = 0; i < kClients; i++) {
        const pid_t pid = fork();
        if (pid == 0) {
            try {
                Worker(socket_path, terminal_directory, i, tallies[i])
                    .work(requests_in_all() / kClients);
            } catch (const std::exception &wrong) {
                fprintf(stderr, "%s\n", wrong.what());
                _exit(1);
            }
            _exit(0);
        }
        workers.push_back(pid);
    }
    for (pid_t pid : workers) {
        int status;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }

    Tally sum{0, 0};
    for (int i = 0; i < kClients; i++) {
        sum.requests += tallies[i].requests;
        sum.creates += tallies[i].creates;
    }
    munmap(tallies, kClients * sizeof(Tally));
    EXPECT_GE(sum.requests, requests_in_all());
    EXPECT_EQ(running(), heading(false, kShared) + "!\n");
    // Each creation loses one empty record, and nothing else is lost.
    EXPECT_EQ(settled_blocks() - blocks, sum.creates);
    EXPECT_LE(block_->bytes - bytes,
              sum.creates * static_cast<int64_t>(sizeof(ipacl_extended_rule) + 32));
    EXPECT_EQ(descriptors(daemon), open);
    EXPECT_LE(descriptors(broker), broker_open);
    RecordProperty("requests", sum.requests);
    RecordProperty("creates", sum.creates);
    printf("%d requests, %d of them creations\n", sum.requests, sum.creates);
}

} // namespace
