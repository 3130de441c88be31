// The rule merger: a reduced copy of a list, for hardware tables.
//
// The copy holds the active rules in order; then rules are compared pair by pair, and what another
// rule covers goes. Rules are never moved, and rules that lie between a pair are not consulted.

#include "acl_copy.h"

#include <cstdio>

namespace {

// Counts of one merging.
struct Effort {
    uint32_t operations = 0;
    uint32_t removed = 0;
};

// Takes the rule at `link` out of the merged copy, in favour of `stays`.
template <class Rule>
void remove_merged(Rule **link, const Rule *stays, ipacl &upper, Effort &effort) {
    Rule *goes = *link;
    *link = goes->ipacl_next;
    if (ipacl_debug_flag & IPACL_DEBUG_MERGE)
        ipacl_trace_merge(goes, stays, &upper);
    sys_mem_free(goes);
    upper.rule_count--;
    effort.removed++;
}

// Compares the rule at `link` with every later one until one of the two goes. Returns the link to
// go on with.
template <class Rule>
Rule **merge_one(Rule **link, ipacl &upper, Effort &effort) {
    constexpr uint16_t kAction = IPACL_FLAG_PERMIT | IPACL_FLAG_DENY;
    Rule *rule = *link;
    for (Rule **later = &rule->ipacl_next; *later; later = &(*later)->ipacl_next) {
        if (!(rule->flags & (*later)->flags & kAction))
            continue;
        effort.operations++;
        const int result = acl_rule_merger_op(rule, *later, upper.is_standard);
        if (result == 1) {
            remove_merged(later, rule, upper, effort);
            break;
        }
        if (result == 2) {
            remove_merged(link, *later, upper, effort);
            return &(*link)->ipacl_next; // kept: the rule behind it waits for the next pass
        }
    }
    return &rule->ipacl_next;
}

template <class Kind>
Effort merge_rules(ipacl &upper) {
    Effort effort;
    for (bool again = upper.rule_count >= 2; again;) {
        const uint32_t before = effort.removed;
        for (auto **link = &Kind::head(upper); *link;)
            link = merge_one(link, upper, effort);
        again = effort.removed != before;
    }
    return effort;
}

} // namespace

int acl_rule_merger_create_upper_ipacl(const ipacl *base_ipacl, ipacl **upper_ipacl) {
    if (!base_ipacl || !upper_ipacl) {
        LOG_MERGE(kLogError, 3514, "catch a null pointer!(errno = %d/%d)\n", acl::low32(base_ipacl),
                  acl::low32(upper_ipacl));
        return IPACL_MERGE_RC_NULL_POINTER;
    }
    *upper_ipacl = nullptr;
    auto *upper = acl::new_record(ipacl{});
    if (!upper) {
        LOG_MERGE(kLogError, 3532, "IPACL insufficient memory!\n");
        return IPACL_MERGE_RC_NOT_ENOUGH_MEMORY;
    }
    memcpy(upper->name, base_ipacl->name, sizeof upper->name);
    upper->is_standard = base_ipacl->is_standard;
    const bool copied = acl::with_copy(upper->is_standard != 0, [&]<class Copy>(Copy) {
        return acl::copy_rules<Copy>(*base_ipacl, *upper, IPACL_FLAG_REVERSE_MASK);
    });
    if (!copied) {
        acl::free_copy(upper);
        LOG_MERGE(kLogError, base_ipacl->is_standard ? 3604 : 3563, "insufficient memory!\n");
        return IPACL_MERGE_RC_NOT_ENOUGH_MEMORY;
    }
    const Effort effort =
        acl::with_kind(*upper, [&]<class Kind>(Kind) { return merge_rules<Kind>(*upper); });
    if (ipacl_debug_flag & IPACL_DEBUG_MERGE)
        printf("[IP ACL]Merge: total %d merge operations, reduced %d rules\n",
               static_cast<int>(effort.operations), static_cast<int>(effort.removed));
    *upper_ipacl = upper;
    return IPACL_MERGE_RC_OK;
}
