#include "acl_fields.h"

#include "acl_words.h"

#include <algorithm>
#include <cstring>

namespace aclfast {

namespace {

using acl_words::kDestination;
using acl_words::kSource;

constexpr uint32_t kAckOrRst = 0x10 | 0x04;
constexpr Condition kNever{.lo = 1, .hi = 0};

void restrict(Condition &c, int64_t lo, int64_t hi) {
    c.lo = std::max(c.lo, lo);
    c.hi = std::min(c.hi, hi);
}

// Every set operator must hold.
Condition operators(uint16_t bits, uint16_t operand) {
    Condition c;
    if (bits & IPACL_OP_EQ)
        restrict(c, operand, operand);
    if (bits & IPACL_OP_GT)
        restrict(c, operand + 1, UINT32_MAX);
    if (bits & IPACL_OP_LT)
        restrict(c, 0, operand - 1);
    if (bits & IPACL_OP_NEQ)
        c.except = operand;
    return c;
}

Condition port(const ipacl_extended_rule &rule, const acl_words::Side &side) {
    const uint16_t bits = rule.*side.port_flags;
    if (!acl_words::has_ports(rule.protcol))
        return {};
    Condition c = operators(bits, rule.*side.port);
    if (bits & IPACL_OP_RANGE)
        restrict(c, rule.*side.begin_port, rule.*side.end_port);
    return c;
}

Condition message_type(const ipacl_extended_rule &rule, uint16_t flag) {
    const bool has_type = rule.protcol == acl_words::kIcmp || rule.protcol == acl_words::kIgmp;
    return has_type && (rule.flags & flag) ? operators(IPACL_OP_EQ, rule.src_port) : Condition{};
}

constexpr bool is_prefix(uint32_t mask) { return (~mask & (~mask + 1)) == 0; }

// The byte of an address word that a field of kSourceBytes or kDestinationBytes looks at.
uint32_t byte_of(uint32_t word, Field field) {
    uint8_t bytes[sizeof word];
    memcpy(bytes, &word, sizeof word);
    return bytes[(field - kSourceBytes) % sizeof word];
}

constexpr bool compared(uint16_t flag) {
    return flag == IPACL_COMPARE_MASK || flag == IPACL_COMPARE_RANGE;
}

Condition prefix(uint32_t address, uint32_t mask) {
    return {.lo = address & mask, .hi = (address & mask) | ~mask};
}

// The condition on one view of an address: the host-order number, the stored word, or the byte
// that `field` looks at. Each mask is tested in the first view that can hold it.
enum View { kNumber, kWord, kByte };

Condition address(const ipacl_extended_rule &rule, const acl_words::Side &side, View view,
                  Field field) {
    const auto &fields = side.address;
    if (!compared(rule.src_compare_flag) || !compared(rule.dst_compare_flag))
        return {}; // kept: with any other pair no address is tested at all
    const uint32_t addr = (rule.*fields.addr).s_addr, mask = (rule.*fields.mask).s_addr;
    if (!fields.by_mask(rule)) {
        if (view != kWord)
            return {};
        return {.lo = (rule.*fields.begin).s_addr, .hi = (rule.*fields.end).s_addr};
    }
    const View holds = is_prefix(in_host_order(mask)) ? kNumber : is_prefix(mask) ? kWord : kByte;
    if (view != holds)
        return {};
    if (view == kNumber)
        return prefix(in_host_order(addr), in_host_order(mask));
    if (view == kWord)
        return prefix(addr, mask);
    return {.value = byte_of(addr, field), .mask = byte_of(mask, field)};
}

Condition tos(const ipacl_extended_rule &rule) {
    Condition c;
    if (rule.flags & IPACL_FLAG_TOS) {
        if (rule.tos > 0xF)
            return kNever;
        c.value |= static_cast<uint32_t>(rule.tos << 1);
        c.mask |= 0x1E;
    }
    if (rule.flags & IPACL_FLAG_PRECEDENCE) {
        if (rule.precedence > 7)
            return kNever;
        c.value |= static_cast<uint32_t>(rule.precedence << 5);
        c.mask |= 0xE0;
    }
    return c;
}

Condition fragment_flags(const ipacl_extended_rule &rule) {
    Condition c{.value = rule.fragment_flags};
    if (rule.flags & IPACL_FLAG_DONT_FRAGMENT)
        c.mask |= IPACL_DONT_FRAGMENT_SET;
    if (rule.flags & IPACL_FLAG_FRAGMENT)
        c.mask |= IPACL_IS_FRAGMENT;
    return c;
}

// A comparison option: it knows neither "neq" nor a range.
Condition compared_option(const ipacl_extended_rule &rule, uint16_t flag, uint16_t bits,
                          uint16_t operand) {
    if (!(rule.flags & flag))
        return {};
    return operators(static_cast<uint16_t>(bits & ~IPACL_OP_NEQ), operand);
}

} // namespace

Condition condition(const ipacl_extended_rule &rule, Field field) {
    switch (field) {
    case kSourceNetwork:
        return address(rule, kSource, kNumber, field);
    case kDestinationNetwork:
        return address(rule, kDestination, kNumber, field);
    case kSourceWord:
        return address(rule, kSource, kWord, field);
    case kDestinationWord:
        return address(rule, kDestination, kWord, field);
    case kSourcePort:
        return port(rule, kSource);
    case kDestinationPort:
        return port(rule, kDestination);
    case kTotalLength:
        return compared_option(rule, IPACL_FLAG_TOTALLEN, rule.totallen_flags, rule.totallen);
    case kProtocol:
        return rule.protcol == IPACL_PROTOCOL_IP ? Condition{}
                                                 : operators(IPACL_OP_EQ, rule.protcol);
    case kTos:
        return tos(rule);
    case kTcpFlags:
        return {.some = rule.flags & IPACL_FLAG_ESTABLISHED ? kAckOrRst : 0};
    case kFragmentFlags:
        return fragment_flags(rule);
    case kOffsetFlags:
        return {.value = rule.offset_flags,
                .mask = rule.flags & IPACL_FLAG_OFFSET ? uint32_t{IPACL_OFFSET_NOT_ZERO} : 0};
    case kTtl:
        return compared_option(rule, IPACL_FLAG_TTL, rule.ttl_flags, rule.ttl);
    case kIcmpType:
        return message_type(rule, IPACL_FLAG_ICMP_TYPE);
    case kIgmpType:
        return message_type(rule, IPACL_FLAG_IGMP_TYPE);
    default:
        break;
    }
    return address(rule, field < kDestinationBytes ? kSource : kDestination, kByte, field);
}

ipacl_extended_rule as_extended(const ipacl_standard_rule &rule) {
    ipacl_extended_rule same{};
    same.protcol = IPACL_PROTOCOL_IP;
    same.src_compare_flag =
        rule.compare_flag == IPACL_COMPARE_MASK ? IPACL_COMPARE_MASK : IPACL_COMPARE_RANGE;
    same.srcaddr = rule.srcaddr;
    same.srcmsk = rule.srcmsk;
    same.src_begin_addr = rule.src_begin_addr;
    same.src_end_addr = rule.src_end_addr;
    same.dst_compare_flag = IPACL_COMPARE_MASK; // any destination
    same.flags = rule.flags & (IPACL_FLAG_PERMIT | IPACL_FLAG_DENY | IPACL_FLAG_LOG);
    return same;
}

} // namespace aclfast
