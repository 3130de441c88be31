// The configuration snapshot: every list with a private copy of its rules, taken in one go.

#include "acl_lock.h"
#include "acl_log.h"
#include "aclapi_kind.h"

#include <algorithm>

namespace {

// Appends copies of a rule chain at `link` and counts them. False when memory was short; what was
// copied is linked all the same.
template <class Rule>
bool copy_chain(const Rule *rule, Rule **link, int32_t &blocks) {
    *link = nullptr;
    for (; rule; rule = rule->ipacl_next) {
        *link = acl::new_record(*rule);
        if (!*link)
            return false;
        blocks++;
        link = &(*link)->ipacl_next;
        *link = nullptr;
    }
    return true;
}

bool copy_list(const ipacl &list, ipacl_configure **link, int32_t &blocks) {
    ipacl_configure node{};
    std::copy_n(list.name, sizeof list.name, node.name);
    node.is_standard = acl::StandardKind::owns(list);
    node.merge_enable = list.merge_enable != 0;
    node.count = static_cast<int32_t>(list.rule_count);
    *link = acl::new_record(node);
    if (!*link)
        return false;
    blocks++;
    return node.is_standard ? copy_chain(list.ipacl_s, &(*link)->rule_s, blocks)
                            : copy_chain(list.ipacl_e, &(*link)->rule_e, blocks);
}

template <class Rule>
int32_t free_chain(Rule *rule) {
    int32_t blocks = 0;
    for (; rule; blocks++)
        sys_mem_free(std::exchange(rule, rule->ipacl_next));
    return blocks;
}

} // namespace

int32_t get_ipacl_config_info(ipacl_configure **ipacl_config) {
    if (!ipacl_config)
        return -1;
    *ipacl_config = nullptr;
    int32_t blocks = 0;
    bool whole = true;
    {
        acl::Lock lock;
        ipacl_configure **link = ipacl_config;
        acl::for_each_list([&](const ipacl &list) {
            whole = whole && copy_list(list, link, blocks);
            if (whole)
                link = &(*link)->next;
        });
    }
    if (whole)
        return blocks;
    syslog(kLogError, "%%IPACL-%d-%s-failed to allocate memory.\n", kLogError, __func__);
    free_ipacl_config_info(ipacl_config);
    *ipacl_config = nullptr;
    return -1;
}

int32_t free_ipacl_config_info(ipacl_configure **ipacl_config) {
    int32_t blocks = 0;
    for (ipacl_configure *node = *ipacl_config; node; blocks++) {
        blocks += node->is_standard ? free_chain(node->rule_s) : free_chain(node->rule_e);
        sys_mem_free(std::exchange(node, node->next));
    }
    return blocks;
}
