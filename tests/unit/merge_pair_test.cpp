// The merger's decision about a pair of rules: by hand, by the table of address forms, and against
// a second, plain implementation.

#include "naive_merger.h"
#include "rules.h"

#include <map>

namespace {

using Std = ipacl_standard_rule;
using Ext = ipacl_extended_rule;

Std permit(uint16_t form) {
    Std rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.status = IPACL_RULE_ACTIVE;
    rule.compare_flag = form;
    return rule;
}

Std block(const char *address, const char *mask) {
    Std rule = permit(IPACL_COMPARE_MASK);
    rule.srcaddr = ip(address);
    rule.srcmsk = ip(mask);
    return rule;
}

Std range(const char *begin, const char *end) {
    Std rule = permit(IPACL_COMPARE_RANGE);
    rule.src_begin_addr = ip(begin);
    rule.src_end_addr = ip(end);
    return rule;
}

int decide(Std a, const Std &b) { return acl_rule_merger_op(&a, &b, 1); }
int decide(Ext a, const Ext &b) { return acl_rule_merger_op(&a, &b, 0); }

// --- Standard rules ---

TEST(MergePair, NeighbouringHalvesFuse) {
    Std a = block("10.0.0.0", "255.255.255.0");
    const Std b = block("10.0.1.0", "255.255.255.0");
    EXPECT_EQ(acl_rule_merger_op(&a, &b, 1), 1);
    EXPECT_EQ(dotted(a.srcaddr), "10.0.0.0");
    EXPECT_EQ(dotted(a.srcmsk), "255.255.254.0");
}

TEST(MergePair, HalvesThatDifferInAHigherBitFuseIntoAMaskWithAHole) {
    Std a = block("10.0.0.0", "255.255.255.0");
    const Std b = block("10.0.4.0", "255.255.255.0");
    EXPECT_EQ(acl_rule_merger_op(&a, &b, 1), 1);
    EXPECT_EQ(dotted(a.srcmsk), "255.255.251.0");
}

TEST(MergePair, BlocksThatDifferInTwoBitsOrInSizeDoNotFuse) {
    EXPECT_EQ(decide(block("10.0.1.0", "255.255.255.0"), block("10.0.2.0", "255.255.255.0")), 0);
    EXPECT_EQ(decide(block("10.0.0.0", "255.255.255.0"), block("10.0.1.0", "255.255.255.128")), 0);
    // A smaller block inside a larger one whose network part differs stays.
    EXPECT_EQ(decide(block("10.0.0.0", "255.255.0.0"), block("10.0.3.0", "255.255.255.0")), 0);
}

TEST(MergePair, TheLargerBlockWithTheSameNetworkPartStays) {
    const Std small = block("10.0.0.0", "255.255.255.0");
    const Std large = block("10.0.0.0", "255.255.0.0");
    EXPECT_EQ(decide(small, large), 2);
    EXPECT_EQ(decide(large, small), 1);
}

TEST(MergePair, IdenticalBlocksLoseTheEarlierIdenticalRangesTheLater) {
    const Std a = block("10.0.0.0", "255.255.255.0");
    EXPECT_EQ(decide(a, a), 2);
    const Std r = range("10.0.0.1", "10.0.0.9");
    EXPECT_EQ(decide(r, r), 1);
}

TEST(MergePair, MasksAreComparedAsStoredWords) {
    // 255.0.0.0 is the smaller word, 0.0.0.255 the larger, on a little-endian processor; neither
    // holds the bits of the other.
    EXPECT_EQ(decide(block("0.0.0.0", "255.0.0.0"), block("0.0.0.0", "0.0.0.255")), 0);
    EXPECT_EQ(decide(block("0.0.0.0", "0.0.0.255"), block("0.0.0.0", "255.0.0.0")), 0);
    EXPECT_EQ(decide(block("0.0.0.0", "255.0.0.0"), block("0.0.0.0", "255.0.0.255")), 1);
    EXPECT_EQ(decide(block("0.0.0.0", "255.0.0.255"), block("0.0.0.0", "255.0.0.0")), 2);
}

TEST(MergePair, InactiveRulesStay) {
    const Std a = block("10.0.0.0", "255.255.255.0");
    Std inactive = a;
    inactive.status = 0;
    EXPECT_EQ(decide(inactive, a), 0);
    EXPECT_EQ(decide(a, inactive), 0);
}

TEST(MergePair, RulesIdenticalButForTheirFlagsBecomeOneThatLogs) {
    Std a = block("10.0.0.0", "255.255.255.0");
    Std b = a;
    b.flags |= IPACL_FLAG_LOG;
    EXPECT_EQ(acl_rule_merger_op(&a, &b, 1), 1);
    EXPECT_EQ(a.flags, IPACL_FLAG_PERMIT | IPACL_FLAG_LOG);
    b.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_DENY;
    a.flags = IPACL_FLAG_PERMIT;
    EXPECT_EQ(acl_rule_merger_op(&a, &b, 1), 1) << "whichever flag it is";
    EXPECT_EQ(a.flags, IPACL_FLAG_PERMIT | IPACL_FLAG_LOG);
}

TEST(MergePair, RulesWithOtherFlagsMustBeIdenticalInEveryAddressField) {
    const Std a = block("10.0.0.0", "255.255.255.0");
    const auto differing = [&](auto &&change) {
        Std b = a;
        b.flags |= IPACL_FLAG_LOG;
        change(b);
        Std first = a;
        EXPECT_EQ(acl_rule_merger_op(&first, &b, 1), 0);
        EXPECT_EQ(first.flags, IPACL_FLAG_PERMIT);
    };
    differing([](Std &b) { b.srcaddr.s_addr++; });
    differing([](Std &b) { b.srcmsk.s_addr++; });
    differing([](Std &b) { b.compare_flag = 2; });
    differing([](Std &b) { b.src_begin_addr.s_addr++; });
    differing([](Std &b) { b.src_end_addr.s_addr++; });
    differing([](Std &b) { b.any_flag++; });
}

TEST(MergePair, UnusedFieldsMustAgreeInRulesOfOneForm) {
    const Std a = block("10.0.0.0", "255.255.255.0");
    Std b = a;
    b.src_begin_addr.s_addr = 1;
    EXPECT_EQ(decide(a, b), 0);
    b = a;
    b.src_end_addr.s_addr = 1;
    EXPECT_EQ(decide(a, b), 0);
    b = a;
    b.any_flag = 1;
    EXPECT_EQ(decide(a, b), 0);
    const Std r = range("10.0.0.1", "10.0.0.9");
    b = r;
    b.srcaddr.s_addr = 1;
    EXPECT_EQ(decide(r, b), 0);
    b = r;
    b.srcmsk.s_addr = 1;
    EXPECT_EQ(decide(r, b), 0);
    b = r;
    b.any_flag = 1;
    EXPECT_EQ(decide(r, b), 0);
}

TEST(MergePair, ABlockAndARange) {
    const Std a = block("10.0.1.0", "255.255.255.0");
    struct Row {
        const char *begin, *end;
        int block_first, range_first;
    };
    const Row rows[] = {
        {"10.0.1.0", "10.0.1.255", 2, 1}, // identical: the later decides about the earlier block
        {"10.0.1.5", "10.0.1.9", 1, 2},   // the range lies inside
        {"10.0.1.0", "10.0.1.9", 1, 2},   {"10.0.1.5", "10.0.1.255", 1, 2},
        {"10.0.0.0", "10.0.2.0", 2, 1}, // the block lies inside
        {"10.0.1.0", "10.0.2.0", 2, 1},   {"10.0.0.0", "10.0.1.255", 2, 1},
        {"10.0.0.9", "10.0.1.9", 0, 0}, // they only overlap
        {"10.0.1.9", "10.0.2.9", 0, 0},   {"10.0.3.0", "10.0.3.9", 0, 0},
        {"9.0.0.0", "9.0.0.9", 0, 0},
    };
    for (const auto &row : rows) {
        Std r = range(row.begin, row.end);
        EXPECT_EQ(decide(a, r), row.block_first) << row.begin;
        EXPECT_EQ(decide(r, a), row.range_first) << row.begin;
        r.any_flag = 1;
        EXPECT_EQ(decide(a, r), 0);
        EXPECT_EQ(decide(r, a), 0);
    }
}

TEST(MergePair, TwoRanges) {
    struct Row {
        const char *begin, *end;
        int result, turned;
    };
    const Std a = range("10.0.0.10", "10.0.0.20");
    const Row rows[] = {
        {"10.0.0.12", "10.0.0.18", 1, 2}, {"10.0.0.10", "10.0.0.18", 1, 2},
        {"10.0.0.12", "10.0.0.20", 1, 2}, {"10.0.0.10", "10.0.0.25", 2, 1},
        {"10.0.0.5", "10.0.0.25", 2, 1},  {"10.0.0.5", "10.0.0.20", 2, 1},
        {"10.0.0.5", "10.0.0.15", 0, 0},  {"10.0.0.15", "10.0.0.25", 0, 0},
        {"10.0.0.30", "10.0.0.40", 0, 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(decide(a, range(row.begin, row.end)), row.result) << row.begin;
        EXPECT_EQ(decide(range(row.begin, row.end), a), row.turned) << row.begin;
    }
}

TEST(MergePair, SpansAreInHostByteOrder) {
    // As stored words 10.0.1.0 .. 10.0.2.255 would not hold 10.0.1.128.
    EXPECT_EQ(decide(range("10.0.1.5", "10.0.2.4"), range("10.0.1.128", "10.0.1.129")), 1);
}

TEST(MergePair, AnyOtherCompareFlagOfAStandardRuleIsARange) {
    Std a = range("10.0.0.10", "10.0.0.20");
    Std b = range("10.0.0.12", "10.0.0.18");
    a.compare_flag = 0;
    b.compare_flag = 7;
    EXPECT_EQ(decide(a, b), 1);
}

// --- Extended rules ---

// A rule whose two sides span low..high in the form given (1 mask, 2 range).
Ext spanning(uint16_t src_form, uint16_t dst_form, uint32_t low, uint32_t high) {
    Ext rule{};
    rule.protcol = IPACL_PROTOCOL_IP;
    rule.flags = IPACL_FLAG_PERMIT;
    rule.status = IPACL_RULE_ACTIVE;
    const auto fill = [&](uint16_t form, in_addr &addr, in_addr &mask, in_addr &begin,
                          in_addr &end) {
        if (form == 1) {
            addr.s_addr = htonl(low);
            mask.s_addr = htonl(~(high - low));
        } else {
            begin.s_addr = htonl(low);
            end.s_addr = htonl(high);
        }
    };
    rule.src_compare_flag = src_form;
    rule.dst_compare_flag = dst_form;
    fill(src_form, rule.srcaddr, rule.srcmsk, rule.src_begin_addr, rule.src_end_addr);
    fill(dst_form, rule.dstaddr, rule.dstmsk, rule.dst_begin_addr, rule.dst_end_addr);
    return rule;
}

// What comes of a pair of address forms: of identical spans, of the wider rule first, of it last.
struct FormsRow {
    uint16_t key; // source of A and of B, destination of A and of B: 1 mask, 2 range
    int identical, a_wider, b_wider;
};

// Rule A or B of a pair, with both its sides spanning `size` addresses.
Ext rule_of(uint16_t key, bool is_a, uint32_t size) {
    constexpr uint32_t kLow = 0x0A000100;
    const int shift = is_a ? 4 : 0;
    return spanning(key >> (8 + shift) & 0xF, key >> shift & 0xF, kLow, kLow + size - 1);
}

TEST(MergePair, InactiveExtendedRulesStay) {
    const Ext active = rule_of(0x1111, true, 16);
    Ext inactive = active;
    inactive.status = 0;
    EXPECT_NE(decide(active, active), 0);
    EXPECT_EQ(decide(inactive, active), 0);
    EXPECT_EQ(decide(active, inactive), 0);
}

void expect_row(const FormsRow &row) {
    const auto a = [&](uint32_t size) { return rule_of(row.key, true, size); };
    const auto b = [&](uint32_t size) { return rule_of(row.key, false, size); };
    EXPECT_EQ(decide(a(16), b(16)), row.identical) << std::hex << row.key;
    EXPECT_EQ(decide(a(256), b(16)), row.a_wider) << std::hex << row.key;
    EXPECT_EQ(decide(a(16), b(256)), row.b_wider) << std::hex << row.key;
}

TEST(MergePair, TheTableOfAddressForms) {
    const FormsRow rows[] = {
        {0x1112, 1, 1, 2}, {0x1121, 1, 1, 2}, {0x1211, 1, 1, 2}, {0x1212, 2, 1, 2},
        {0x1221, 0, 0, 0}, {0x2112, 0, 0, 0}, {0x2111, 1, 1, 2}, {0x2121, 1, 1, 2},
    };
    for (const auto &row : rows)
        expect_row(row);
}

// Where both rules use the range form on a side, the address and mask there, which neither uses,
// must agree.
TEST(MergePair, TheTableOfAddressFormsWhereBothUseRanges) {
    const FormsRow rows[] = {
        {0x1122, 1, 1, 2}, {0x1222, 1, 1, 2}, {0x2122, 1, 1, 2}, {0x2211, 1, 1, 2},
        {0x2212, 1, 1, 2}, {0x2221, 1, 1, 2}, {0x2222, 1, 1, 2},
    };
    for (const auto &row : rows) {
        expect_row(row);
        const bool src_ranges = (row.key & 0xFF00) == 0x2200;
        for (in_addr Ext::*field : {src_ranges ? &Ext::srcaddr : &Ext::dstaddr,
                                    src_ranges ? &Ext::srcmsk : &Ext::dstmsk}) {
            Ext other = rule_of(row.key, false, 16);
            (other.*field).s_addr = 1;
            EXPECT_EQ(decide(rule_of(row.key, true, 256), other), 0) << std::hex << row.key;
        }
    }
}

TEST(MergePair, BothSidesMustBeContained) {
    for (const uint16_t form : std::initializer_list<uint16_t>{1, 2}) {
        Ext a = spanning(2, form, 0x0A000000, 0x0A0000FF);
        Ext b = spanning(1, form, 0x0A000010, 0x0A00001F);
        EXPECT_EQ(decide(a, b), 1);
        // B's destination sticks out.
        const Ext out = spanning(1, form, 0x0B000000, 0x0B00000F);
        b.dstaddr = out.dstaddr;
        b.dst_begin_addr = out.dst_begin_addr;
        b.dst_end_addr = out.dst_end_addr;
        EXPECT_EQ(decide(a, b), 0);
        EXPECT_EQ(decide(b, a), 0);
    }
}

TEST(MergePair, OverlapsAreNoContainment) {
    EXPECT_EQ(
        decide(spanning(2, 2, 0x0A000000, 0x0A000009), spanning(2, 2, 0x0A000005, 0x0A00000F)), 0);
    EXPECT_EQ(
        decide(spanning(2, 2, 0x0A000005, 0x0A00000F), spanning(2, 2, 0x0A000000, 0x0A000009)), 0);
}

TEST(MergePair, ExtendedBlocksFuseInOneDimension) {
    const Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
    Ext b = a;
    b.dstaddr = ip("10.0.1.0");
    Ext first = a;
    EXPECT_EQ(acl_rule_merger_op(&first, &b, 0), 1);
    EXPECT_EQ(dotted(first.dstmsk), "255.255.254.0");
    EXPECT_EQ(dotted(first.srcmsk), "255.255.255.0");
    b = a;
    b.srcaddr = ip("10.0.1.0");
    first = a;
    EXPECT_EQ(acl_rule_merger_op(&first, &b, 0), 1);
    EXPECT_EQ(dotted(first.srcmsk), "255.255.254.0");
    EXPECT_EQ(dotted(first.dstmsk), "255.255.255.0");
    b.dstaddr = ip("10.0.1.0");
    EXPECT_EQ(decide(a, b), 0) << "they differ in both";
    EXPECT_EQ(decide(a, a), 2) << "identical blocks lose the earlier";
}

TEST(MergePair, ExtendedBlocksMustAgreeInTheirUnusedRanges) {
    const Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
    for (in_addr Ext::*field :
         {&Ext::src_begin_addr, &Ext::src_end_addr, &Ext::dst_begin_addr, &Ext::dst_end_addr}) {
        Ext b = a;
        (b.*field).s_addr = 1;
        EXPECT_EQ(decide(a, b), 0);
    }
}

TEST(MergePair, OtherCompareFlagsNeverMerge) {
    for (uint16_t Ext::*field : {&Ext::src_compare_flag, &Ext::dst_compare_flag}) {
        for (const uint16_t form : std::initializer_list<uint16_t>{0, 3, 0x11, 0x1111}) {
            Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
            a.*field = form;
            EXPECT_EQ(decide(a, a), 0) << form;
        }
    }
    // Flags that would make up a known pair of forms if their digits ran into each other.
    Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
    Ext b = a;
    a.src_compare_flag = 0;
    b.src_compare_flag = 0x11;
    EXPECT_EQ(decide(a, b), 0);
}

// What two extended rules must agree on, and what is left out.
TEST(MergePair, ExtendedRulesMustAgreeOnEverythingButAddresses) {
    struct Row {
        const char *what;
        uint16_t flags;
        void (*change)(Ext &);
        bool merges;
    };
    const Row rows[] = {
        {"nothing", 0, [](Ext &) {}, true},
        {"protocol", 0, [](Ext &r) { r.protcol = 6; }, false},
        {"source interface", 0, [](Ext &r) { strcpy(r.src_vlan_name, "vlan1"); }, false},
        {"destination interface", 0, [](Ext &r) { strcpy(r.dst_vlan_name, "vlan1"); }, true},
        {"source operator", 0, [](Ext &r) { r.src_port_flags = 4; }, false},
        {"unused source port", 0, [](Ext &r) { r.src_port = 9; }, true},
        {"destination operator", 0, [](Ext &r) { r.dst_port_flags = 4; }, false},
        {"unused destination port", 0, [](Ext &r) { r.dst_port = 9; }, true},
        {"icmp type", IPACL_FLAG_ICMP_TYPE, [](Ext &r) { r.src_port = 9; }, false},
        {"igmp type", IPACL_FLAG_IGMP_TYPE, [](Ext &r) { r.src_port = 9; }, false},
        {"time range", IPACL_FLAG_TIME_RANGE, [](Ext &r) { strcpy(r.time_range, "night"); }, false},
        {"unused time range", 0, [](Ext &r) { strcpy(r.time_range, "night"); }, true},
        {"tos", IPACL_FLAG_TOS, [](Ext &r) { r.tos = 1; }, false},
        {"unused tos", 0, [](Ext &r) { r.tos = 1; }, true},
        {"precedence", IPACL_FLAG_PRECEDENCE, [](Ext &r) { r.precedence = 1; }, false},
        {"unused precedence", 0, [](Ext &r) { r.precedence = 1; }, true},
        {"don't fragment", IPACL_FLAG_DONT_FRAGMENT, [](Ext &r) { r.fragment_flags = 1; }, false},
        {"other fragment bit", IPACL_FLAG_DONT_FRAGMENT, [](Ext &r) { r.fragment_flags = 2; },
         true},
        {"fragment", IPACL_FLAG_FRAGMENT, [](Ext &r) { r.fragment_flags = 2; }, false},
        {"offset", IPACL_FLAG_OFFSET, [](Ext &r) { r.offset_flags = 1; }, false},
        {"unused offset", 0, [](Ext &r) { r.offset_flags = 1; }, true},
        {"length", IPACL_FLAG_TOTALLEN, [](Ext &r) { r.totallen = 1; }, false},
        {"length operator", IPACL_FLAG_TOTALLEN, [](Ext &r) { r.totallen_flags = 1; }, false},
        {"unused length", 0, [](Ext &r) { r.totallen = r.totallen_flags = 1; }, true},
        {"ttl", IPACL_FLAG_TTL, [](Ext &r) { r.ttl = 1; }, false},
        {"ttl operator", IPACL_FLAG_TTL, [](Ext &r) { r.ttl_flags = 1; }, false},
        {"unused ttl", 0, [](Ext &r) { r.ttl = r.ttl_flags = 1; }, true},
        {"source port range", 0, [](Ext &r) { r.src_begin_port = 1; }, false},
        {"end of it", 0, [](Ext &r) { r.src_end_port = 1; }, false},
        {"destination port range", 0, [](Ext &r) { r.dst_begin_port = 1; }, false},
        {"end of that", 0, [](Ext &r) { r.dst_end_port = 1; }, false},
        {"source any", 0, [](Ext &r) { r.src_any_flag = 1; }, false},
        {"destination any", 0, [](Ext &r) { r.dst_any_flag = 1; }, false},
        {"flags", 0, [](Ext &r) { r.flags |= IPACL_FLAG_LOG; }, false},
        {"status", 0, [](Ext &r) { r.status = 0; }, false},
        {"class of service", 0, [](Ext &r) { r.cosflag = r.cos = 1; }, true},
        {"TCP flags", 0, [](Ext &r) { r.tcpflags = 1; }, true},
        {"activity", 0, [](Ext &r) { r.is_act = 1; }, true},
        {"counter", 0, [](Ext &r) { r.stat_count = 1; }, true},
    };
    for (const auto &row : rows) {
        Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
        a.flags = static_cast<uint16_t>(a.flags | row.flags);
        Ext b = a;
        row.change(b);
        EXPECT_EQ(decide(a, b), row.merges ? 2 : 0) << row.what;
    }
}

TEST(MergePair, UsedPortsMustAgree) {
    Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
    a.src_port_flags = a.dst_port_flags = IPACL_OP_EQ;
    Ext b = a;
    EXPECT_EQ(decide(a, b), 2);
    b.src_port = 9;
    EXPECT_EQ(decide(a, b), 0);
    b = a;
    b.dst_port = 9;
    EXPECT_EQ(decide(a, b), 0);
}

TEST(MergePair, TheLaterRulesSourceInterfaceNeedOnlyBeAPrefix) {
    Ext a = spanning(1, 1, 0x0A000000, 0x0A0000FF);
    Ext b = a;
    strcpy(a.src_vlan_name, "vlan10");
    EXPECT_EQ(decide(a, b), 2) << "an empty name is a prefix of any";
    strcpy(b.src_vlan_name, "vlan1");
    EXPECT_EQ(decide(a, b), 2);
    EXPECT_EQ(decide(b, a), 0);
}

// --- Against the second implementation ---

// Rules of few values, so that many pairs have to do with each other.
class CloseDice : public Dice {
  public:
    using Dice::Dice;

    in_addr address() { return {htonl(0x0A000000 + below(16) * (one_in(2) ? 1 : 16))}; }
    in_addr close_mask() {
        return {one_in(8) ? htonl(0xFFFFFF00 | below(256)) : htonl(0xFFFFFFFF << below(9))};
    }
    void close_range(in_addr &begin, in_addr &end) {
        begin = address();
        end = {htonl(ntohl(begin.s_addr) + below(24))};
        if (one_in(8))
            std::swap(begin, end);
    }
    Std close_standard() {
        Std rule{};
        rule.flags = of<uint16_t>({1, 1, 1, 1, 2, 3, 5});
        rule.status = one_in(12) ? 0 : 1;
        rule.compare_flag = of<uint16_t>({1, 1, 1, 2, 2, 0});
        rule.any_flag = one_in(8);
        if (rule.compare_flag == 1 || one_in(8)) {
            rule.srcaddr = address();
            rule.srcmsk = close_mask();
        }
        if (rule.compare_flag != 1 || one_in(8))
            close_range(rule.src_begin_addr, rule.src_end_addr);
        return rule;
    }
    Ext close_extended() {
        Ext rule{};
        rule.flags = of<uint16_t>({1, 1, 1, 1, 1, 1, 2, 5});
        rule.protcol = one_in(10) ? 6 : 17;
        rule.status = one_in(16) ? 0 : 1;
        rule.src_compare_flag = one_in(24) ? of<uint16_t>({0, 3, 17}) : of<uint16_t>({1, 1, 2});
        rule.dst_compare_flag = one_in(24) ? of<uint16_t>({0, 3, 17}) : of<uint16_t>({1, 1, 2});
        if (rule.src_compare_flag == 1) {
            rule.srcaddr = address();
            rule.srcmsk = close_mask();
        } else {
            close_range(rule.src_begin_addr, rule.src_end_addr);
        }
        if (rule.dst_compare_flag == 1) {
            rule.dstaddr = {htonl(0x0B000000 + below(2))};
            rule.dstmsk = {htonl(one_in(3) ? 0xFFFFFF00 : 0xFFFFFFFF)};
        } else {
            close_range(rule.dst_begin_addr, rule.dst_end_addr);
        }
        if (one_in(6))
            strcpy(rule.src_vlan_name, one_in(2) ? "vlan1" : "vlan10");
        if (one_in(12)) {
            const uint16_t bit =
                of<uint16_t>({IPACL_FLAG_ICMP_TYPE, IPACL_FLAG_TIME_RANGE, IPACL_FLAG_TOS,
                              IPACL_FLAG_PRECEDENCE, IPACL_FLAG_DONT_FRAGMENT, IPACL_FLAG_FRAGMENT,
                              IPACL_FLAG_OFFSET, IPACL_FLAG_TOTALLEN, IPACL_FLAG_TTL});
            rule.flags = static_cast<uint16_t>(rule.flags | bit);
            rule.tos = rule.precedence = rule.fragment_flags = rule.offset_flags =
                static_cast<uint8_t>(below(2));
            rule.totallen = rule.ttl = rule.src_port = static_cast<uint16_t>(below(2));
        }
        return rule;
    }
};

template <class Rule>
bool equal(const Rule &a, const Rule &b) {
    if constexpr (std::is_same_v<Rule, Std>)
        return a.flags == b.flags && a.srcaddr.s_addr == b.srcaddr.s_addr &&
               a.srcmsk.s_addr == b.srcmsk.s_addr &&
               a.src_begin_addr.s_addr == b.src_begin_addr.s_addr;
    else
        return a.flags == b.flags && a.srcaddr.s_addr == b.srcaddr.s_addr &&
               a.srcmsk.s_addr == b.srcmsk.s_addr && a.dstaddr.s_addr == b.dstaddr.s_addr &&
               a.dstmsk.s_addr == b.dstmsk.s_addr;
}

template <class Rule, class Deal, class Naive>
void compare_pairs(int pairs, bool is_standard, Deal &&deal, Naive &&naive) {
    std::map<int, int> results;
    for (int i = 0; i < pairs && !testing::Test::HasFailure(); i++) {
        Rule a = deal();
        const Rule b = deal();
        Rule naive_a = a;
        const int expected = naive(naive_a, b);
        ASSERT_EQ(acl_rule_merger_op(&a, &b, is_standard), expected);
        ASSERT_TRUE(equal(a, naive_a)) << "the first rule was widened differently";
        results[expected]++;
    }
    for (const int result : {0, 1, 2})
        EXPECT_GE(results[result], pairs / 200) << "result " << result << " was hardly tried";
}

TEST(MergePair, RandomStandardPairsAgreeWithTheSecondImplementation) {
    CloseDice dice(5);
    compare_pairs<Std>(
        2'000'000, true, [&] { return dice.close_standard(); }, naive::standard_pair);
}

TEST(MergePair, RandomExtendedPairsAgreeWithTheSecondImplementation) {
    CloseDice dice(6);
    compare_pairs<Ext>(
        2'000'000, false, [&] { return dice.close_extended(); }, naive::extended_pair);
}

// Whole lists: the same rules stay, widened alike, after as many comparisons.
template <class Rule, class Deal>
void compare_lists(bool is_standard, Deal &&deal, Dice &dice) {
    for (int i = 0; i < 20'000 && !testing::Test::HasFailure(); i++) {
        ipacl base{};
        base.is_standard = is_standard;
        std::vector<Rule> expected;
        for (uint32_t n = dice.below(16); n > 0; n--)
            expected.push_back(append(base, deal()));
        unsigned operations = 0;
        const size_t before = expected.size();
        if (before >= 2)
            naive::merge_passes(expected, operations);

        ipacl_debug_flag = IPACL_DEBUG_MERGE;
        ipacl *upper = nullptr;
        const std::string said = fake::stdout_of(
            [&] { ASSERT_EQ(acl_rule_merger_create_upper_ipacl(&base, &upper), 0); });
        char line[100];
        snprintf(line, sizeof line, "[IP ACL]Merge: total %u merge operations, reduced %zu rules\n",
                 operations, before - expected.size());
        EXPECT_EQ(said, line);
        EXPECT_EQ(fake::take_debug().size(), before - expected.size());
        ASSERT_EQ(upper->rule_count, expected.size());
        const Rule *rule;
        if constexpr (std::is_same_v<Rule, Std>)
            rule = upper->ipacl_s;
        else
            rule = upper->ipacl_e;
        for (const auto &wanted : expected) {
            ASSERT_NE(rule, nullptr);
            ASSERT_TRUE(equal(*rule, wanted));
            rule = rule->ipacl_next;
        }
        ASSERT_EQ(rule, nullptr);
        acl_rule_IPrange_delete(upper);
        delete_acl_rule_location(&base, nullptr, 0);
    }
}

class MergeLists : public ServiceTest {};

TEST_F(MergeLists, RandomStandardListsAgreeWithTheSecondImplementation) {
    CloseDice dice(7);
    compare_lists<Std>(
        true, [&] { return dice.close_standard(); }, dice);
}

TEST_F(MergeLists, RandomExtendedListsAgreeWithTheSecondImplementation) {
    CloseDice dice(8);
    compare_lists<Ext>(
        false,
        [&] {
            Ext rule = dice.close_extended();
            rule.is_act = 1; // or an inactive time range would leave it out
            return rule;
        },
        dice);
}

} // namespace
