// Rule sets in the manner of ClassBench, and packets for them. The same seed gives the same set.
//
// Each kind of set draws its prefix lengths, wildcards, protocols and ports from shares that are
// typical of it: access lists name many destinations, firewalls have many wildcards and port
// ranges, chains mix both. Prefixes nest: most begin as a part of one that was drawn before.
#pragma once

#include "ipacl.h"

#include <cstdint>
#include <vector>

namespace rule_sets {

enum Kind { kAccessList, kFirewall, kChain, kLastOnly, kKinds };
inline constexpr const char *kNames[] = {"access-list", "firewall", "chain", "last-only"};

// `count` distinct rules in matching order, not linked. Of kLastOnly every packet of `packets`
// misses all rules but the last.
std::vector<ipacl_extended_rule> rules(Kind kind, uint32_t count, uint32_t seed);

// Packets that lie within rules drawn at random from the set.
std::vector<acl_info> packets(Kind kind, const std::vector<ipacl_extended_rule> &rules,
                              uint32_t count, uint32_t seed);

// Links rules or copies of them to a list, which refers to the vector.
template <class Rule>
Rule *link(std::vector<Rule> &rules) {
    for (size_t i = 0; i < rules.size(); i++)
        rules[i].ipacl_next = i + 1 < rules.size() ? &rules[i + 1] : nullptr;
    return rules.empty() ? nullptr : rules.data();
}

} // namespace rule_sets
