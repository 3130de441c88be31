// Operations on one rule of a list given by name: swap with a neighbour, replace in place.
//
// They relink records and change neither rule_count nor is_change. A position outside the list is
// refused and nothing changes.

#include "aclapi_kind.h"
#include "platform/sys.h"

namespace {

// The link to rule `number` (1-based); null when there is no such rule.
template <class Rule>
Rule **link_to(Rule *&head, uint32_t number) {
    if (number == 0)
        return nullptr;
    Rule **link = &head;
    while (*link && --number > 0)
        link = &(*link)->ipacl_next;
    return *link ? link : nullptr;
}

template <class Kind>
int exchange(const char *name, uint32_t number, int direction) {
    ipacl *list = acl::ready_find<Kind>(name);
    if (!list || number == 0)
        return 0;
    auto **link = link_to(Kind::head(*list), direction == 1 ? number - 1 : number);
    if (!link || !(*link)->ipacl_next)
        return 0;
    auto *upper = *link;
    auto *lower = upper->ipacl_next;
    upper->ipacl_next = lower->ipacl_next;
    lower->ipacl_next = upper;
    *link = lower;
    return 1;
}

} // namespace

int exchange_acls_rule(const char *name, uint32_t number, int direction) {
    return exchange<acl::StandardKind>(name, number, direction);
}

int exchange_acle_rule(const char *name, uint32_t number, int direction) {
    return exchange<acl::ExtendedKind>(name, number, direction);
}

int rewrite_acle_rule(const char *name, uint32_t number, const ipacl_extended_rule *target) {
    using Rule = ipacl_extended_rule;
    auto *rule = static_cast<Rule *>(sys_mem_malloc(sizeof(Rule)));
    if (!rule)
        return 0;
    *rule = Rule{};
    copy_acle_rule(rule, target);

    ipacl *list = acl::ready_find<acl::ExtendedKind>(name);
    if (!list)
        return 0; // kept: the new record is lost
    Rule **link = link_to(list->ipacl_e, number);
    if (!link) {
        sys_mem_free(rule);
        return 0;
    }
    Rule *old = *link;
    memcpy(rule->src_vlan_name, old->src_vlan_name, IPACL_NAME_SIZE);
    memcpy(rule->dst_vlan_name, old->dst_vlan_name, IPACL_NAME_SIZE);
    rule->ipacl_next = old->ipacl_next;
    *link = rule;
    acl::ExtendedKind::forget(*old); // kept: the VLAN-name index still names the old record
    sys_mem_free(old);
    return 1;
}
