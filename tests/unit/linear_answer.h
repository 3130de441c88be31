// What the matcher says about a packet, in the words of the compiled form.
#pragma once

#include "aclapi.h"
#include "aclfast.h"

// For a list whose rules lie in one array.
inline acl_fast_answer linear_answer(const ipacl &list, const acl_info &packet, int frag) {
    if (list.is_standard == 1) {
        const auto *rule = ipacl_match_standard(list.ipacl_s, &packet);
        return {ipacl_check_standard(&packet, &list),
                rule ? static_cast<uint32_t>(rule - list.ipacl_s) + 1 : 0};
    }
    const auto *rule = ipacl_match_extended(list.ipacl_e, &packet, frag);
    return {ipacl_check_extended(&packet, &list, frag),
            rule ? static_cast<uint32_t>(rule - list.ipacl_e) + 1 : 0};
}

inline bool same_answer(const acl_fast_answer &a, const acl_fast_answer &b) {
    return a.rule == b.rule && a.result == b.result;
}
