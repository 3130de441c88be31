// Plays the conversations of tests/cases/*.case against the service on the fake platform. Run with
// --record to write the files as they would be right now.

#include "case_file.h"
#include "fixture.h"

#include "ipaclext.h"
#include "ipaclstd.h"
#include "obj_ipacl.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <libubus.h>

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace {

// Goes with all that is in it.
struct TemporaryDirectory {
    TemporaryDirectory() {
        char name[] = "/tmp/ipacl-case-XXXXXX";
        path = mkdtemp(name);
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    std::string path;
};

// --- Fields of records, by name ---

using Setter = void (*)(void *, const std::string &);

// A rule owns its remark.
char *replace_text(char *old, const std::string &text) {
    sys_mem_free(old);
    auto *copy = static_cast<char *>(sys_mem_malloc(text.size() + 1));
    return strcpy(copy, text.c_str());
}

template <auto Member, class Record>
void set_field(void *record, const std::string &value) {
    auto &field = static_cast<Record *>(record)->*Member;
    using Field = std::remove_reference_t<decltype(field)>;
    if constexpr (std::is_same_v<Field, in_addr>)
        field.s_addr = inet_addr(value.c_str());
    else if constexpr (std::is_same_v<Field, char *>)
        field = replace_text(field, value);
    else if constexpr (std::is_array_v<Field>)
        strncpy(field, value.c_str(), sizeof field - 1);
    else
        field = static_cast<Field>(strtoull(value.c_str(), nullptr, 0));
}

#define FIELD(record, name)                                                                        \
    { #name, set_field < &record::name, record> }

const std::map<std::string, Setter> kStandardFields = {
    FIELD(ipacl_standard_rule, srcaddr),      FIELD(ipacl_standard_rule, srcmsk),
    FIELD(ipacl_standard_rule, flags),        FIELD(ipacl_standard_rule, src_begin_addr),
    FIELD(ipacl_standard_rule, src_end_addr), FIELD(ipacl_standard_rule, compare_flag),
    FIELD(ipacl_standard_rule, any_flag),     FIELD(ipacl_standard_rule, status),
    FIELD(ipacl_standard_rule, remark),       FIELD(ipacl_standard_rule, stat_count),
};

const std::map<std::string, Setter> kExtendedFields = {
    FIELD(ipacl_extended_rule, protcol),
    FIELD(ipacl_extended_rule, src_vlan_name),
    FIELD(ipacl_extended_rule, srcaddr),
    FIELD(ipacl_extended_rule, srcmsk),
    FIELD(ipacl_extended_rule, src_port),
    FIELD(ipacl_extended_rule, src_port_flags),
    FIELD(ipacl_extended_rule, src_begin_port),
    FIELD(ipacl_extended_rule, src_end_port),
    FIELD(ipacl_extended_rule, dst_vlan_name),
    FIELD(ipacl_extended_rule, dstaddr),
    FIELD(ipacl_extended_rule, dstmsk),
    FIELD(ipacl_extended_rule, dst_port),
    FIELD(ipacl_extended_rule, dst_port_flags),
    FIELD(ipacl_extended_rule, dst_begin_port),
    FIELD(ipacl_extended_rule, dst_end_port),
    FIELD(ipacl_extended_rule, src_compare_flag),
    FIELD(ipacl_extended_rule, dst_compare_flag),
    FIELD(ipacl_extended_rule, src_any_flag),
    FIELD(ipacl_extended_rule, dst_any_flag),
    FIELD(ipacl_extended_rule, time_range),
    FIELD(ipacl_extended_rule, flags),
    FIELD(ipacl_extended_rule, tcpflags),
    FIELD(ipacl_extended_rule, cosflag),
    FIELD(ipacl_extended_rule, cos),
    FIELD(ipacl_extended_rule, fragment_flags),
    FIELD(ipacl_extended_rule, offset_flags),
    FIELD(ipacl_extended_rule, totallen_flags),
    FIELD(ipacl_extended_rule, ttl_flags),
    FIELD(ipacl_extended_rule, status),
    FIELD(ipacl_extended_rule, remark),
    FIELD(ipacl_extended_rule, stat_count),
    FIELD(ipacl_extended_rule, is_act),
};

const std::map<std::string, Setter> kListFields = {
    FIELD(ipacl, status),
    FIELD(ipacl, is_dynamic),
    FIELD(ipacl, merge_enable),
    FIELD(ipacl, rule_count),
};

void set_fields(void *record, const std::map<std::string, Setter> &fields, Words &words) {
    for (std::string pair; !(pair = words.next()).empty();) {
        const size_t at = pair.find('=');
        std::string value = pair.substr(at + 1);
        std::replace(value.begin(), value.end(), '_', ' ');
        fields.at(pair.substr(0, at))(record, value);
    }
}

template <class Rule>
Rule *rule_at(Rule *rule, int number) {
    while (rule && --number > 0)
        rule = rule->ipacl_next;
    return rule;
}

std::string printed_by_callback;
size_t blocks_at_start;

int print_callback(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    char line[4096];
    const int length = vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    printed_by_callback += line;
    return length;
}

// --- Requests ---

using Handler = int (*)(ebus_request_s *, const char *, blob_attr *, blob_buf *);

int call(const std::string &method, blob_attr *message) {
    for (const auto &entry : ipacl_methods)
        if (method == entry.name)
            return entry.handler(nullptr, entry.name, message, nullptr);
    ADD_FAILURE() << "no method " << method;
    return 0;
}

size_t creations = 0;         // of this case that succeeded
bool memory_is_short = false; // for the command at hand

int request(const std::string &line) {
    blob_buf buf{};
    const std::string method = fill_request(&buf, line);
    const int status = call(method, buf.head);
    blob_buf_free(&buf);
    creations += method == "create" && status == 0 && !memory_is_short;
    return status;
}

std::string terminal_file(const std::string &name) {
    std::ifstream in(std::string(vty_file_pre) + "_" + name);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// One command; its result.
int play(const std::string &line, std::string &terminal) {
    Words words(line);
    const std::string command = words.next();
    if (command == "call-without-message")
        return call(words.next(), nullptr);
    if (const std::string asked = request_of(line); !asked.empty())
        return request(asked);
    if (command == "std" || command == "ext") {
        const std::string name = words.next(), text = unescape(words.rest());
        return command == "std" ? do_standard_end(name.c_str(), text.c_str())
                                : do_extended_end(name.c_str(), text.c_str());
    }
    if (command == "acls_exit")
        return acls_exit(words.next().c_str());
    if (command == "acle_exit")
        return acle_exit(words.next().c_str());
    if (command == "acls_exit-null")
        return acls_exit(nullptr);
    if (command == "acle_exit-null")
        return acle_exit(nullptr);
    if (command == "listing") {
        const ipacl *list = ipacl_config_find(words.next().c_str());
        show_rule(list, words.number());
        return 0;
    }
    if (command == "listing-null") {
        show_rule(nullptr, 0);
        return 0;
    }
    if (command == "show_acl") {
        show_acl(words.number());
        return 0;
    }
    if (command == "print_space") {
        print_space(words.number());
        return 0;
    }
    if (command == "acl_print")
        return acl_print();
    if (command == "counted") {
        const std::string name = words.next();
        show_ip_acl_rule(name == "-" ? nullptr : ipacl_config_find(name.c_str()), words.number(),
                         print_callback);
        terminal = std::exchange(printed_by_callback, "");
        return 0;
    }
    if (command == "byname") {
        print_ipaclrule_byname(words.next().c_str());
        return fake::mutexes().held;
    }
    if (command == "init") {
        std::vector<ipacl *> heads(hash_table, hash_table + IPACL_HASH_SIZE);
        ipacl_init();
        std::copy(heads.begin(), heads.end(), hash_table);
        return 0;
    }
    if (command == "list") {
        ipacl *list = ipacl_config_find(words.next().c_str());
        set_fields(list, kListFields, words);
        return 0;
    }
    if (command == "set") {
        const ipacl *list = ipacl_config_find(words.next().c_str());
        const int number = words.number();
        if (list->is_standard)
            set_fields(rule_at(list->ipacl_s, number), kStandardFields, words);
        else
            set_fields(rule_at(list->ipacl_e, number), kExtendedFields, words);
        return 0;
    }
    if (command == "interface") {
        const std::string name = words.next(), address = words.next();
        fake::set_interface(name, 5, address, words.next());
        return 0;
    }
    if (command == "no-sockets") {
        fake::fail_socket(true);
        return 0;
    }
    if (command == "fail-allocation") {
        fake::fail_allocation(words.number());
        return 0;
    }
    if (command == "sync-result") {
        fake::set_sync_result(words.number());
        return 0;
    }
    if (command == "prefix") {
        fake::set_vty_prefix(words.next().c_str());
        return 0;
    }
    if (command == "temporary-prefix") {
        static const TemporaryDirectory directory;
        fake::set_vty_prefix((directory.path + "/vty").c_str());
        return 0;
    }
    if (command == "terminal-handler") {
        log_print_handler = words.number();
        return 0;
    }
    if (command == "open-stream") {
        (words.number() == 1 ? log_print_fp_1 : log_print_fp_0) = tmpfile();
        return 0;
    }
    if (command == "terminal-file") {
        terminal = terminal_file(words.next());
        return 0;
    }
    if (command == "blocks") // more than when the case began
        return static_cast<int>(fake::live_blocks() - blocks_at_start);
    if (command == "sockets-opened")
        return fake::sockets().opened;
    if (command == "sockets-closed")
        return fake::sockets().closed;
    if (command == "watchdog-kicks")
        return fake::watchdog_kicks();
    ADD_FAILURE() << "no such command: " << line;
    return 0;
}

std::string outcome_of(const std::string &line) {
    int result = 0;
    std::string terminal;
    const std::string standard_output = fake::stdout_of([&] { result = play(line, terminal); });
    std::string marked = mark_lines('T', fake::take_terminal() + terminal);
    marked += mark_lines('S', standard_output);
    marked += mark_lines('L', fake::take_log_text());
    for (const auto &sync : fake::take_syncs())
        marked += mark_lines('B', sync.name + (sync.resource ? " changed\n" : " removed\n"));
    if (result)
        marked += mark_lines('R', std::to_string(result) + "\n");
    return marked;
}

// True for a command that was refused when its record was made.
bool loses_its_record(const std::string &outcome) {
    return outcome.find("Error:The ip-address should not be less than") != std::string::npos ||
           outcome.find("ipacl socket error") != std::string::npos;
}

class CaseTest : public ServiceTest {
  public:
    explicit CaseTest(Case c) : case_(std::move(c)) {}
    void TestBody() override {
        blocks_at_start = fake::live_blocks();
        creations = 0;
        size_t refused = 0;
        const size_t mark = fake::mark();
        for (const auto &step : case_.steps) {
            const std::string outcome = outcome_of(step.command);
            EXPECT_EQ(outcome, step.expected) << "> " << step.command;
            memory_is_short = step.command.starts_with("fail-allocation");
            refused += loses_its_record(outcome);
        }
        clear();
        // Lost by design: the record that each creation makes beside its list, and the record of a
        // command that was refused in the middle. Nothing else.
        EXPECT_EQ(fake::free_lost(mark), creations + refused);
    }

  private:
    Case case_;
};

class Recorder : public ServiceTest {
  public:
    void TestBody() override {}
    static void record(const std::filesystem::path &path) {
        std::ostringstream text;
        for (const auto &c : read_cases(path)) {
            clear();
            blocks_at_start = fake::live_blocks();
            text << "# " << c.title << '\n';
            for (const auto &step : c.steps)
                text << "> " << step.command << '\n' << outcome_of(step.command);
            text << '\n';
        }
        clear();
        std::ofstream(path) << text.str();
    }
};

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const bool record = argc > 1 && strcmp(argv[1], "--record") == 0;
    for (const auto &entry : std::filesystem::directory_iterator(CASES_DIRECTORY)) {
        if (record) {
            Recorder::record(entry.path());
            continue;
        }
        for (const auto &c : read_cases(entry.path()))
            testing::RegisterTest(identifier("Case_" + entry.path().stem().string()).c_str(),
                                  identifier(c.title).c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                  [c]() -> ServiceTest * { return new CaseTest(c); });
    }
    return record ? 0 : RUN_ALL_TESTS();
}
