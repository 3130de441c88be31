// The rule list of one access list: equality, find, place, delete, copy.
//
// Everything here works on any list, registered or not, and keeps one invariant: rule_count and
// is_change follow what the two location operations did, and nothing else changes them. Operations
// are written once over a Kind and walk the links, so that the head is no special case.

#include "acl_kind.h"
#include "acl_words.h"
#include "platform/sys.h"
#include "platform/vty.h"

namespace acl {
namespace {

bool same(in_addr a, in_addr b) { return a.s_addr == b.s_addr; }

template <class Rule>
bool same_address(const Rule &a, const Rule &b, const acl_words::Address<Rule> &f) {
    return same(a.*f.addr, b.*f.addr) && same(a.*f.mask, b.*f.mask) &&
           same(a.*f.begin, b.*f.begin) && same(a.*f.end, b.*f.end) &&
           a.*f.compare_flag == b.*f.compare_flag && a.*f.any_flag == b.*f.any_flag;
}

bool same_place(const ipacl_extended_rule &a, const ipacl_extended_rule &b,
                const acl_words::Side &side) {
    return same_address(a, b, side.address) && name_begins(a.*side.vlan_name, b.*side.vlan_name);
}

bool same_ports(const ipacl_extended_rule &a, const ipacl_extended_rule &b,
                const acl_words::Side &side) {
    return a.*side.port_flags == b.*side.port_flags &&
           (a.*side.port_flags == 0 || a.*side.port == b.*side.port) &&
           a.*side.begin_port == b.*side.begin_port && a.*side.end_port == b.*side.end_port;
}

// Compares an option of two rules whose flag words are equal.
bool same_option(const ipacl_extended_rule &a, const ipacl_extended_rule &b,
                 const acl_words::Option &option) {
    if (!(a.flags & option.flag))
        return true;
    switch (option.shape) {
    case acl_words::Option::kNumber:
        return a.*option.byte == b.*option.byte;
    case acl_words::Option::kChoice:
        return ((a.*option.byte ^ b.*option.byte) & option.bit) == 0;
    case acl_words::Option::kCompare:
        break;
    }
    return a.*option.op == b.*option.op && a.*option.value == b.*option.value;
}

bool same_options(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    for (const auto &option : acl_words::kOptions)
        if (!same_option(a, b, option))
            return false;
    return true;
}

} // namespace

bool name_begins(const char *src, const char *dst) { return strncmp(src, dst, strlen(dst)) == 0; }

bool same_conditions(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    constexpr uint16_t kMessageType = IPACL_FLAG_ICMP_TYPE | IPACL_FLAG_IGMP_TYPE;
    return a.protcol == b.protcol && a.flags == b.flags && same_ports(a, b, acl_words::kSource) &&
           same_ports(a, b, acl_words::kDestination) && a.src_any_flag == b.src_any_flag &&
           a.dst_any_flag == b.dst_any_flag &&
           (!(a.flags & kMessageType) || a.src_port == b.src_port) &&
           (!(a.flags & IPACL_FLAG_TIME_RANGE) || strcmp(a.time_range, b.time_range) == 0) &&
           same_options(a, b);
}

bool StandardKind::equal(const Rule &rule, const Rule &target) {
    return same_address(rule, target, acl_words::kStandardSource) && rule.flags == target.flags;
}

namespace {

template <class Kind>
typename Kind::Rule *find(const ipacl &list, const typename Kind::Rule &target) {
    auto *rule = Kind::head(list);
    while (rule && !Kind::equal_active(*rule, target))
        rule = rule->ipacl_next;
    return rule;
}

template <class Kind>
int append_unique(ipacl &list, typename Kind::Rule &rule) {
    if (!Kind::owns(list))
        return 0;
    auto **link = &Kind::head(list);
    for (; *link; link = &(*link)->ipacl_next)
        if (Kind::equal_active(**link, rule))
            return 0;
    rule.ipacl_next = nullptr;
    *link = &rule;
    return 1;
}

template <class Kind>
int delete_equal(ipacl &list, const typename Kind::Rule &target) {
    for (auto **link = &Kind::head(list); *link; link = &(*link)->ipacl_next) {
        auto *rule = *link;
        if (!Kind::equal(*rule, target))
            continue;
        *link = rule->ipacl_next;
        Kind::unindex(list, *rule);
        sys_mem_free(rule);
        return 1;
    }
    return 0;
}

// One walk looks for a duplicate and for the place.
template <class Kind>
uint32_t insert(ipacl &list, typename Kind::Rule &rule, uint32_t location, bool check_exist) {
    const bool search = check_exist && !(rule.flags & IPACL_FLAG_REMARK);
    auto **place = &Kind::head(list);
    const bool at_end = location == 0 || !*place;
    const uint32_t wanted = location == 0 ? UINT32_MAX : location;
    uint32_t before = 0; // rules in front of the place
    uint32_t at = 1;
    for (auto *other = *place; other && (search || at < wanted); other = other->ipacl_next, at++) {
        if (search && Kind::equal_active(*other, rule)) {
            vty_output("The rule has existed in the access list.\n");
            return 0;
        }
        if (at < wanted) {
            place = &other->ipacl_next;
            before = at;
        }
    }
    // kept: beyond the end the rule is appended and the position reported is one short.
    const bool overflow = !at_end && !*place;
    rule.ipacl_next = *place;
    *place = &rule;
    if (at_end) // kept: rules placed at a given position enter no index
        Kind::index(list, rule);
    list.is_change = 1;
    list.rule_count++;
    return overflow ? before : before + 1;
}

template <class Rule>
void free_rule(Rule *rule) {
    sys_mem_free(rule->remark);
    sys_mem_free(rule);
}

template <class Kind>
uint32_t delete_all(ipacl &list) {
    uint32_t count = 0;
    for (auto &head = Kind::head(list); head; count++) {
        auto *rule = head;
        head = rule->ipacl_next;
        Kind::unindex(list, *rule);
        free_rule(rule);
        list.rule_count--;
    }
    return count;
}

template <class Kind>
uint32_t delete_at(ipacl &list, uint32_t location) {
    auto **link = &Kind::head(list);
    for (uint32_t at = 1; *link && at < location; at++)
        link = &(*link)->ipacl_next;
    auto *rule = *link;
    if (!rule)
        return 0;
    *link = rule->ipacl_next;
    Kind::forget(*rule); // kept: removal by position leaves the node of the VLAN-name index
    free_rule(rule);
    list.rule_count--;
    return location;
}

template <class Kind>
uint32_t delete_located(ipacl &list, const typename Kind::Rule *rule, uint32_t location) {
    uint32_t result;
    if (rule) {
        result = static_cast<uint32_t>(delete_equal<Kind>(list, *rule));
        list.rule_count -= result;
    } else if (!Kind::head(list)) {
        result = 1; // kept: nothing to delete counts as done, and as a change
    } else {
        result = location == 0 ? delete_all<Kind>(list) : delete_at<Kind>(list, location);
    }
    if (result)
        list.is_change = 1;
    return result;
}

// Copies the whole record but for what the destination keeps.
template <class Rule>
void copy_content(Rule &dst, const Rule &src) {
    Rule copy = src;
    copy.ipacl_next = nullptr;
    copy.remark = dst.remark;
    copy.port_precedence = dst.port_precedence;
    copy.global_precedence = dst.global_precedence;
    copy.vlan_precedence = dst.vlan_precedence;
    copy.slot_precedence = dst.slot_precedence;
    copy.stat_count = dst.stat_count;
    dst = copy;
}

} // namespace

void free_rules(ipacl &list) {
    delete_acl_rule_location(&list, nullptr, 0);
    forget_list(list);
}

void free_copy(ipacl *copy) {
    with_kind(*copy, [&]<class Kind>(Kind) {
        for (auto *rule = Kind::head(*copy); rule; rule = rule->ipacl_next)
            rule->remark = nullptr;
    });
    free_rules(*copy);
    sys_mem_free(copy);
}

} // namespace acl

using namespace acl;

int acle_cmp(const ipacl_extended_rule *src, const ipacl_extended_rule *dst) {
    const auto &a = *src;
    const auto &b = *dst;
    // Addresses first: in them most rules of a list differ.
    return same_place(a, b, acl_words::kSource) && same_place(a, b, acl_words::kDestination) &&
           acl::same_conditions(a, b) && a.cosflag == b.cosflag && a.cos == b.cos &&
           a.tcpflags == b.tcpflags && a.status == b.status;
}

ipacl_standard_rule *find_acls_rule(const ipacl *ipacl, const ipacl_standard_rule *target) {
    return find<StandardKind>(*ipacl, *target);
}

ipacl_extended_rule *find_acle_rule(const ipacl *ipacl, const ipacl_extended_rule *target) {
    return find<ExtendedKind>(*ipacl, *target);
}

int add_acls_rule(ipacl *ipacl, ipacl_standard_rule *rule) {
    return append_unique<StandardKind>(*ipacl, *rule);
}

int add_acle_rule(ipacl *ipacl, ipacl_extended_rule *rule) {
    return append_unique<ExtendedKind>(*ipacl, *rule);
}

int delete_acls_rule(ipacl *ipacl, const ipacl_standard_rule *rule) {
    return delete_equal<StandardKind>(*ipacl, *rule);
}

int delete_acle_rule(ipacl *ipacl, const ipacl_extended_rule *rule) {
    return delete_equal<ExtendedKind>(*ipacl, *rule);
}

uint32_t add_acl_rule_location(ipacl *ipacl, void *rule, uint32_t location, uint32_t check_exist) {
    if (!ipacl || !rule)
        return 0;
    return with_kind(*ipacl, [&]<class Kind>(Kind) {
        return insert<Kind>(*ipacl, *static_cast<typename Kind::Rule *>(rule), location,
                            check_exist != 0);
    });
}

uint32_t delete_acl_rule_location(ipacl *ipacl, const void *rule, uint32_t location) {
    if (!ipacl)
        return 0;
    return with_kind(*ipacl, [&]<class Kind>(Kind) {
        return delete_located<Kind>(*ipacl, static_cast<const typename Kind::Rule *>(rule),
                                    location);
    });
}

void copy_acls_rule(ipacl_standard_rule *dst, const ipacl_standard_rule *src) {
    if (src->flags & IPACL_FLAG_REMARK)
        dst->flags = src->flags;
    else
        copy_content(*dst, *src);
}

void copy_acle_rule(ipacl_extended_rule *dst, const ipacl_extended_rule *src) {
    if (!(src->flags & IPACL_FLAG_REMARK)) {
        copy_content(*dst, *src);
        return;
    }
    dst->flags = src->flags;
    dst->tcpflags = src->tcpflags;
    dst->cosflag = src->cosflag;
    dst->cos = src->cos;
}

void copy_acle_rule_only_content(ipacl_extended_rule *dst, const ipacl_extended_rule *src) {
    copy_content(*dst, *src);
}
