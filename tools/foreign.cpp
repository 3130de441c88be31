#include "foreign.h"

#include "list_source.h"

#include "ipacl/acl_words.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <charconv>
#include <iterator>
#include <optional>
#include <sstream>

namespace ipaclctl {
namespace {

using Extended = ipacl_extended_rule;
using Words = std::vector<std::string>;

struct Number {
    const char *word;
    uint16_t number;
};

constexpr Number kProtocols[] = {{"ipinip", 4}, {"esp", 50},  {"ahp", 51},  {"eigrp", 88},
                                 {"nos", 94},   {"pim", 103}, {"pcp", 108}, {"vrrp", 112}};

constexpr Number kPorts[] = {
    {"echo", 7},         {"discard", 9},         {"daytime", 13},     {"chargen", 19},
    {"ssh", 22},         {"time", 37},           {"nameserver", 42},  {"whois", 43},
    {"tacacs", 49},      {"bootps", 67},         {"bootpc", 68},      {"gopher", 70},
    {"finger", 79},      {"http", 80},           {"hostname", 101},   {"sunrpc", 111},
    {"ident", 113},      {"nntp", 119},          {"ntp", 123},        {"msrpc", 135},
    {"netbios-ns", 137}, {"netbios-dgm", 138},   {"netbios-ss", 139}, {"snmptrap", 162},
    {"xdmcp", 177},      {"irc", 194},           {"dnsix", 195},      {"mobile-ip", 434},
    {"https", 443},      {"pim-auto-rp", 496},   {"isakmp", 500},     {"exec", 512},
    {"biff", 512},       {"who", 513},           {"cmd", 514},        {"lpd", 515},
    {"talk", 517},       {"rip", 520},           {"uucp", 540},       {"klogin", 543},
    {"kshell", 544},     {"non500-isakmp", 4500}};

constexpr Number kPrecedences[] = {{"routine", 0},  {"priority", 1},       {"immediate", 2},
                                   {"flash", 3},    {"flash-override", 4}, {"critical", 5},
                                   {"internet", 6}, {"network", 7}};

constexpr Number kTos[] = {{"normal", 0},
                           {"min-monetary-cost", 1},
                           {"max-reliability", 2},
                           {"max-throughput", 4},
                           {"min-delay", 8}};

constexpr Number kDscp[] = {{"default", 0}, {"cs1", 8},   {"af11", 10}, {"af12", 12}, {"af13", 14},
                            {"cs2", 16},    {"af21", 18}, {"af22", 20}, {"af23", 22}, {"cs3", 24},
                            {"af31", 26},   {"af32", 28}, {"af33", 30}, {"cs4", 32},  {"af41", 34},
                            {"af42", 36},   {"af43", 38}, {"cs5", 40},  {"ef", 46},   {"cs6", 48},
                            {"cs7", 56}};

constexpr Number kIcmpTypes[] = {{"echo-reply", 0},
                                 {"unreachable", 3},
                                 {"source-quench", 4},
                                 {"redirect", 5},
                                 {"echo", 8},
                                 {"time-exceeded", 11},
                                 {"parameter-problem", 12},
                                 {"timestamp-request", 13},
                                 {"timestamp-reply", 14}};

std::optional<uint16_t> number(const std::string &word, uint32_t max) {
    uint32_t value;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size() || value > max)
        return std::nullopt;
    return static_cast<uint16_t>(value);
}

template <class Table>
std::optional<uint16_t> named(const Table &table, const std::string &word) {
    for (const auto &row : table)
        if (word == row.word)
            return row.number;
    return std::nullopt;
}

template <class Table>
std::optional<uint16_t> named_or_number(const Table &table, const std::string &word, uint32_t max) {
    const auto found = named(table, word);
    return found ? found : number(word, max);
}

std::optional<uint16_t> port(const std::string &word) {
    const auto ours = named(acl_words::kPorts, word);
    return ours ? ours : named_or_number(kPorts, word, UINT16_MAX);
}

std::optional<uint16_t> protocol(const std::string &word) {
    const auto ours = named(acl_words::kProtocols, word);
    return ours ? ours : named_or_number(kProtocols, word, UINT8_MAX);
}

std::optional<in_addr> address(const std::string &word) {
    in_addr value{};
    return inet_pton(AF_INET, word.c_str(), &value) == 1 ? std::optional(value) : std::nullopt;
}

std::string quoted(const std::string &word) { return "\"" + word + "\""; }

// A rule that can't be read, and why.
struct Lost {
    std::string why;
};

// Reads one rule word by word.
class RuleReader {
  public:
    RuleReader(const Words &words, ForeignRule &rule)
        : at_(words.begin()), end_(words.end()), rule_(rule) {}

    void standard() {
        ipacl_standard_rule rule{};
        rule.flags = action();
        rule.status = IPACL_RULE_ACTIVE;
        rule.compare_flag = IPACL_COMPARE_MASK;
        read_address(rule, acl_words::kStandardSource, false);
        while (more())
            if (!logged(peek()))
                throw Lost{unknown(peek())};
            else
                take("");
        rule_.meant.push_back(rule);
    }

    void extended() {
        all_.emplace_back();
        for_all([&, flags = action()](Extended &rule) {
            rule.flags = flags;
            rule.status = IPACL_RULE_ACTIVE;
            rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
        });
        read_protocol();
        read_side(acl_words::kSource);
        read_side(acl_words::kDestination);
        while (more())
            read_option(take(""));
        rule_.meant.assign(all_.begin(), all_.end());
        const Extended &first = all_.front();
        rule_.denies_by_port =
            (first.flags & IPACL_FLAG_DENY) && (first.src_port_flags || first.dst_port_flags);
    }

  private:
    bool more() const { return at_ != end_; }
    const std::string &peek() const { return *at_; }
    const std::string &take(const char *what) {
        if (!more())
            throw Lost{std::string("it ends where ") + what + " is needed"};
        return *at_++;
    }
    bool take_if(const char *word) {
        const bool is = more() && peek() == word;
        at_ += is;
        return is;
    }
    static std::string unknown(const std::string &word) { return quoted(word) + " is not known"; }

    template <class F>
    void for_all(F &&fn) {
        for (Extended &rule : all_)
            fn(rule);
    }
    // Replaces each rule by one for each value.
    template <class T, class F>
    void for_each_value(const std::vector<T> &values, F &&fn) {
        std::vector<Extended> all;
        for (const Extended &rule : all_)
            for (const T &value : values) {
                all.push_back(rule);
                fn(all.back(), value);
            }
        all_ = std::move(all);
    }

    uint16_t action() {
        return take("an action") == acl_words::kPermit ? IPACL_FLAG_PERMIT : IPACL_FLAG_DENY;
    }

    // The rule goes on, but no command says it: the reason that comes first counts.
    void lose(const std::string &why) {
        if (rule_.lost.empty())
            rule_.lost = why;
    }

    bool logged(const std::string &word) {
        if (word != "log" && word != "log-input")
            return false;
        rule_.notes.push_back(quoted(word) + " is dropped: what it takes is not logged");
        return true;
    }

    void read_protocol() {
        const std::string &word = take("a protocol");
        const auto found = protocol(word);
        if (!found)
            throw Lost{"the protocol " + quoted(word) + " is not known"};
        for_all([&](Extended &rule) { rule.protcol = *found; });
    }

    template <class Rule>
    void read_address(Rule &rule, const acl_words::Address<Rule> &fields, bool needs_mask) {
        const std::string &word = take("an address");
        in_addr any{}, all{UINT32_MAX};
        if (word == "any")
            return set(rule, fields, any, any);
        if (word == "host")
            return set(rule, fields, read_host(take("an address")), all);
        const in_addr value = read_host(word);
        if (!needs_mask && (!more() || !address(peek())))
            return set(rule, fields, value, all);
        const std::string &wildcard = take("a wildcard mask");
        const auto open = address(wildcard);
        if (!open)
            throw Lost{quoted(wildcard) + " is no wildcard mask"};
        const uint32_t ones = ntohl(open->s_addr);
        if (ones != 0 && ones != UINT32_MAX && std::popcount(ones) == std::countl_one(ones))
            rule_.notes.push_back("the wildcard " + wildcard +
                                  " leaves the upper bits open; was it meant as a mask?");
        set(rule, fields, value, in_addr{~open->s_addr});
    }

    static in_addr read_host(const std::string &word) {
        const auto value = address(word);
        if (!value)
            throw Lost{quoted(word) + " is no address"};
        return *value;
    }

    template <class Rule>
    static void set(Rule &rule, const acl_words::Address<Rule> &fields, in_addr value,
                    in_addr mask) {
        (rule.*fields.addr).s_addr = value.s_addr & mask.s_addr;
        rule.*fields.mask = mask;
        rule.*fields.any_flag = mask.s_addr != 0;
    }

    void read_side(const acl_words::Side &side) {
        Extended read{};
        read_address(read, side.address, true);
        for_all([&](Extended &rule) {
            rule.*side.address.addr = read.*side.address.addr;
            rule.*side.address.mask = read.*side.address.mask;
            rule.*side.address.any_flag = read.*side.address.any_flag;
        });
        if (acl_words::has_ports(all_.front().protcol) && more())
            read_ports(side);
    }

    uint16_t read_port() {
        const std::string &word = take("a port");
        const auto found = port(word);
        if (!found)
            throw Lost{"the port " + quoted(word) + " is not known"};
        return *found;
    }

    void read_ports(const acl_words::Side &side) {
        if (take_if("range")) {
            const uint16_t first = read_port(), last = read_port();
            if (first > last)
                throw Lost{"its range of ports ends before it begins"};
            return for_all([&](Extended &rule) {
                rule.*side.port_flags = IPACL_OP_RANGE;
                rule.*side.begin_port = first;
                rule.*side.end_port = last;
            });
        }
        for (const auto &op : acl_words::kOperators)
            if (take_if(op.word)) {
                std::vector<uint16_t> ports{read_port()};
                while (more() && port(peek()))
                    ports.push_back(read_port());
                if (ports.size() > 1 && op.bit != IPACL_OP_EQ)
                    throw Lost{quoted(op.word) + " takes one port here"};
                return for_each_value(ports, [&](Extended &rule, uint16_t value) {
                    rule.*side.port_flags = op.bit;
                    rule.*side.port = value;
                });
            }
    }

    template <class Table>
    uint8_t read_value(const Table &table, const std::string &what, uint32_t max) {
        const std::string &word = take("a value");
        const auto found = named_or_number(table, word, max);
        if (!found)
            throw Lost{quoted(word) + " is no value of " + what};
        return static_cast<uint8_t>(*found);
    }

    static void set_tos(Extended &rule, uint8_t tos) {
        rule.flags |= IPACL_FLAG_TOS;
        rule.tos = tos;
    }
    static void set_precedence(Extended &rule, uint8_t precedence) {
        rule.flags |= IPACL_FLAG_PRECEDENCE;
        rule.precedence = precedence;
    }

    void read_option(const std::string &word) {
        if (logged(word))
            return;
        if (word == "precedence") {
            const uint8_t value = read_value(kPrecedences, word, 7);
            return for_all([&](Extended &rule) { set_precedence(rule, value); });
        }
        if (word == "tos") {
            const uint8_t value = read_value(kTos, word, 15);
            return for_all([&](Extended &rule) { set_tos(rule, value); });
        }
        if (word == "dscp")
            return read_dscp(word);
        if (word == "ttl")
            return read_ttl();
        if (word == "fragments")
            return for_all([](Extended &rule) {
                rule.flags |= IPACL_FLAG_OFFSET;
                rule.offset_flags = IPACL_OFFSET_NOT_ZERO;
            });
        if (word == "established") {
            lose("no rule command asks for \"established\"");
            return for_all([](Extended &rule) { rule.flags |= IPACL_FLAG_ESTABLISHED; });
        }
        if (word == "time-range")
            throw Lost{"names of time ranges are not kept, and it would hold at all times"};
        if (all_.front().protcol == acl_words::kIcmp)
            return read_icmp_type(word);
        throw Lost{unknown(word)};
    }

    // Six bits, of which the upper three are the precedence and the others the upper ones of tos,
    // whose last bit is open.
    void read_dscp(const std::string &word) {
        const uint8_t dscp = read_value(kDscp, word, 63);
        const auto low = static_cast<uint8_t>((dscp & 7) << 1);
        for_all([&](Extended &rule) { set_precedence(rule, dscp >> 3); });
        for_each_value(std::vector<uint8_t>{low, static_cast<uint8_t>(low | 1)},
                       [](Extended &rule, uint8_t tos) { set_tos(rule, tos); });
    }

    void read_ttl() {
        const std::string &word = take("an operator");
        for (const auto &op : acl_words::kOperators)
            if (word == op.word && op.sign) {
                const std::string &value = take("a number");
                const auto ttl = number(value, UINT8_MAX);
                if (!ttl)
                    throw Lost{quoted(value) + " is no TTL"};
                return for_all([&](Extended &rule) {
                    rule.flags |= IPACL_FLAG_TTL;
                    rule.ttl_flags = op.bit;
                    rule.ttl = *ttl;
                });
            }
        throw Lost{"no rule command compares the TTL with " + quoted(word)};
    }

    void read_icmp_type(const std::string &word) {
        const auto type = named_or_number(kIcmpTypes, word, UINT8_MAX);
        const std::string why = "no rule command asks for the ICMP message " + quoted(word);
        if (!type || (more() && number(peek(), UINT8_MAX)))
            throw Lost{why};
        lose(why);
        for_all([&](Extended &rule) {
            rule.flags |= IPACL_FLAG_ICMP_TYPE;
            rule.src_port = *type;
        });
    }

    Words::const_iterator at_, end_;
    ForeignRule &rule_;
    std::vector<Extended> all_;
};

class FileReader {
  public:
    Foreign read(const std::string &text) {
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            number_++;
            take(trimmed(line));
        }
        for (auto &rules : sequenced_)
            std::stable_sort(rules.begin(), rules.end(),
                             [](const auto &a, const auto &b) { return a.sequence < b.sequence; });
        for (size_t i = 0; i < found_.lists.size(); i++)
            for (Sequenced &rule : sequenced_[i])
                found_.lists[i].rules.push_back(std::move(rule.rule));
        return std::move(found_);
    }

  private:
    struct Sequenced {
        uint64_t sequence;
        ForeignRule rule;
    };
    static constexpr size_t kNone = SIZE_MAX;

    void take(const std::string &line) {
        std::istringstream in(line);
        const Words words = {std::istream_iterator<std::string>(in),
                             std::istream_iterator<std::string>()};
        if (words.empty() || words[0][0] == '!')
            return;
        const auto is = [&](size_t at, const char *word) {
            return words.size() > at && words[at] == word;
        };
        if (words.size() == 4 && words[0] == "ip" && words[1] == "access-list" &&
            (words[2] == "standard" || words[2] == "extended"))
            open_ = list(words[3], words[2] == "standard");
        else if (is(0, "access-list") && words.size() > 2 && standard_number(words[1]))
            rule(list(words[1], *standard_number(words[1])), line,
                 {words.begin() + 2, words.end()});
        else if (open_ != kNone && belongs(words))
            rule(open_, line, words);
        else
            other();
    }

    void other() {
        open_ = kNone;
        found_.others++;
    }

    // The numbers of lists tell their kind.
    static std::optional<bool> standard_number(const std::string &word) {
        const auto n = number(word, UINT16_MAX);
        if (!n)
            return std::nullopt;
        if ((*n >= 1 && *n <= 99) || (*n >= 1300 && *n <= 1999))
            return true;
        if ((*n >= 100 && *n <= 199) || (*n >= 2000 && *n <= 2699))
            return false;
        return std::nullopt;
    }

    // Within a list: everything but what is plainly another command.
    static bool belongs(const Words &words) {
        static constexpr const char *kOthers[] = {"exit", "end",        "interface", "router",
                                                  "ip",   "line",       "hostname",  "access-list",
                                                  "ipv6", "snmp-server"};
        return std::find(std::begin(kOthers), std::end(kOthers), words[0]) == std::end(kOthers);
    }

    size_t list(const std::string &name, bool standard) {
        for (size_t i = 0; i < found_.lists.size(); i++)
            if (found_.lists[i].name == name && found_.lists[i].standard == standard)
                return i;
        found_.lists.push_back({name, standard, {}});
        sequenced_.emplace_back();
        return found_.lists.size() - 1;
    }

    void rule(size_t list, const std::string &line, Words words) {
        auto &rules = sequenced_[list];
        uint64_t sequence = rules.empty() ? 10 : rules.back().sequence + 10;
        if (const auto given = number(words[0], UINT16_MAX)) {
            sequence = *given;
            words.erase(words.begin());
        }
        ForeignRule rule;
        rule.line = number_;
        rule.text = line;
        const std::string action = words.empty() ? "" : words[0];
        if (action == "remark")
            rule.remark = true;
        else if (action == acl_words::kPermit || action == acl_words::kDeny)
            read_rule(words, found_.lists[list].standard, rule);
        else
            rule.lost = quoted(action) + " is neither permit nor deny";
        rules.push_back({sequence, std::move(rule)});
    }

    static void read_rule(const Words &words, bool standard, ForeignRule &rule) {
        RuleReader reader(words, rule);
        try {
            standard ? reader.standard() : reader.extended();
        } catch (const Lost &lost) {
            rule.lost = lost.why;
        }
    }

    Foreign found_;
    std::vector<std::vector<Sequenced>> sequenced_; // of each list
    size_t number_ = 0;
    size_t open_ = kNone;
};

} // namespace

Foreign read_foreign(const std::string &text) { return FileReader().read(text); }

} // namespace ipaclctl
