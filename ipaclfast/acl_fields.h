// What rules ask of packets, field by field: a rule matches when every field passes its condition.
#pragma once

#include "ipacl.h"

#include <bit>

namespace aclfast {

// Fields that a rule may test. An address is looked at in three ways: as a number in host order,
// where prefixes are ranges; as the stored word, where the ranges of rules are; and byte by byte
// for masks that are neither.
enum Field : uint8_t {
    kSourceNetwork,
    kDestinationNetwork,
    kSourceWord,
    kDestinationWord,
    kSourcePort,
    kDestinationPort,
    kTotalLength,
    kProtocol,
    kTos,
    kTcpFlags,
    kFragmentFlags,
    kOffsetFlags,
    kTtl,
    kIcmpType,
    kIgmpType,
    kSourceBytes,
    kDestinationBytes = kSourceBytes + 4,
    kFields = kDestinationBytes + 4
};

// Where a packet has a field.
struct Shape {
    enum Kind : uint8_t { kByte, kHalf, kWord, kNumber /* a word that is turned to host order */ };
    Kind kind;
    uint8_t offset;
    bool absent_in_fragments; // every condition on it holds for a non-first fragment
};

constexpr Shape shape(Field field) {
    switch (field) {
    case kSourceNetwork:
        return {Shape::kNumber, offsetof(acl_info, src_ip), false};
    case kDestinationNetwork:
        return {Shape::kNumber, offsetof(acl_info, dst_ip), false};
    case kSourceWord:
        return {Shape::kWord, offsetof(acl_info, src_ip), false};
    case kDestinationWord:
        return {Shape::kWord, offsetof(acl_info, dst_ip), false};
    case kSourcePort:
        return {Shape::kHalf, offsetof(acl_info, src_port), true};
    case kDestinationPort:
        return {Shape::kHalf, offsetof(acl_info, dst_port), true};
    case kTotalLength:
        return {Shape::kWord, offsetof(acl_info, totallen), false};
    case kProtocol:
        return {Shape::kByte, offsetof(acl_info, proto), false};
    case kTos:
        return {Shape::kByte, offsetof(acl_info, tos), false};
    case kTcpFlags:
        return {Shape::kByte, offsetof(acl_info, tcp_flags), true};
    case kFragmentFlags:
        return {Shape::kByte, offsetof(acl_info, fragment_flags), false};
    case kOffsetFlags:
        return {Shape::kByte, offsetof(acl_info, offset_flags), false};
    case kTtl:
        return {Shape::kByte, offsetof(acl_info, ttl), false};
    case kIcmpType:
        return {Shape::kByte, offsetof(acl_info, icmp_type), true};
    case kIgmpType:
        return {Shape::kByte, offsetof(acl_info, igmp_type), true};
    default:
        break;
    }
    if (field < kDestinationBytes)
        return {Shape::kByte, uint8_t(offsetof(acl_info, src_ip) + field - kSourceBytes), false};
    return {Shape::kByte, uint8_t(offsetof(acl_info, dst_ip) + field - kDestinationBytes), false};
}

// Values from `lo` to `hi`, without `except`, that agree with `value` in the bits of `mask` and,
// unless `some` is 0, have one of its bits. Only byte fields are tested by bits.
struct Condition {
    int64_t lo = 0;
    int64_t hi = UINT32_MAX;
    int64_t except = -1;
    uint32_t value = 0;
    uint32_t mask = 0;
    uint32_t some = 0;

    bool any() const { return lo == 0 && hi == UINT32_MAX && except < 0 && mask == 0 && some == 0; }
    bool passes(uint32_t v) const {
        return lo <= v && v <= hi && v != except && ((v ^ value) & mask) == 0 &&
               (some == 0 || (v & some));
    }
};

// The condition of an active rule on a field.
Condition condition(const ipacl_extended_rule &rule, Field field);

// An extended rule that matches what the standard rule matches.
ipacl_extended_rule as_extended(const ipacl_standard_rule &rule);
inline const ipacl_extended_rule &as_extended(const ipacl_extended_rule &rule) { return rule; }

constexpr uint32_t in_host_order(uint32_t word) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

} // namespace aclfast
