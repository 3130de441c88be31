// Sequences of list operations against a plain model: a vector of rules, with a second, plain
// notion of which rules are the same. After every step list and model hold the same rules in the
// same order, the same count, and the same index of interface names.

#include "lists.h"

#include "platform/sys.h"

#include <cstddef>
#include <cstring>
#include <tuple>
#include <vector>

namespace {

using Standard = ipacl_standard_rule;
using Extended = ipacl_extended_rule;

// --- Rules out of few values, so that equal ones are common ---

in_addr address(fuzz::Input &in) { return {in.below(3)}; }

void fill(Standard &rule, fuzz::Input &in) {
    rule.flags = in.below(2) ? IPACL_FLAG_PERMIT : IPACL_FLAG_DENY;
    if (in.below(8) == 7)
        rule.flags = IPACL_FLAG_REMARK;
    rule.srcaddr = address(in);
    rule.srcmsk = address(in);
    rule.src_begin_addr = address(in);
    rule.compare_flag = in.below(3);
    rule.any_flag = in.below(2);
    rule.status = in.below(4) != 3;
}

void fill_name(char (&name)[IPACL_NAME_SIZE], fuzz::Input &in) {
    const char *const names[] = {"", "", "vlan1", "vlan10", "vlan20"};
    strcpy(name, in.of(names));
}

void fill(Extended &rule, fuzz::Input &in) {
    const uint16_t flags[] = {IPACL_FLAG_PERMIT,
                              IPACL_FLAG_DENY,
                              IPACL_FLAG_REMARK,
                              IPACL_FLAG_PERMIT | IPACL_FLAG_ICMP_TYPE,
                              IPACL_FLAG_PERMIT | IPACL_FLAG_TIME_RANGE,
                              IPACL_FLAG_PERMIT | IPACL_FLAG_TOS | IPACL_FLAG_PRECEDENCE,
                              IPACL_FLAG_PERMIT | IPACL_FLAG_FRAGMENT | IPACL_FLAG_OFFSET,
                              IPACL_FLAG_PERMIT | IPACL_FLAG_DONT_FRAGMENT,
                              IPACL_FLAG_PERMIT | IPACL_FLAG_TTL | IPACL_FLAG_TOTALLEN};
    rule.flags = in.below(4) ? in.of(flags) : in.half();
    rule.protcol = in.below(2);
    fill_name(rule.src_vlan_name, in);
    fill_name(rule.dst_vlan_name, in);
    rule.status = in.below(8) != 7;
    uint16_t Extended::*const fields[] = {&Extended::src_port,         &Extended::src_port_flags,
                                          &Extended::dst_port,         &Extended::dst_port_flags,
                                          &Extended::src_begin_port,   &Extended::dst_end_port,
                                          &Extended::src_compare_flag, &Extended::dst_any_flag,
                                          &Extended::cosflag,          &Extended::cos,
                                          &Extended::tcpflags,         &Extended::totallen,
                                          &Extended::totallen_flags,   &Extended::ttl,
                                          &Extended::ttl_flags};
    rule.*in.of(fields) = in.below(3);
    in_addr Extended::*const addresses[] = {&Extended::srcaddr, &Extended::dstmsk,
                                            &Extended::src_end_addr, &Extended::dst_begin_addr};
    rule.*in.of(addresses) = address(in);
    uint8_t Extended::*const bytes[] = {&Extended::tos, &Extended::precedence,
                                        &Extended::fragment_flags, &Extended::offset_flags};
    rule.*in.of(bytes) = in.below(4);
    rule.time_range[0] = static_cast<char>(in.below(2));
    rule.is_act = in.below(2);
    rule.port_precedence = in.below(2);
}

// --- Which rules are the same, field by field ---

auto content(const Standard &r) {
    return std::tuple(r.srcaddr.s_addr, r.srcmsk.s_addr, r.flags, r.compare_flag,
                      r.src_begin_addr.s_addr, r.src_end_addr.s_addr, r.any_flag);
}

bool same(const Standard &rule, const Standard &target) { return content(rule) == content(target); }

bool is_prefix(const char *prefix, const char *name) {
    return std::string_view(name).starts_with(prefix);
}

template <class T>
bool same_if(int given, T a, T b) {
    return !given || a == b;
}

auto always_compared(const Extended &r) {
    return std::tuple(r.protcol, r.srcaddr.s_addr, r.srcmsk.s_addr, r.dstaddr.s_addr,
                      r.dstmsk.s_addr, r.flags, r.src_port_flags, r.dst_port_flags, r.cosflag,
                      r.cos, r.tcpflags, r.src_begin_addr.s_addr, r.src_end_addr.s_addr,
                      r.dst_begin_addr.s_addr, r.dst_end_addr.s_addr, r.src_compare_flag,
                      r.dst_compare_flag, r.src_begin_port, r.src_end_port, r.dst_begin_port,
                      r.dst_end_port, r.src_any_flag, r.dst_any_flag, r.status);
}

bool same(const Extended &rule, const Extended &target) {
    const Extended &a = rule, &b = target;
    return always_compared(a) == always_compared(b) &&
           is_prefix(b.src_vlan_name, a.src_vlan_name) &&
           is_prefix(b.dst_vlan_name, a.dst_vlan_name) &&
           same_if(a.src_port_flags, a.src_port, b.src_port) &&
           same_if(a.dst_port_flags, a.dst_port, b.dst_port) &&
           same_if(a.flags & 0x0018, a.src_port, b.src_port) &&
           same_if(a.flags & 0x0020, a.time_range[0], b.time_range[0]) &&
           same_if(a.flags & 0x0080, a.tos, b.tos) &&
           same_if(a.flags & 0x0100, a.precedence, b.precedence) &&
           same_if(a.flags & 0x0200, a.fragment_flags & 1, b.fragment_flags & 1) &&
           same_if(a.flags & 0x0400, a.fragment_flags & 2, b.fragment_flags & 2) &&
           same_if(a.flags & 0x8000, a.offset_flags & 1, b.offset_flags & 1) &&
           same_if(a.flags & 0x0800, std::pair(a.totallen_flags, a.totallen),
                   std::pair(b.totallen_flags, b.totallen)) &&
           same_if(a.flags & 0x1000, std::pair(a.ttl_flags, a.ttl), std::pair(b.ttl_flags, b.ttl));
}

// --- What the kinds differ in ---

Standard *&head(ipacl &list, const Standard &) { return list.ipacl_s; }
Extended *&head(ipacl &list, const Extended &) { return list.ipacl_e; }
bool names_interface(const Standard &) { return false; }
bool names_interface(const Extended &rule) { return *rule.src_vlan_name || *rule.dst_vlan_name; }
void copy_rule(Standard &to, const Standard &from) { copy_acls_rule(&to, &from); }
void copy_rule(Extended &to, const Extended &from) { copy_acle_rule(&to, &from); }
int add_unique(ipacl &list, Standard &rule) { return add_acls_rule(&list, &rule); }
int add_unique(ipacl &list, Extended &rule) { return add_acle_rule(&list, &rule); }
int exchange(const Standard &, const char *name, uint32_t number, int direction) {
    return exchange_acls_rule(name, number, direction);
}
int exchange(const Extended &, const char *name, uint32_t number, int direction) {
    return exchange_acle_rule(name, number, direction);
}
int rewrite(const Standard &, const char *, uint32_t) { return 0; } // there is no such operation
int rewrite(const Extended &target, const char *name, uint32_t number) {
    return rewrite_acle_rule(name, number, &target);
}
// What a rewrite leaves of a rule: the names of the old one, the content of the target.
void rewrite_model(Standard &, const Standard &) {}
void rewrite_model(Extended &rule, const Extended &target) {
    Extended made{};
    if (target.flags & IPACL_FLAG_REMARK) {
        made.flags = target.flags;
        made.tcpflags = target.tcpflags;
        made.cosflag = target.cosflag;
        made.cos = target.cos;
    } else {
        made = target;
        made.port_precedence = 0;
    }
    memcpy(made.src_vlan_name, rule.src_vlan_name, sizeof made.src_vlan_name);
    memcpy(made.dst_vlan_name, rule.dst_vlan_name, sizeof made.dst_vlan_name);
    rule = made;
}

template <class Rule>
class Model {
  public:
    Model(fuzz::Input &in, bool is_standard)
        : in_(in), list_(*get_ipacl_byname("l", is_standard)) {}

    void step() {
        const uint32_t at = in_.below(8);
        Rule content{};
        fill(content, in_);
        switch (in_.below(10)) {
        case 0:
        case 1:
        case 2:
            return insert(content, in_.below(3) ? 0 : at, at % 2 == 0);
        case 3:
            return append(content);
        case 4:
            return remove_equal(content);
        case 5:
            return at == 0 ? remove_all() : remove_at(at);
        case 6:
            return swap(content, at, in_.below(2));
        case 7:
            return replace(content, at);
        case 8:
            return find(content);
        default:
            return copy(content);
        }
    }

    void expect_same() {
        size_t at = 0;
        for (const Rule *rule = head(list_, Rule{}); rule; rule = rule->ipacl_next, at++)
            fuzz::require(at < rules_.size() && equal_content(*rule, rules_[at].rule),
                          "list and model hold the same rules in the same order");
        fuzz::require(at == rules_.size(), "list and model hold as many rules");
        fuzz::require(list_.rule_count == count_, "the list counts what was placed and removed");
        fuzz::require((list_.is_change != 0) == changed_, "a change is marked, and only a change");
        expect_same_index();
    }

  private:
    struct Entry {
        Rule rule;
        bool indexed = false;
    };

    static bool equal_content(Rule a, Rule b) {
        a.ipacl_next = b.ipacl_next = nullptr;
        return memcmp(&a, &b, sizeof a) == 0;
    }
    Rule *make(const Rule &content) {
        auto *rule = static_cast<Rule *>(sys_mem_malloc(sizeof(Rule)));
        memcpy(rule, &content, sizeof content);
        return rule;
    }
    // The model's place of the first rule that is the same; its size if there is none.
    size_t place_of(const Rule &target, bool active) const {
        size_t at = 0;
        while (at < rules_.size() &&
               !(same(rules_[at].rule, target) &&
                 (!active || (rules_[at].rule.status == 1 && target.status == 1))))
            at++;
        return at;
    }
    void erase(size_t at) { rules_.erase(rules_.begin() + static_cast<ptrdiff_t>(at)); }

    void insert(const Rule &content, uint32_t location, bool check) {
        Rule *rule = make(content);
        const uint32_t result = add_acl_rule_location(&list_, rule, location, check);
        const bool refused = check && !(content.flags & IPACL_FLAG_REMARK) &&
                             place_of(content, true) < rules_.size();
        if (refused) {
            sys_mem_free(rule);
            fuzz::require(result == 0, "a duplicate is refused");
            return;
        }
        const size_t before = rules_.size();
        const bool at_end = before == 0 || location == 0;
        const size_t at = at_end ? before : std::min<size_t>(location - 1, before);
        rules_.insert(rules_.begin() + static_cast<ptrdiff_t>(at),
                      {content, at_end && names_interface(content)});
        const size_t reported = !at_end && location > before ? before : at + 1;
        fuzz::require(result == reported, "an insertion reports its position");
        count_++;
        changed_ = true;
    }
    void append(const Rule &content) {
        Rule *rule = make(content);
        const bool refused = place_of(content, true) < rules_.size();
        fuzz::require(add_unique(list_, *rule) == !refused, "a duplicate is not appended");
        if (refused)
            sys_mem_free(rule);
        else
            rules_.push_back({content, false});
    }
    void remove_equal(const Rule &target) {
        const size_t at = place_of(target, false);
        const bool found = at < rules_.size();
        fuzz::require(delete_acl_rule_location(&list_, &target, 0) == found,
                      "a rule that is there is removed");
        if (!found)
            return;
        erase(at);
        count_--;
        changed_ = true;
    }
    void remove_all() {
        const size_t expected = rules_.empty() ? 1 : rules_.size();
        fuzz::require(delete_acl_rule_location(&list_, nullptr, 0) == expected,
                      "removing all reports how many");
        count_ -= static_cast<uint32_t>(rules_.size());
        rules_.clear();
        changed_ = true;
    }
    void remove_at(uint32_t at) {
        const uint32_t expected = rules_.empty() ? 1 : at <= rules_.size() ? at : 0;
        fuzz::require(delete_acl_rule_location(&list_, nullptr, at) == expected,
                      "removing by position reports it");
        if (expected == 0)
            return;
        changed_ = true;
        if (rules_.empty())
            return;
        stale_ += rules_[at - 1].indexed;
        erase(at - 1);
        count_--;
    }
    void swap(const Rule &kind, uint32_t at, int direction) {
        const size_t upper = direction == 1 ? at - 1 : at; // 1-based
        const bool possible = at >= 1 && upper >= 1 && upper < rules_.size();
        fuzz::require(exchange(kind, "l", at, direction) == possible,
                      "neighbours are swapped where there are two");
        if (possible)
            std::swap(rules_[upper - 1], rules_[upper]);
    }
    void replace(const Rule &target, uint32_t at) {
        const int result = rewrite(target, "l", at);
        if (std::is_same_v<Rule, Standard>)
            return;
        const bool possible = at >= 1 && at <= rules_.size();
        fuzz::require(result == possible, "a rule that is there is replaced");
        if (!possible)
            return;
        stale_ += rules_[at - 1].indexed;
        rules_[at - 1].indexed = false;
        rewrite_model(rules_[at - 1].rule, target);
    }
    void find(const Rule &target) {
        const size_t at = place_of(target, true);
        const Rule *found;
        if constexpr (std::is_same_v<Rule, Standard>)
            found = find_acls_rule(&list_, &target);
        else
            found = find_acle_rule(&list_, &target);
        const Rule *rule = head(list_, Rule{});
        for (size_t i = 0; i < at && rule; i++)
            rule = rule->ipacl_next;
        fuzz::require(found == rule, "the first rule that is the same is found");
    }
    // Copies into a rule of the list: the destination keeps its link only when a remark is copied.
    void copy(const Rule &from) {
        if (rules_.empty() || rules_[0].indexed)
            return;
        Rule *to = head(list_, Rule{});
        Rule *const link = to->ipacl_next;
        copy_rule(*to, from);
        const bool remark = (from.flags & IPACL_FLAG_REMARK) != 0;
        fuzz::require(to->ipacl_next == (remark ? link : nullptr), "a copy ends the chain");
        to->ipacl_next = link;
        Rule &model = rules_[0].rule;
        fuzz::require(to->port_precedence == model.port_precedence, "a copy keeps precedences");
        if (!remark)
            fuzz::require(same(*to, from) && to->status == from.status, "a copy is the same rule");
        memcpy(&model, to, sizeof model);
    }

    void expect_same_index() {
        size_t live = 0, stale = 0;
        for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
            (node->rule ? live : stale)++;
        size_t expected = 0;
        const Rule *rule = head(list_, Rule{});
        for (const Entry &entry : rules_) {
            expected += entry.indexed;
            fuzz::require(node_fits(entry, rule), "the index has the names of its rules");
            rule = rule->ipacl_next;
        }
        fuzz::require(live == expected && stale == stale_,
                      "the index has a node for each rule that was appended with a name");
    }
    static bool node_fits(const Entry &entry, const Rule *rule) {
        if constexpr (std::is_same_v<Rule, Extended>) {
            const auto *node = ipacl_vlanname_list_head;
            while (node && node->rule != reinterpret_cast<uintptr_t>(rule))
                node = node->next;
            return entry.indexed
                       ? node && strcmp(node->srcvlan_name, entry.rule.src_vlan_name) == 0 &&
                             strcmp(node->dstvlan_name, entry.rule.dst_vlan_name) == 0
                       : !node;
        }
        return true;
    }

    fuzz::Input &in_;
    ipacl &list_;
    std::vector<Entry> rules_;
    uint32_t count_ = 0;
    size_t stale_ = 0; // nodes whose record went by position
    bool changed_ = false;
};

template <class Rule>
void play_kind(fuzz::Input &in, bool is_standard) {
    Model<Rule> model(in, is_standard);
    while (!in.empty()) {
        model.step();
        model.expect_same();
    }
    ipacl_debug_flag = 0xFFFF;
    fuzz::read_with_every_renderer(*ipacl_config_find("l"));
}

} // namespace

void fuzz::play(Input &in) {
    const bool is_standard = in.below(2);
    fuzz::Service::run([&] {
        if (is_standard)
            play_kind<Standard>(in, true);
        else
            play_kind<Extended>(in, false);
    });
}
