// What the merger and the clean copies share: how rules are copied into a derived list, and the log
// lines whose source lines are part of their texts.
#pragma once

#include "acl_kind.h"
#include "acl_log.h"
#include "aclapi.h"

#define LOG_MERGE(severity, line, text, ...)                                                       \
    syslog(severity, "%%IPACL-%d-%s(%d): " text, severity, __func__,                               \
           line __VA_OPT__(, ) __VA_ARGS__)

namespace acl {

inline constexpr int kSeverityAlert = 1;

// An address as the log shows it.
inline int low32(const void *address) {
    return static_cast<int>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)));
}

// How one kind of rule is copied into a derived list.
struct StandardCopy : StandardKind {
    static bool active(const Rule &) { return true; }
    static void copy(Rule &to, const Rule &from) { copy_acls_rule(&to, &from); }
    static void trace(const Rule &, const ipacl &) {}
};

struct ExtendedCopy : ExtendedKind {
    static bool active(const Rule &rule) {
        return !(rule.flags & IPACL_FLAG_TIME_RANGE) || rule.is_act != 0;
    }
    static void copy(Rule &to, const Rule &from) { copy_acle_rule_only_content(&to, &from); }
    static void trace(const Rule &rule, const ipacl &list) {
        if ((rule.flags & IPACL_FLAG_TIME_RANGE) && (ipacl_debug_flag & IPACL_DEBUG_TIME_RANGE))
            ipacl_trace_timerange_rule(&rule, rule.is_act, &list);
    }
};

template <class F>
decltype(auto) with_copy(bool is_standard, F &&f) {
    return is_standard ? f(StandardCopy{}) : f(ExtendedCopy{});
}

// Appends copies of the active rules of `base`, without remarks and without the flag bits
// `cleared`, to a list that has no rules, and counts them; with `count_remarks` the remarks too.
// False when memory was short; what was copied stays.
template <class Copy>
bool copy_rules(const ipacl &base, ipacl &to, uint16_t cleared, bool count_remarks = false) {
    using Rule = typename Copy::Rule;
    Rule **link = &Copy::head(to);
    for (const Rule *rule = Copy::head(base); rule; rule = rule->ipacl_next) {
        if (!Copy::active(*rule)) {
            Copy::trace(*rule, to);
            continue;
        }
        if (rule->flags & IPACL_FLAG_REMARK) {
            to.rule_count += count_remarks;
            continue;
        }
        Rule *copy = new_record(Rule{});
        if (!copy)
            return false;
        Copy::trace(*rule, to);
        Copy::copy(*copy, *rule);
        copy->flags = static_cast<uint16_t>(copy->flags & ~cleared);
        *link = copy;
        link = &copy->ipacl_next;
        to.rule_count++;
    }
    return true;
}

} // namespace acl
