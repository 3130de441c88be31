// The writer of rule text. See acl_text.h for how renderers differ.

#include "acl_text.h"

#include "acl_words.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace acl_text {

using Extra = Style::Extra;

constexpr Style kRunningRow{
    .standard = {" permit ", " deny ", " remark  ", ""},
    .extended = {" permit", " deny  ", " remark  ", ""},
    .remark = Style::Remark::kWholeLine,
    .reverse_mask_word = " reverse-mask ",
    .standard_mask_mark = "",
    .extended_mask_mark = "",
    .any_standard = " any ",
    .dst_portrange_gap = " ",
    .all_protocol_words = true,
    .cos = " cos %d",
    .tcp_flags = " tcp-flags 0x%x",
    .extras = {Extra::kCos, Extra::kEstablished, Extra::kTcpFlags},
    .line_end = "\n",
};

const Style kListing{
    .standard = {" %5d          permit", " %5d          deny  ", "[%5d] *** ", ""},
    .extended = {" %5d          permit", " %5d          deny  ", "[%5d] *** ", ""},
    .remark = Style::Remark::kWholeLine,
    .reverse_mask_word = "",
    .standard_mask_mark = " (r)",
    .extended_mask_mark = "(r)",
    .any_standard = " any",
    .dst_portrange_gap = "",
    .all_protocol_words = true,
    .cos = " cos %d",
    .tcp_flags = " tcp-flags 0x%x",
    .extras = {Extra::kCos, Extra::kTcpFlags, Extra::kEstablished},
    .line_end = "\n",
};

constexpr Style kCountedRow = [] {
    Style style = kRunningRow;
    style.extras[1] = Extra::kTcpFlags;
    style.extras[2] = Extra::kEstablished;
    style.line_end = "";
    return style;
}();

// Constant from the start, whatever is initialised first.
constinit const Style kRunning = kRunningRow;
constinit const Style kCounted = kCountedRow;

const Style kTrace{
    .standard = {"permit", "deny", "deny", "deny"},
    .extended = {"permit", "deny", "deny", "deny"},
    .remark = Style::Remark::kUnseen,
    .reverse_mask_word = "",
    .standard_mask_mark = nullptr,
    .extended_mask_mark = nullptr,
    .any_standard = " any",
    .dst_portrange_gap = "",
    .all_protocol_words = false,
    .cos = " cos 0x%x",
    .tcp_flags = " tcpflags 0x%x",
    .extras = {Extra::kTcpFlags, Extra::kCos, Extra::kEstablished},
    .line_end = "",
};

const Style kDump{
    .standard = {" %5d          permit", " %5d          deny  ", " %5d          remark  ",
                 " %5d          [error]  "},
    .extended = {" %5d          permit", " %5d          deny  ", " %5d          remark  ",
                 " %5d          [error]  "},
    .remark = Style::Remark::kInPlace,
    .reverse_mask_word = "",
    .standard_mask_mark = nullptr,
    .extended_mask_mark = nullptr,
    .any_standard = " any",
    .dst_portrange_gap = "",
    .all_protocol_words = true,
    .cos = " cos %d",
    .tcp_flags = " tcp-flags 0x%x",
    .extras = {Extra::kCos, Extra::kTcpFlags, Extra::kEstablished},
    .line_end = "",
};

namespace {

// An octet as it is written in an address, with the dot behind it.
struct Octet {
    char text[4];
    uint8_t length;
};

constexpr auto kOctets = [] {
    std::array<Octet, 256> octets{};
    for (int value = 0; value < 256; value++) {
        auto &[text, length] = octets[static_cast<size_t>(value)];
        for (int unit : {100, 10, 1})
            if (value >= unit || unit == 1)
                text[length++] = static_cast<char>('0' + value / unit % 10);
        text[length++] = '.';
    }
    return octets;
}();

} // namespace

char *write_dotted(char *to, in_addr address) {
    uint8_t octets[sizeof address];
    memcpy(octets, &address, sizeof octets);
    for (const uint8_t octet : octets) {
        memcpy(to, kOctets[octet].text, sizeof kOctets[octet].text);
        to += kOctets[octet].length;
    }
    return to - 1; // without the last dot
}

void Sink::number(int value) {
    char digits[12];
    const char *end = std::to_chars(std::begin(digits), std::end(digits), value).ptr;
    text({digits, end});
}

void Sink::numbered(std::string_view pattern, int value) {
    constexpr std::string_view kPlace = "%5d";
    const size_t place = pattern.find(kPlace);
    if (place == std::string_view::npos)
        return text(pattern);
    text(pattern.substr(0, place));
    for (int least = 10000; least > std::max(value, 1); least /= 10)
        text(" ");
    number(value);
    text(pattern.substr(place + kPlace.size()));
}

void Sink::format(const char *fmt, ...) {
    char token[128];
    va_list args;
    va_start(args, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above starts it
    (void)vsnprintf(token, sizeof token, fmt, args);
    va_end(args);
    text(token);
}

void Sink::address(in_addr address) {
    if (end_ - at_ >= INET_ADDRSTRLEN) {
        at_ = write_dotted(at_, address);
        return;
    }
    char dotted[INET_ADDRSTRLEN];
    text({dotted, write_dotted(dotted, address)});
}

// cppcheck-suppress uninitMemberVar // only the used part of the buffer is ever read
TerminalSink::TerminalSink()
    : Sink(
          [](Sink &self, std::string_view token) {
              auto &terminal = static_cast<TerminalSink &>(self);
              terminal.flush();
              if (token.size() <= sizeof terminal.text_)
                  terminal.text(token);
              else
                  vty_printf("%.*s", static_cast<int>(token.size()), token.data());
          },
          text_, sizeof text_) {}

void TerminalSink::flush() {
    if (used() > 0)
        vty_printf("%.*s", static_cast<int>(used()), begin_);
    at_ = begin_;
}

// cppcheck-suppress uninitMemberVar // only the used part of the buffer is ever read
LineSink::LineSink()
    : Sink([](Sink &self, std::string_view token) { static_cast<LineSink &>(self).grow(token); },
           small_, sizeof small_ - 1) {}

LineSink::~LineSink() {
    if (begin_ != small_)
        sys_mem_free(begin_);
}

void LineSink::clear() {
    at_ = begin_;
    failed_ = false;
}

void LineSink::grow(std::string_view token) {
    const size_t had = used();
    const size_t wanted = 2 * (had + token.size());
    auto *grown = static_cast<char *>(sys_mem_malloc(wanted + 1));
    if (!grown) {
        failed_ = true;
        return;
    }
    memcpy(grown, begin_, had);
    if (begin_ != small_)
        sys_mem_free(begin_);
    use(grown, wanted);
    at_ += had;
    text(token);
}

void write_space(Sink &sink, int space) {
    for (int i = 0; i < space; i++)
        sink.text(" ");
}

const char *listing_header(const ipacl &list) {
    return list.is_standard == 1 ? "Standard IP access list %s\n"
           : list.is_dynamic     ? "Dynamic Extended IP access list %s\n"
                                 : "Extended IP access list %s\n";
}

const char *port_word(uint16_t protocol, uint16_t port) {
    for (const auto &row : acl_words::kPorts)
        if (row.protocol == protocol && row.number == port)
            return row.word;
    return nullptr;
}

const char *protocol_word(uint16_t protocol, bool traced_only) {
    for (const auto &row : acl_words::kProtocols)
        if (row.number == protocol && (row.traced || !traced_only))
            return row.word;
    return nullptr;
}

namespace {

// A word of a table behind its blank.
void write_word(Sink &sink, std::string_view word) {
    sink.text(" ");
    sink.text(word);
}

// A number behind its blank.
void write_number(Sink &sink, int number) {
    sink.text(" ");
    sink.number(number);
}

void write_action(Sink &sink, const Style::Actions &actions, uint16_t flags, int &index,
                  int space) {
    const char *action = flags & IPACL_FLAG_PERMIT   ? actions.permit
                         : flags & IPACL_FLAG_DENY   ? actions.deny
                         : flags & IPACL_FLAG_REMARK ? actions.remark
                                                     : actions.none;
    if (!*action)
        return;
    write_space(sink, space);
    sink.numbered(action, index);
    index++;
}

// A remark line: its text instead of everything else. False when the rule is none.
template <class Rule>
bool write_remark(Sink &sink, const Style &style, const Rule &rule) {
    if (style.remark != Style::Remark::kWholeLine || !(rule.flags & IPACL_FLAG_REMARK))
        return false;
    sink.text(rule.remark ? rule.remark : "[IPACL IS BAD!]");
    sink.text(style.line_end);
    return true;
}

// A remark in place of an address. False when the address itself is to be written.
template <class Rule>
bool write_remark_in_place(Sink &sink, const Style &style, const Rule &rule) {
    if (style.remark != Style::Remark::kInPlace || !(rule.flags & IPACL_FLAG_REMARK))
        return false;
    if (rule.remark)
        write_word(sink, rule.remark);
    return true;
}

template <class Rule>
void write_address(Sink &sink, const Rule &rule, const acl_words::Address<Rule> &fields,
                   const char *any, const char *mask_mark) {
    if (!fields.by_mask(rule)) {
        write_word(sink, fields.range_word);
        sink.text(" ");
        sink.address(rule.*fields.begin);
        sink.text(fields.range_gap);
        sink.address(rule.*fields.end);
    } else if (fields.is_any(rule)) {
        sink.text(any);
    } else {
        const bool reversed = mask_mark && (rule.flags & IPACL_FLAG_REVERSE_MASK);
        in_addr mask = rule.*fields.mask;
        if (reversed)
            mask.s_addr = ~mask.s_addr;
        sink.text(" ");
        sink.address(rule.*fields.addr);
        sink.text(" ");
        sink.address(mask);
        if (reversed)
            sink.text(mask_mark);
    }
}

void write_operator(Sink &sink, uint16_t bits, bool of_ports) {
    for (const auto &row : acl_words::kOperators)
        if (row.bit == bits && (of_ports || row.sign))
            write_word(sink, row.word);
}

void write_port(Sink &sink, uint16_t protocol, uint16_t port) {
    if (const char *word = port_word(protocol, port))
        write_word(sink, word);
    else
        write_number(sink, port);
}

void write_ports(Sink &sink, const Style &style, const ipacl_extended_rule &rule,
                 const acl_words::Side &side) {
    const uint16_t bits = rule.*side.port_flags;
    if (bits == 0)
        return;
    if (bits == IPACL_OP_RANGE) {
        write_word(sink, side.portrange_word);
        if (!side.is_src)
            sink.text(style.dst_portrange_gap);
        write_number(sink, rule.*side.begin_port);
        write_number(sink, rule.*side.end_port);
        return;
    }
    write_operator(sink, bits, true);
    write_port(sink, rule.protcol, rule.*side.port);
}

void write_side(Sink &sink, const Style &style, const ipacl_extended_rule &rule,
                const acl_words::Side &side) {
    if (write_remark_in_place(sink, style, rule)) {
        // kept: the text stands for the source and again for the destination
    } else if (*(rule.*side.vlan_name)) {
        write_word(sink, acl_words::kInterface);
        write_word(sink, rule.*side.vlan_name);
    } else {
        write_address(sink, rule, side.address, " any", style.extended_mask_mark);
    }
    write_ports(sink, style, rule, side);
}

void write_extra(Sink &sink, const Style &style, const ipacl_extended_rule &rule, Extra extra) {
    switch (extra) {
    case Extra::kCos:
        if (rule.cosflag)
            sink.format(style.cos, rule.cos);
        break;
    case Extra::kTcpFlags:
        if (rule.tcpflags)
            sink.format(style.tcp_flags, rule.tcpflags);
        break;
    case Extra::kEstablished:
        if (rule.flags & IPACL_FLAG_ESTABLISHED)
            sink.text(" established");
        break;
    }
}

void write_option(Sink &sink, const ipacl_extended_rule &rule, const acl_words::Option &option) {
    if (!(rule.flags & option.flag))
        return;
    switch (option.shape) {
    case acl_words::Option::kNumber:
        write_word(sink, option.word);
        write_number(sink, rule.*option.byte);
        break;
    case acl_words::Option::kChoice:
        write_word(sink, rule.*option.byte & option.bit ? option.word : option.other);
        break;
    case acl_words::Option::kCompare:
        write_word(sink, option.word);
        write_operator(sink, rule.*option.op, false);
        write_number(sink, rule.*option.value);
        break;
    }
}

void write_options(Sink &sink, const ipacl_extended_rule &rule) {
    constexpr uint16_t kAny = [] {
        uint16_t flags = 0;
        for (const auto &option : acl_words::kOptions)
            flags = static_cast<uint16_t>(flags | option.flag);
        return flags;
    }();
    if (!(rule.flags & kAny)) // most rules have none
        return;
    for (const auto &option : acl_words::kOptions)
        write_option(sink, rule, option);
}

} // namespace

void write_rule(Sink &sink, const Style &style, const ipacl_standard_rule &rule, int &index,
                int space) {
    write_action(sink, style.standard, rule.flags, index, space);
    // Unlike an extended rule, one without an action says nothing of its mask.
    constexpr uint16_t kAction = IPACL_FLAG_PERMIT | IPACL_FLAG_DENY;
    if ((rule.flags & kAction) && (rule.flags & IPACL_FLAG_REVERSE_MASK))
        sink.text(style.reverse_mask_word);
    if (write_remark(sink, style, rule))
        return;
    if (!write_remark_in_place(sink, style, rule)) {
        write_address(sink, rule, acl_words::kStandardSource, style.any_standard,
                      style.standard_mask_mark);
        if (rule.flags & IPACL_FLAG_LOG)
            sink.text(" log");
    }
    sink.text(style.line_end);
}

void write_rule(Sink &sink, const Style &style, const ipacl_extended_rule &rule, int &index,
                int space) {
    write_action(sink, style.extended, rule.flags, index, space);
    if (write_remark(sink, style, rule))
        return;
    if (rule.flags & IPACL_FLAG_REVERSE_MASK)
        sink.text(style.reverse_mask_word);
    if (const char *word = protocol_word(rule.protcol, !style.all_protocol_words))
        write_word(sink, word);
    else
        write_number(sink, rule.protcol);
    write_side(sink, style, rule, acl_words::kSource);
    write_side(sink, style, rule, acl_words::kDestination);
    if (rule.dst_port_flags != IPACL_OP_RANGE && acl_words::shows_message_type(rule))
        write_number(sink, rule.src_port);
    for (Extra extra : style.extras)
        write_extra(sink, style, rule, extra);
    if (rule.flags & IPACL_FLAG_TIME_RANGE) {
        write_word(sink, acl_words::kTimeRange);
        write_word(sink, rule.time_range);
    }
    write_options(sink, rule);
    if (rule.flags & IPACL_FLAG_LOG)
        sink.text(" log");
    sink.text(style.line_end);
}

} // namespace acl_text
