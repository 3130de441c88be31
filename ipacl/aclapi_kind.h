// Lists by name, by kind and one after the other: what the operations on named lists share.
#pragma once

#include "acl_kind.h"
#include "aclapi.h"

namespace acl {

// The list of that name in any state, or null. A list of the other kind counts as missing: its
// records must never be read as this kind's.
template <class Kind>
ipacl *config_find(const char *name) {
    ipacl *list = ipacl_config_find(name);
    return list && Kind::owns(*list) ? list : nullptr;
}

// The same, ready lists only.
template <class Kind>
ipacl *ready_find(const char *name) {
    ipacl *list = config_find<Kind>(name);
    return list && list->status == IPACL_STATUS_READY ? list : nullptr;
}

// Calls fn(list) for every list, bucket by bucket, in order of creation within one.
template <class F>
void for_each_list(F &&fn) {
    for (ipacl *head : hash_table)
        for (ipacl *list = head; list; list = list->next)
            fn(*list);
}

// True for a list that is kept but shown nowhere.
inline bool hidden(const ipacl &list) {
    return list.status == IPACL_STATUS_HIDDEN_2 || list.status == IPACL_STATUS_HIDDEN_5;
}

// True for a list of the configuration: dynamic and hidden ones are none.
inline bool configured(const ipacl &list) { return !list.is_dynamic && !hidden(list); }

} // namespace acl
