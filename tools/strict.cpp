#include "strict.h"

#include "ipacl/acl_cursor.h"
#include "ipacl/acl_words.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <set>

namespace ipaclctl {
namespace {

using acl_words::Option;
using acl_words::Side;

constexpr const char *kAddress = "ADDRESS";
constexpr const char *kMask = "MASK";
constexpr const char *kNumber = "NUMBER";
constexpr size_t kAskedInterface = 15; // characters of a name that the kernel is asked for

// What strict reading knows of an option beyond its row.
struct OptionNote {
    uint16_t flag;
    uint32_t largest; // that a packet can have
    const char *help;
    const char *other_help;
};

constexpr OptionNote kNotes[] = {
    {IPACL_FLAG_TOS, 15, "Type of service, bits 1 to 4 of its byte", ""},
    {IPACL_FLAG_PRECEDENCE, 7, "The upper three bits of the type of service", ""},
    {IPACL_FLAG_DONT_FRAGMENT, 0, "Packets that must not be fragmented",
     "Packets that may be fragmented"},
    {IPACL_FLAG_FRAGMENT, 0, "Fragments", "Packets that are no fragment"},
    {IPACL_FLAG_OFFSET, 0, "Fragments but the first", "First fragments and whole packets"},
    {IPACL_FLAG_TOTALLEN, UINT16_MAX, "Total length in bytes", ""},
    {IPACL_FLAG_TTL, UINT8_MAX, "Time to live", ""},
};
static_assert(std::size(kNotes) == std::size(acl_words::kOptions));

constexpr uint32_t kLargestProtocol = UINT8_MAX;
constexpr uint32_t kLargestCos = 7;

const OptionNote &note_of(const Option &option) {
    return *std::find_if(std::begin(kNotes), std::end(kNotes),
                         [&](const OptionNote &note) { return note.flag == option.flag; });
}

Choices value(const char *placeholder, const char *help) {
    return {{placeholder, help, Choice::kValue}};
}

const Choices &actions() {
    static const Choices choices{{acl_words::kPermit, "Let packets through that match", {}},
                                 {acl_words::kDeny, "Stop packets that match", {}}};
    return choices;
}

const Choices &protocols() {
    static const Choices choices = [] {
        Choices all;
        for (const auto &row : acl_words::kProtocols) {
            const bool any = row.number == IPACL_PROTOCOL_IP;
            all.push_back(
                {row.word, any ? "Any protocol" : "Protocol " + std::to_string(row.number), {}});
        }
        return all + value(kNumber, "Number of a protocol, 0 to 255");
    }();
    return choices;
}

const Choices &ports() {
    static const Choices choices = [] {
        Choices all;
        for (const auto &row : acl_words::kPorts)
            all.push_back({row.word, "Port " + std::to_string(row.number), {}});
        return all + value(kNumber, "Number of a port, 0 to 65535");
    }();
    return choices;
}

const char *help_of(uint16_t operation) {
    switch (operation) {
    case IPACL_OP_EQ:
        return "Equal";
    case IPACL_OP_GT:
        return "Greater than";
    case IPACL_OP_LT:
        return "Less than";
    default:
        return "Not equal";
    }
}

Choices operators(bool of_ports) {
    Choices all;
    for (const auto &row : acl_words::kOperators)
        if (of_ports || row.sign)
            all.push_back({row.word, help_of(row.bit), {}});
    return all;
}

const Choices &comparisons() {
    static const Choices choices = operators(false);
    return choices;
}

Choices make_addresses(const char *range_word, bool extended) {
    Choices all{{acl_words::kAny, "Any address", {}},
                {range_word, "First and last address, ordered by their last octet", {}}};
    if (extended)
        all.push_back({acl_words::kInterface, "The address and mask of an interface", {}});
    return all + value(kAddress, extended ? "IPv4 address, with a mask behind it"
                                          : "IPv4 address of a host, or with a mask behind it");
}

const Choices &standard_addresses() {
    static const Choices choices = make_addresses(acl_words::kStandardSource.range_word, false);
    return choices;
}

const Choices &addresses(const Side &side) {
    static const Choices source = make_addresses(acl_words::kSource.address.range_word, true);
    static const Choices destination =
        make_addresses(acl_words::kDestination.address.range_word, true);
    return side.is_src ? source : destination;
}

const Choices &port_conditions(const Side &side) {
    const auto make = [](const Side &of) {
        return operators(true) + Choices{{of.portrange_word, "First and last port", {}}};
    };
    static const Choices source = make(acl_words::kSource);
    static const Choices destination = make(acl_words::kDestination);
    return side.is_src ? source : destination;
}

const Choices &options() {
    static const Choices choices = [] {
        Choices all{{acl_words::kCos, "Class of service, kept for the hardware", {}}};
        for (const auto &row : acl_words::kOptions) {
            all.push_back({row.word, note_of(row).help, {}});
            if (row.other)
                all.push_back({row.other, note_of(row).other_help, {}});
        }
        return all;
    }();
    return choices;
}

bool has_word(const Choices &choices, const std::string &word) {
    return std::any_of(choices.begin(), choices.end(),
                       [&](const Choice &choice) { return choice.word == word; });
}

uint32_t host_order(const std::string &text) { return ntohl(acl::read_address(text).s_addr); }

std::string dotted(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    const in_addr network{htonl(address)};
    return inet_ntop(AF_INET, &network, text, sizeof text);
}

// True for four decimal numbers as they are written back.
bool is_address(const std::string &text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 && dotted(ntohl(address.s_addr)) == text;
}

// Reads rules. Every step takes the words it knows from the walk and leaves a finding where the
// service would read something else than what is written.
class RuleReader {
  public:
    RuleReader(Walk &walk, bool negated) : walk_(walk), negated_(negated) {}

    void standard() {
        static const Choices masks = value(kMask, "Compare mask; without it one host is meant");
        if (!walk_.take(standard_addresses()))
            return;
        if (walk_.took_value()) {
            const std::string address = walk_.word();
            if (check_address("address") && walk_.take(masks, Walk::End::kAllowed))
                check_mask(address);
        } else if (walk_.took(acl_words::kStandardSource.range_word)) {
            read_range(true);
        }
        skip_all("the service reads nothing behind the source");
    }

    void extended() {
        if (!walk_.take(protocols()))
            return;
        if (walk_.took_value()) {
            check_protocol();
            has_ports_ = walk_.word() == std::to_string(acl_words::kTcp) ||
                         walk_.word() == std::to_string(acl_words::kUdp);
        } else {
            for (const auto &row : acl_words::kProtocols)
                if (walk_.took(row.word))
                    has_ports_ = acl_words::has_ports(row.number);
        }
        if (!walk_.take(addresses(acl_words::kSource)) || !read_address(acl_words::kSource))
            return;
        static const Choices behind_source =
            port_conditions(acl_words::kSource) + addresses(acl_words::kDestination);
        if (!walk_.take(has_ports_ ? behind_source : addresses(acl_words::kDestination)))
            return;
        if (read_ports(acl_words::kSource) && !walk_.take(addresses(acl_words::kDestination)))
            return;
        if (!read_address(acl_words::kDestination))
            return;
        read_options();
    }

  private:
    // A warning, but for a command that removes: what is there may be removed as it is.
    void doubt(Check check, const std::string &text) {
        if (!negated_)
            walk_.warning(check, text);
    }

    void check_protocol() {
        if (walk_.word() == std::to_string(IPACL_PROTOCOL_IP))
            doubt(Check::kImpossibleValue, walk_.word() + " means any protocol: write ip");
        else
            check_number("protocol", kLargestProtocol, UINT16_MAX);
    }

    // Reads the rest of an address whose first word was taken. False when the walk is over.
    bool read_address(const Side &side) {
        static const Choices masks = value(kMask, "Compare mask: a bit that is 1 must be equal");
        static const Choices names{{"INTERFACE", "Name of an interface", Choice::kInterfaceName}};
        if (walk_.took(side.address.range_word)) {
            read_range(false);
        } else if (walk_.took(acl_words::kInterface)) {
            if (walk_.take(names))
                check_interface();
        } else if (walk_.took_value()) {
            const std::string address = walk_.word();
            if (check_address("address") && walk_.take(masks))
                check_mask(address);
        }
        return !walk_.over();
    }

    void read_range(bool standard) {
        static const Choices firsts = value("FIRST", "First address");
        static const Choices lasts = value("LAST", "Last address");
        if (!walk_.take(firsts) || !check_address("address"))
            return;
        const std::string first = walk_.word();
        if (!walk_.take(lasts) || !check_address("address"))
            return;
        const std::string last = walk_.word();
        const bool turned = acl::read_address(first).s_addr > acl::read_address(last).s_addr;
        const std::string range = "the range " + first + " to " + last;
        const std::string order = "this device orders the addresses of a range by their last octet "
                                  "first";
        if (turned && standard)
            walk_.refused(Check::kRangeTurned,
                          range +
                              " is refused: its last address must not come before its first, "
                              "and " +
                              order);
        else if (turned)
            doubt(Check::kRangeTurned, range + " holds no address, for " + order + ": write " +
                                           by_masks(host_order(first), host_order(last)));
        else if (first != last && !(host_order(first) == 0 && host_order(last) == UINT32_MAX))
            doubt(Check::kRangeOrder, range + " holds others than it seems to, for " + order +
                                          ": write " +
                                          by_masks(host_order(first), host_order(last)));
    }

    // How a range is said with a mask.
    static std::string by_masks(uint32_t first, uint32_t last) {
        const uint32_t size = last - first + 1;
        if (first <= last && (size & (size - 1)) == 0 && (first & (size - 1)) == 0)
            return dotted(first) + " " + dotted(~(size - 1));
        return "addresses and masks";
    }

    // Reads the condition on ports that begins with the word that was taken. False for no such.
    bool read_ports(const Side &side) {
        static const Choices firsts = value("FIRST", "First port, 0 to 65535");
        static const Choices lasts = value("LAST", "Last port, 0 to 65535");
        if (!has_ports_ || !took_one_of(port_conditions(side)))
            return false;
        if (!walk_.took(side.portrange_word)) {
            if (walk_.take(ports()))
                check_port();
            return true;
        }
        if (!walk_.take(firsts))
            return true;
        const auto first = check_number("port", UINT16_MAX, UINT16_MAX);
        if (!walk_.take(lasts))
            return true;
        const auto last = check_number("port", UINT16_MAX, UINT16_MAX);
        if (first && last && *first > *last)
            doubt(Check::kRangeTurned, "this range holds no port: write " + std::to_string(*last) +
                                           " " + std::to_string(*first));
        return true;
    }

    void read_options() {
        static const Choices ports_or_options =
            port_conditions(acl_words::kDestination) + options();
        for (bool may_be_ports = has_ports_;; may_be_ports = false) {
            if (walk_.take_if(may_be_ports ? ports_or_options : options())) {
                if (!may_be_ports || !read_ports(acl_words::kDestination))
                    read_option();
            } else if (walk_.left()) {
                skip_option();
            } else {
                return;
            }
        }
    }

    void read_option() {
        static const Choices classes = value(kNumber, "0 to 7");
        const std::string word = walk_.word();
        if (walk_.took(acl_words::kCos)) {
            once(0, word);
            if (walk_.take(classes))
                check_number(word, kLargestCos, UINT16_MAX);
            return;
        }
        for (const auto &option : acl_words::kOptions) {
            if (!walk_.took(option.word) && !(option.other && walk_.took(option.other)))
                continue;
            once(option.flag, word);
            const uint32_t largest = note_of(option).largest;
            if (option.shape == Option::kNumber)
                read_value(word, largest, UINT8_MAX);
            else if (option.shape == Option::kCompare && read_comparison(word))
                read_value(word, largest, UINT16_MAX);
        }
    }

    // Two options of one row leave the second, or a mixture of both.
    void once(uint16_t flag, const std::string &word) {
        if (!seen_.insert(flag).second)
            walk_.error(Check::kTwice, word + " comes on top of an option of its kind: write one");
    }

    void read_value(const std::string &word, uint32_t largest, uint32_t field) {
        const std::string help = "0 to " + std::to_string(largest);
        if (walk_.take(value(kNumber, help.c_str())))
            check_number(word, largest, field);
    }

    // False when there is no operator that the option knows; then its operand is passed over.
    bool read_comparison(const std::string &word) {
        if (walk_.take_if(comparisons(), Walk::End::kNeeded))
            return true;
        if (walk_.left()) {
            walk_.error_at_next(Check::kSkippedWord, word + " " + std::string(walk_.next()) +
                                                         " is skipped by the service: write " +
                                                         one_of(comparisons()));
            walk_.skip();
            if (walk_.left())
                walk_.skip();
        }
        return false;
    }

    void skip_option() {
        const std::string word(walk_.next());
        const bool of_ports = has_word(port_conditions(acl_words::kDestination), word);
        if (word.starts_with(acl_words::kTimeRange)) {
            walk_.error_at_next(Check::kSkippedWord,
                                word + " is dropped with its name, and the rule would hold at all "
                                       "times: leave both out");
            walk_.skip();
        } else {
            const bool late = of_ports && has_ports_;
            walk_.error_at_next(Check::kSkippedWord,
                                word + " is skipped by the service" +
                                    (late       ? ": ports stand right behind their address"
                                     : of_ports ? ": ports are for tcp and udp alone"
                                                : ", and the rule would match more: leave it out"));
            if (of_ports)
                walk_.skip();
        }
        if (walk_.left())
            walk_.skip();
    }

    // What is left of a line that is complete.
    void skip_all(const char *why) {
        if (walk_.take_if({}) || !walk_.left())
            return;
        walk_.error_at_next(Check::kSkippedWord, std::string(walk_.next()) + " is skipped: " + why);
        walk_.stop();
    }

    // Looks at the address or mask that was taken. When it is none, what stands behind it can't be
    // told and the walk ends.
    bool check_address(const char *what) {
        const std::string &word = walk_.word();
        if (is_address(word))
            return true;
        const std::string prefix = word.substr(0, word.find('/'));
        const std::string read = dotted(host_order(word));
        if (prefix != word && is_address(prefix))
            walk_.error(Check::kAddress,
                        "prefix lengths are not known: write " + prefix + with_mask_of(word));
        else if (read != "255.255.255.255")
            walk_.error(Check::kAddress,
                        word + " is read as the " + what + " " + read + ": write " + read);
        else
            walk_.error(Check::kAddress, word + " is no " + what + hint(word));
        walk_.stop();
        return false;
    }

    static std::string with_mask_of(const std::string &word) {
        const std::string length = word.substr(word.find('/') + 1);
        const int32_t bits = acl::read_number(length);
        if (length.empty() || length.size() > 2 || bits < 0 || bits > 32)
            return " and a mask";
        return " " + dotted(bits == 0 ? 0 : UINT32_MAX << (32 - bits));
    }

    std::string hint(const std::string &word) const {
        if (word == "host")
            return ": write the address and 255.255.255.255";
        if (has_word(port_conditions(acl_words::kSource), word))
            return ": ports are for tcp and udp alone";
        return ": expected four numbers, as in 10.0.0.1";
    }

    bool took_one_of(const Choices &choices) const { return has_word(choices, walk_.choice()); }

    void check_mask(const std::string &address) {
        if (!check_address("mask"))
            return;
        const std::string text = walk_.word();
        const uint32_t mask = host_order(text);
        const std::string looks = "the mask " + text +
                                  " looks like a wildcard, and here a bit "
                                  "that is 1 is compared: write ";
        const bool any = host_order(address) == 0 && mask == UINT32_MAX;
        if (any)
            doubt(Check::kWildcardMask, looks + acl_words::kAny);
        else if (mask == 0 && host_order(address) != 0)
            doubt(Check::kWildcardMask, looks + "255.255.255.255 for a host");
        else if ((mask & 1) && !(mask >> 31))
            doubt(Check::kWildcardMask, looks + dotted(~mask));
    }

    void check_interface() {
        const std::string &name = walk_.word();
        if (name.size() > IPACL_NAME_LEN)
            walk_.error(Check::kName, "the name " + name + " would be cut to " +
                                          name.substr(0, IPACL_NAME_LEN) +
                                          ": at most 20 characters are kept");
        else if (name.size() > kAskedInterface)
            doubt(Check::kName,
                  "no interface has a name as long as " + name + ": at most 15 characters");
    }

    void check_port() {
        if (walk_.took_value()) {
            check_number("port", UINT16_MAX, UINT16_MAX);
            return;
        }
        // The service takes the first row that the word begins with.
        const acl_words::Port *read = nullptr, *meant = nullptr;
        for (const auto &row : acl_words::kPorts) {
            if (!read && walk_.word().starts_with(row.word))
                read = &row;
            if (walk_.took(row.word))
                meant = &row;
        }
        if (read && meant && read != meant)
            walk_.warning(Check::kFtpData, std::string(meant->word) + " is read as port " +
                                               std::to_string(read->number) + ": write " +
                                               std::to_string(read->number) + ", or " +
                                               std::to_string(meant->number) + " for " +
                                               meant->word);
    }

    // The number that was taken, when it is one and fits.
    std::optional<uint32_t> check_number(const std::string &what, uint32_t largest,
                                         uint32_t field) {
        const std::string &word = walk_.word();
        const std::string right = ": write 0 to " + std::to_string(largest);
        if (word.find_first_not_of("0123456789") != std::string::npos) {
            walk_.error(Check::kNumber, word + " is no number for " + what + right);
            return std::nullopt;
        }
        const auto number = static_cast<uint32_t>(acl::read_number(word));
        if (number > field) {
            walk_.error(Check::kNumber,
                        word + " would be cut to " + std::to_string(number & field) + right);
            return std::nullopt;
        }
        if (number > largest)
            doubt(Check::kImpossibleValue, "no packet has " + what + " " + word + right);
        return number;
    }

    Walk &walk_;
    bool negated_;
    bool has_ports_ = false;
    std::set<uint16_t> seen_; // flags of options
};

std::string header_form(bool no) {
    return std::string("expected \"") + (no ? "no " : "") +
           "ip access-list standard|extended NAME\"";
}

} // namespace

const char *const kNeedsList =
    "a rule needs a list: put \"ip access-list standard|extended NAME\" first";
const char *const kListNotOpened = "this line belongs to a list that could not be opened";

const Choices &rule_actions() {
    static const Choices choices =
        actions() + Choices{{acl_words::kNo, "Remove a rule that is equal", {}}};
    return choices;
}

const Choices &list_kinds() {
    static const Choices choices{{kind_name(Kind::kStandard), "Rules match source addresses", {}},
                                 {kind_name(Kind::kExtended), "Rules match many fields", {}}};
    return choices;
}

void read_rule_behind_action(Walk &walk, Kind kind, bool negated) {
    RuleReader reader(walk, negated);
    if (kind == Kind::kStandard)
        reader.standard();
    else
        reader.extended();
}

void read_rule(Walk &walk, Kind kind) {
    if (!walk.take(rule_actions()))
        return;
    const bool negated = walk.took(acl_words::kNo);
    if (!negated || walk.take(actions()))
        read_rule_behind_action(walk, kind, negated);
}

Findings check_rule(Kind kind, const std::string &rule) {
    Walk walk(rule, Walk::Reading::kExact);
    read_rule(walk, kind);
    return walk.findings();
}

bool is_held(const Findings &findings, Strictness strictness) {
    return std::any_of(findings.begin(), findings.end(), [&](const Finding &finding) {
        return finding.hopeless || strictness == Strictness::kTyped ||
               (strictness == Strictness::kFile && finding.is_error());
    });
}

std::string bad_name(const std::string &name) {
    if (name.empty())
        return "a list needs a name";
    if (name.size() > IPACL_NAME_LEN)
        return "the name " + name + " is too long: at most 20 characters are kept";
    return "";
}

ConfigLine read_config_line(const std::string &line) {
    ConfigLine read;
    Walk walk(line, Walk::Reading::kExact);
    const std::string_view first = walk.next();
    if (first.empty() || first[0] == '#')
        return read;
    const bool no = first == acl_words::kNo && walk.peek(2) == "access-list";
    if (first == "!") {
        read.what = ConfigLine::kEnd;
    } else if (!no && !(first == "ip" && walk.peek(1) == "access-list")) {
        const bool merge = first == "merge-enable";
        read.what = merge ? ConfigLine::kMergeEnable : ConfigLine::kRule;
        if (merge)
            walk.error_at_next(Check::kMergeEnable,
                               "merge-enable can't be switched on through the bus");
    } else {
        for (int i = no ? 3 : 2; i > 0; i--)
            walk.skip();
        read.what = no ? ConfigLine::kRemoval : ConfigLine::kHeader;
        const auto kind = kind_word(walk.next());
        read.name = walk.peek(1);
        std::string bad = bad_name(read.name);
        if (!kind || read.name.empty() || !walk.peek(2).empty())
            walk.error_at_next(Check::kNoList, header_form(no));
        else if (!bad.empty()) {
            walk.skip();
            walk.error_at_next(Check::kName, bad);
        }
        if (kind)
            read.kind = *kind;
        if (!walk.findings().empty())
            read.what = ConfigLine::kBadHeader;
    }
    read.findings = walk.findings();
    return read;
}

} // namespace ipaclctl
