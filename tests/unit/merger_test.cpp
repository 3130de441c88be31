// The merger: building merged copies, its control, clean copies, and what merging does to verdicts.

#include "rules.h"

#include <functional>

namespace {

class Merger : public TwoLists {
  protected:
    // The merged copy of a list; the test gives it back with acl_rule_IPrange_delete.
    static ipacl *merged(const ipacl *base) {
        ipacl *upper = nullptr;
        EXPECT_EQ(acl_rule_merger_create_upper_ipacl(base, &upper), IPACL_MERGE_RC_OK);
        return upper;
    }
    static Lines merged_lines(const ipacl *base) {
        ipacl *upper = merged(base);
        const Lines all = lines(*upper);
        acl_rule_IPrange_delete(upper);
        return all;
    }
    int control(ipacl *base) { return acl_rule_merger_ctrl(base, &notify); }

    ipacl_extended_rule &with_time_range(const char *command, int is_act) {
        auto &rule = extended(command);
        rule.flags |= IPACL_FLAG_TIME_RANGE;
        strcpy(rule.time_range, "night");
        rule.is_act = is_act;
        return rule;
    }
    static void add_remark(ipacl &list) {
        if (list.is_standard) {
            ipacl_standard_rule rule{};
            rule.flags = IPACL_FLAG_REMARK;
            append(list, rule);
        } else {
            ipacl_extended_rule rule{};
            rule.flags = IPACL_FLAG_REMARK;
            append(list, rule);
        }
    }
    static uint32_t verdict(const ipacl *list, const char *src) {
        acl_info info{};
        info.src_ip = ip(src).s_addr;
        return ipacl_check_standard(&info, list);
    }
    static std::string debug_text() {
        std::string all;
        for (const auto &line : fake::take_debug()) {
            EXPECT_EQ(line.module, 83);
            all += std::to_string(line.level);
            all += ' ';
            all += line.text;
        }
        return all;
    }

    int notify = -1;
};

// --- Building ---

TEST_F(Merger, TwoHalvesBecomeOneRuleAndTheTraceShowsTheOneThatWent) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.1.0 255.255.255.0");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    const std::string said = fake::stdout_of(
        [&] { EXPECT_EQ(merged_lines(s), Lines{"permit 10.0.0.0 255.255.254.0"}); });
    EXPECT_EQ(said, "[IP ACL]Merge: total 1 merge operations, reduced 1 rules\n");
    EXPECT_EQ(debug_text(), "1 [IP ACL(s)] Merge: permit 10.0.1.0 255.255.255.0"
                            "       => permit 10.0.0.0 255.255.254.0\n");
}

TEST_F(Merger, TheTraceOfAnEarlierRuleThatGoes) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.0.0 255.255.0.0");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    fake::stdout_of([&] { merged_lines(s); });
    EXPECT_EQ(debug_text(), "1 [IP ACL(s)] Merge: permit 10.0.0.0 255.255.255.0"
                            "       => permit 10.0.0.0 255.255.0.0\n");
}

TEST_F(Merger, TracesNeedTheirBit) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.1.0 255.255.255.0");
    ipacl_debug_flag = static_cast<uint16_t>(~IPACL_DEBUG_MERGE);
    EXPECT_EQ(fake::stdout_of([&] { merged_lines(s); }), "");
    EXPECT_EQ(debug_text(), "");
}

TEST_F(Merger, RulesOfDifferentActionsAreNeverCompared) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("deny 10.0.0.0 255.255.0.0");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    const std::string said = fake::stdout_of([&] { EXPECT_EQ(merged_lines(s).size(), 2U); });
    EXPECT_EQ(said, "[IP ACL]Merge: total 0 merge operations, reduced 0 rules\n");
}

TEST_F(Merger, AListOfOneRuleIsCopiedButNotMerged) {
    standard("permit 10.0.0.0 255.255.255.0");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    const std::string said = fake::stdout_of([&] { EXPECT_EQ(merged_lines(s).size(), 1U); });
    EXPECT_EQ(said, "[IP ACL]Merge: total 0 merge operations, reduced 0 rules\n");
}

TEST_F(Merger, TheRuleBehindOneThatWentWaitsForTheNextPass) {
    // In the first pass rule 1 goes for rule 3; rule 2, which also could, is not asked then. With
    // two rules left the second pass finds it.
    standard("permit 10.0.0.1");
    standard("permit 10.0.0.0 255.255.255.254");
    standard("permit 10.0.0.0 255.255.255.0");
    s->ipacl_s->srcaddr = ip("10.0.0.0");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    const std::string said = fake::stdout_of(
        [&] { EXPECT_EQ(merged_lines(s), Lines{"permit 10.0.0.0 255.255.255.0"}); });
    // Pass 1: (1,2) 1 goes; rule 2 waits, 3 is last. Pass 2: (2,3) 2 goes. Pass 3: nothing.
    EXPECT_EQ(said, "[IP ACL]Merge: total 2 merge operations, reduced 2 rules\n");
}

TEST_F(Merger, ACopyHasNameKindAndRulesAndNothingElse) {
    standard("permit 10.0.0.1");
    s->id = 7;
    s->is_dynamic = 1;
    s->flag = 9;
    s->refcnt = 4;
    s->merge_enable = 1;
    ipacl *upper = merged(s);
    EXPECT_STREQ(upper->name, "s");
    EXPECT_EQ(upper->is_standard, 1);
    EXPECT_EQ(upper->rule_count, 1U);
    EXPECT_EQ(upper->id, 0U);
    EXPECT_EQ(upper->is_dynamic, 0);
    EXPECT_EQ(upper->flag, 0U);
    EXPECT_EQ(upper->refcnt, 0);
    EXPECT_EQ(upper->merge_enable, 0);
    EXPECT_EQ(upper->is_change, 0);
    EXPECT_EQ(upper->status, 0);
    EXPECT_EQ(upper->next, nullptr);
    EXPECT_EQ(upper->p_mergeacl, nullptr);
    EXPECT_EQ(upper->p_cleanacl, nullptr);
    acl_rule_IPrange_delete(upper);
}

TEST_F(Merger, RemarksStayBehindAndReverseMaskBitsAreCleared) {
    auto &rule = standard("permit 10.0.0.1");
    rule.flags |= IPACL_FLAG_REVERSE_MASK;
    rule.port_precedence = 5;
    rule.stat_count = 6;
    add_remark(*s);
    ipacl *upper = merged(s);
    ASSERT_EQ(upper->rule_count, 1U);
    EXPECT_EQ(upper->ipacl_s->flags, IPACL_FLAG_PERMIT);
    EXPECT_EQ(upper->ipacl_s->port_precedence, 0);
    EXPECT_EQ(upper->ipacl_s->stat_count, 0U);
    EXPECT_EQ(upper->ipacl_s->ipacl_next, nullptr);
    acl_rule_IPrange_delete(upper);
    EXPECT_EQ(rule.flags, IPACL_FLAG_PERMIT | IPACL_FLAG_REVERSE_MASK) << "the base keeps it";

    extended("permit ip any any").flags |= IPACL_FLAG_REVERSE_MASK;
    add_remark(*e);
    upper = merged(e);
    ASSERT_EQ(upper->rule_count, 1U);
    EXPECT_EQ(upper->ipacl_e->flags, IPACL_FLAG_PERMIT);
    acl_rule_IPrange_delete(upper);
}

TEST_F(Merger, RulesOfAnInactiveTimeRangeStayBehindAndBothKindsAreTraced) {
    with_time_range("permit tcp any any", 0);
    with_time_range("permit udp any any", 1).flags |= IPACL_FLAG_REVERSE_MASK;
    extended("permit icmp any any").is_act = 0;
    ipacl_debug_flag = IPACL_DEBUG_TIME_RANGE;
    EXPECT_EQ(merged_lines(e),
              (Lines{"permit udp any any time-range night", "permit icmp any any"}));
    EXPECT_EQ(debug_text(), "4 [IP ACL(e)] INACTIVE rule: permit tcp any any time-range night\n"
                            "4 [IP ACL(e)] ACTIVE rule: permit udp any any time-range night\n");
    ipacl_debug_flag = static_cast<uint16_t>(~IPACL_DEBUG_TIME_RANGE);
    fake::stdout_of([&] { merged_lines(e); });
    EXPECT_EQ(debug_text(), "");
}

TEST_F(Merger, AnExtendedMergeTraceReads) {
    extended("permit tcp 10.0.0.0 255.255.255.0 any");
    extended("permit tcp 10.0.0.0 255.255.0.0 any");
    strcpy(e->name, "acl1");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    fake::stdout_of([&] { merged_lines(e); });
    EXPECT_EQ(debug_text(), "1 [IP ACL(acl1)] Merge: permit tcp 10.0.0.0 255.255.255.0 any"
                            "       => permit tcp 10.0.0.0 255.255.0.0 any\n");
    strcpy(e->name, "e");
}

TEST_F(Merger, AMissingArgumentIsLoggedWithBoth) {
    ipacl *upper = s;
    EXPECT_EQ(acl_rule_merger_create_upper_ipacl(nullptr, nullptr), -2);
    EXPECT_EQ(logged(), Lines{"3 %IPACL-3-acl_rule_merger_create_upper_ipacl(3514): catch a null "
                              "pointer!(errno = 0/0)\n"});
    EXPECT_EQ(acl_rule_merger_create_upper_ipacl(nullptr, &upper), -2);
    EXPECT_EQ(acl_rule_merger_create_upper_ipacl(s, nullptr), -2);
    EXPECT_EQ(logged().size(), 2U);
    EXPECT_EQ(upper, s) << "the out pointer is not touched";
}

TEST_F(Merger, EachFailingAllocationOfABuild) {
    for (const char *rule : {"permit 10.0.0.1", "permit 10.0.5.2"})
        standard(rule);
    for (const char *rule : {"permit tcp any any", "permit udp any any"})
        extended(rule);
    const std::string prefix = "3 %IPACL-3-acl_rule_merger_create_upper_ipacl(";
    for (const auto &[list, line] : {std::pair{s, "3604"}, std::pair{e, "3563"}}) {
        for (int nth = 1; nth <= 3; nth++) {
            ipacl *upper = s;
            const size_t before = fake::live_blocks();
            fake::fail_allocation(nth);
            EXPECT_EQ(acl_rule_merger_create_upper_ipacl(list, &upper), -1);
            EXPECT_EQ(upper, nullptr);
            EXPECT_EQ(fake::live_blocks(), before) << "nothing is lost";
            std::string expected = prefix;
            expected += nth == 1 ? "3532): IPACL insufficient memory!\n"
                                 : std::string(line) + "): insufficient memory!\n";
            EXPECT_EQ(logged(), Lines{expected});
            EXPECT_EQ(list->rule_count, 2U);
        }
    }
}

// --- Control ---

TEST_F(Merger, ControlOfNothing) {
    EXPECT_EQ(acl_rule_merger_ctrl(nullptr, &notify), -2);
    EXPECT_EQ(notify, 0);
    EXPECT_EQ(logged(), Lines{"3 %IPACL-3-acl_rule_merger_ctrl(3844): catch a NULL pointer!\n"});
    EXPECT_EQ(acl_rule_merger_ctrl(s, nullptr), -2) << "and without a place for the answer";
}

TEST_F(Merger, AnExtendedListWithoutMergingGetsAnUnmergedCopyOnEveryCall) {
    extended("permit tcp any any");
    extended("permit tcp any any eq www").flags |= IPACL_FLAG_REVERSE_MASK;
    ASSERT_EQ(e->is_change, 1);
    EXPECT_EQ(control(e), 0);
    EXPECT_EQ(notify, 1);
    EXPECT_EQ(e->is_change, 0);
    ASSERT_NE(e->p_mergeacl, nullptr);
    EXPECT_EQ(e->p_mergeacl->rule_count, 2U);
    const size_t blocks = fake::live_blocks();
    const size_t allocations = fake::allocations();
    EXPECT_EQ(control(e), 0);
    EXPECT_EQ(notify, 0) << "nothing changed";
    EXPECT_EQ(fake::allocations(), allocations + 3) << "but the copy is made anew";
    EXPECT_EQ(fake::live_blocks(), blocks);
}

TEST_F(Merger, AnExtendedListWithMergingIsRebuiltOnlyWhenItChanged) {
    extended("permit tcp any any");
    e->is_change = 0;
    e->merge_enable = 1;
    EXPECT_EQ(control(e), 0);
    EXPECT_EQ(notify, 0);
    EXPECT_EQ(e->p_mergeacl, nullptr) << "nothing is touched";
    e->is_change = 1;
    EXPECT_EQ(control(e), 0);
    EXPECT_EQ(notify, 1);
    EXPECT_EQ(e->is_change, 0);
    ASSERT_NE(e->p_mergeacl, nullptr);
    const size_t blocks = fake::live_blocks();
    extended("permit udp any any");
    EXPECT_EQ(control(e), 0);
    EXPECT_EQ(e->p_mergeacl->rule_count, 2U);
    EXPECT_EQ(fake::live_blocks(), blocks + 2) << "the former copy is gone";
}

TEST_F(Merger, AnExtendedListThatIsItsOwnCopyIsAnError) {
    for (const int enable : {0, 1}) {
        e->p_mergeacl = e;
        e->merge_enable = enable;
        e->is_change = 1;
        EXPECT_EQ(control(e), -3);
        EXPECT_EQ(notify, 0);
        EXPECT_EQ(e->is_change, 1);
        EXPECT_EQ(e->p_mergeacl, e);
        char expected[200];
        const auto low = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(e));
        snprintf(expected, sizeof expected,
                 "): system error!(errno = 0x%08x/0x%08x/0x%08x/0x%08x)\n", low, low,
                 static_cast<unsigned>(enable), 1U);
        const Lines log = logged();
        ASSERT_EQ(log.size(), 1U);
        EXPECT_TRUE(log[0].starts_with("3 %IPACL-3-acl_rule_merger_ctrl(")) << log[0];
        EXPECT_TRUE(log[0].ends_with(expected)) << log[0];
    }
    e->p_mergeacl = nullptr;
}

TEST_F(Merger, AFailedBuildOfAnExtendedListLeavesNoCopyAndClearsTheMark) {
    extended("permit tcp any any");
    e->merge_enable = 1;
    control(e);
    e->is_change = 1;
    fake::fail_allocation(1);
    EXPECT_EQ(control(e), -1);
    EXPECT_EQ(notify, 0);
    EXPECT_EQ(e->is_change, 0);
    EXPECT_EQ(e->p_mergeacl, nullptr);
    EXPECT_EQ(logged().back(), "3 %IPACL-3-acl_rule_merger_ctrl(3976): IPACL create hal ipacl "
                               "failure!(errno = -1)\n");
    EXPECT_EQ(e->rule_count, 1U);
}

TEST_F(Merger, AFailedDeepCopyOfAnExtendedListLeavesNone) {
    extended("permit tcp any any");
    control(e);
    e->is_change = 1;
    fake::fail_allocation(1);
    EXPECT_EQ(control(e), 0);
    EXPECT_EQ(e->p_mergeacl, nullptr);
    EXPECT_EQ(notify, 1);
    EXPECT_EQ(e->is_change, 0);
}

TEST_F(Merger, AStandardListWithoutMergingIsItsOwnCopy) {
    standard("permit 10.0.0.1");
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(notify, 1);
    EXPECT_EQ(s->is_change, 0);
    EXPECT_EQ(s->p_mergeacl, s);
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(notify, 0);
    s->is_change = 5;
    control(s);
    EXPECT_EQ(notify, 1);
}

TEST_F(Merger, SwitchingMergingOnIsToldWhenItRemovedRulesOrTheListChanged) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.7.0 255.255.255.0");
    s->is_change = 0;
    s->merge_enable = 1;
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(notify, 0) << "as many rules as before, and no change";
    ASSERT_NE(s->p_mergeacl, s);
    ASSERT_EQ(s->p_mergeacl->rule_count, 2U);

    s->merge_enable = 0;
    control(s);
    s->merge_enable = 1;
    s->is_change = 1;
    control(s);
    EXPECT_EQ(notify, 1) << "it had changed";

    s->merge_enable = 0;
    control(s);
    standard("permit 10.0.0.0 255.255.0.0");
    s->is_change = 0;
    s->merge_enable = 1;
    control(s);
    EXPECT_EQ(notify, 1) << "a rule went";
    EXPECT_LT(s->p_mergeacl->rule_count, 3U);
}

TEST_F(Merger, AFailedFirstBuildOfAStandardListIsLogged) {
    standard("permit 10.0.0.1");
    s->merge_enable = 1;
    fake::fail_allocation(2);
    EXPECT_EQ(control(s), -1);
    EXPECT_EQ(notify, 0);
    EXPECT_EQ(s->is_change, 0);
    EXPECT_EQ(logged(),
              (Lines{"3 %IPACL-3-acl_rule_merger_create_upper_ipacl(3604): insufficient memory!\n",
                     "3 %IPACL-3-acl_rule_merger_ctrl(3919): IPACL create hal ipacl "
                     "failure!(errno = -1)\n"}));
}

TEST_F(Merger, AStandardListWithoutACopyIsAnError) {
    s->p_mergeacl = nullptr;
    s->is_change = 1;
    for (const int enable : {0, 1}) {
        s->merge_enable = enable;
        EXPECT_EQ(control(s), -2);
        EXPECT_EQ(notify, 0);
        EXPECT_EQ(logged(), Lines{"3 %IPACL-3-acl_rule_merger_ctrl(3908): standard IPACL's "
                                  "p_mergeacl pointer should not NULL!\n"});
    }
    s->p_mergeacl = s;
}

TEST_F(Merger, SwitchingMergingOffDropsTheCopy) {
    standard("permit 10.0.0.1");
    s->merge_enable = 1;
    const size_t before = fake::live_blocks();
    control(s);
    s->merge_enable = 0;
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(s->p_mergeacl, s);
    EXPECT_EQ(notify, 0) << "nothing changed";
    EXPECT_EQ(fake::live_blocks(), before);
    s->merge_enable = 1;
    control(s);
    s->merge_enable = 0;
    s->is_change = 1;
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(notify, 1);
    EXPECT_EQ(s->is_change, 0);
}

TEST_F(Merger, AMergedStandardListIsRebuiltOnlyWhenItChanged) {
    standard("permit 10.0.0.1");
    s->merge_enable = 1;
    control(s);
    const ipacl *copy = s->p_mergeacl;
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(notify, 0);
    EXPECT_EQ(s->p_mergeacl, copy);
    standard("permit 10.0.9.2");
    EXPECT_EQ(control(s), 0);
    EXPECT_EQ(notify, 1);
    EXPECT_EQ(s->is_change, 0);
    EXPECT_EQ(s->p_mergeacl->rule_count, 2U);

    s->is_change = 1;
    fake::take_log();
    fake::fail_allocation(1);
    EXPECT_EQ(control(s), -1);
    EXPECT_EQ(notify, 0);
    EXPECT_EQ(s->is_change, 0);
    EXPECT_EQ(s->p_mergeacl, nullptr);
    EXPECT_EQ(logged().back(), "3 %IPACL-3-acl_rule_merger_ctrl(3869): IPACL create hal ipacl "
                               "failure!(errno = -1)\n");
    s->p_mergeacl = s;
}

// --- Unmerged copies ---

TEST_F(Merger, ADeepCopyTakesWholeRecordsOfActiveRules) {
    auto &first = extended("permit tcp any any eq www");
    first.flags |= IPACL_FLAG_REVERSE_MASK;
    first.port_precedence = 5;
    first.stat_count = 6;
    strcpy(first.src_vlan_name, "vlan1");
    first.remark = static_cast<char *>(sys_mem_malloc(5));
    strcpy(first.remark, "mine");
    with_time_range("permit udp any any", 0);
    add_remark(*e);
    with_time_range("permit icmp any any", 2);
    e->id = 7;
    e->flag = 3;
    e->merge_enable = 1;
    e->is_dynamic = 1;
    ipacl *copy = deepcopy_ipacl_ext_rule(e);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->id, 7U);
    EXPECT_EQ(copy->flag, 3U);
    EXPECT_EQ(copy->merge_enable, 1);
    EXPECT_EQ(copy->is_dynamic, 1);
    EXPECT_EQ(copy->status, e->status);
    EXPECT_EQ(copy->p_mergeacl, nullptr);
    EXPECT_EQ(copy->is_change, 0);
    ASSERT_EQ(copy->rule_count, 2U);
    const auto *copied = copy->ipacl_e;
    EXPECT_EQ(copied->flags, IPACL_FLAG_PERMIT);
    EXPECT_EQ(copied->port_precedence, 5);
    EXPECT_EQ(copied->stat_count, 6U);
    EXPECT_STREQ(copied->src_vlan_name, "vlan1");
    EXPECT_EQ(copied->remark, first.remark) << "shared with the base";
    copied = copied->ipacl_next;
    EXPECT_EQ(copied->protcol, 1);
    EXPECT_EQ(copied->flags, IPACL_FLAG_PERMIT | IPACL_FLAG_TIME_RANGE);
    EXPECT_EQ(copied->ipacl_next, nullptr);
    // Hand it to the base, whose deletion frees it and not the shared remark twice.
    e->p_mergeacl = copy;
    e->is_dynamic = 0;
    EXPECT_EQ(ipacl_delete("e", 0), 1);
    e = nullptr;
}

TEST_F(Merger, ADeepCopyOfAListWithoutActiveRulesHasNone) {
    with_time_range("permit udp any any", 0);
    EXPECT_EQ(fake::stdout_of([&] { acl_rule_IPrange_delete(deepcopy_ipacl_ext_rule(e)); }), "");
    ipacl_debug_flag = IPACL_DEBUG_MERGE;
    const std::string said = fake::stdout_of([&] {
        ipacl *copy = deepcopy_ipacl_ext_rule(e);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy->ipacl_e, nullptr);
        EXPECT_EQ(copy->rule_count, 0U);
        acl_rule_IPrange_delete(copy);
    });
    EXPECT_EQ(said, "[IPACL] -info- not find any active rule when do deep copy.\n");
    EXPECT_TRUE(fake::take_debug().empty()) << "a deep copy traces no time range";
}

TEST_F(Merger, ADeepCopyOfNothingOrOfAStandardListIsRefused) {
    EXPECT_EQ(deepcopy_ipacl_ext_rule(nullptr), nullptr);
    EXPECT_EQ(deepcopy_ipacl_ext_rule(s), nullptr);
    const std::string line =
        "3 %IPACL-3-deepcopy_ipacl_ext_rule(4047): catch an error!(errno = 0)\n";
    EXPECT_EQ(logged(), (Lines{line, line}));
}

TEST_F(Merger, EachFailingAllocationOfADeepCopy) {
    extended("permit tcp any any");
    extended("permit udp any any");
    for (int nth = 1; nth <= 3; nth++) {
        const size_t before = fake::live_blocks();
        fake::fail_allocation(nth);
        EXPECT_EQ(deepcopy_ipacl_ext_rule(e), nullptr);
        EXPECT_EQ(fake::live_blocks(), before);
        EXPECT_EQ(logged(),
                  Lines{nth == 1
                            ? "1 %IPACL-1-deepcopy_ipacl_ext_rule(4054): not enough memory!\n"
                            : "1 %IPACL-1-deepcopy_ipacl_ext_rule(4081): not enough memory!\n"});
    }
}

// A record full of what the caller had in it.
ipacl callers_record() {
    ipacl record{};
    record.id = 11;
    record.merge_enable = 12;
    record.status = 13;
    record.refcnt = 14;
    record.is_change = 15;
    record.rule_count = 16;
    record.flag = 17;
    record.p_mergeacl = record.p_cleanacl = record.next = reinterpret_cast<ipacl *>(8);
    return record;
}

TEST_F(Merger, ACleanCopyOfAStandardListCountsRemarksWithoutCopyingThem) {
    auto &rule = standard("permit 10.0.0.1");
    rule.flags |= IPACL_FLAG_REVERSE_MASK | IPACL_FLAG_TIME_RANGE;
    add_remark(*s);
    standard("deny any").status = 0;
    s->is_dynamic = 1;
    ipacl copy = callers_record();
    EXPECT_EQ(deepcopy_ipacl_clean(s, &copy), 0);
    EXPECT_STREQ(copy.name, "s");
    EXPECT_EQ(copy.is_standard, 1);
    EXPECT_EQ(copy.is_dynamic, 1);
    EXPECT_EQ(copy.flag, 1U);
    EXPECT_EQ(copy.rule_count, 3U) << "the remark is counted";
    EXPECT_EQ(copy.is_change, 0);
    EXPECT_EQ(copy.p_mergeacl, nullptr);
    EXPECT_EQ(copy.next, nullptr);
    EXPECT_EQ(copy.ipacl_e, nullptr);
    EXPECT_EQ(copy.id, 11U) << "what is not copied stays the caller's";
    EXPECT_EQ(copy.merge_enable, 12);
    EXPECT_EQ(copy.status, 13);
    EXPECT_EQ(copy.refcnt, 14);
    EXPECT_EQ(copy.p_cleanacl, reinterpret_cast<ipacl *>(8));
    EXPECT_EQ(lines(copy), (Lines{"permit 10.0.0.1 255.255.255.255", "deny any"}));
    EXPECT_EQ(copy.ipacl_s->flags, IPACL_FLAG_PERMIT);
    EXPECT_EQ(copy.ipacl_s->ipacl_next->status, 0) << "inactive rules are copied";
    delete_acl_rule_location(&copy, nullptr, 0);
}

TEST_F(Merger, ACleanCopyOfAnExtendedListHasItsActiveRules) {
    with_time_range("permit tcp any any", 0);
    auto &rule = with_time_range("permit udp any any", 1);
    rule.flags |= IPACL_FLAG_REVERSE_MASK;
    rule.port_precedence = 5;
    add_remark(*e);
    extended("deny ip any any");
    ipacl_debug_flag = IPACL_DEBUG_TIME_RANGE;
    ipacl copy = callers_record();
    EXPECT_EQ(deepcopy_ipacl_clean(e, &copy), 0);
    EXPECT_EQ(debug_text(), "4 [IP ACL(e)] INACTIVE rule: permit tcp any any time-range night\n"
                            "4 [IP ACL(e)] ACTIVE rule: permit udp any any time-range night\n");
    EXPECT_EQ(copy.rule_count, 2U);
    EXPECT_EQ(copy.flag, 1U);
    EXPECT_EQ(lines(copy), (Lines{"permit udp any any", "deny ip any any"}));
    EXPECT_EQ(copy.ipacl_e->flags, IPACL_FLAG_PERMIT);
    EXPECT_STREQ(copy.ipacl_e->time_range, "night");
    EXPECT_EQ(copy.ipacl_e->port_precedence, 0);
    delete_acl_rule_location(&copy, nullptr, 0);
}

TEST_F(Merger, ACleanCopyOfNothingIsLoggedWithBoth) {
    ipacl copy = callers_record();
    EXPECT_EQ(deepcopy_ipacl_clean(nullptr, nullptr), -2);
    EXPECT_EQ(logged(),
              Lines{"3 %IPACL-3-deepcopy_ipacl_clean(4143): catch a null pointer!(errno = "
                    "0/0)\n"});
    EXPECT_EQ(deepcopy_ipacl_clean(nullptr, &copy), -2);
    EXPECT_EQ(deepcopy_ipacl_clean(s, nullptr), -2);
    EXPECT_EQ(copy.rule_count, 16U);
}

TEST_F(Merger, EachFailingAllocationOfACleanCopyKeepsWhatWasCopied) {
    standard("permit 10.0.0.1");
    standard("permit 10.0.0.2");
    extended("permit tcp any any");
    extended("permit udp any any");
    for (const auto &[list, line] : {std::pair{s, "4231"}, std::pair{e, "4186"}}) {
        for (uint32_t nth = 1; nth <= 2; nth++) {
            ipacl copy = callers_record();
            const size_t before = fake::live_blocks();
            fake::fail_allocation(static_cast<int>(nth));
            EXPECT_EQ(deepcopy_ipacl_clean(list, &copy), -1);
            std::string expected = "1 %IPACL-1-deepcopy_ipacl_clean(";
            expected += line;
            expected += "): insufficient memory!\n";
            EXPECT_EQ(logged(), Lines{expected});
            EXPECT_EQ(copy.rule_count, nth - 1) << "the failed one is not counted";
            EXPECT_EQ(lines(copy).size(), nth - 1);
            EXPECT_EQ(fake::live_blocks(), before + nth - 1);
            delete_acl_rule_location(&copy, nullptr, 0);
        }
    }
}

// --- What merging does to verdicts ---

// Every address of a few close blocks, and some around.
void expect_same_verdicts(const ipacl &base, const ipacl &copy, uint32_t first, uint32_t count) {
    acl_info info{};
    for (uint32_t i = 0; i < count + 8; i++) {
        info.src_ip = htonl(first - 4 + i);
        ASSERT_EQ(ipacl_check_standard(&info, &copy), ipacl_check_standard(&info, &base));
    }
}

TEST_F(Merger, CloseBlocksOfOneActionAreDecidedAsBefore) {
    constexpr uint32_t kFirst = 0x0A000000, kBits = 8;
    Dice dice(9);
    size_t removed = 0;
    for (int i = 0; i < 10'000 && !HasFailure(); i++) {
        ipacl base{};
        base.is_standard = 1;
        const uint16_t action = dice.of<uint16_t>({IPACL_FLAG_PERMIT, IPACL_FLAG_DENY});
        for (uint32_t n = 2 + dice.below(14); n > 0; n--) {
            ipacl_standard_rule rule{};
            rule.flags = action;
            rule.status = 1;
            rule.compare_flag = IPACL_COMPARE_MASK;
            // Mostly prefixes, some masks with holes.
            const uint32_t host =
                dice.one_in(4) ? dice.below(1U << kBits) : (1U << dice.below(kBits + 1)) - 1;
            rule.srcmsk.s_addr = htonl(~host);
            rule.srcaddr.s_addr = htonl(kFirst + dice.below(1U << kBits)) & rule.srcmsk.s_addr;
            append(base, rule);
        }
        ipacl *copy = merged(&base);
        removed += base.rule_count - copy->rule_count;
        expect_same_verdicts(base, *copy, kFirst, 1U << kBits);
        acl_rule_IPrange_delete(copy);
        delete_acl_rule_location(&base, nullptr, 0);
    }
    EXPECT_GT(removed, 10'000U) << "hardly anything was merged";
}

TEST_F(Merger, CloseExtendedBlocksOfOneActionAreDecidedAsBefore) {
    constexpr uint32_t kSize = 16;
    Dice dice(10);
    size_t removed = 0;
    for (int i = 0; i < 10'000 && !HasFailure(); i++) {
        ipacl base{};
        for (uint32_t n = 2 + dice.below(10); n > 0; n--) {
            ipacl_extended_rule rule{};
            rule.protcol = IPACL_PROTOCOL_IP;
            rule.flags = IPACL_FLAG_PERMIT;
            rule.status = 1;
            rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
            rule.srcmsk.s_addr = htonl(~((1U << dice.below(5)) - 1));
            rule.dstmsk.s_addr = htonl(~((1U << dice.below(5)) - 1));
            rule.srcaddr.s_addr = htonl(dice.below(kSize)) & rule.srcmsk.s_addr;
            rule.dstaddr.s_addr = htonl(dice.below(kSize)) & rule.dstmsk.s_addr;
            append(base, rule);
        }
        ipacl *copy = merged(&base);
        removed += base.rule_count - copy->rule_count;
        acl_info info{};
        for (uint32_t at = 0; at < kSize * kSize; at++) {
            info.src_ip = htonl(at / kSize);
            info.dst_ip = htonl(at % kSize);
            ASSERT_EQ(ipacl_check_extended(&info, copy, 0), ipacl_check_extended(&info, &base, 0));
        }
        acl_rule_IPrange_delete(copy);
        delete_acl_rule_location(&base, nullptr, 0);
    }
    EXPECT_GT(removed, 5'000U) << "hardly anything was merged";
}

TEST_F(Merger, ARuleOfTheOtherActionBetweenCanTurnAVerdict) {
    standard("permit 10.0.0.0 255.255.255.255");
    standard("deny 10.0.0.0 255.255.255.0");
    standard("permit 10.0.0.0 255.255.0.0");
    EXPECT_EQ(verdict(s, "10.0.0.0"), 1U);
    ipacl *copy = merged(s);
    EXPECT_EQ(lines(*copy), (Lines{"deny 10.0.0.0 255.255.255.0", "permit 10.0.0.0 255.255.0.0"}));
    EXPECT_EQ(verdict(copy, "10.0.0.0"), 2U);
    acl_rule_IPrange_delete(copy);
}

TEST_F(Merger, ARangeCanTurnAVerdictBecauseMatchingOrdersItByStoredWords) {
    ipacl_standard_rule range{};
    range.flags = IPACL_FLAG_PERMIT;
    range.status = 1;
    range.compare_flag = IPACL_COMPARE_RANGE;
    range.src_begin_addr = ip("10.0.0.200");
    range.src_end_addr = ip("10.0.1.10");
    range.any_flag = 1; // as the command sets it beside an address
    append(*s, range);
    standard("permit 10.0.1.0");
    EXPECT_EQ(verdict(s, "10.0.1.0"), 1U);
    ipacl *copy = merged(s);
    EXPECT_EQ(copy->rule_count, 1U) << "in host order the range holds the address";
    EXPECT_EQ(verdict(copy, "10.0.1.0"), 34U);
    acl_rule_IPrange_delete(copy);
}

TEST_F(Merger, AMaskWithAHoleCanTurnAVerdictBecauseItsSpanIsWiderThanItsAddresses) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.2.0 255.255.255.0");
    standard("permit src-range 10.0.1.4 10.0.1.8");
    EXPECT_EQ(verdict(s, "10.0.1.6"), 1U);
    ipacl *copy = merged(s);
    EXPECT_EQ(lines(*copy), Lines{"permit 10.0.0.0 255.255.253.0"});
    EXPECT_EQ(verdict(copy, "10.0.1.6"), 34U);
    acl_rule_IPrange_delete(copy);
}

} // namespace
