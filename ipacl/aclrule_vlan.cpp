// The VLAN-name index: which extended rules name an interface, for the address listener.
//
// One node per (list, rule) holds both names. A node outlives its record where a rule is removed
// by position or replaced in place; such a node is marked by clearing its rule, so that it keeps
// its place and its names and no later record at the same address is taken for it.

#include "acl_kind.h"
#include "platform/intf.h"
#include "platform/sys.h"

#include <algorithm>
#include <cstdio>

namespace {

using Node = _ipacl_rule_vlanname;

uintptr_t reference(const void *record) { return reinterpret_cast<uintptr_t>(record); }

// The link to the node of (list, rule), or the link behind the last node.
Node **find_node(const ipacl *list, const ipacl_extended_rule *rule) {
    Node **link = &ipacl_vlanname_list_head;
    while (*link && !((*link)->ipacl == reference(list) && (*link)->rule == reference(rule)))
        link = &(*link)->next;
    return link;
}

} // namespace

namespace acl {

void ExtendedKind::index(ipacl &list, Rule &rule) {
    if (*rule.src_vlan_name)
        add_ipacl_vlanname_list(rule.src_vlan_name, &list, &rule, 1);
    if (*rule.dst_vlan_name)
        add_ipacl_vlanname_list(rule.dst_vlan_name, &list, &rule, 0);
}

void ExtendedKind::unindex(ipacl &list, Rule &rule) {
    if (*rule.src_vlan_name)
        delete_ipacl_vlanname_list(rule.src_vlan_name, &list, &rule);
    if (*rule.dst_vlan_name)
        delete_ipacl_vlanname_list(rule.dst_vlan_name, &list, &rule);
}

void ExtendedKind::forget(const Rule &rule) {
    if (!*rule.src_vlan_name && !*rule.dst_vlan_name)
        return;
    for (Node *node = ipacl_vlanname_list_head; node; node = node->next)
        if (node->rule == reference(&rule))
            node->rule = 0;
}

void forget_list(const ipacl &list) {
    for (Node *node = ipacl_vlanname_list_head; node; node = node->next)
        if (node->ipacl == reference(&list))
            node->rule = 0;
}

} // namespace acl

int add_ipacl_vlanname_list(const char *vlan_name, ipacl *ipacl, ipacl_extended_rule *rule,
                            int is_src) {
    Node **link = find_node(ipacl, rule);
    if (!*link) {
        auto *node = static_cast<Node *>(sys_mem_malloc(sizeof(Node)));
        if (!node) {
            puts("Can't allocate ipacl_vlanname memory");
            return -1;
        }
        *node = Node{.ipacl = reference(ipacl),
                     .rule = reference(rule),
                     .srcvlan_name = {},
                     .dstvlan_name = {},
                     .next = nullptr};
        *link = node;
    }
    char *field = is_src ? (*link)->srcvlan_name : (*link)->dstvlan_name;
    // kept: no terminator is written, so a shorter name leaves the tail of a longer one.
    std::copy_n(vlan_name, strnlen(vlan_name, IPACL_NAME_LEN), field);
    return 0;
}

int delete_ipacl_vlanname_list(const char *, ipacl *ipacl, ipacl_extended_rule *rule) {
    Node **link = find_node(ipacl, rule);
    if (Node *node = *link) {
        *link = node->next;
        sys_mem_free(node);
    }
    return 0;
}

char *ipacl_get_intfname(uint32_t devid) {
    static char intfname[20];
    memset(intfname, 0, sizeof intfname);
    char *name = intfname;
    return interface_omnivorous_callback_getname(devid, &name) == 0 ? name : nullptr;
}
