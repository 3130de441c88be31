// The merger on a copy: what it saves, and whether the copy still decides alike.

#include "acl_kind.h"
#include "plan.h"

#include <memory>
#include <new>

namespace analysis {
namespace {

struct FreeCopy {
    void operator()(ipacl *copy) const { acl::free_copy(copy); }
};

std::unique_ptr<ipacl, FreeCopy> merged_copy(const ipacl &list) {
    ipacl *copy = nullptr;
    if (acl_rule_merger_create_upper_ipacl(&list, &copy) != IPACL_MERGE_RC_OK)
        throw std::bad_alloc();
    return std::unique_ptr<ipacl, FreeCopy>(copy);
}

uint64_t total(const std::vector<RuleCost> &rules) {
    uint64_t entries = 0;
    for (const RuleCost &rule : rules)
        entries += rule.entries;
    return entries;
}

} // namespace

Merge merge(const ipacl &list) {
    const auto copy = merged_copy(list);
    const auto rules = costs(list), merged_rules = costs(*copy);
    Merge merge{rules.size(),
                merged_rules.size(),
                total(rules),
                total(merged_rules),
                first_difference(list, *copy),
                {},
                {},
                rule_texts(*copy)};
    if (merge.witness) {
        merge.before = decide(list, *merge.witness);
        merge.after = decide(*copy, *merge.witness);
    }
    return merge;
}

Plan plan(const ipacl &list) {
    const auto merged = costs(*merged_copy(list));
    Plan plan{costs(list), 0, merged.size(), total(merged)};
    plan.entries = total(plan.rules);
    return plan;
}

} // namespace analysis
