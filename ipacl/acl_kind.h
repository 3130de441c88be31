// The two kinds of rule, as the list operations see them.
//
// Every operation on rule lists is written once over a Kind: record type, head of the list,
// equality, and what happens beside the list when a rule enters or leaves it. with_kind picks the
// kind of a list.
#pragma once

#include "aclrule.h"
#include "platform/sys.h"

#include <cstring>
#include <utility>

namespace acl {

struct StandardKind {
    using Rule = ipacl_standard_rule;

    static bool owns(const ipacl &list) { return list.is_standard == 1; }
    static Rule *&head(ipacl &list) { return list.ipacl_s; }
    static Rule *head(const ipacl &list) { return list.ipacl_s; }
    static bool equal(const Rule &rule, const Rule &target);
    static bool equal_active(const Rule &rule, const Rule &target) {
        return equal(rule, target) && rule.status == IPACL_RULE_ACTIVE &&
               target.status == IPACL_RULE_ACTIVE;
    }
    static Rule *find(const ipacl &list, const Rule &target) {
        return find_acls_rule(&list, &target);
    }
    // Standard rules stand in no index.
    static void index(ipacl &, Rule &) {}
    static void unindex(ipacl &, Rule &) {}
    static void forget(const Rule &) {}
};

struct ExtendedKind {
    using Rule = ipacl_extended_rule;

    static bool owns(const ipacl &list) { return list.is_standard != 1; }
    static Rule *&head(ipacl &list) { return list.ipacl_e; }
    static Rule *head(const ipacl &list) { return list.ipacl_e; }
    static bool equal(const Rule &rule, const Rule &target) {
        // In the source address most rules of a list differ.
        return rule.srcaddr.s_addr == target.srcaddr.s_addr && acle_cmp(&rule, &target);
    }
    static bool equal_active(const Rule &rule, const Rule &target) {
        return equal(rule, target) && rule.status == IPACL_RULE_ACTIVE;
    }
    static Rule *find(const ipacl &list, const Rule &target) {
        return find_acle_rule(&list, &target);
    }
    // Enter the interfaces that a rule names into the VLAN-name index, or take them out.
    static void index(ipacl &list, Rule &rule);
    static void unindex(ipacl &list, Rule &rule);
    // Marks the node of a record that goes while its node stays.
    static void forget(const Rule &rule);
};

// Marks every node of a list that goes.
void forget_list(const ipacl &list);

// True when two extended rules agree on everything but addresses, interfaces, class of service,
// TCP flags and status.
bool same_conditions(const ipacl_extended_rule &src, const ipacl_extended_rule &dst);

// kept: an interface name of `dst` need only be a prefix of that of `src`; an empty one matches
// any.
bool name_begins(const char *src, const char *dst);

// Frees the rules of a list that goes.
void free_rules(ipacl &list);

// Frees a derived copy and its rules. It may share remark texts with live rules and owns none.
void free_copy(ipacl *copy);

// A record with the content of `rule`, or null when memory is short.
template <class Rule>
Rule *new_record(const Rule &rule) {
    auto *record = static_cast<Rule *>(sys_mem_malloc(sizeof(Rule)));
    if (record)
        *record = rule;
    return record;
}

template <class F>
decltype(auto) with_kind(bool is_standard, F &&f) {
    return is_standard ? f(StandardKind{}) : f(ExtendedKind{});
}

template <class F>
decltype(auto) with_kind(const ipacl &list, F &&f) {
    return with_kind(StandardKind::owns(list), std::forward<F>(f));
}

inline void store_name(char (&field)[IPACL_NAME_SIZE], const char *name) {
    memset(field, 0, sizeof field);
    memcpy(field, name, strnlen(name, IPACL_NAME_LEN));
}

} // namespace acl
