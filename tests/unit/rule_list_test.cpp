// Rule lists: place, find, delete, equality, copies, the moves.

#include "fixture.h"

#include "platform/sys.h"

#include <algorithm>
#include <functional>
#include <random>

namespace {

using Std = ipacl_standard_rule;
using Ext = ipacl_extended_rule;

template <class Rule>
Rule *new_rule(const Rule &content) {
    auto *rule = static_cast<Rule *>(sys_mem_malloc(sizeof(Rule)));
    *rule = content;
    return rule;
}

Std standard(uint32_t address) {
    Std rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.srcaddr.s_addr = address;
    rule.compare_flag = IPACL_COMPARE_MASK;
    rule.status = IPACL_RULE_ACTIVE;
    return rule;
}

Ext extended(uint32_t address) {
    Ext rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.srcaddr.s_addr = address;
    rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
    rule.status = IPACL_RULE_ACTIVE;
    return rule;
}

template <class Rule>
std::vector<uint32_t> addresses(const Rule *rule) {
    std::vector<uint32_t> all;
    for (; rule; rule = rule->ipacl_next)
        all.push_back(rule->srcaddr.s_addr);
    return all;
}

class RuleList : public ServiceTest {
  protected:
    RuleList() {
        ipacl_insert("s", 1, 0, IPACL_STATUS_READY);
        ipacl_insert("e", 0, 0, IPACL_STATUS_READY);
        s = ipacl_config_find("s");
        e = ipacl_config_find("e");
    }
    uint32_t add(uint32_t address, uint32_t location = 0, uint32_t check = 0) {
        return add_acl_rule_location(s, new_rule(standard(address)), location, check);
    }
    uint32_t add_ext(const Ext &rule, uint32_t location = 0) {
        return add_acl_rule_location(e, new_rule(rule), location, 0);
    }
    void fill(uint32_t count) {
        for (uint32_t i = 1; i <= count; i++)
            add(i);
    }
    std::vector<uint32_t> order() const { return addresses(s->ipacl_s); }
    using List = std::vector<uint32_t>;
    ipacl *s, *e;
};

TEST_F(RuleList, InsertingAtZeroAppendsAndReturnsThePosition) {
    EXPECT_EQ(add(1), 1U);
    EXPECT_EQ(add(2), 2U);
    fill(0);
    EXPECT_EQ(add(3), 3U);
    EXPECT_EQ(add(4), 4U);
    EXPECT_EQ(order(), (List{1, 2, 3, 4}));
    EXPECT_EQ(s->rule_count, 4U);
    EXPECT_EQ(s->is_change, 1);
}

TEST_F(RuleList, InsertingAtOneBecomesTheHead) {
    fill(2);
    EXPECT_EQ(add(9, 1), 1U);
    EXPECT_EQ(order(), (List{9, 1, 2}));
}

TEST_F(RuleList, InsertingWithinTheListTakesThatPosition) {
    fill(3);
    EXPECT_EQ(add(9, 3), 3U);
    EXPECT_EQ(order(), (List{1, 2, 9, 3}));
    EXPECT_EQ(add(8, 2), 2U);
    EXPECT_EQ(order(), (List{1, 8, 2, 9, 3}));
}

TEST_F(RuleList, InsertingBeyondTheEndAppendsAndReturnsOneLess) {
    fill(3);
    EXPECT_EQ(add(9, 5), 3U);
    EXPECT_EQ(order(), (List{1, 2, 3, 9}));
    EXPECT_EQ(add(10, 5), 4U);
    EXPECT_EQ(s->rule_count, 5U);
}

TEST_F(RuleList, InsertingAnywhereIntoAnEmptyListReturnsOne) {
    EXPECT_EQ(add(9, 7), 1U);
    EXPECT_EQ(order(), (List{9}));
}

TEST_F(RuleList, AMissingListOrRuleIsRefused) {
    auto *rule = new_rule(standard(1));
    EXPECT_EQ(add_acl_rule_location(nullptr, rule, 0, 1), 0U);
    EXPECT_EQ(add_acl_rule_location(s, nullptr, 0, 1), 0U);
    EXPECT_EQ(delete_acl_rule_location(nullptr, rule, 0), 0U);
    EXPECT_EQ(s->is_change, 0);
    sys_mem_free(rule);
}

TEST_F(RuleList, ADuplicateIsRefusedOnlyWhenAskedToCheck) {
    add(1);
    s->is_change = 0;
    auto *rule = new_rule(standard(1));
    EXPECT_EQ(add_acl_rule_location(s, rule, 0, 1), 0U);
    EXPECT_EQ(fake::take_answers(), "The rule has existed in the access list.\n");
    EXPECT_EQ(s->is_change, 0);
    EXPECT_EQ(s->rule_count, 1U);
    EXPECT_EQ(add_acl_rule_location(s, rule, 0, 0), 2U);
}

TEST_F(RuleList, ADuplicateBehindThePlaceIsFoundToo) {
    for (uint32_t address : {1U, 2U, 3U, 4U})
        add(address);
    auto *rule = new_rule(standard(4));
    EXPECT_EQ(add_acl_rule_location(s, rule, 2, 1), 0U);
    EXPECT_EQ(fake::take_answers(), "The rule has existed in the access list.\n");
    EXPECT_EQ(s->rule_count, 4U);
    sys_mem_free(rule);
    EXPECT_EQ(add_acl_rule_location(s, new_rule(standard(5)), 2, 1), 2U);
    EXPECT_EQ(s->ipacl_s->ipacl_next->srcaddr.s_addr, 5U);
}

TEST_F(RuleList, ARemarkIsNeverADuplicate) {
    Std remark = standard(1);
    remark.flags = IPACL_FLAG_REMARK;
    add_acl_rule_location(s, new_rule(remark), 0, 1);
    EXPECT_EQ(add_acl_rule_location(s, new_rule(remark), 0, 1), 2U);
}

TEST_F(RuleList, AnInsertedRecordsOwnLinkIsNotCarriedIn) {
    Std rule = standard(1);
    rule.ipacl_next = reinterpret_cast<Std *>(0x10);
    add_acl_rule_location(s, new_rule(rule), 0, 0);
    EXPECT_EQ(order(), (List{1}));
}

TEST_F(RuleList, DeletingByPosition) {
    fill(4);
    s->is_change = 0;
    EXPECT_EQ(delete_acl_rule_location(s, nullptr, 1), 1U);
    EXPECT_EQ(order(), (List{2, 3, 4}));
    EXPECT_EQ(delete_acl_rule_location(s, nullptr, 3), 3U);
    EXPECT_EQ(order(), (List{2, 3}));
    EXPECT_EQ(s->rule_count, 2U);
    EXPECT_EQ(s->is_change, 1);
}

TEST_F(RuleList, DeletingBeyondTheEndChangesNothing) {
    fill(2);
    s->is_change = 0;
    EXPECT_EQ(delete_acl_rule_location(s, nullptr, 3), 0U);
    EXPECT_EQ(order(), (List{1, 2}));
    EXPECT_EQ(s->rule_count, 2U);
    EXPECT_EQ(s->is_change, 0);
}

TEST_F(RuleList, DeletingAllReturnsTheNumber) {
    fill(4);
    const size_t before = fake::live_blocks();
    EXPECT_EQ(delete_acl_rule_location(s, nullptr, 0), 4U);
    EXPECT_EQ(s->ipacl_s, nullptr);
    EXPECT_EQ(s->rule_count, 0U);
    EXPECT_EQ(fake::live_blocks(), before - 4);
}

TEST_F(RuleList, DeletingFromAnEmptyListIsDoneAndAChange) {
    for (uint32_t location : {0U, 1U, 5U}) {
        s->is_change = 0;
        EXPECT_EQ(delete_acl_rule_location(s, nullptr, location), 1U);
        EXPECT_EQ(s->is_change, 1);
    }
}

TEST_F(RuleList, DeletingByContentTakesTheFirstEqualRuleWhateverItsStatus) {
    Std inactive = standard(1);
    inactive.status = 0;
    add_acl_rule_location(s, new_rule(inactive), 0, 0);
    add(1);
    const Std target = standard(1);
    EXPECT_EQ(delete_acl_rule_location(s, &target, 0), 1U);
    ASSERT_NE(s->ipacl_s, nullptr);
    EXPECT_EQ(s->ipacl_s->status, IPACL_RULE_ACTIVE);
    EXPECT_EQ(s->rule_count, 1U);
}

TEST_F(RuleList, DeletingAnUnknownRuleChangesNothing) {
    fill(2);
    s->is_change = 0;
    const Std target = standard(9);
    EXPECT_EQ(delete_acl_rule_location(s, &target, 0), 0U);
    EXPECT_EQ(s->rule_count, 2U);
    EXPECT_EQ(s->is_change, 0);
}

TEST_F(RuleList, RemarksAreFreedByPositionAndByAllButNotByContent) {
    const auto with_remark = [](uint32_t address) {
        Std rule = standard(address);
        rule.remark = static_cast<char *>(sys_mem_malloc(1));
        *rule.remark = '\0';
        return new_rule(rule);
    };
    const size_t before = fake::live_blocks();
    for (uint32_t i = 1; i <= 3; i++)
        add_acl_rule_location(s, with_remark(i), 0, 0);
    char *remark = s->ipacl_s->remark;
    const Std target = standard(1);
    delete_acl_rule_location(s, &target, 0);
    EXPECT_EQ(fake::live_blocks(), before + 5); // two rules, three remarks
    sys_mem_free(remark);
    delete_acl_rule_location(s, nullptr, 2);
    EXPECT_EQ(fake::live_blocks(), before + 2);
    delete_acl_rule_location(s, nullptr, 0);
    EXPECT_EQ(fake::live_blocks(), before);
}

TEST_F(RuleList, AppendAndDeleteByContentLeaveTheCountsAlone) {
    EXPECT_EQ(add_acls_rule(s, new_rule(standard(1))), 1);
    auto *twin = new_rule(standard(1));
    EXPECT_EQ(add_acls_rule(s, twin), 0);
    EXPECT_EQ(add_acle_rule(e, new_rule(extended(1))), 1);
    EXPECT_EQ(s->rule_count, 0U);
    EXPECT_EQ(s->is_change, 0);
    EXPECT_EQ(delete_acls_rule(s, twin), 1);
    EXPECT_EQ(delete_acls_rule(s, twin), 0);
    EXPECT_EQ(s->rule_count, 0U);
    sys_mem_free(twin);
}

TEST_F(RuleList, AppendGoesBehindTheLastRule) {
    add(1);
    add_ext(extended(1));
    EXPECT_EQ(add_acls_rule(s, new_rule(standard(2))), 1);
    EXPECT_EQ(add_acle_rule(e, new_rule(extended(2))), 1);
    EXPECT_EQ(addresses(s->ipacl_s), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(addresses(e->ipacl_e), (std::vector<uint32_t>{1, 2}));
    const Ext first = extended(1);
    EXPECT_EQ(delete_acle_rule(e, &first), 1);
    EXPECT_EQ(delete_acle_rule(e, &first), 0);
    EXPECT_EQ(addresses(e->ipacl_e), (std::vector<uint32_t>{2}));
}

TEST_F(RuleList, AppendRefusesTheOtherKind) {
    Std a = standard(1);
    Ext b = extended(1);
    EXPECT_EQ(add_acls_rule(e, &a), 0);
    EXPECT_EQ(add_acle_rule(s, &b), 0);
}

TEST_F(RuleList, FindNeedsBothToBeActive) {
    add(1);
    Std target = standard(1);
    EXPECT_EQ(find_acls_rule(s, &target), s->ipacl_s);
    target.status = 0;
    EXPECT_EQ(find_acls_rule(s, &target), nullptr);
    s->ipacl_s->status = 0;
    EXPECT_EQ(find_acls_rule(s, &target), nullptr);
    add_ext(extended(1));
    Ext wanted = extended(1);
    EXPECT_EQ(find_acle_rule(e, &wanted), e->ipacl_e);
    e->ipacl_e->status = wanted.status = 0;
    EXPECT_EQ(find_acle_rule(e, &wanted), nullptr);
}

// --- equality ---

struct Change {
    const char *field;
    std::function<void(Ext &)> set;
};

#define CHANGE(field, value)                                                                       \
    {                                                                                              \
#field, [](Ext & r) { r.field = value; }                                                   \
    }

class Equality : public testing::Test {
  protected:
    static bool differs(Ext base, const Change &change) {
        Ext other = base;
        change.set(other);
        return acle_cmp(&base, &other) == 0;
    }
};

TEST_F(Equality, EveryComparedFieldIsSeen) {
    const Change changes[] = {
        CHANGE(protcol, 6),
        CHANGE(srcaddr.s_addr, 7),
        CHANGE(srcmsk.s_addr, 7),
        CHANGE(dstaddr.s_addr, 7),
        CHANGE(dstmsk.s_addr, 7),
        CHANGE(flags, 2),
        CHANGE(src_port_flags, 4),
        CHANGE(dst_port_flags, 4),
        CHANGE(cosflag, 1),
        CHANGE(cos, 1),
        CHANGE(tcpflags, 1),
        CHANGE(src_begin_addr.s_addr, 7),
        CHANGE(src_end_addr.s_addr, 7),
        CHANGE(dst_begin_addr.s_addr, 7),
        CHANGE(dst_end_addr.s_addr, 7),
        CHANGE(src_compare_flag, 2),
        CHANGE(dst_compare_flag, 2),
        CHANGE(src_begin_port, 1),
        CHANGE(src_end_port, 1),
        CHANGE(dst_begin_port, 1),
        CHANGE(dst_end_port, 1),
        CHANGE(src_any_flag, 1),
        CHANGE(dst_any_flag, 1),
        CHANGE(status, 0),
    };
    for (const auto &change : changes)
        EXPECT_TRUE(differs(extended(1), change)) << change.field;
}

TEST_F(Equality, WhatIsNotComparedIsNotSeen) {
    const Change changes[] = {
        CHANGE(is_act, 1),
        CHANGE(port_precedence, 1),
        CHANGE(global_precedence, 1),
        CHANGE(vlan_precedence, 1),
        CHANGE(slot_precedence, 1),
        CHANGE(stat_count, 1),
        CHANGE(remark, reinterpret_cast<char *>(1)),
        CHANGE(ipacl_next, reinterpret_cast<Ext *>(1)),
        // without their flag
        CHANGE(src_port, 1),
        CHANGE(dst_port, 1),
        CHANGE(tos, 1),
        CHANGE(precedence, 1),
        CHANGE(fragment_flags, 3),
        CHANGE(offset_flags, 1),
        CHANGE(totallen, 1),
        CHANGE(totallen_flags, 1),
        CHANGE(ttl, 1),
        CHANGE(ttl_flags, 1),
        CHANGE(time_range[0], 'x'),
    };
    for (const auto &change : changes)
        EXPECT_FALSE(differs(extended(1), change)) << change.field;
}

TEST_F(Equality, AFieldWithItsFlagIsSeen) {
    const struct {
        std::function<void(Ext &)> enable;
        Change change;
        bool seen;
    } rows[] = {
        {[](Ext &r) { r.src_port_flags = 4; }, CHANGE(src_port, 1), true},
        {[](Ext &r) { r.dst_port_flags = 4; }, CHANGE(dst_port, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_ICMP_TYPE; }, CHANGE(src_port, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_IGMP_TYPE; }, CHANGE(src_port, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_TIME_RANGE; }, CHANGE(time_range[0], 'x'), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_TOS; }, CHANGE(tos, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_PRECEDENCE; }, CHANGE(precedence, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_DONT_FRAGMENT; }, CHANGE(fragment_flags, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_DONT_FRAGMENT; }, CHANGE(fragment_flags, 2), false},
        {[](Ext &r) { r.flags = IPACL_FLAG_FRAGMENT; }, CHANGE(fragment_flags, 2), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_FRAGMENT; }, CHANGE(fragment_flags, 1), false},
        {[](Ext &r) { r.flags = IPACL_FLAG_OFFSET; }, CHANGE(offset_flags, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_OFFSET; }, CHANGE(offset_flags, 2), false},
        {[](Ext &r) { r.flags = IPACL_FLAG_TOTALLEN; }, CHANGE(totallen, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_TOTALLEN; }, CHANGE(totallen_flags, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_TTL; }, CHANGE(ttl, 1), true},
        {[](Ext &r) { r.flags = IPACL_FLAG_TTL; }, CHANGE(ttl_flags, 1), true},
    };
    for (const auto &row : rows) {
        Ext base = extended(1);
        row.enable(base);
        EXPECT_EQ(differs(base, row.change), row.seen) << row.change.field;
    }
}

TEST_F(Equality, AnInterfaceNameOfTheSecondRuleNeedOnlyBeAPrefix) {
    for (auto field : {&Ext::src_vlan_name, &Ext::dst_vlan_name}) {
        Ext longer = extended(1), shorter = extended(1), none = extended(1);
        strcpy(longer.*field, "vlan10");
        strcpy(shorter.*field, "vlan1");
        EXPECT_EQ(acle_cmp(&longer, &shorter), 1);
        EXPECT_EQ(acle_cmp(&shorter, &longer), 0);
        EXPECT_EQ(acle_cmp(&longer, &none), 1);
        EXPECT_EQ(acle_cmp(&none, &longer), 0);
    }
}

TEST_F(RuleList, TheShorterInterfaceNameIsTheDuplicateButNotTheOtherWayAbout) {
    Ext longer = extended(0), shorter = extended(0);
    strcpy(longer.src_vlan_name, "vlan10");
    strcpy(shorter.src_vlan_name, "vlan1");
    add_ext(longer);
    auto *rule = new_rule(shorter);
    EXPECT_EQ(add_acl_rule_location(e, rule, 0, 1), 0U);
    delete_acl_rule_location(e, nullptr, 0);
    add_acl_rule_location(e, rule, 0, 1);
    EXPECT_EQ(add_acl_rule_location(e, new_rule(longer), 0, 1), 2U);
}

TEST(StandardEquality, ComparesSevenFields) {
    const std::function<void(Std &)> changes[] = {
        [](Std &r) { r.srcaddr.s_addr = 7; },
        [](Std &r) { r.srcmsk.s_addr = 7; },
        [](Std &r) { r.flags = 2; },
        [](Std &r) { r.compare_flag = 2; },
        [](Std &r) { r.src_begin_addr.s_addr = 7; },
        [](Std &r) { r.src_end_addr.s_addr = 7; },
        [](Std &r) { r.any_flag = 7; },
    };
    ipacl list{};
    list.is_standard = 1;
    Std rule = standard(1);
    list.ipacl_s = &rule;
    for (const auto &change : changes) {
        Std target = standard(1);
        EXPECT_EQ(find_acls_rule(&list, &target), &rule);
        change(target);
        EXPECT_EQ(find_acls_rule(&list, &target), nullptr);
    }
    Std target = standard(1);
    target.port_precedence = 5;
    target.stat_count = 5;
    EXPECT_EQ(find_acls_rule(&list, &target), &rule);
}

// --- moves ---

TEST_F(RuleList, ExchangeMovesUpAndDown) {
    fill(3);
    EXPECT_EQ(exchange_acls_rule("s", 2, 1), 1);
    EXPECT_EQ(order(), (List{2, 1, 3}));
    EXPECT_EQ(exchange_acls_rule("s", 2, 0), 1);
    EXPECT_EQ(order(), (List{2, 3, 1}));
    EXPECT_EQ(exchange_acls_rule("s", 1, 7), 1);
    EXPECT_EQ(order(), (List{3, 2, 1}));
    EXPECT_EQ(s->rule_count, 3U);
}

TEST_F(RuleList, ExchangeRefusesWhatCannotMove) {
    EXPECT_EQ(exchange_acls_rule("s", 1, 0), 0);
    fill(1);
    EXPECT_EQ(exchange_acls_rule("s", 1, 0), 0);
    add(2);
    s->is_change = 0;
    EXPECT_EQ(exchange_acls_rule("s", 1, 1), 0);
    EXPECT_EQ(exchange_acls_rule("s", 2, 0), 0);
    for (uint32_t number : {0U, 3U, 4U, 1000U})
        for (int direction : {0, 1})
            EXPECT_EQ(exchange_acls_rule("s", number, direction), 0) << number;
    EXPECT_EQ(exchange_acls_rule("nowhere", 1, 0), 0);
    EXPECT_EQ(exchange_acle_rule("s", 1, 0), 0); // the other kind
    s->status = IPACL_STATUS_NOTREADY;
    EXPECT_EQ(exchange_acls_rule("s", 1, 0), 0);
    EXPECT_EQ(order(), (List{1, 2}));
    EXPECT_EQ(s->is_change, 0);
}

TEST_F(RuleList, ExchangeWorksOnExtendedRules) {
    add_ext(extended(1));
    add_ext(extended(2));
    EXPECT_EQ(exchange_acle_rule("e", 1, 0), 1);
    EXPECT_EQ(addresses(e->ipacl_e), (List{2, 1}));
}

TEST_F(RuleList, RewriteReplacesInPlaceAndKeepsTheInterfaceNames) {
    for (uint32_t i = 1; i <= 3; i++) {
        Ext rule = extended(i);
        strcpy(rule.src_vlan_name, "vlan1");
        add_ext(rule);
    }
    e->is_change = 0;
    Ext target = extended(9);
    strcpy(target.src_vlan_name, "other");
    target.port_precedence = 4;
    const size_t before = fake::live_blocks();
    EXPECT_EQ(rewrite_acle_rule("e", 2, &target), 1);
    EXPECT_EQ(fake::live_blocks(), before);
    EXPECT_EQ(addresses(e->ipacl_e), (List{1, 9, 3}));
    EXPECT_STREQ(e->ipacl_e->ipacl_next->src_vlan_name, "vlan1");
    EXPECT_EQ(e->ipacl_e->ipacl_next->port_precedence, 0);
    EXPECT_EQ(e->is_change, 0);
    EXPECT_EQ(e->rule_count, 3U);
}

TEST_F(RuleList, RewriteLosesItsRecordWhereThereIsNoReadyList) {
    add_ext(extended(1));
    Ext target = extended(9);
    const size_t mark = fake::mark();
    EXPECT_EQ(rewrite_acle_rule("nowhere", 1, &target), 0);
    EXPECT_EQ(rewrite_acle_rule("s", 1, &target), 0); // the other kind
    e->status = IPACL_STATUS_NOTREADY;
    EXPECT_EQ(rewrite_acle_rule("e", 1, &target), 0);
    EXPECT_EQ(fake::free_lost(mark), 3U);
}

TEST_F(RuleList, RewriteBeyondTheListOrWithoutMemoryChangesNothing) {
    add_ext(extended(1));
    Ext target = extended(9);
    const size_t before = fake::live_blocks();
    EXPECT_EQ(rewrite_acle_rule("e", 0, &target), 0);
    EXPECT_EQ(rewrite_acle_rule("e", 2, &target), 0);
    fake::fail_allocation(1);
    EXPECT_EQ(rewrite_acle_rule("e", 1, &target), 0);
    EXPECT_EQ(fake::live_blocks(), before);
    EXPECT_EQ(addresses(e->ipacl_e), (List{1}));
}

// --- copies ---

TEST(Copies, TheDestinationKeepsWhatIsItsOwn) {
    char mine[] = "mine", theirs[] = "theirs";
    Std src = standard(5), dst{};
    src.remark = theirs;
    src.stat_count = src.port_precedence = 1;
    src.ipacl_next = &src;
    dst.remark = mine;
    dst.stat_count = 2;
    dst.port_precedence = dst.global_precedence = dst.vlan_precedence = dst.slot_precedence = 2;
    dst.ipacl_next = &dst;
    copy_acls_rule(&dst, &src);
    EXPECT_EQ(dst.srcaddr.s_addr, 5U);
    EXPECT_EQ(dst.status, 1);
    EXPECT_EQ(dst.remark, mine);
    EXPECT_EQ(dst.stat_count, 2U);
    EXPECT_EQ(
        dst.port_precedence + dst.global_precedence + dst.vlan_precedence + dst.slot_precedence, 8);
    EXPECT_EQ(dst.ipacl_next, nullptr);
}

TEST(Copies, OfARemarkLittleIsCopied) {
    Std src = standard(5), dst{};
    src.flags = IPACL_FLAG_REMARK;
    dst.ipacl_next = &dst;
    copy_acls_rule(&dst, &src);
    EXPECT_EQ(dst.flags, IPACL_FLAG_REMARK);
    EXPECT_EQ(dst.srcaddr.s_addr, 0U);
    EXPECT_EQ(dst.ipacl_next, &dst);

    Ext from = extended(5), to{};
    from.flags = IPACL_FLAG_REMARK;
    from.tcpflags = 1;
    from.cosflag = 2;
    from.cos = 3;
    to.ipacl_next = &to;
    copy_acle_rule(&to, &from);
    EXPECT_EQ(to.flags, IPACL_FLAG_REMARK);
    EXPECT_EQ(to.tcpflags + to.cosflag + to.cos, 6);
    EXPECT_EQ(to.srcaddr.s_addr, 0U);
    EXPECT_EQ(to.ipacl_next, &to);
    copy_acle_rule_only_content(&to, &from);
    EXPECT_EQ(to.srcaddr.s_addr, 5U);
    EXPECT_EQ(to.ipacl_next, nullptr);
}

TEST(Copies, AnExtendedCopyIsEqualToItsSource) {
    std::mt19937 random(1);
    for (int i = 0; i < 1000; i++) {
        Ext src{}, dst{};
        for (size_t b = 0; b < sizeof src; b++)
            reinterpret_cast<unsigned char *>(&src)[b] = static_cast<unsigned char>(random());
        src.src_vlan_name[20] = src.dst_vlan_name[20] = src.time_range[20] = '\0';
        src.flags = static_cast<uint16_t>(src.flags & ~IPACL_FLAG_REMARK);
        copy_acle_rule(&dst, &src);
        EXPECT_EQ(acle_cmp(&src, &dst), 1);
        EXPECT_EQ(dst.is_act, src.is_act);
        EXPECT_EQ(dst.remark, nullptr);
    }
}

// --- a list against a plain vector ---

TEST_F(RuleList, RandomOperationsAgreeWithAPlainVector) {
    std::mt19937 random(7);
    List model;
    uint32_t next = 1;
    for (int step = 0; step < 20000; step++) {
        const auto at = static_cast<uint32_t>(random() % (model.size() + 3));
        s->is_change = 0;
        switch (random() % 5) {
        case 0:
        case 1: {
            const size_t n = model.size();
            const uint32_t result = add(next, at);
            if (at == 0 || n == 0 || at > n)
                model.push_back(next);
            else
                model.insert(model.begin() + at - 1, next);
            EXPECT_EQ(result, n == 0 ? 1 : at == 0 ? n + 1 : at > n ? n : at);
            next++;
            break;
        }
        case 2: {
            const Std target = standard(at);
            const auto it = std::find(model.begin(), model.end(), at);
            EXPECT_EQ(delete_acl_rule_location(s, &target, 0), it != model.end());
            if (it != model.end())
                model.erase(it);
            break;
        }
        case 3:
            if (at == 0 && random() % 20)
                break; // seldom delete all
            if (at == 0)
                model.clear();
            else if (at <= model.size())
                model.erase(model.begin() + at - 1);
            delete_acl_rule_location(s, nullptr, at);
            break;
        default: {
            const int direction = random() % 2;
            const uint32_t upper = direction == 1 ? at - 1 : at;
            const bool possible =
                at >= 1 && at <= model.size() && upper >= 1 && upper < model.size();
            // From beyond the end, moving the rule behind the last one up is refused as well.
            EXPECT_EQ(exchange_acls_rule("s", at, direction), possible);
            if (possible)
                std::swap(model[upper - 1], model[upper]);
            EXPECT_EQ(s->is_change, 0);
        }
        }
        ASSERT_EQ(order(), model);
        ASSERT_EQ(s->rule_count, model.size());
    }
}

// --- the VLAN-name index ---

Ext named(const char *src, const char *dst) {
    Ext rule = extended(1);
    strcpy(rule.src_vlan_name, src);
    strcpy(rule.dst_vlan_name, dst);
    return rule;
}

int nodes() {
    int count = 0;
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
        count++;
    return count;
}

TEST_F(RuleList, AppendedRulesEnterTheIndexWithBothNames) {
    add_ext(named("vlan1", "vlan2"));
    add_ext(named("", "vlan3"), 0);
    ASSERT_EQ(nodes(), 2);
    const auto *node = ipacl_vlanname_list_head;
    EXPECT_EQ(node->ipacl, reinterpret_cast<uintptr_t>(e));
    EXPECT_EQ(node->rule, reinterpret_cast<uintptr_t>(e->ipacl_e));
    EXPECT_STREQ(node->srcvlan_name, "vlan1");
    EXPECT_STREQ(node->dstvlan_name, "vlan2");
    EXPECT_STREQ(node->next->srcvlan_name, "");
    EXPECT_STREQ(node->next->dstvlan_name, "vlan3");
}

TEST_F(RuleList, RulesPlacedAtAPositionOfANonEmptyListEnterNoIndex) {
    add_ext(extended(1));
    add_ext(named("vlan1", ""), 1);
    add_ext(named("vlan1", ""), 2);
    add_ext(named("vlan1", ""), 9);
    EXPECT_EQ(nodes(), 0);
    delete_acl_rule_location(e, nullptr, 0);
    add_ext(named("vlan1", ""), 5); // into an empty list
    EXPECT_EQ(nodes(), 1);
}

TEST_F(RuleList, DeletingByContentOrAllRemovesTheNode) {
    add_ext(named("vlan1", "vlan2"));
    add_ext(named("vlan3", ""));
    const Ext target = named("vlan1", "vlan2");
    delete_acl_rule_location(e, &target, 0);
    ASSERT_EQ(nodes(), 1);
    EXPECT_STREQ(ipacl_vlanname_list_head->srcvlan_name, "vlan3");
    delete_acl_rule_location(e, nullptr, 0);
    EXPECT_EQ(nodes(), 0);
}

TEST_F(RuleList, DeletingByPositionLeavesAMarkedNode) {
    add_ext(named("vlan1", ""));
    add_ext(named("vlan2", ""));
    delete_acl_rule_location(e, nullptr, 2);
    delete_acl_rule_location(e, nullptr, 1);
    ASSERT_EQ(nodes(), 2);
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
        EXPECT_EQ(node->rule, 0U);
    EXPECT_STREQ(ipacl_vlanname_list_head->srcvlan_name, "vlan1");
    add_ext(named("vlan9", "")); // maybe at the address of a freed record
    EXPECT_EQ(nodes(), 3);
}

TEST_F(RuleList, ReplacingInPlaceLeavesAMarkedNode) {
    add_ext(named("vlan1", ""));
    const Ext target = extended(2);
    rewrite_acle_rule("e", 1, &target);
    ASSERT_EQ(nodes(), 1);
    EXPECT_EQ(ipacl_vlanname_list_head->rule, 0U);
}

TEST_F(RuleList, AListThatIsDeletedLeavesNoNodeThatNamesARecord) {
    add_ext(named("vlan1", ""));
    ipacl_delete("e", 0);
    EXPECT_EQ(nodes(), 0);
}

TEST_F(RuleList, TheIndexCopiesNamesWithoutATerminator) {
    Ext rule{};
    EXPECT_EQ(add_ipacl_vlanname_list("vlan1000", e, &rule, 1), 0);
    EXPECT_EQ(add_ipacl_vlanname_list("eth", e, &rule, 1), 0);
    EXPECT_STREQ(ipacl_vlanname_list_head->srcvlan_name, "ethn1000");
    EXPECT_EQ(add_ipacl_vlanname_list("abcdefghijklmnopqrstuvwxyz", e, &rule, 0), 0);
    EXPECT_STREQ(ipacl_vlanname_list_head->dstvlan_name, "abcdefghijklmnopqrst");
    EXPECT_EQ(nodes(), 1);
    EXPECT_EQ(delete_ipacl_vlanname_list("whatever", e, &rule), 0);
    EXPECT_EQ(delete_ipacl_vlanname_list("whatever", e, &rule), 0);
    EXPECT_EQ(nodes(), 0);
}

TEST_F(RuleList, WithoutMemoryTheIndexSaysSo) {
    Ext rule{};
    fake::fail_allocation(1);
    int result = 0;
    EXPECT_EQ(fake::stdout_of([&] { result = add_ipacl_vlanname_list("v", e, &rule, 1); }),
              "Can't allocate ipacl_vlanname memory\n");
    EXPECT_EQ(result, -1);
}

TEST_F(RuleList, AnInterfaceNameIsAskedOfTheInterfaceService) {
    fake::set_interface("vlan10", 4, "", "");
    EXPECT_STREQ(ipacl_get_intfname(4), "vlan10");
    EXPECT_EQ(ipacl_get_intfname(5), nullptr);
}

} // namespace
