// Unmerged copies of the active rules of a list.

#include "acl_copy.h"

#include <cstdio>

namespace {

// Copies the whole record, remark pointer included, and says nothing of time ranges.
struct WholeCopy : acl::ExtendedCopy {
    static void copy(Rule &to, const Rule &from) {
        to = from;
        to.ipacl_next = nullptr;
    }
    static void trace(const Rule &, const ipacl &) {}
};

bool has_active_rule(const ipacl &list) {
    const auto *rule = list.ipacl_e;
    while (rule && !WholeCopy::active(*rule))
        rule = rule->ipacl_next;
    return rule != nullptr;
}

} // namespace

ipacl *deepcopy_ipacl_ext_rule(const ipacl *base) {
    if (!base || base->is_standard) {
        LOG_MERGE(kLogError, 4047, "catch an error!(errno = %d)\n", 0);
        return nullptr;
    }
    auto *copy = acl::new_record(*base);
    if (!copy) {
        LOG_MERGE(acl::kSeverityAlert, 4054, "not enough memory!\n");
        return nullptr;
    }
    copy->ipacl_e = nullptr;
    copy->p_mergeacl = nullptr;
    copy->rule_count = 0;
    copy->is_change = 0;
    if (!has_active_rule(*base)) {
        if (ipacl_debug_flag & IPACL_DEBUG_MERGE)
            printf("[IPACL] -info- not find any active rule when do deep copy.\n");
        return copy;
    }
    if (!acl::copy_rules<WholeCopy>(*base, *copy, IPACL_FLAG_REVERSE_MASK)) {
        acl::free_copy(copy);
        LOG_MERGE(acl::kSeverityAlert, 4081, "not enough memory!\n");
        return nullptr;
    }
    return copy;
}

int deepcopy_ipacl_clean(const ipacl *base_ipacl, ipacl *dst_ipacl) {
    if (!base_ipacl || !dst_ipacl) {
        LOG_MERGE(kLogError, 4143, "catch a null pointer!(errno = %d/%d)\n", acl::low32(base_ipacl),
                  acl::low32(dst_ipacl));
        return IPACL_MERGE_RC_NULL_POINTER;
    }
    memcpy(dst_ipacl->name, base_ipacl->name, sizeof dst_ipacl->name);
    dst_ipacl->is_standard = base_ipacl->is_standard;
    dst_ipacl->is_dynamic = base_ipacl->is_dynamic;
    dst_ipacl->ipacl_s = nullptr;
    dst_ipacl->ipacl_e = nullptr;
    dst_ipacl->next = nullptr;
    dst_ipacl->rule_count = 0;
    dst_ipacl->is_change = 0;
    dst_ipacl->p_mergeacl = nullptr;
    dst_ipacl->flag = 1;
    const bool is_standard = base_ipacl->is_standard != 0;
    const bool copied = acl::with_copy(is_standard, [&]<class Copy>(Copy) {
        // kept: of a standard list the remarks are counted, though not copied.
        return acl::copy_rules<Copy>(*base_ipacl, *dst_ipacl,
                                     IPACL_FLAG_REVERSE_MASK | IPACL_FLAG_TIME_RANGE, is_standard);
    });
    if (copied)
        return 0;
    LOG_MERGE(acl::kSeverityAlert, is_standard ? 4231 : 4186, "insufficient memory!\n");
    return IPACL_MERGE_RC_NOT_ENOUGH_MEMORY;
}
