// Control of merging: when a base list's merged copy is built anew or dropped, and when its users
// must be told.
//
// The base owns the copy through p_mergeacl. Where merging is off, a standard list serves as its
// own copy and an extended list has an unmerged one.

#include "acl_copy.h"

namespace {

// All log lines of this module speak for the one function of its interface.
#define LOG_CTRL(line, text, ...)                                                                  \
    syslog(kLogError, "%%IPACL-%d-%s(%d): " text, kLogError, "acl_rule_merger_ctrl",               \
           line __VA_OPT__(, ) __VA_ARGS__)

void drop_copy(ipacl &base) {
    if (base.p_mergeacl && base.p_mergeacl != &base)
        acl::free_copy(base.p_mergeacl);
    base.p_mergeacl = nullptr;
}

// Drops the copy there is and builds the merged one; a failure is logged as at `line`.
int rebuild(ipacl &base, int line) {
    drop_copy(base);
    const int result = acl_rule_merger_create_upper_ipacl(&base, &base.p_mergeacl);
    if (result != IPACL_MERGE_RC_OK)
        LOG_CTRL(line, "IPACL create hal ipacl failure!(errno = %d)\n", result);
    return result;
}

int control_extended(ipacl &base, int &notify) {
    if (base.merge_enable && !base.is_change)
        return IPACL_MERGE_RC_OK;
    if (base.p_mergeacl == &base) {
        LOG_CTRL(__LINE__, "system error!(errno = 0x%08x/0x%08x/0x%08x/0x%08x)\n",
                 acl::low32(&base), acl::low32(base.p_mergeacl), base.merge_enable, base.is_change);
        return IPACL_MERGE_RC_SYS_ERROR;
    }
    int result = IPACL_MERGE_RC_OK;
    if (base.merge_enable) {
        result = rebuild(base, 3976);
    } else {
        drop_copy(base);
        base.p_mergeacl = deepcopy_ipacl_ext_rule(&base);
    }
    notify = result == IPACL_MERGE_RC_OK && base.is_change;
    base.is_change = 0;
    return result;
}

// The base has been its own copy so far.
int control_own_copy(ipacl &base, int &notify) {
    int result = IPACL_MERGE_RC_OK;
    notify = base.is_change != 0;
    if (base.merge_enable) {
        result = rebuild(base, 3919);
        // Switching merging on is worth telling only when it removed rules.
        notify = result == IPACL_MERGE_RC_OK &&
                 // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): a success leaves a copy
                 (base.is_change || base.rule_count > base.p_mergeacl->rule_count);
    }
    base.is_change = 0;
    return result;
}

int control_standard(ipacl &base, int &notify) {
    if (base.p_mergeacl == &base)
        return control_own_copy(base, notify);
    if (!base.p_mergeacl) {
        LOG_CTRL(3908, "standard IPACL's p_mergeacl pointer should not NULL!\n");
        return IPACL_MERGE_RC_NULL_POINTER;
    }
    if (base.merge_enable && !base.is_change)
        return IPACL_MERGE_RC_OK;
    int result = IPACL_MERGE_RC_OK;
    if (base.merge_enable) {
        result = rebuild(base, 3869);
    } else {
        drop_copy(base);
        base.p_mergeacl = &base;
    }
    notify = result == IPACL_MERGE_RC_OK && base.is_change;
    base.is_change = 0;
    return result;
}

} // namespace

int acl_rule_merger_ctrl(ipacl *base_ipacl, int *would_notify_upper) {
    if (would_notify_upper)
        *would_notify_upper = 0;
    if (!base_ipacl || !would_notify_upper) {
        LOG_CTRL(3844, "catch a NULL pointer!\n");
        return IPACL_MERGE_RC_NULL_POINTER;
    }
    return base_ipacl->is_standard ? control_standard(*base_ipacl, *would_notify_upper)
                                   : control_extended(*base_ipacl, *would_notify_upper);
}
