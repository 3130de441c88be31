// What the rule commands of both kinds do once a line is read: place or remove the rule, take over
// a hardware record's figures, leave the configuration mode.
#pragma once

#include "aclapi_kind.h"
#include "platform/sys.h"
#include "platform/vty.h"

namespace acl {

// Says that a line lacks a word; the result of the command.
inline int refuse_incomplete() {
    vty_output("%% Incomplete command.\n");
    return -1;
}

// Adds `record` to the list, which then owns it, or removes the equal rule. What the list does not
// keep is released; without a record nothing is removed. False when an addition failed.
template <class Kind>
bool apply(ipacl *list, typename Kind::Rule *record, bool negated) {
    if (record && negated)
        delete_acl_rule_location(list, record, 0);
    const bool added = !negated && add_acl_rule_location(list, record, 0, 1) != 0;
    if (!added)
        sys_mem_free(record);
    return added || negated;
}

template <class Kind>
int change_precedence(const char *name, const typename Kind::Rule *from) {
    const ipacl *list = config_find<Kind>(name);
    if (!list || !from)
        return 0;
    auto *rule = Kind::find(*list, *from);
    if (!rule)
        return 0;
    rule->port_precedence = from->port_precedence;
    rule->global_precedence = from->global_precedence;
    rule->vlan_precedence = from->vlan_precedence;
    rule->slot_precedence = from->slot_precedence;
    rule->stat_count = from->stat_count;
    return 0;
}

// Makes a list that is being configured ready and announces it. False when there is none.
inline bool leave_mode(const char *name, int &result) {
    ipacl *list = ipacl_config_find(name);
    if (!list || list->status != IPACL_STATUS_NOTREADY)
        return false;
    list->status = IPACL_STATUS_READY;
    result = ipacl_synchronize(list);
    return true;
}

} // namespace acl
