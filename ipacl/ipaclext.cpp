// The rule command of extended lists.
//
// A line is read completely before anything is done: an incomplete one leaves no trace but its
// message. Then the record is made, the interfaces it names are looked up, and it goes into the
// list, or the equal rule comes out of it.

#include "ipaclext.h"

#include "acl_command.h"
#include "acl_cursor.h"
#include "acl_log.h"

#include <algorithm>
#include <cstdio>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using Rule = ipacl_extended_rule;
using acl_words::Side;

struct Command {
    Rule rule{};
    bool negated = false;
    std::string_view src_interface; // as typed; empty: the side names none
    std::string_view dst_interface;
};

void set_action(Rule &rule, uint16_t action) {
    rule.flags = action;
    rule.status = IPACL_RULE_ACTIVE;
    rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
    rule.src_any_flag = rule.dst_any_flag = 1;
}

uint16_t read_word(std::string_view word) { return static_cast<uint16_t>(acl::read_number(word)); }

uint16_t read_protocol(std::string_view word) {
    for (const auto &row : acl_words::kProtocols)
        if (word.starts_with(row.word))
            return row.number;
    return read_word(word);
}

uint16_t read_port(std::string_view word) {
    for (const auto &row : acl_words::kPorts)
        if (word.starts_with(row.word))
            return row.number;
    return read_word(word);
}

// Reads one line into a command. Every step is given the word it starts with and returns false
// when the line ends too early.
class Reader {
  public:
    Reader(const char *text, Command &command) : words_(text), command_(command) {}

    bool read() {
        std::string_view word;
        if (!words_.need(word))
            return false;
        command_.negated = word.starts_with(acl_words::kNo);
        if (command_.negated)
            word = words_.next();
        if (word.starts_with(acl_words::kPermit))
            set_action(rule_, IPACL_FLAG_PERMIT);
        else if (word.starts_with(acl_words::kDeny))
            set_action(rule_, IPACL_FLAG_DENY);

        if (!words_.need(word))
            return true;
        rule_.protcol = read_protocol(word);
        if (!read_side(acl_words::kSource, word) || !read_side(acl_words::kDestination, word))
            return false;
        for (; !word.empty(); word = words_.next())
            if (!read_option(word))
                return false;
        return true;
    }

  private:
    // Reads an address and its ports; `word` becomes the first word behind them.
    bool read_side(const Side &side, std::string_view &word) {
        // The source starts behind the protocol, the destination with the word that was no port.
        if (side.is_src)
            word = words_.next();
        if (word.empty())
            return true;
        if (!read_address(side, word))
            return false;
        word = words_.next();
        return !acl_words::has_ports(rule_.protcol) || read_ports(side, word);
    }

    bool read_address(const Side &side, std::string_view word) {
        const auto &fields = side.address;
        if (word.starts_with(fields.range_word)) {
            rule_.*fields.compare_flag = IPACL_COMPARE_RANGE;
            return need_address(fields.begin) && need_address(fields.end);
        }
        if (word.starts_with(acl_words::kAny)) {
            rule_.*fields.any_flag = 0;
            return true;
        }
        if (word.starts_with(acl_words::kInterface)) {
            if (!words_.need(word))
                return false;
            std::copy_n(word.data(), std::min<size_t>(word.size(), IPACL_NAME_LEN),
                        rule_.*side.vlan_name);
            (side.is_src ? command_.src_interface : command_.dst_interface) = word;
            return true;
        }
        rule_.*fields.addr = acl::read_address(word);
        return need_address(fields.mask);
    }

    // Reads the ports if `word` begins such a condition, and leaves it alone otherwise.
    bool read_ports(const Side &side, std::string_view &word) {
        uint16_t &bits = rule_.*side.port_flags;
        for (const auto &row : acl_words::kOperators) {
            if (!word.starts_with(row.word))
                continue;
            bits = row.bit;
            if (!words_.need(word))
                return false;
            rule_.*side.port = read_port(word);
            word = words_.next();
            return true;
        }
        if (!word.starts_with(side.portrange_word))
            return true;
        bits = IPACL_OP_RANGE;
        if (!need_word(side.begin_port) || !need_word(side.end_port))
            return false;
        word = words_.next();
        return true;
    }

    bool read_option(std::string_view word) {
        if (word.starts_with(acl_words::kTimeRange))
            return words_.need(word); // kept: the name is read and dropped
        if (word.starts_with(acl_words::kCos)) {
            rule_.cosflag = 1;
            return need_word(&Rule::cos);
        }
        for (const auto &option : acl_words::kOptions) {
            const bool other = option.other && word.starts_with(option.other);
            if (word.starts_with(option.word) || other)
                return read_option_of(option, other);
        }
        return true; // kept: unknown words are skipped
    }

    bool read_option_of(const acl_words::Option &option, bool other) {
        std::string_view word;
        switch (option.shape) {
        case acl_words::Option::kNumber:
            if (!words_.need(word))
                return false;
            rule_.*option.byte = static_cast<uint8_t>(acl::read_number(word));
            break;
        case acl_words::Option::kChoice:
            if (!other)
                rule_.*option.byte = static_cast<uint8_t>(rule_.*option.byte | option.bit);
            break;
        case acl_words::Option::kCompare:
            return read_comparison(option);
        }
        set_flag(option);
        return true;
    }

    bool read_comparison(const acl_words::Option &option) {
        std::string_view word;
        if (!words_.need(word))
            return false;
        for (const auto &row : acl_words::kOperators) {
            if (!row.sign || !word.starts_with(row.word))
                continue;
            rule_.*option.op = row.bit;
            set_flag(option);
            return need_word(option.value);
        }
        return true; // kept: another operator is skipped and its operand is the next option word
    }

    void set_flag(const acl_words::Option &option) {
        rule_.flags = static_cast<uint16_t>(rule_.flags | option.flag);
    }

    bool need_address(in_addr Rule::*field) {
        std::string_view word;
        if (!words_.need(word))
            return false;
        rule_.*field = acl::read_address(word);
        return true;
    }

    bool need_word(uint16_t Rule::*field) {
        std::string_view word;
        if (!words_.need(word))
            return false;
        rule_.*field = read_word(word);
        return true;
    }

    acl::WordCursor words_;
    Command &command_;
    Rule &rule_ = command_.rule;
};

in_addr address_in(const ifreq &request) {
    sockaddr_in address{};
    memcpy(&address, &request.ifr_addr, sizeof address);
    return address.sin_addr;
}

// Asks the kernel for the address and mask of an interface.
void query_interface(int fd, std::string_view name, in_addr &address, in_addr &mask) {
    ifreq request{};
    std::copy_n(name.data(), std::min<size_t>(name.size(), IFNAMSIZ - 1), request.ifr_name);
    if (ioctl(fd, SIOCGIFADDR, &request) != 0) {
        address.s_addr = 0;
        mask.s_addr = INADDR_BROADCAST;
        return;
    }
    address = address_in(request);
    // kept: when this call fails, the address remains in the request and becomes the mask.
    ioctl(fd, SIOCGIFNETMASK, &request);
    mask = address_in(request);
}

// Fills in the address of a side that names an interface. False when there is no socket for it.
bool look_up(Rule &rule, const Side &side, std::string_view name) {
    // kept: the socket of the source side stays open. It is opened once and used again.
    static int source_socket = -1;
    if (name.empty())
        return true;
    int fd = side.is_src ? source_socket : -1;
    if (fd < 0)
        fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        syslog(kLogError, "ipacl socket error\n");
        return false;
    }
    query_interface(fd, name, rule.*side.address.addr, rule.*side.address.mask);
    if (side.is_src)
        source_socket = fd;
    else
        close(fd);
    return true;
}

} // namespace

int do_extended_end(const char *aclname, const char *rule_text) {
    Command command;
    if (!Reader(rule_text, command).read())
        return acl::refuse_incomplete();
    using Kind = acl::ExtendedKind;
    ipacl *list = acl::config_find<Kind>(aclname);
    auto *record = acl::new_record(command.rule);
    Rule *rule = record ? record : &command.rule;
    if (!look_up(*rule, acl_words::kSource, command.src_interface) ||
        !look_up(*rule, acl_words::kDestination, command.dst_interface))
        return -1; // kept: the record is lost
    if (!acl::apply<Kind>(list, record, command.negated))
        vty_output("The rule add fail.\n");
    return 0;
}

int do_extended_change_precedence(const char *aclname, const ipacl_extended_rule *rule) {
    return acl::change_precedence<acl::ExtendedKind>(aclname, rule);
}

int acle_exit(const char *aclname) {
    int result;
    return aclname && acl::leave_mode(aclname, result) ? result : -1;
}
