// What a list costs a table of values and masks.

#include "rules.h"

#include <algorithm>
#include <bit>

namespace analysis {
namespace {

constexpr int kLengthBits = 16; // of a packet on the wire

// The fewest prefixes that make up a span.
uint64_t prefixes(Span span) {
    uint64_t count = 0;
    const uint64_t end = uint64_t{span.last} + 1;
    for (uint64_t at = span.first; at < end; count++) {
        const uint64_t aligned = at ? at & (~at + 1) : uint64_t{1} << 32;
        at += std::min(aligned, std::bit_floor(end - at));
    }
    return count;
}

uint64_t entries(const Test &test) {
    if (test.kind == Test::kMasked)
        return 1;
    uint64_t count = 0;
    constexpr uint32_t kMaxLength = (1U << kLengthBits) - 1;
    for (Span span : test.spans) {
        if (test.field == kLength && span.first > kMaxLength)
            continue;
        if (test.field == kLength)
            span.last = std::min(span.last, kMaxLength);
        count += prefixes(span);
    }
    return count;
}

RuleCost cost(const Rule &rule) {
    RuleCost cost{rule.number, 0, 1, 1, 1, 1, 1};
    for (const auto *tests : {&rule.always, &rule.whole})
        for (const Test &test : *tests) {
            uint64_t &factor = test.field == kSrc       ? cost.src
                               : test.field == kDst     ? cost.dst
                               : test.field == kSrcPort ? cost.sport
                               : test.field == kDstPort ? cost.dport
                                                        : cost.other;
            factor *= test.field == kEstablished ? 2 : entries(test);
        }
    if (rule.active)
        cost.entries = cost.src * cost.dst * cost.sport * cost.dport * cost.other;
    return cost;
}

} // namespace

std::vector<RuleCost> costs(const ipacl &list) {
    std::vector<RuleCost> all;
    for (const Rule &rule : rules_of(list))
        all.push_back(cost(rule));
    return all;
}

} // namespace analysis
