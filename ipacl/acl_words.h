// The vocabulary, once: every word of the rule commands, with what it stands for.
//
// The parsers, the renderers and the JSON view read these tables, and so do equality and matching
// where they go through the options. A word matches what begins with it, and rows are tried from
// the top, so the order of rows decides ties. A new option of an extended rule is a row of
// kOptions.
#pragma once

#include "ipacl.h"

namespace acl_words {

using Extended = ipacl_extended_rule;

inline constexpr const char *kSeparators = ", \t\n\r";
inline constexpr const char *kNo = "no";
inline constexpr const char *kPermit = "permit";
inline constexpr const char *kDeny = "deny";
inline constexpr const char *kAny = "any";
inline constexpr const char *kInterface = "interface";
inline constexpr const char *kTimeRange = "time-range";
inline constexpr const char *kCos = "cos";

struct Protocol {
    const char *word;
    uint16_t number;
    bool traced; // the one-line trace form knows the word
};

inline constexpr Protocol kProtocols[] = {
    {"gre", 47, true},  {"ip", IPACL_PROTOCOL_IP, true},
    {"ospf", 89, true}, {"icmp", 1, true},
    {"igmp", 2, true},  {"tcp", 6, true},
    {"udp", 17, true},  {"sctp", 132, false},
};

inline constexpr uint16_t kIcmp = 1;
inline constexpr uint16_t kIgmp = 2;
inline constexpr uint16_t kTcp = 6;
inline constexpr uint16_t kUdp = 17;

constexpr bool has_ports(uint16_t protocol) { return protocol == kTcp || protocol == kUdp; }

struct Port {
    const char *word;
    uint16_t number;
    uint16_t protocol; // that is written with the word; commands take it for both
};

// kept: "ftp" comes before "ftp-data", so that word reads as 21.
inline constexpr Port kPorts[] = {
    {"bgp", 179, kTcp},  {"ftp", 21, kTcp},    {"ftp-data", 20, kTcp}, {"login", 513, kTcp},
    {"pop2", 109, kTcp}, {"pop3", 110, kTcp},  {"smtp", 25, kTcp},     {"telnet", 23, kTcp},
    {"www", 80, kTcp},   {"domain", 53, kUdp}, {"snmp", 161, kUdp},    {"syslog", 514, kUdp},
    {"tftp", 69, kUdp},
};

struct Operator {
    const char *word;
    uint16_t bit;
    const char *sign; // of the JSON view's comparisons; null: an operator of ports only
};

inline constexpr Operator kOperators[] = {
    {"eq", IPACL_OP_EQ, "="},
    {"gt", IPACL_OP_GT, ">"},
    {"lt", IPACL_OP_LT, "<"},
    {"neq", IPACL_OP_NEQ, nullptr},
};

// The fields of one address condition, of either kind of rule.
template <class Rule>
struct Address {
    const char *range_word;
    const char *range_gap; // written between the two addresses of a range
    in_addr Rule::*addr;
    in_addr Rule::*mask;
    in_addr Rule::*begin;
    in_addr Rule::*end;
    uint16_t Rule::*compare_flag;
    uint16_t Rule::*any_flag;

    bool by_mask(const Rule &rule) const { return rule.*compare_flag == IPACL_COMPARE_MASK; }
    bool is_any(const Rule &rule) const {
        return (rule.*addr).s_addr == 0 && (rule.*mask).s_addr == 0 && rule.*any_flag == 0;
    }
};

inline constexpr Address<ipacl_standard_rule> kStandardSource{
    .range_word = "src-range",
    .range_gap = "  ",
    .addr = &ipacl_standard_rule::srcaddr,
    .mask = &ipacl_standard_rule::srcmsk,
    .begin = &ipacl_standard_rule::src_begin_addr,
    .end = &ipacl_standard_rule::src_end_addr,
    .compare_flag = &ipacl_standard_rule::compare_flag,
    .any_flag = &ipacl_standard_rule::any_flag,
};

// One side of an extended rule: source and destination are one thing twice.
struct Side {
    bool is_src;
    Address<Extended> address;
    char (Extended::*vlan_name)[IPACL_NAME_SIZE];
    const char *portrange_word;
    uint16_t Extended::*port;
    uint16_t Extended::*port_flags;
    uint16_t Extended::*begin_port;
    uint16_t Extended::*end_port;
    const char *json_address;
    const char *json_port;
};

inline constexpr Side kSource{
    .is_src = true,
    .address = {.range_word = "src-range",
                .range_gap = " ",
                .addr = &Extended::srcaddr,
                .mask = &Extended::srcmsk,
                .begin = &Extended::src_begin_addr,
                .end = &Extended::src_end_addr,
                .compare_flag = &Extended::src_compare_flag,
                .any_flag = &Extended::src_any_flag},
    .vlan_name = &Extended::src_vlan_name,
    .portrange_word = "src-portrange",
    .port = &Extended::src_port,
    .port_flags = &Extended::src_port_flags,
    .begin_port = &Extended::src_begin_port,
    .end_port = &Extended::src_end_port,
    .json_address = "SrcAddress",
    .json_port = "SrcPort",
};

inline constexpr Side kDestination{
    .is_src = false,
    .address = {.range_word = "dst-range",
                .range_gap = " ",
                .addr = &Extended::dstaddr,
                .mask = &Extended::dstmsk,
                .begin = &Extended::dst_begin_addr,
                .end = &Extended::dst_end_addr,
                .compare_flag = &Extended::dst_compare_flag,
                .any_flag = &Extended::dst_any_flag},
    .vlan_name = &Extended::dst_vlan_name,
    .portrange_word = "dst-portrange",
    .port = &Extended::dst_port,
    .port_flags = &Extended::dst_port_flags,
    .begin_port = &Extended::dst_begin_port,
    .end_port = &Extended::dst_end_port,
    .json_address = "DstAddress",
    .json_port = "DstPort",
};

// An option of an extended rule that has a bit of its own in `flags`, in the order in which rules
// are written. A row's shape says which of its columns count:
//   number   WORD N                 `byte`
//   choice   WORD | OTHER           bit `bit` of `byte`, set by WORD, not touched by OTHER
//   compare  WORD eq|gt|lt N        `value` and the operator in `op`
// `packet` is what a packet has to set against the rule's value.
struct Option {
    enum Shape { kNumber, kChoice, kCompare };
    Shape shape;
    uint16_t flag;
    const char *word;
    const char *other;
    uint8_t bit;
    uint8_t Extended::*byte;
    uint16_t Extended::*value;
    uint16_t Extended::*op;
    const char *json;
    uint32_t (*packet)(const acl_info &);
};

using Packet = uint32_t (*)(const acl_info &);

constexpr Option number(const char *word, uint16_t flag, uint8_t Extended::*byte, const char *json,
                        Packet packet) {
    return {Option::kNumber, flag, word, nullptr, 0, byte, nullptr, nullptr, json, packet};
}

constexpr Option choice(const char *set, const char *clear, uint16_t flag, uint8_t Extended::*byte,
                        uint8_t bit, const char *json, Packet packet) {
    return {Option::kChoice, flag, set, clear, bit, byte, nullptr, nullptr, json, packet};
}

constexpr Option compare(const char *word, uint16_t flag, uint16_t Extended::*value,
                         uint16_t Extended::*op, const char *json, Packet packet) {
    return {Option::kCompare, flag, word, nullptr, 0, nullptr, value, op, json, packet};
}

constexpr uint32_t fragment_flags(const acl_info &info) { return info.fragment_flags; }

inline constexpr Option kOptions[] = {
    number("tos", IPACL_FLAG_TOS, &Extended::tos, "Tos",
           [](const acl_info &info) -> uint32_t { return (info.tos >> 1) & 0xF; }),
    number("precedence", IPACL_FLAG_PRECEDENCE, &Extended::precedence, "Precedence",
           [](const acl_info &info) -> uint32_t { return info.tos >> 5; }),
    choice("donotfragment-set", "donotfragment-notset", IPACL_FLAG_DONT_FRAGMENT,
           &Extended::fragment_flags, IPACL_DONT_FRAGMENT_SET, "NotFragmentFlag", fragment_flags),
    choice("is-fragment", "not-fragment", IPACL_FLAG_FRAGMENT, &Extended::fragment_flags,
           IPACL_IS_FRAGMENT, "FragmentPacket", fragment_flags),
    choice("offset-not-zero", "offset-zero", IPACL_FLAG_OFFSET, &Extended::offset_flags,
           IPACL_OFFSET_NOT_ZERO, "Offset",
           [](const acl_info &info) -> uint32_t { return info.offset_flags; }),
    compare("totallen", IPACL_FLAG_TOTALLEN, &Extended::totallen, &Extended::totallen_flags,
            "LengthIpPacket", [](const acl_info &info) { return info.totallen; }),
    compare("ttl", IPACL_FLAG_TTL, &Extended::ttl, &Extended::ttl_flags, "LiveTime",
            [](const acl_info &info) -> uint32_t { return info.ttl; }),
};

// Where a rule keeps the type of an ICMP or IGMP message that it asks for: in src_port.
constexpr bool shows_message_type(const Extended &rule) {
    return (rule.protcol == kIcmp && (rule.flags & IPACL_FLAG_ICMP_TYPE)) ||
           (rule.protcol == kIgmp && (rule.flags & IPACL_FLAG_IGMP_TYPE));
}

} // namespace acl_words
