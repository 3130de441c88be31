// The decision about one pair of rules: whether one covers the other, or both fuse into one.
//
// Spans are taken in host byte order. Masks of a fused rule are compared and changed as stored.

#include "acl_kind.h"
#include "acl_words.h"

#include <arpa/inet.h>
#include <bit>
#include <initializer_list>

namespace {

enum Decision { kNone = 0, kLaterGoes = 1, kEarlierGoes = 2 };

using acl_words::Address;

bool same(in_addr a, in_addr b) { return a.s_addr == b.s_addr; }

struct Span {
    uint32_t low, high; // host byte order
    bool contains(const Span &other) const { return low <= other.low && high >= other.high; }
};

template <class Rule>
Span span_of(const Rule &rule, const Address<Rule> &fields) {
    if (!fields.by_mask(rule))
        return {ntohl((rule.*fields.begin).s_addr), ntohl((rule.*fields.end).s_addr)};
    const uint32_t address = ntohl((rule.*fields.addr).s_addr);
    const uint32_t mask = ntohl((rule.*fields.mask).s_addr);
    return {address & mask, address | ~mask};
}

// Decides by who contains whom. Where both do, the first test wins.
Decision by_containment(bool a_contains_b, bool b_contains_a, bool ask_b_first) {
    if (b_contains_a && (ask_b_first || !a_contains_b))
        return kEarlierGoes;
    return a_contains_b ? kLaterGoes : kNone;
}

// Two address/mask pairs: equal halves fuse by clearing a bit of the first mask; otherwise the
// larger block covers the smaller.
Decision decide_blocks(in_addr a, in_addr &m, in_addr b, in_addr k) {
    const uint32_t difference = (a.s_addr & m.s_addr) ^ (b.s_addr & k.s_addr);
    if (difference != 0) {
        if (!std::has_single_bit(difference) || !same(m, k))
            return kNone;
        m.s_addr &= ~difference;
        return kLaterGoes;
    }
    // kept: sizes are compared as stored words.
    if (m.s_addr < k.s_addr)
        return (m.s_addr & k.s_addr) == m.s_addr ? kLaterGoes : kNone;
    return (m.s_addr & k.s_addr) == k.s_addr ? kEarlierGoes : kNone;
}

template <class Rule>
bool same_block(const Rule &a, const Rule &b, const Address<Rule> &f) {
    return same(a.*f.addr, b.*f.addr) && same(a.*f.mask, b.*f.mask);
}

template <class Rule>
bool same_range(const Rule &a, const Rule &b, const Address<Rule> &f) {
    return same(a.*f.begin, b.*f.begin) && same(a.*f.end, b.*f.end);
}

// Two rules of one form must agree on the fields of the form that they don't use.
template <class Rule>
bool unused_fields_agree(const Rule &a, const Rule &b, const Address<Rule> &f) {
    if (f.by_mask(a) != f.by_mask(b))
        return true;
    return f.by_mask(a) ? same_range(a, b, f) : same_block(a, b, f);
}

template <class Rule>
Decision fuse(Rule &a, const Rule &b, const Address<Rule> &f) {
    return decide_blocks(a.*f.addr, a.*f.mask, b.*f.addr, b.*f.mask);
}

Decision decide(ipacl_standard_rule &a, const ipacl_standard_rule &b) {
    constexpr const auto &f = acl_words::kStandardSource;
    if (a.status != IPACL_RULE_ACTIVE || b.status != IPACL_RULE_ACTIVE)
        return kNone;
    if (a.flags != b.flags) {
        if (!same_block(a, b, f) || !same_range(a, b, f) || a.compare_flag != b.compare_flag ||
            a.any_flag != b.any_flag)
            return kNone;
        a.flags = static_cast<uint16_t>(a.flags | IPACL_FLAG_LOG);
        return kLaterGoes;
    }
    if (a.any_flag != b.any_flag || !unused_fields_agree(a, b, f))
        return kNone;
    if (f.by_mask(a) && f.by_mask(b))
        return fuse(a, b, f);
    const Span span_a = span_of(a, f);
    const Span span_b = span_of(b, f);
    return by_containment(span_a.contains(span_b), span_b.contains(span_a), f.by_mask(a));
}

// How two extended rules are compared, by the address forms of A and B: source of A, source of B,
// destination of A, destination of B, a hexadecimal digit each, 1 mask and 2 range.
struct Key {
    uint16_t forms;
    enum Rule { kBlocks, kContainsBFirst, kContainedByBFirst, kNever } rule;
};

constexpr Key kKeys[] = {
    {0x1111, Key::kBlocks},         {0x1112, Key::kContainsBFirst},
    {0x1121, Key::kContainsBFirst}, {0x1122, Key::kContainsBFirst},
    {0x1211, Key::kContainsBFirst}, {0x1212, Key::kContainedByBFirst},
    {0x1221, Key::kNever},          {0x1222, Key::kContainsBFirst},
    {0x2111, Key::kContainsBFirst}, {0x2112, Key::kNever},
    {0x2121, Key::kContainsBFirst}, {0x2122, Key::kContainsBFirst},
    {0x2211, Key::kContainsBFirst}, {0x2212, Key::kContainsBFirst},
    {0x2221, Key::kContainsBFirst}, {0x2222, Key::kContainsBFirst},
};

Key::Rule rule_of(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    int forms = 0;
    for (const uint16_t form :
         {a.src_compare_flag, b.src_compare_flag, a.dst_compare_flag, b.dst_compare_flag})
        forms = form > 0xF ? -1 : forms << 4 | form;
    for (const auto &key : kKeys)
        if (key.forms == forms)
            return key.rule;
    return Key::kNever;
}

Decision decide(ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    constexpr const auto &src = acl_words::kSource.address;
    constexpr const auto &dst = acl_words::kDestination.address;
    // kept: the destination interface, class of service and TCP flags are not compared.
    if (!acl::same_conditions(a, b) || !acl::name_begins(a.src_vlan_name, b.src_vlan_name) ||
        a.status != IPACL_RULE_ACTIVE || b.status != IPACL_RULE_ACTIVE)
        return kNone;
    const Key::Rule rule = rule_of(a, b);
    if (rule == Key::kNever || !unused_fields_agree(a, b, src) || !unused_fields_agree(a, b, dst))
        return kNone;
    if (rule == Key::kBlocks) {
        if (same_block(a, b, src))
            return fuse(a, b, dst);
        return same_block(a, b, dst) ? fuse(a, b, src) : kNone;
    }
    const Span src_a = span_of(a, src), src_b = span_of(b, src);
    const Span dst_a = span_of(a, dst), dst_b = span_of(b, dst);
    return by_containment(src_a.contains(src_b) && dst_a.contains(dst_b),
                          src_b.contains(src_a) && dst_b.contains(dst_a),
                          rule == Key::kContainedByBFirst);
}

} // namespace

int acl_rule_merger_op(void *src, const void *dst, int is_standard) {
    return acl::with_kind(is_standard == 1, [&]<class Kind>(Kind) -> int {
        using Rule = typename Kind::Rule;
        return decide(*static_cast<Rule *>(src), *static_cast<const Rule *>(dst));
    });
}
