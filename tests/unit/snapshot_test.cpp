// The configuration snapshot: what it holds, what it shares, what a failure leaves.

#include "rules.h"

namespace {

class Snapshot : public TwoLists {
  protected:
    int32_t take() { return get_ipacl_config_info(&first); }
    const ipacl_configure *node(const char *name) const {
        const ipacl_configure *at = first;
        while (at && strcmp(at->name, name) != 0)
            at = at->next;
        return at;
    }

    ipacl_configure *first = reinterpret_cast<ipacl_configure *>(8);
};

TEST_F(Snapshot, OfAnEmptyRegistryIsNothing) {
    ipacl_delete("s", 1);
    ipacl_delete("e", 0);
    EXPECT_EQ(take(), 0);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(free_ipacl_config_info(&first), 0);
}

TEST_F(Snapshot, BlocksAreNodesAndRules) {
    for (const char *rule : {"permit 10.0.0.1", "permit 10.0.0.2", "permit any"})
        standard(rule);
    EXPECT_EQ(take(), 5);
    EXPECT_EQ(free_ipacl_config_info(&first), 5);
    EXPECT_NE(first, nullptr) << "the pointer is left as it is";
}

TEST_F(Snapshot, ANodeHoldsTheListsNameKindAndCounts) {
    standard("permit any");
    s->merge_enable = 7;
    s->rule_count = 42; // as the list says, whatever its chain
    take();
    ASSERT_NE(node("s"), nullptr);
    EXPECT_TRUE(node("s")->is_standard);
    EXPECT_TRUE(node("s")->merge_enable);
    EXPECT_EQ(node("s")->count, 42);
    ASSERT_NE(node("e"), nullptr);
    EXPECT_FALSE(node("e")->is_standard);
    EXPECT_FALSE(node("e")->merge_enable);
    EXPECT_EQ(node("e")->count, 0);
    EXPECT_EQ(node("e")->rule_e, nullptr);
    s->rule_count = 1;
    free_ipacl_config_info(&first);
}

TEST_F(Snapshot, RulesAreWholeCopiesInOrderThatShareTheirRemarks) {
    auto &rule = extended("permit tcp any any eq www");
    rule.remark = static_cast<char *>(sys_mem_malloc(5));
    strcpy(rule.remark, "mine");
    rule.port_precedence = 5;
    rule.stat_count = 6;
    rule.status = 0;
    extended("deny udp any any");
    take();
    const auto *copy = node("e")->rule_e;
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, e->ipacl_e);
    ipacl_extended_rule expected = rule;
    expected.ipacl_next = copy->ipacl_next;
    EXPECT_EQ(memcmp(copy, &expected, sizeof expected), 0);
    EXPECT_EQ(copy->remark, rule.remark);
    ASSERT_NE(copy->ipacl_next, nullptr);
    EXPECT_EQ(copy->ipacl_next->protcol, 17);
    EXPECT_EQ(copy->ipacl_next->ipacl_next, nullptr);
    free_ipacl_config_info(&first);
    EXPECT_STREQ(e->ipacl_e->remark, "mine") << "the live rule keeps its text";
}

TEST_F(Snapshot, ListsStandInBucketAndCreationOrder) {
    // "s" and "e" lie in buckets 3 and 5; "sp" shares bucket 3 with "s".
    ASSERT_EQ(hash_char("s"), hash_char("sp"));
    get_ipacl_byname("sp", 0);
    EXPECT_EQ(take(), 3);
    EXPECT_STREQ(first->name, "s");
    EXPECT_STREQ(first->next->name, "sp");
    EXPECT_STREQ(first->next->next->name, "e");
    free_ipacl_config_info(&first);
}

TEST_F(Snapshot, HiddenDynamicAndOpenListsAreIncluded) {
    s->status = IPACL_STATUS_HIDDEN_2;
    e->is_dynamic = 1;
    e->status = IPACL_STATUS_NOTREADY;
    EXPECT_EQ(take(), 2);
    free_ipacl_config_info(&first);
}

TEST_F(Snapshot, NowhereToPutItIsRefusedWithoutTheLock) {
    const int locks = fake::mutexes().locks;
    EXPECT_EQ(get_ipacl_config_info(nullptr), -1);
    EXPECT_EQ(fake::mutexes().locks, locks);
    EXPECT_EQ(logged(), Lines{});
}

TEST_F(Snapshot, IsTakenUnderTheLockAndReleasedWithoutIt) {
    const int locks = fake::mutexes().locks;
    take();
    EXPECT_EQ(fake::mutexes().locks, locks + 1);
    EXPECT_FALSE(fake::mutexes().held);
    free_ipacl_config_info(&first);
    EXPECT_EQ(fake::mutexes().locks, locks + 1);
    EXPECT_EQ(fake::mutexes().errors, 0);
}

TEST_F(Snapshot, EachFailingAllocationLeavesNothingBehind) {
    standard("permit 10.0.0.1");
    standard("permit 10.0.0.2");
    extended("permit tcp any any");
    extended("permit udp any any");
    const size_t before = fake::live_blocks();
    for (int nth = 1; nth <= 6; nth++) {
        first = reinterpret_cast<ipacl_configure *>(8);
        fake::fail_allocation(nth);
        EXPECT_EQ(take(), -1) << nth;
        EXPECT_EQ(first, nullptr);
        EXPECT_EQ(fake::live_blocks(), before);
        EXPECT_FALSE(fake::mutexes().held);
        EXPECT_EQ(logged(), Lines{"3 %IPACL-3-get_ipacl_config_info-failed to allocate memory.\n"});
    }
    EXPECT_EQ(take(), 6) << "the seventh is not asked for";
    free_ipacl_config_info(&first);
    EXPECT_EQ(fake::live_blocks(), before);
}

} // namespace
