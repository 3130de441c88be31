// Range decomposition: the fewest address/mask rules that cover an address range.
//
// Greedy from the low end: the largest aligned block that starts at the cursor and does not pass
// the end. All arithmetic is in host byte order, unlike the matching of range rules.

#include "acl_kind.h"
#include "aclapi.h"
#include "platform/vty.h"

#include <arpa/inet.h>

namespace {

// Which allocation failed, as the terminal is told.
enum Failure { kNoList = -11, kNoBlock = -12, kNoAddress = -13 };

void report(Failure failure) {
    vty_output("Error: ipacl insufficient memory,errorNo=%d\n", failure);
}

// The size, as a power of two, of the largest block that starts at `begin` and ends by `end`.
uint32_t block_size(uint32_t begin, uint32_t end) {
    uint32_t k = acl_get_back_zero_num(begin);
    while (k > 0 && begin + ((1U << k) - 1) > end)
        k--;
    return k;
}

// Puts a rule for the block of 2^k addresses at `begin` in front of the list.
bool push_block(ipacl &list, const ipacl_standard_rule &source, uint32_t begin, uint32_t k) {
    auto *rule = acl::new_record(ipacl_standard_rule{});
    if (!rule) {
        report(k > 0 ? kNoBlock : kNoAddress);
        return false;
    }
    copy_acls_rule(rule, &source);
    rule->compare_flag = IPACL_COMPARE_MASK;
    rule->srcaddr.s_addr = htonl(begin);
    rule->srcmsk.s_addr = htonl(~((1U << k) - 1));
    rule->ipacl_next = list.ipacl_s; // kept: the highest block comes first
    list.ipacl_s = rule;
    list.rule_count++;
    return true;
}

bool cover_range(ipacl &list, const ipacl_standard_rule &source) {
    const uint32_t end = ntohl(source.src_end_addr.s_addr);
    for (uint32_t begin = ntohl(source.src_begin_addr.s_addr); begin <= end;) {
        const uint32_t k = block_size(begin, end);
        if (!push_block(list, source, begin, k))
            return false;
        const uint32_t last = begin + ((1U << k) - 1);
        if (last == UINT32_MAX)
            break;
        begin = last + 1;
    }
    return true;
}

} // namespace

uint32_t acl_get_back_zero_num(uint32_t ip) { return 31 - ffb(ip ^ (ip - 1)); }

ipacl *acl_rule_IPrange_decompose(const void *rule, int is_standard) {
    auto *list = acl::new_record(ipacl{});
    if (!list) {
        report(kNoList);
        return nullptr;
    }
    acl::store_name(list->name, "temp");
    list->is_standard = is_standard;
    list->flag = 2;
    list->p_mergeacl = is_standard ? list : nullptr;
    if (is_standard != 1)
        return list;
    if (!cover_range(*list, *static_cast<const ipacl_standard_rule *>(rule)))
        return nullptr; // kept: the list and its rules are lost
    if (ipacl_debug_flag & IPACL_DEBUG_RANGE)
        ipacl_trace_iprange_decompose(rule, list);
    return list;
}

void acl_rule_IPrange_delete(ipacl *ipacl) {
    delete_acl_rule_location(ipacl, nullptr, 0);
    sys_mem_free(ipacl);
}
