// What linked components call: matching, decomposition, merger, snapshot, traces.

#include "fixture.h"

#include "ipaclext.h"
#include "ipaclstd.h"

#include <cstring>

namespace {

class Derived : public ServiceTest {
  protected:
    Derived() {
        ipacl_init();
        s = get_ipacl_byname("s", 1);
        e = get_ipacl_byname("e", 0);
    }
    void standard(const char *rule) { do_standard_end("s", rule); }
    void extended(const char *rule) { do_extended_end("e", rule); }
    static acl_info packet(const char *src, const char *dst = "0.0.0.0", uint8_t proto = 6) {
        acl_info info{};
        info.src_ip = ip(src).s_addr;
        info.dst_ip = ip(dst).s_addr;
        info.proto = proto;
        return info;
    }
    uint32_t check(const char *src) {
        const acl_info info = packet(src);
        return ipacl_check(&info, "s");
    }
    ipacl *s, *e;
};

TEST_F(Derived, ResultCodes) {
    const acl_info info = packet("10.0.0.1");
    EXPECT_EQ(ipacl_check(&info, "none"), 9U);
    EXPECT_EQ(ipacl_check(&info, "s"), 17U);
    EXPECT_EQ(ipacl_check_by_ptr(&info, nullptr), 9U);
    standard("permit 10.0.0.1");
    EXPECT_EQ(check("10.0.0.1"), 1U);
    EXPECT_EQ(check("10.0.0.2"), 34U);
    s->ipacl_s->flags = 6;
    EXPECT_EQ(check("10.0.0.1"), 6U);
    s->ipacl_s->status = 0;
    EXPECT_EQ(check("10.0.0.1"), 34U);
    EXPECT_EQ(ipacl_check_network(info.src_ip, info.src_ip, "e"), 9U);
    EXPECT_EQ(ipacl_check_psos(nullptr, 0, 0), 1U);
    EXPECT_EQ(fake::mutexes().locks, fake::mutexes().unlocks);
    EXPECT_EQ(fake::mutexes().errors, 0);
}

TEST_F(Derived, TheFirstMatchingRuleDecides) {
    standard("deny 10.0.0.0 255.255.255.0");
    standard("permit any");
    EXPECT_EQ(check("10.0.0.7"), 2U);
    EXPECT_EQ(check("10.0.1.7"), 1U);
}

TEST_F(Derived, PortsNeedEveryOperatorAndAreNotTestedInAFragment) {
    extended("permit tcp any any eq www");
    acl_info info = packet("1.1.1.1", "2.2.2.2");
    info.dst_port = 80;
    EXPECT_EQ(ipacl_check(&info, "e"), 1U);
    info.dst_port = 81;
    EXPECT_EQ(ipacl_check(&info, "e"), 34U);
    EXPECT_EQ(ipacl_check_frag(&info, "e"), 1U);
    e->ipacl_e->dst_port_flags = 3;
    EXPECT_EQ(ipacl_check(&info, "e"), 34U);
    e->ipacl_e->dst_port_flags = 0x21;
    e->ipacl_e->dst_begin_port = 70;
    e->ipacl_e->dst_end_port = 90;
    EXPECT_EQ(ipacl_check(&info, "e"), 1U);
}

TEST_F(Derived, OtherCompareFlagsTestNoAddress) {
    extended("permit ip 10.0.0.0 255.0.0.0 10.0.0.0 255.0.0.0");
    const acl_info info = packet("1.1.1.1", "2.2.2.2");
    EXPECT_EQ(ipacl_check(&info, "e"), 34U);
    e->ipacl_e->dst_compare_flag = 0;
    EXPECT_EQ(ipacl_check(&info, "e"), 1U);
}

TEST_F(Derived, AnIpRuleWithEstablishedNeedsAckOrRstOutsideOfFragments) {
    extended("permit ip any any");
    e->ipacl_e->flags |= IPACL_FLAG_ESTABLISHED;
    acl_info info = packet("1.1.1.1");
    EXPECT_EQ(ipacl_check(&info, "e"), 34U);
    EXPECT_EQ(ipacl_check_frag(&info, "e"), 1U);
    for (const uint8_t flags : {uint8_t{0x10}, uint8_t{0x04}}) {
        info.tcp_flags = flags;
        EXPECT_EQ(ipacl_check(&info, "e"), 1U);
    }
}

TEST_F(Derived, ALoggedMatchIsWrittenToTheSystemLog) {
    extended("permit tcp any any");
    acl_info info = packet("10.0.0.1", "10.0.0.2");
    EXPECT_EQ(ipacl_check_log(&info, "e", 6, nullptr), 1U);
    EXPECT_EQ(fake::take_log_text(), "");
    e->ipacl_e->flags |= IPACL_FLAG_LOG;
    EXPECT_EQ(ipacl_check_log(&info, "e", 6, nullptr), 5U);
    EXPECT_EQ(fake::take_log_text(),
              "6 list e permitted packet(proto = 6) 10.0.0.1 -> 10.0.0.2, 1 packet\n");
    EXPECT_EQ(ipacl_check_frag_log(&info, "e", 2, "mine"), 5U);
    EXPECT_EQ(fake::take_log_text(), "2 mine\n");
}

TEST_F(Derived, AFrameIsReadWithinItsEnd) {
    extended("deny udp 10.0.0.1 255.255.255.255 any");
    uint8_t frame[60] = {};
    frame[14] = 0x45;
    frame[23] = 17;
    frame[26] = 10;
    frame[29] = 1;
    const message whole{frame, frame + sizeof frame};
    EXPECT_EQ(ipacl_check_test(&whole, "e"), 2U);
    EXPECT_EQ(ipacl_check_test(&whole, "none"), 1U);
    for (size_t size = 0; size < sizeof frame; size++) {
        const message cut{frame, frame + size};
        EXPECT_EQ(ipacl_check_test(&cut, "e"), size >= 30 ? 2U : 34U) << size;
    }
}

TEST_F(Derived, ARangeBecomesItsFewestBlocksHighestFirst) {
    ipacl_standard_rule rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.src_begin_addr = ip("10.0.0.1");
    rule.src_end_addr = ip("10.0.0.10");
    ipacl *list = acl_rule_IPrange_decompose(&rule, 1);
    std::string blocks;
    for (const auto *r = list->ipacl_s; r; r = r->ipacl_next) {
        blocks += inet_ntoa(r->srcaddr);
        blocks += '/';
        blocks += std::to_string(__builtin_popcount(r->srcmsk.s_addr));
        blocks += ' ';
    }
    EXPECT_EQ(blocks, "10.0.0.10/32 10.0.0.8/31 10.0.0.4/30 10.0.0.2/31 10.0.0.1/32 ");
    EXPECT_EQ(list->rule_count, 5U);
    EXPECT_STREQ(list->name, "temp");
    acl_rule_IPrange_delete(list);
    rule.src_begin_addr = ip("255.255.255.0");
    rule.src_end_addr = ip("255.255.255.255"); // the cursor would wrap
    list = acl_rule_IPrange_decompose(&rule, 1);
    EXPECT_EQ(list->rule_count, 1U);
    acl_rule_IPrange_delete(list);
    EXPECT_EQ(acl_get_back_zero_num(0), 31U);
    EXPECT_EQ(acl_get_back_zero_num(8), 3U);
}

TEST_F(Derived, NeighbouringBlocksFuseAndCoveredOnesGo) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.1.0 255.255.255.0");
    standard("permit 10.0.0.0 255.255.255.255");
    standard("deny 10.0.0.0 255.255.255.0");
    s->merge_enable = 1;
    int notify = 0;
    EXPECT_EQ(acl_rule_merger_ctrl(s, &notify), IPACL_MERGE_RC_OK);
    EXPECT_EQ(notify, 1);
    ASSERT_NE(s->p_mergeacl, s);
    EXPECT_EQ(s->p_mergeacl->rule_count, 2U);
    EXPECT_EQ(s->p_mergeacl->ipacl_s->srcmsk.s_addr, ip("255.255.254.0").s_addr);
    s->merge_enable = 0;
    EXPECT_EQ(acl_rule_merger_ctrl(s, &notify), IPACL_MERGE_RC_OK);
    EXPECT_EQ(s->p_mergeacl, s);
}

TEST_F(Derived, ASnapshotCopiesEveryListAndCountsItsBlocks) {
    ipacl_configure *snapshot = nullptr;
    const size_t before = fake::live_blocks();
    for (const char *rule : {"permit 10.0.0.1", "permit 10.0.0.2", "permit any"})
        standard(rule);
    EXPECT_EQ(get_ipacl_config_info(&snapshot), 5);
    EXPECT_EQ(free_ipacl_config_info(&snapshot), 5);
    for (int nth = 1; nth <= 5; nth++) {
        fake::fail_allocation(nth);
        EXPECT_EQ(get_ipacl_config_info(&snapshot), -1);
        EXPECT_EQ(snapshot, nullptr);
        EXPECT_EQ(fake::take_log_text(),
                  "3 %IPACL-3-get_ipacl_config_info-failed to allocate memory.\n");
    }
    EXPECT_EQ(fake::live_blocks(), before + 3);
    EXPECT_EQ(get_ipacl_config_info(nullptr), -1);
}

TEST_F(Derived, TheOneLineFormOfARule) {
    extended("permit tcp 10.0.0.0 0.0.0.255 any eq www cos 10 tos 3");
    extended("deny sctp any any");
    char line[IPACL_TRACE_RULE_SIZE];
    const char *expected = "permit tcp 10.0.0.0 0.0.0.255 any eq www cos 0xa tos 3";
    EXPECT_EQ(ipacl_trace_rule_to_buf(line, e->ipacl_e, 0), static_cast<int>(strlen(expected)));
    EXPECT_STREQ(line, expected);
    ipacl_trace_rule_to_buf(line, e->ipacl_e->ipacl_next, 0);
    EXPECT_STREQ(line, "deny 132 any any");
}

TEST_F(Derived, DumpsAreSilentWithoutADebugBit) {
    trace_print_rule(e, 0);
    ipacl_print_hash_table();
    EXPECT_TRUE(fake::take_debug().empty());
}

} // namespace
