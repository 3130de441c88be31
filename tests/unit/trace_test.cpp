// Debug traces and dumps: the one-line form, the dumps of lists and of the hash table, the
// time-range tables, the resource traces.

#include "rules.h"

#include "acl_text.h"

namespace {

class Trace : public TwoLists {
  protected:
    template <class Rule>
    static std::string line_of(const Rule &rule) {
        char line[IPACL_TRACE_RULE_SIZE];
        const int length =
            ipacl_trace_rule_to_buf(line, &rule, std::is_same_v<Rule, ipacl_standard_rule>);
        EXPECT_EQ(length, static_cast<int>(strlen(line)));
        return line;
    }
    // Everything printed since the last look; every line must be of module 83 and `level`.
    static std::string printed(int level) {
        std::string all;
        for (const auto &line : fake::take_debug()) {
            EXPECT_EQ(line.module, 83);
            EXPECT_EQ(line.level, level);
            all += line.text;
        }
        return all;
    }
    std::string dump(const ipacl *list) {
        trace_print_rule(list, 0);
        return printed(255);
    }
    static std::string framed(const std::string &text) {
        std::string all = "\n============== IP ACL INFO (BEGIN) ==============\n";
        all += text;
        all += "\n============== IP ACL INFO ( END ) ==============\n";
        return all;
    }
};

constexpr const char *kColumns =
    " Index          Rule content\n"
    " --------------------------------------------------------------------\n";

// --- The one-line form ---

TEST_F(Trace, StandardRulesInOneLine) {
    auto &rule = standard("permit any");
    EXPECT_EQ(line_of(rule), "permit any");
    rule.any_flag = 1;
    EXPECT_EQ(line_of(rule), "permit 0.0.0.0 0.0.0.0");
    EXPECT_EQ(line_of(standard("deny 10.0.0.0 255.255.255.0")), "deny 10.0.0.0 255.255.255.0");
    EXPECT_EQ(line_of(standard("permit src-range 10.0.0.1 10.0.0.9")),
              "permit src-range 10.0.0.1  10.0.0.9");
    rule.flags |= IPACL_FLAG_LOG;
    EXPECT_EQ(line_of(rule), "permit 0.0.0.0 0.0.0.0 log");
}

TEST_F(Trace, MasksAreShownAsStoredAndReverseMaskIsNotSaid) {
    auto &rule = standard("permit 10.0.0.0 255.255.255.0");
    rule.flags |= IPACL_FLAG_REVERSE_MASK;
    EXPECT_EQ(line_of(rule), "permit 10.0.0.0 255.255.255.0");
    auto &wide = extended("permit ip 10.0.0.0 255.255.255.0 20.0.0.0 255.0.0.0");
    wide.flags |= IPACL_FLAG_REVERSE_MASK;
    EXPECT_EQ(line_of(wide), "permit ip 10.0.0.0 255.255.255.0 20.0.0.0 255.0.0.0");
}

TEST_F(Trace, WhateverDoesNotPermitDenies) {
    auto &rule = standard("permit any");
    rule.flags = 0;
    EXPECT_EQ(line_of(rule), "deny any");
    rule.flags = IPACL_FLAG_REMARK;
    char text[] = "never shown";
    rule.remark = text;
    EXPECT_EQ(line_of(rule), "deny any");
    rule.remark = nullptr;
    rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_DENY;
    EXPECT_EQ(line_of(rule), "permit any");
}

TEST_F(Trace, ProtocolsInOneLine) {
    auto &rule = extended("permit ip any any");
    const std::pair<uint16_t, const char *> words[] = {
        {65535, " ip"}, {47, " gre"},  {1, " icmp"},  {2, " igmp"}, {6, " tcp"},
        {17, " udp"},   {89, " ospf"}, {132, " 132"}, {0, " 0"},    {255, " 255"}};
    for (const auto &[number, word] : words) {
        rule.protcol = number;
        std::string expected = "permit";
        expected += word;
        expected += " any any";
        EXPECT_EQ(line_of(rule), expected);
    }
}

TEST_F(Trace, AddressFormsOfExtendedRulesInOneLine) {
    EXPECT_EQ(
        line_of(extended("permit ip src-range 10.0.0.1 10.0.0.9 dst-range 20.0.0.1 20.0.0.9")),
        "permit ip src-range 10.0.0.1 10.0.0.9 dst-range 20.0.0.1 20.0.0.9");
    auto &rule = extended("permit ip any any");
    strcpy(rule.src_vlan_name, "vlan10");
    strcpy(rule.dst_vlan_name, "vlan20");
    EXPECT_EQ(line_of(rule), "permit ip interface vlan10 interface vlan20");
}

TEST_F(Trace, PortsInOneLine) {
    auto &rule = extended("permit tcp any any");
    const std::pair<uint16_t, const char *> words[] = {
        {IPACL_OP_GT, " gt"}, {IPACL_OP_LT, " lt"}, {IPACL_OP_EQ, " eq"}, {IPACL_OP_NEQ, " neq"}};
    for (const auto &[bit, word] : words) {
        rule.src_port_flags = rule.dst_port_flags = bit;
        rule.src_port = 80;
        rule.dst_port = 1234;
        std::string expected = "permit tcp any";
        expected += word;
        expected += " www any";
        expected += word;
        expected += " 1234";
        EXPECT_EQ(line_of(rule), expected);
    }
    rule.src_port_flags = rule.dst_port_flags = IPACL_OP_RANGE;
    rule.src_begin_port = 1;
    rule.src_end_port = 2;
    rule.dst_begin_port = 3;
    rule.dst_end_port = 4;
    EXPECT_EQ(line_of(rule), "permit tcp any src-portrange 1 2 any dst-portrange 3 4");
    rule.protcol = 17;
    rule.src_port_flags = rule.dst_port_flags = IPACL_OP_EQ;
    rule.src_port = rule.dst_port = 53;
    EXPECT_EQ(line_of(rule), "permit udp any eq domain any eq domain");
}

TEST_F(Trace, MessageTypesInOneLine) {
    auto &rule = extended("permit icmp any any");
    rule.src_port = 8;
    EXPECT_EQ(line_of(rule), "permit icmp any any");
    rule.flags |= IPACL_FLAG_ICMP_TYPE;
    EXPECT_EQ(line_of(rule), "permit icmp any any 8");
    rule.protcol = 2;
    EXPECT_EQ(line_of(rule), "permit igmp any any") << "the bit of the other protocol";
    rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_IGMP_TYPE;
    EXPECT_EQ(line_of(rule), "permit igmp any any 8");
}

TEST_F(Trace, EveryOptionInOneLineInItsOrder) {
    auto &rule = extended("permit ip any any");
    rule.tcpflags = 0x12;
    rule.cosflag = 1;
    rule.cos = 10;
    strcpy(rule.time_range, "night");
    rule.tos = 3;
    rule.precedence = 5;
    rule.fragment_flags = 3;
    rule.offset_flags = 1;
    rule.totallen = 100;
    rule.totallen_flags = IPACL_OP_GT;
    rule.ttl = 64;
    rule.ttl_flags = IPACL_OP_LT;
    rule.flags = static_cast<uint16_t>(
        0xFFFF & ~(IPACL_FLAG_REMARK | IPACL_FLAG_ICMP_TYPE | IPACL_FLAG_IGMP_TYPE));
    EXPECT_EQ(line_of(rule),
              "permit ip any any tcpflags 0x12 cos 0xa established time-range night tos 3 "
              "precedence 5 donotfragment-set is-fragment offset-not-zero totallen gt 100 "
              "ttl lt 64 log");
    rule.fragment_flags = rule.offset_flags = 0;
    rule.tcpflags = rule.cosflag = 0;
    rule.totallen_flags = rule.ttl_flags = IPACL_OP_EQ;
    EXPECT_EQ(line_of(rule),
              "permit ip any any established time-range night tos 3 precedence 5 "
              "donotfragment-notset not-fragment offset-zero totallen eq 100 ttl eq 64 log");
    rule.flags = IPACL_FLAG_DENY;
    EXPECT_EQ(line_of(rule), "deny ip any any");
}

TEST_F(Trace, TheLongestRuleFitsTheBuffer) {
    ipacl_extended_rule rule{};
    memset(&rule, 0xFF, sizeof rule);
    for (auto *name : {rule.src_vlan_name, rule.dst_vlan_name, rule.time_range}) {
        memset(name, 'x', IPACL_NAME_LEN);
        name[IPACL_NAME_LEN] = '\0';
    }
    rule.protcol = 6;
    rule.src_port_flags = rule.dst_port_flags = IPACL_OP_RANGE;
    rule.totallen_flags = rule.ttl_flags = IPACL_OP_EQ;
    EXPECT_LT(line_of(rule).size(), static_cast<size_t>(IPACL_TRACE_RULE_SIZE));
    rule.src_vlan_name[0] = rule.dst_vlan_name[0] = '\0';
    for (const uint16_t form : std::initializer_list<uint16_t>{1, 2}) {
        rule.src_compare_flag = rule.dst_compare_flag = form;
        EXPECT_LT(line_of(rule).size(), static_cast<size_t>(IPACL_TRACE_RULE_SIZE));
    }
}

TEST_F(Trace, ABufferTakesWhatFits) {
    char room[9] = "xxxxxxxx";
    acl_text::BufferSink sink(room, 8);
    sink.text("permit");
    sink.text(" any");
    sink.text("!");
    EXPECT_EQ(sink.end(), 7);
    EXPECT_STREQ(room, "permit ");
}

// --- The dump of a list ---

TEST_F(Trace, DumpsAreSilentWithoutADebugBit) {
    standard("permit any");
    trace_print_rule(s, 0);
    ipacl_print_hash_table();
    EXPECT_TRUE(fake::take_debug().empty());
}

TEST_F(Trace, AnyBitSwitchesDumpsOn) {
    for (int bit = 0; bit < 16; bit++) {
        ipacl_debug_flag = static_cast<uint16_t>(1U << bit);
        EXPECT_FALSE(dump(s).empty());
        ipacl_print_hash_table();
        EXPECT_FALSE(printed(255).empty());
    }
}

TEST_F(Trace, TheDumpOfAnEmptyListIsItsTitle) {
    ipacl_debug_flag = 1;
    EXPECT_EQ(dump(s), framed("Standard IP access list s\n"));
    EXPECT_EQ(dump(e), framed("Extended IP access list e\n"));
    e->is_dynamic = 1;
    EXPECT_EQ(dump(e), framed("Dynamic Extended IP access list e\n"));
    s->is_dynamic = 1;
    EXPECT_EQ(dump(s), framed("Standard IP access list s\n"));
    s->rule_count = 1;
    EXPECT_EQ(dump(s), framed(std::string("Standard IP access list s\n") + kColumns));
    s->rule_count = 0;
}

TEST_F(Trace, EveryRuleIsNumberedAndShowsItsFlagsAndStatus) {
    standard("permit 10.0.0.0 255.255.255.0").flags |= IPACL_FLAG_REVERSE_MASK;
    standard("deny any").status = 0;
    auto &error = standard("permit src-range 10.0.0.1 10.0.0.9");
    error.flags = IPACL_FLAG_LOG;
    ipacl_debug_flag = 1;
    std::string expected = "Standard IP access list s\n";
    expected += kColumns;
    expected +=
        "     1          permit 10.0.0.0 255.255.255.0[flags=0x00004001, status=0x00000001]\n"
        "     2          deny   any[flags=0x00000002, status=0x00000000]\n"
        "     3          [error]   src-range 10.0.0.1  10.0.0.9 log"
        "[flags=0x00000004, status=0x00000001]\n";
    EXPECT_EQ(dump(s), framed(expected));
}

TEST_F(Trace, TheDumpOfAnExtendedRuleShowsItsOptionsInTheListingsOrder) {
    auto &rule = extended("permit tcp any eq www any");
    rule.flags |= IPACL_FLAG_ESTABLISHED | IPACL_FLAG_TOS | IPACL_FLAG_LOG;
    rule.cosflag = 1;
    rule.cos = 10;
    rule.tcpflags = 0x12;
    rule.tos = 3;
    ipacl_debug_flag = 1;
    std::string expected = "Extended IP access list e\n";
    expected += kColumns;
    expected += "     1          permit tcp any eq www any cos 10 tcp-flags 0x12 established tos 3 "
                "log[flags=0x000000C5, status=0x00000001]\n";
    EXPECT_EQ(dump(e), framed(expected));
    rule.protcol = 132;
    EXPECT_NE(dump(e).find("permit sctp any"), std::string::npos);
}

TEST_F(Trace, ARemarkOfAStandardRuleTakesThePlaceOfAddressAndLog) {
    ipacl_standard_rule remark{};
    remark.flags = IPACL_FLAG_REMARK | IPACL_FLAG_LOG;
    remark.compare_flag = 1;
    auto &rule = append(*s, remark);
    rule.remark = static_cast<char *>(sys_mem_malloc(5));
    strcpy(rule.remark, "mine");
    ipacl_debug_flag = 1;
    EXPECT_NE(dump(s).find("     1          remark   mine[flags=0x00002004, status=0x00000000]\n"),
              std::string::npos)
        << dump(s);
    sys_mem_free(rule.remark);
    rule.remark = nullptr;
    EXPECT_NE(dump(s).find("     1          remark  [flags=0x00002004, status=0x00000000]\n"),
              std::string::npos)
        << dump(s);
}

TEST_F(Trace, ARemarkOfAnExtendedRuleIsShownTwiceAndTheOtherTokensFollow) {
    ipacl_extended_rule remark{};
    remark.flags = IPACL_FLAG_REMARK | IPACL_FLAG_LOG;
    remark.protcol = IPACL_PROTOCOL_IP;
    strcpy(remark.src_vlan_name, "vlan1");
    auto &rule = append(*e, remark);
    rule.remark = static_cast<char *>(sys_mem_malloc(5));
    strcpy(rule.remark, "mine");
    ipacl_debug_flag = 1;
    EXPECT_NE(
        dump(e).find(
            "     1          remark   ip mine mine log[flags=0x00002004, status=0x00000000]\n"),
        std::string::npos)
        << dump(e);
    sys_mem_free(rule.remark);
    rule.remark = nullptr;
    EXPECT_NE(
        dump(e).find("     1          remark   ip log[flags=0x00002004, status=0x00000000]\n"),
        std::string::npos)
        << dump(e);
}

TEST_F(Trace, ALongRemarkIsDumpedWhole) {
    ipacl_standard_rule remark{};
    remark.flags = IPACL_FLAG_REMARK;
    auto &rule = append(*s, remark);
    const std::string text(5000, 'x');
    rule.remark = static_cast<char *>(sys_mem_malloc(text.size() + 1));
    strcpy(rule.remark, text.c_str());
    ipacl_debug_flag = 1;
    EXPECT_NE(dump(s).find(text), std::string::npos);
}

// --- The dump of the hash table ---

// The fields of a list as the dump writes them, but for its name.
std::string fields_of(const ipacl &list) {
    char text[400];
    snprintf(text, sizeof text,
             "[id: 0x%08x][name: %s][is_standard: %d][is_dynamic: %d][ipacl_s: %p][ipacl_e: %p]"
             "[next: %p][rule_count: %u][flag: 0x%08x][is_change: %d][merge_enable: %d]",
             list.id, list.name, list.is_standard, list.is_dynamic,
             static_cast<void *>(list.ipacl_s), static_cast<void *>(list.ipacl_e),
             static_cast<void *>(list.next), list.rule_count, list.flag, list.is_change,
             list.merge_enable);
    return text;
}

std::string pointer(const char *format, const void *value) {
    char text[64];
    snprintf(text, sizeof text, format, value);
    return text;
}

TEST_F(Trace, TheHashTableBucketByBucket) {
    get_ipacl_byname("sp", 0)->status = IPACL_STATUS_NOTREADY; // neither shown nor counted
    ipacl *third = get_ipacl_byname("ps", 0);                  // in the bucket of "s"
    ASSERT_EQ(hash_char("ps"), hash_char("s"));
    s->id = 0xABC;
    s->flag = 0x12;
    standard("permit any");
    third->p_cleanacl = third; // its own clean copy is none
    ipacl_debug_flag = 8;
    const auto title = [](const ipacl *list, int number) {
        char text[100];
        snprintf(text, sizeof text, "*** node num = %02d, addr = %p***\n", number,
                 static_cast<const void *>(list));
        return std::string(text);
    };
    const auto shown = [&](const ipacl *list, int number) {
        std::string all = title(list, number) + fields_of(*list);
        all += pointer("[p_merge: %p]", list->p_mergeacl);
        all += pointer("[p_merge: %p]", list->p_mergeacl);
        char status[40];
        snprintf(status, sizeof status, "[status: 0x%08x]", static_cast<unsigned>(list->status));
        all += status;
        all += pointer("[p_cleanacl: %p]", list->p_cleanacl);
        all += dump(list);
        all += "\n";
        return all;
    };
    std::string expected;
    for (unsigned index = 0; index < 16; index++) {
        char bucket[60];
        snprintf(bucket, sizeof bucket, "=========== index = %02u ===========\n", index);
        expected += bucket;
        if (index == hash_char("s")) {
            expected += shown(s, 1);
            expected += shown(third, 2);
        }
        if (index == hash_char("e"))
            expected += shown(e, 1); // numbers start again
    }
    ipacl_print_hash_table();
    EXPECT_EQ(printed(255), expected);
    third->p_cleanacl = nullptr;
}

TEST_F(Trace, TheHashTableShowsSeparateCopies) {
    extended("permit tcp any any");
    e->p_mergeacl = deepcopy_ipacl_ext_rule(e);
    ipacl clean{};
    ASSERT_EQ(deepcopy_ipacl_clean(e, &clean), 0);
    clean.p_mergeacl = s;
    e->p_cleanacl = &clean;
    ipacl_debug_flag = 1;
    std::string expected = "\n##### p_mergeacl info #####\n";
    expected += fields_of(*e->p_mergeacl) + pointer("[p_merge: %p]", nullptr);
    expected += "[status: 0x00000001]";
    expected += dump(e->p_mergeacl);
    expected += "\n##### p_cleanacl info #####\n";
    expected += fields_of(clean) + pointer("[p_merge:%p]", s) + "[status: 0x00000000]";
    expected += dump(&clean);
    expected += "\n===========";
    ipacl_print_hash_table();
    const std::string all = printed(255);
    EXPECT_NE(all.find(expected), std::string::npos) << all << "\nwanted\n" << expected;
    e->p_cleanacl = nullptr;
    delete_acl_rule_location(&clean, nullptr, 0);
    acl_rule_IPrange_delete(e->p_mergeacl);
    e->p_mergeacl = nullptr;
}

TEST_F(Trace, AListThatIsItsOwnCopyShowsNone) {
    ASSERT_EQ(s->p_mergeacl, s);
    ipacl_debug_flag = 1;
    ipacl_print_hash_table();
    EXPECT_EQ(printed(255).find("#####"), std::string::npos);
}

// --- The time-range tables ---

TEST_F(Trace, TheTimeRangeTables) {
    ipacl_tmrg_rule_node second_rule{.p_erule = 0xBEEF, .p_rule_next = nullptr};
    ipacl_tmrg_rule_node first_rule{.p_erule = 0xCAFE, .p_rule_next = &second_rule};
    ipacl_tmrg_ipacl_control user{
        .p_ipacl = 0x1234ABCD, .rule_num = 2, .p_rule_next = &first_rule, .p_ipacl_next = nullptr};
    ipacl_tmrg_info_control weekend{
        .tmrg_name = "weekend", .res_id = 0, .p_ipacl_next = nullptr, .p_info_ctrl_next = nullptr};
    ipacl_tmrg_info_control night{
        .tmrg_name = "night", .res_id = 0x2A, .p_ipacl_next = &user, .p_info_ctrl_next = &weekend};
    const std::string rules = "            ***rule:0x0000CAFE\n            ***rule:0x0000BEEF\n";
    std::string of_night = "    ***tmrg_name:night(resID=0x0000002A)\n"
                           "        ***ipacl:0x1234ABCD(num=2)\n";
    of_night += rules;
    ipacl_print_tmrg_rule_link(&first_rule);
    EXPECT_EQ(fake::take_listing(), rules);
    ipacl_print_tmrg_info_control_node(&night);
    EXPECT_EQ(fake::take_listing(), of_night);
    ipacl_print_tmrg_info_control_link(&night);
    EXPECT_EQ(fake::take_listing(), of_night + "    ***tmrg_name:weekend(resID=0x00000000)\n");
    ipacl_print_tmrg_info_control_link(nullptr);
    ipacl_print_tmrg_rule_link(nullptr);
    EXPECT_EQ(fake::take_listing(), "");
    EXPECT_TRUE(fake::printf_ends().empty());
    ipacl_print_tmrg_table();
    EXPECT_EQ(fake::printf_ends(), std::vector<int>{1});
    EXPECT_EQ(fake::take_listing(), "");
}

// --- Single lines ---

TEST_F(Trace, ATimeRangeTraceNamesTheListAndTheState) {
    const auto &rule = extended("permit tcp any any");
    for (const auto &[is_act, word] : {std::pair{0, "INACTIVE"}, {1, "ACTIVE"}, {-3, "ACTIVE"}}) {
        std::string expected = "[IP ACL(s)] ";
        expected += word;
        expected += " rule: permit tcp any any\n";
        EXPECT_EQ(ipacl_trace_timerange_rule(&rule, is_act, s), static_cast<int>(expected.size()));
        EXPECT_EQ(printed(4), expected);
    }
}

TEST_F(Trace, AMergeTraceTakesTheKindOfItsList) {
    const auto &first = standard("permit 10.0.0.1");
    const auto &second = standard("permit any");
    const std::string expected =
        "[IP ACL(s)] Merge: permit 10.0.0.1 255.255.255.255       => permit any\n";
    EXPECT_EQ(ipacl_trace_merge(&first, &second, s), static_cast<int>(expected.size()));
    EXPECT_EQ(printed(1), expected);
}

TEST_F(Trace, ADecompositionIsListedUnderTheLockWhenItsListIsReady) {
    const auto &rule = standard("permit src-range 10.0.0.1 10.0.0.2");
    ipacl *blocks = acl_rule_IPrange_decompose(&rule, 1);
    const int locks = fake::mutexes().locks;
    const std::string line =
        "[IP ACL] Decompose iprange rule: permit src-range 10.0.0.1  10.0.0.2\n";
    EXPECT_EQ(ipacl_trace_iprange_decompose(&rule, blocks), static_cast<int>(line.size()));
    EXPECT_EQ(printed(2), line);
    EXPECT_EQ(fake::take_listing(), "") << "a scratch list is not ready";
    EXPECT_TRUE(fake::printf_ends().empty());
    EXPECT_EQ(fake::mutexes().locks, locks + 1);
    blocks->status = IPACL_STATUS_READY;
    ipacl_trace_iprange_decompose(&rule, blocks);
    const std::string listed = fake::take_listing();
    fake::take_terminal();
    show_rule(blocks, 0);
    EXPECT_EQ(listed, "==>\n" + fake::take_listing());
    EXPECT_EQ(fake::printf_ends(), std::vector<int>{1});
    EXPECT_EQ(fake::mutexes().locks, locks + 2);
    EXPECT_EQ(fake::mutexes().errors, 0);
    EXPECT_FALSE(fake::mutexes().held);
    acl_rule_IPrange_delete(blocks);
}

TEST_F(Trace, RegisteringDebugCommandsDoesNothing) { EXPECT_EQ(ipacl_register_debug(), 0); }

// --- Resource traces ---

void trace_every_resource_call() {
    __ipacl_trace_resource_reg_owner(1, 2, 3, 4, 5, 6, "f");
    __ipacl_trace_resource_unreg_owner(1, "f");
    __ipacl_trace_resource_reg_syn_cb(1, 2, 3, 4, 5, 6, 7, "f");
    __ipacl_trace_resource_reg_syn_msg(1, 2, 3, 4, 5, 6, 7, "f");
    __ipacl_trace_resource_unreg_syn(1, "f");
    __ipacl_trace_resource_synchronize(1, 2, 3, "f");
}

TEST_F(Trace, ResourceTracesNeedTheirBit) {
    ipacl_debug_flag = static_cast<uint16_t>(~IPACL_DEBUG_RESOURCE);
    trace_every_resource_call();
    EXPECT_TRUE(fake::take_debug().empty());
}

TEST_F(Trace, ResourceTraces) {
    ipacl_debug_flag = IPACL_DEBUG_RESOURCE;
    trace_every_resource_call();
    std::string expected =
        "\n[@: REG_OWNER (FUNC: f)] OWNER_ID: 0x00000001, RESOURCE_TYPE: 2, RESOURCE_INDEX_TYPE: "
        "3, "
        "INDEX_ADDR: 0x00000004, WRITE_FUNC: 0x00000005, READ_FUNC: 0x00000006\n"
        "\n[@: UNREG_OWNER (FUNC: f)] OWNER_ID: 0x00000001\n"
        "\n[@: REG_SYN_CB (FUNC: f)] SYN_ID: 0x00000001, RESOURCE_TYPE: 2, RESOURCE_INDEX_TYPE: 3, "
        "INDEX_ADDR: 0x00000004, CB_FUNC: 0x00000005, ARG1: 0x00000006, ARG2: 0x00000007\n"
        "\n[@: REG_SYN_MSG (FUNC: f)] SYN_ID: 0x00000001, RESOURCE_TYPE: 2, RESOURCE_INDEX_TYPE: "
        "3, "
        "INDEX_ADDR: 0x00000004, QID: 0x00000005, ARG1: 0x00000006, ARG2: 0x00000007\n"
        "\n[@: UNREG_SYN (FUNC: f)] SYN_ID: 0x00000001\n"
        "\n[@: RES_SYN (FUNC: f)] OWNER_ID: 0x00000001, PARAM1: 0x00000002, PARAM2: 0x00000003\n";
    for (size_t at; (at = expected.find('@')) != std::string::npos;)
        expected.replace(at, 1, g_ipacl_card_name);
    EXPECT_EQ(printed(8), expected);
}

TEST_F(Trace, AddressesAreShownInTheirLow32Bits) {
    ipacl_debug_flag = IPACL_DEBUG_RESOURCE;
    __ipacl_trace_resource_unreg_owner(UINTPTR_MAX, "f");
    EXPECT_NE(printed(8).find("OWNER_ID: 0xffffffff\n"), std::string::npos);
}

// --- Memory ---

// A line that can't grow is cut, never written past its end.
TEST_F(Trace, WithoutMemoryALongLineIsCut) {
    auto &rule = extended("permit ip any any");
    rule.flags = static_cast<uint16_t>(0xFFFF & ~IPACL_FLAG_REMARK);
    memset(rule.time_range, 'x', IPACL_NAME_LEN);
    rule.tcpflags = rule.cosflag = 1;
    const size_t before = fake::live_blocks();
    fake::fail_all_allocations(true);
    ipacl_debug_flag = 1;
    ipacl_trace_merge(&rule, &rule, e);
    trace_print_rule(e, 0);
    fake::fail_all_allocations(false);
    EXPECT_FALSE(fake::take_debug().empty());
    EXPECT_EQ(fake::live_blocks(), before);
}

} // namespace
