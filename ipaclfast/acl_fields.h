// What rules ask of packets, field by field: a rule matches when every field passes its condition.
#pragma once

#include "ipacl.h"

#include <array>
#include <bit>

namespace aclfast {

// Fields that a rule may test. An address is looked at in three ways: as a number in host order,
// where prefixes are ranges; as the stored word, where the ranges of rules are; and byte by byte
// for masks that are neither. The fields from kByteFields on have 256 values.
enum Field : uint8_t {
    kSourceNetwork,
    kDestinationNetwork,
    kSourceWord,
    kDestinationWord,
    kSourcePort,
    kDestinationPort,
    kTotalLength,
    kByteFields,
    kProtocol = kByteFields,
    kTos,
    kState, // established, fragment and offset bits
    kTtl,
    kIcmpType,
    kIgmpType,
    kSourceBytes,
    kDestinationBytes = kSourceBytes + 4,
    kFields = kDestinationBytes + 4
};

// True for fields that a non-first fragment does not have: every condition on them holds.
constexpr bool absent_in_fragments(Field field) {
    return field == kSourcePort || field == kDestinationPort || field == kIcmpType ||
           field == kIgmpType;
}

// Values from `lo` to `hi`, without `except`, that agree with `value` in the bits of `mask`.
struct Condition {
    int64_t lo = 0;
    int64_t hi = UINT32_MAX;
    int64_t except = -1;
    uint32_t value = 0;
    uint32_t mask = 0;

    bool any() const { return lo == 0 && hi == UINT32_MAX && except < 0 && mask == 0; }
    bool passes(uint32_t v) const {
        return lo <= v && v <= hi && v != except && ((v ^ value) & mask) == 0;
    }
};

// The condition of an active rule on a field. Those on fields below kByteFields have no mask.
Condition condition(const ipacl_extended_rule &rule, Field field);

// An extended rule that matches what the standard rule matches.
ipacl_extended_rule as_extended(const ipacl_standard_rule &rule);
inline const ipacl_extended_rule &as_extended(const ipacl_extended_rule &rule) { return rule; }

constexpr uint32_t in_host_order(uint32_t word) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// The byte of an address word that a field of kSourceBytes or kDestinationBytes looks at.
constexpr uint32_t byte_of(uint32_t word, Field field) {
    return word >> 8 * ((field - kSourceBytes) & 3) & 0xFF;
}

// The established bit of kState, and where the other bits of a packet or a rule stand in it.
inline constexpr uint32_t kAckOrRst = 1;
constexpr uint32_t state_bits(uint8_t fragment_flags, uint8_t offset_flags) {
    return (fragment_flags & 3U) << 1 | (offset_flags & 1U) << 3;
}

// What a packet has in a field.
template <Field field>
inline uint32_t key(const acl_info &packet, bool frag) {
    switch (field) {
    case kSourceNetwork:
        return in_host_order(packet.src_ip);
    case kDestinationNetwork:
        return in_host_order(packet.dst_ip);
    case kSourceWord:
        return packet.src_ip;
    case kDestinationWord:
        return packet.dst_ip;
    case kSourcePort:
        return packet.src_port;
    case kDestinationPort:
        return packet.dst_port;
    case kTotalLength:
        return packet.totallen;
    case kProtocol:
        return packet.proto;
    case kTos:
        return packet.tos;
    case kState:
        return state_bits(packet.fragment_flags, packet.offset_flags) |
               (frag || (packet.tcp_flags & 0x14) ? kAckOrRst : 0);
    case kTtl:
        return packet.ttl;
    case kIcmpType:
        return packet.icmp_type;
    case kIgmpType:
        return packet.igmp_type;
    default:
        break;
    }
    return byte_of(field < kDestinationBytes ? packet.src_ip : packet.dst_ip, field);
}

} // namespace aclfast
