// Range decomposition: what the blocks look like, and that they are the fewest that cover a range.

#include "rules.h"

#include <fstream>

namespace {

using Blocks = std::vector<std::string>;

class Decomposition : public ServiceTest {
  protected:
    static ipacl_standard_rule range(in_addr begin, in_addr end) {
        ipacl_standard_rule rule{};
        rule.flags = IPACL_FLAG_PERMIT;
        rule.status = IPACL_RULE_ACTIVE;
        rule.compare_flag = IPACL_COMPARE_RANGE;
        rule.src_begin_addr = begin;
        rule.src_end_addr = end;
        return rule;
    }
    static ipacl_standard_rule range(const char *begin, const char *end) {
        return range(ip(begin), ip(end));
    }

    static Blocks blocks_of(const ipacl_standard_rule &rule) {
        ipacl *list = acl_rule_IPrange_decompose(&rule, 1);
        Blocks blocks;
        for (const auto *r = list->ipacl_s; r; r = r->ipacl_next)
            blocks.push_back(dotted(r->srcaddr) + " " + dotted(r->srcmsk));
        EXPECT_EQ(list->rule_count, blocks.size());
        acl_rule_IPrange_delete(list);
        return blocks;
    }
    static Blocks blocks_of(const char *begin, const char *end) {
        return blocks_of(range(begin, end));
    }
};

TEST_F(Decomposition, TheHighestBlockComesFirst) {
    EXPECT_EQ(
        blocks_of("10.0.0.1", "10.0.0.10"),
        (Blocks{"10.0.0.10 255.255.255.255", "10.0.0.8 255.255.255.254", "10.0.0.4 255.255.255.252",
                "10.0.0.2 255.255.255.254", "10.0.0.1 255.255.255.255"}));
}

TEST_F(Decomposition, OneAddressIsOneRule) {
    EXPECT_EQ(blocks_of("10.0.0.4", "10.0.0.4"), Blocks{"10.0.0.4 255.255.255.255"});
    EXPECT_EQ(blocks_of("0.0.0.0", "0.0.0.0"), Blocks{"0.0.0.0 255.255.255.255"});
}

TEST_F(Decomposition, AlignedRangesAreOneBlock) {
    EXPECT_EQ(blocks_of("10.0.0.0", "10.0.0.255"), Blocks{"10.0.0.0 255.255.255.0"});
    EXPECT_EQ(blocks_of("10.0.0.0", "10.0.1.255"), Blocks{"10.0.0.0 255.255.254.0"});
    EXPECT_EQ(blocks_of("0.0.0.0", "127.255.255.255"), Blocks{"0.0.0.0 128.0.0.0"});
}

TEST_F(Decomposition, ARangeUpToTheLastAddressEnds) {
    EXPECT_EQ(blocks_of("255.255.255.0", "255.255.255.255"), Blocks{"255.255.255.0 255.255.255.0"});
    EXPECT_EQ(blocks_of("255.255.255.255", "255.255.255.255"),
              Blocks{"255.255.255.255 255.255.255.255"});
    EXPECT_EQ(blocks_of("0.0.0.0", "255.255.255.255"),
              (Blocks{"128.0.0.0 128.0.0.0", "0.0.0.0 128.0.0.0"}));
    EXPECT_EQ(blocks_of("255.255.255.253", "255.255.255.255"),
              (Blocks{"255.255.255.254 255.255.255.254", "255.255.255.253 255.255.255.255"}));
}

TEST_F(Decomposition, ATurnedRangeIsEmptyAndTracedAllTheSame) {
    ipacl_debug_flag = IPACL_DEBUG_RANGE;
    EXPECT_EQ(blocks_of("10.0.0.2", "10.0.0.1"), Blocks{});
    const auto debug = fake::take_debug();
    ASSERT_EQ(debug.size(), 1U);
    EXPECT_EQ(debug[0].text,
              "[IP ACL] Decompose iprange rule: permit src-range 10.0.0.2  10.0.0.1\n");
}

TEST_F(Decomposition, TheTraceNeedsItsBit) {
    ipacl_debug_flag = static_cast<uint16_t>(~IPACL_DEBUG_RANGE);
    blocks_of("10.0.0.1", "10.0.0.2");
    EXPECT_TRUE(fake::take_debug().empty());
}

TEST_F(Decomposition, TheScratchListIsNamedTempAndStandsInNoRegistry) {
    const size_t blocks = fake::live_blocks();
    const auto rule = range("10.0.0.1", "10.0.0.1");
    ipacl *list = acl_rule_IPrange_decompose(&rule, 1);
    EXPECT_STREQ(list->name, "temp");
    EXPECT_EQ(list->is_standard, 1);
    EXPECT_EQ(list->is_dynamic, 0);
    EXPECT_EQ(list->flag, 2U);
    EXPECT_EQ(list->is_change, 0);
    EXPECT_EQ(list->p_mergeacl, list);
    EXPECT_EQ(list->status, 0);
    EXPECT_EQ(list->p_cleanacl, nullptr);
    EXPECT_EQ(ipacl_config_find("temp"), nullptr);
    acl_rule_IPrange_delete(list);
    EXPECT_EQ(fake::live_blocks(), blocks);
}

TEST_F(Decomposition, OtherKindsAreNotDecomposed) {
    const ipacl_extended_rule rule{};
    for (const int kind : {0, 2, -1}) {
        ipacl *list = acl_rule_IPrange_decompose(&rule, kind);
        EXPECT_EQ(list->is_standard, kind);
        EXPECT_EQ(list->p_mergeacl, kind == 0 ? nullptr : list);
        EXPECT_EQ(list->ipacl_s, nullptr);
        EXPECT_EQ(list->ipacl_e, nullptr);
        EXPECT_EQ(list->rule_count, 0U);
        EXPECT_STREQ(list->name, "temp");
        acl_rule_IPrange_delete(list);
    }
}

TEST_F(Decomposition, RulesKeepTheContentOfTheirSource) {
    auto source = range("10.0.0.1", "10.0.0.2");
    source.flags = IPACL_FLAG_DENY | IPACL_FLAG_LOG | IPACL_FLAG_REVERSE_MASK;
    source.any_flag = 1;
    source.status = 5;
    source.port_precedence = 7;
    source.stat_count = 9;
    char text[] = "mine";
    source.remark = text;
    ipacl *list = acl_rule_IPrange_decompose(&source, 1);
    ASSERT_EQ(list->rule_count, 2U);
    for (const auto *rule = list->ipacl_s; rule; rule = rule->ipacl_next) {
        EXPECT_EQ(rule->flags, source.flags);
        EXPECT_EQ(rule->any_flag, 1);
        EXPECT_EQ(rule->status, 5);
        EXPECT_EQ(rule->compare_flag, IPACL_COMPARE_MASK);
        EXPECT_EQ(rule->src_begin_addr.s_addr, source.src_begin_addr.s_addr);
        EXPECT_EQ(rule->src_end_addr.s_addr, source.src_end_addr.s_addr);
        EXPECT_EQ(rule->remark, nullptr);
        EXPECT_EQ(rule->port_precedence, 0);
        EXPECT_EQ(rule->stat_count, 0U);
    }
    acl_rule_IPrange_delete(list);
}

TEST_F(Decomposition, OfARemarkOnlyTheFlagsAreKept) {
    auto source = range("10.0.0.1", "10.0.0.1");
    source.flags = IPACL_FLAG_REMARK;
    ipacl *list = acl_rule_IPrange_decompose(&source, 1);
    ASSERT_EQ(list->rule_count, 1U);
    EXPECT_EQ(list->ipacl_s->flags, IPACL_FLAG_REMARK);
    EXPECT_EQ(list->ipacl_s->status, 0);
    EXPECT_EQ(list->ipacl_s->src_begin_addr.s_addr, 0U);
    EXPECT_EQ(dotted(list->ipacl_s->srcmsk), "255.255.255.255");
    acl_rule_IPrange_delete(list);
}

TEST_F(Decomposition, TrailingZeroBits) {
    EXPECT_EQ(acl_get_back_zero_num(0), 31U);
    EXPECT_EQ(acl_get_back_zero_num(1), 0U);
    EXPECT_EQ(acl_get_back_zero_num(0xFFFFFFFF), 0U);
    for (uint32_t k = 0; k < 32; k++)
        EXPECT_EQ(acl_get_back_zero_num(0xFFFFFFFF << k), k);
}

TEST_F(Decomposition, TheScratchListGivesBackRemarks) {
    const size_t blocks = fake::live_blocks();
    const auto rule = range("10.0.0.1", "10.0.0.1");
    ipacl *list = acl_rule_IPrange_decompose(&rule, 1);
    list->ipacl_s->remark = static_cast<char *>(sys_mem_malloc(4));
    acl_rule_IPrange_delete(list);
    EXPECT_EQ(fake::live_blocks(), blocks);
}

TEST_F(Decomposition, EachFailingAllocationIsNumberedOnTheTerminal) {
    // .1 is a single address, .2/31 a block, .4 a single address.
    const auto rule = range("10.0.0.1", "10.0.0.4");
    struct Row {
        int nth, number;
        size_t lost; // the scratch list and the rules made so far
    };
    for (const auto &[nth, number, lost] :
         std::initializer_list<Row>{{1, -11, 0}, {2, -13, 1}, {3, -12, 2}, {4, -13, 3}}) {
        const size_t mark = fake::mark();
        fake::fail_allocation(nth);
        EXPECT_EQ(acl_rule_IPrange_decompose(&rule, 1), nullptr);
        std::string said = "Error: ipacl insufficient memory,errorNo=";
        said += std::to_string(number);
        said += '\n';
        EXPECT_EQ(fake::take_answers(), said);
        EXPECT_EQ(fake::free_lost(mark), lost);
    }
}

// --- The fewest blocks that cover a range exactly ---

// The number of maximal aligned blocks inside a range. No cover has fewer: a block of a cover lies
// inside one maximal block, and each maximal block needs at least one.
int maximal_blocks(uint64_t begin, uint64_t end, uint64_t block = 0, uint32_t bits = 32) {
    const uint64_t last = block + (uint64_t{1} << bits) - 1;
    if (last < begin || block > end)
        return 0;
    // A whole half of the address space is the largest block that a rule can say.
    if (begin <= block && last <= end && bits < 32)
        return 1;
    return maximal_blocks(begin, end, block, bits - 1) +
           maximal_blocks(begin, end, block + (uint64_t{1} << (bits - 1)), bits - 1);
}

// Checks that the blocks of begin..end (host byte order) are contiguous masks, disjoint, cover the
// range and nothing else, and are as few as can be.
void expect_minimal_cover(uint32_t begin, uint32_t end) {
    ipacl_standard_rule rule{};
    rule.src_begin_addr.s_addr = htonl(begin);
    rule.src_end_addr.s_addr = htonl(end);
    ipacl *list = acl_rule_IPrange_decompose(&rule, 1);
    ASSERT_NE(list, nullptr);
    uint64_t above = uint64_t{end} + 1; // where the block in front began
    for (const auto *r = list->ipacl_s; r; r = r->ipacl_next) {
        const uint32_t first = ntohl(r->srcaddr.s_addr);
        const uint32_t host_bits = ~ntohl(r->srcmsk.s_addr);
        ASSERT_EQ(host_bits & (host_bits + 1), 0U) << "the mask has a hole";
        ASSERT_EQ(first & host_bits, 0U) << "the block is not aligned";
        ASSERT_EQ(uint64_t{first} + host_bits + 1, above) << "a gap or an overlap";
        above = first;
    }
    ASSERT_EQ(above, begin) << "the range does not begin where its blocks do";
    ASSERT_EQ(static_cast<int>(list->rule_count), maximal_blocks(begin, end));
    acl_rule_IPrange_delete(list);
}

TEST_F(Decomposition, RandomRangesAreCoveredByTheFewestBlocks) {
    Dice dice(4);
    for (int i = 0; i < 100'000 && !HasFailure(); i++) {
        const uint32_t begin = dice.word();
        const uint64_t end = uint64_t{begin} + (dice.word() >> dice.below(32));
        expect_minimal_cover(begin, end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end));
    }
}

TEST_F(Decomposition, TheRangesOfACountryAreCoveredByTheFewestBlocks) {
    std::ifstream file(TEST_DATA "/nz-ranges.csv");
    int ranges = 0;
    for (std::string line; std::getline(file, line) && !HasFailure(); ranges++) {
        const size_t comma = line.find(',');
        ASSERT_NE(comma, std::string::npos) << line;
        expect_minimal_cover(ntohl(ip(line.substr(0, comma).c_str()).s_addr),
                             ntohl(ip(line.substr(comma + 1).c_str()).s_addr));
    }
    EXPECT_EQ(ranges, 1669);
}

// Specified so: the matcher orders a range by stored words, decomposition in host byte order.
TEST_F(Decomposition, ARangeRuleAndItsBlocksCanJudgeAnAddressDifferently) {
    ipacl list{};
    list.is_standard = 1;
    auto &rule = append(list, range("10.0.0.200", "10.0.1.10"));
    ipacl *blocks = acl_rule_IPrange_decompose(&rule, 1);
    acl_info info{};
    info.src_ip = ip("10.0.1.0").s_addr;
    EXPECT_EQ(ipacl_check_standard(&info, &list), 34U);
    EXPECT_EQ(ipacl_check_standard(&info, blocks), 1U);
    acl_rule_IPrange_delete(blocks);
    delete_acl_rule_location(&list, nullptr, 0);
}

} // namespace
