// The exact analysis: by hand, against every packet of small universes, and against the matcher on
// random packets of large lists.

#include "analysis/analysis.h"

#include "naive_matcher.h"
#include "rules.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <tuple>

namespace {

using namespace analysis;

// --- Helpers ---

// Lists by command, and what the analysis says of them.
class Analysis : public TwoLists {
  protected:
    void extend(std::initializer_list<const char *> commands) {
        for (const char *command : commands)
            extended(command);
    }
    // "3: covered by 1 2" for each rule that can never match.
    static Lines dead(const ipacl &list) {
        Lines all;
        for (const Unreachable &u : unreachable(list)) {
            std::string line = std::to_string(u.rule);
            line.append(u.reason == Unreachable::kInactive ? ": inactive"
                        : u.reason == Unreachable::kEmpty  ? ": empty"
                                                           : ": covered by");
            for (const size_t rule : u.covering)
                line.append(" ").append(std::to_string(rule));
            all.push_back(line);
        }
        return all;
    }
    static Lines regions(const ipacl &a, const ipacl &b) {
        Lines all;
        for (const Change &change : diff(a, b, 100).changes)
            all.push_back(region_text(change.region));
        return all;
    }
    ipacl &second(std::initializer_list<const char *> commands) {
        ipacl *list = get_ipacl_byname("f", 0);
        for (const char *command : commands)
            EXPECT_EQ(do_extended_end("f", command), 0) << command;
        return *list;
    }
};

uint32_t field_of(const Packet &p, const std::string &name) {
    const acl_info &i = p.info;
    const std::map<std::string, uint32_t> values{
        {"src", ntohl(i.src_ip)},
        {"dst", ntohl(i.dst_ip)},
        {"sport", i.src_port},
        {"dport", i.dst_port},
        {"proto", i.proto},
        {"tos", (i.tos >> 1) & 0xF},
        {"precedence", i.tos >> 5},
        {"established", (i.tcp_flags & 0x14) != 0},
        {"icmp-type", i.icmp_type},
        {"igmp-type", i.igmp_type},
        {"ttl", i.ttl},
        {"dont-fragment", i.fragment_flags & 1},
        {"is-fragment", (i.fragment_flags >> 1) & 1},
        {"offset", i.offset_flags & 1},
        {"length", i.totallen},
        {"later-fragment", p.frag},
    };
    return values.at(name);
}

bool holds(const Values &values, const Packet &packet) {
    const uint32_t value = field_of(packet, values.field);
    for (const auto &[first, second] : values.pieces) {
        if (values.form == Values::kMasked && ((value ^ first) & second) == 0)
            return true;
        if (values.form == Values::kRanges && first <= value && value <= second)
            return true;
        if (values.form == Values::kStored && htonl(first) <= htonl(value) &&
            htonl(value) <= htonl(second))
            return true;
    }
    return false;
}

bool holds(const Region &region, const Packet &packet) {
    return std::all_of(region.begin(), region.end(),
                       [&](const Values &values) { return holds(values, packet); });
}

size_t naive_rule(const ipacl &list, const Packet &p) {
    return list.is_standard == 1 ? naive::standard_rule(list.ipacl_s, p.info)
                                 : naive::extended_rule(list.ipacl_e, p.info, p.frag);
}

uint32_t naive_result(const ipacl &list, const Packet &p) {
    return list.is_standard == 1 ? naive::check_standard(list.ipacl_s, p.info)
                                 : naive::check_extended(list.ipacl_e, p.info, p.frag);
}

// --- By hand: rules that can never match ---

TEST_F(Analysis, NamesTheOneRuleThatCoversAnother) {
    extend({"permit tcp any any", "permit udp any any", "deny tcp any any eq www"});
    EXPECT_EQ(dead(*e), Lines{"3: covered by 1"});
}

TEST_F(Analysis, NamesRulesThatCoverAnotherTogetherAndNoMore) {
    extend({"permit ip 10.0.0.0 255.128.0.0 any", "permit ip 10.0.0.0 255.255.0.0 any",
            "permit ip 10.128.0.0 255.128.0.0 any", "deny ip 10.0.0.0 255.0.0.0 any"});
    EXPECT_EQ(dead(*e), (Lines{"2: covered by 1", "4: covered by 1 3"}));
}

TEST_F(Analysis, ARuleThatOnlyLaterFragmentsReachIsReached) {
    extend({"permit tcp any any"});
    e->ipacl_e->flags |= IPACL_FLAG_ESTABLISHED;
    extend({"permit tcp any any eq 80"});
    EXPECT_EQ(dead(*e), Lines{});
    Packet packet;
    packet.info.proto = 6;
    packet.frag = true;
    EXPECT_EQ(decide(*e, packet).rule, 1U);
    packet.frag = false;
    packet.info.dst_port = 80;
    EXPECT_EQ(decide(*e, packet).rule, 2U);
}

TEST_F(Analysis, PortsCoverTogetherWhatHasNoPortCondition) {
    extend({"permit tcp any any lt 1000", "permit tcp any any gt 999", "deny tcp any any",
            "permit tcp any any neq 5"});
    EXPECT_EQ(dead(*e), (Lines{"3: covered by 1 2", "4: covered by 3"}));
}

TEST_F(Analysis, ContradictionsAndInactiveRulesAreSaid) {
    auto &both = extended("permit udp any any gt 5");
    both.flags |= IPACL_FLAG_TTL;
    both.ttl_flags = IPACL_OP_GT | IPACL_OP_LT;
    extended("deny udp any any").status = 0;
    extended("permit 300 any any");
    extended("deny ip any any tos 3").tos = 16;
    EXPECT_EQ(dead(*e), (Lines{"1: empty", "2: inactive", "3: empty", "4: empty"}));
}

TEST_F(Analysis, WithoutBothCompareFlagsAddressesAreNotTested) {
    auto &all = extended("permit ip 10.0.0.0 255.0.0.0 any");
    all.dst_compare_flag = 0;
    extend({"deny ip any any"});
    EXPECT_EQ(dead(*e), Lines{"2: covered by 1"});
}

TEST_F(Analysis, RangesHaveTheOrderOfStoredWords) {
    // From x.x.x.1 on, up to x.x.x.2: on this target every address that ends in .1 but for those
    // below 10.0.0.1 in stored order.
    standard("permit src-range 10.0.0.1 0.0.0.2");
    standard("deny 10.9.9.1");
    standard("deny 10.0.0.2");
    standard("deny 200.1.1.3");
    const bool by_last_octet = ip("0.0.0.1").s_addr > ip("1.0.0.0").s_addr;
    EXPECT_EQ(dead(*s), by_last_octet ? Lines{"2: covered by 1"} : Lines{"1: empty"});
}

TEST_F(Analysis, OddMasksAreTakenAsTheyAre) {
    standard("permit 0.0.0.0 0.0.0.1");
    standard("permit 0.0.0.1 0.0.0.1");
    standard("deny any");
    EXPECT_EQ(dead(*s), Lines{"3: covered by 1 2"});
}

TEST_F(Analysis, AnEmptyListHasNothingUnreachable) { EXPECT_EQ(dead(*e), Lines{}); }

// --- By hand: differences ---

TEST_F(Analysis, EqualListsHaveNoDifference) {
    extend({"permit ip 10.0.0.0 255.255.255.0 any", "permit ip 10.0.1.0 255.255.255.0 any"});
    const ipacl &other = second({"permit ip 10.0.0.0 255.255.254.0 any"});
    EXPECT_FALSE(first_difference(*e, other));
    const Difference difference = diff(*e, other, 10);
    EXPECT_TRUE(difference.changes.empty());
    EXPECT_TRUE(difference.complete);
    EXPECT_EQ(difference.share, 0);
}

TEST_F(Analysis, ADifferenceIsAReadableRegionWithAWitness) {
    extend({"permit tcp 10.0.0.0 255.255.255.0 any eq www", "deny ip any any"});
    const ipacl &other = second({"permit tcp 10.0.0.0 255.255.255.0 any eq www",
                                 "permit icmp 192.0.2.7 "
                                 "255.255.255.255 10.0.0.0 255.0.0.0 ttl gt 9",
                                 "deny ip any any"});
    const Difference difference = diff(*e, other, 10);
    ASSERT_EQ(difference.changes.size(), 1U);
    const Change &change = difference.changes[0];
    EXPECT_EQ(region_text(change.region), "src 192.0.2.7 dst 10.0.0.0/8 proto icmp ttl 10-255");
    EXPECT_EQ(packet_text(change.witness), "icmp 192.0.2.7 > 10.0.0.0");
    EXPECT_EQ(change.before.rule, 2U);
    EXPECT_EQ(change.after.rule, 2U);
    EXPECT_EQ(result_text(change.before.result), "deny");
    EXPECT_EQ(result_text(change.after.result), "permit");
    EXPECT_TRUE(difference.complete);
    EXPECT_DOUBLE_EQ(difference.share.value(), 0x1p-32 * 0x1p-8 * 0x1p-8 * 246 / 256);
}

TEST_F(Analysis, RegionsNameRangesOddMasksAndOptions) {
    extend({"deny ip any any"});
    const ipacl &other = second({"permit udp src-range 10.0.0.1 10.0.7.9 0.1.0.1 0.255.0.255 "
                                 "neq 53 precedence 6 donotfragment-set",
                                 "deny ip any any"});
    const Lines expected{
        "src range 10.0.0.1 10.0.7.9 dst 0.1.0.1 mask 0.255.0.255 dport 0-52, 54-65535 proto udp "
        "precedence 6 dont-fragment 1",
        "src range 10.0.0.1 10.0.7.9 dst 0.1.0.1 mask 0.255.0.255 proto udp precedence 6 "
        "dont-fragment 1 later-fragment 1"};
    if (ip("0.0.0.1").s_addr > ip("1.0.0.0").s_addr) {
        EXPECT_EQ(regions(*e, other), expected);
    }
}

TEST_F(Analysis, ChangingOneRulesActionOrLogIsADifference) {
    extend({"permit ip any any"});
    const ipacl &other = second({"permit ip any any"});
    EXPECT_EQ(regions(*e, other), Lines{});
    other.ipacl_e->flags |= IPACL_FLAG_LOG;
    EXPECT_EQ(regions(*e, other), Lines{"every packet"});
}

TEST_F(Analysis, NoRulesAndNoMatchDiffer) {
    const ipacl &other = second({"permit ip any any"});
    other.ipacl_e->status = 0;
    const auto changes = diff(*e, other, 10).changes;
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(region_text(changes[0].region), "every packet");
    EXPECT_EQ(result_text(changes[0].before.result), "the list has no rules");
    EXPECT_EQ(result_text(changes[0].after.result), "no rule matches");
}

TEST_F(Analysis, ListsOfBothKindsAreCompared) {
    standard("permit 10.0.0.0 255.0.0.0");
    extend({"permit ip 10.0.0.0 255.0.0.0 any"});
    EXPECT_FALSE(first_difference(*s, *e));
    extend({"permit gre any any"});
    EXPECT_EQ(regions(*s, *e), (Lines{"src 0.0.0.0-9.255.255.255, 11.0.0.0-255.255.255.255 "
                                      "proto gre"}));
}

TEST_F(Analysis, MoreRegionsThanAskedForAreLeftOut) {
    extend({"permit ip 10.0.0.0 255.0.0.0 any", "permit ip 20.0.0.0 255.0.0.0 any",
            "permit ip 30.0.0.1 255.0.0.255 any"});
    const ipacl &other = second({"deny ip any any"});
    const Difference difference = diff(*e, other, 1);
    EXPECT_EQ(difference.changes.size(), 1U);
    EXPECT_TRUE(difference.complete); // one region: nothing is permitted any more
    other.ipacl_e->flags = IPACL_FLAG_PERMIT;
    other.ipacl_e->protcol = 6;
    EXPECT_FALSE(diff(*e, other, 1).complete);
}

// --- By hand: merging and cost ---

TEST_F(Analysis, AMergeIsProvedWhenTheCopyDecidesAlike) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("permit 10.0.1.0 255.255.255.0");
    const Merge merged = merge(*s);
    EXPECT_FALSE(merged.witness);
    EXPECT_EQ(merged.rules, 2U);
    EXPECT_EQ(merged.merged_rules, 1U);
    EXPECT_EQ(merged.lines, Lines{"permit  10.0.0.0 255.255.254.0"});
}

TEST_F(Analysis, AMergeAcrossARuleOfTheOtherActionIsDisproved) {
    standard("permit 10.0.0.0 255.255.255.0");
    standard("deny 10.0.0.0 255.255.0.0");
    standard("permit 10.0.1.0 255.255.255.0");
    const Merge merged = merge(*s);
    ASSERT_TRUE(merged.witness);
    EXPECT_EQ(packet_text(*merged.witness).substr(0, 9), "tcp 10.0.");
    EXPECT_EQ(result_text(merged.before.result), "deny");
    EXPECT_EQ(result_text(merged.after.result), "permit");
}

TEST_F(Analysis, TheCostIsTheProductOfDecomposedRanges) {
    extend({"permit tcp any src-portrange 1 65534 10.0.0.0 255.0.255.0 neq 0",
            "permit ip src-range 0.0.0.0 0.0.0.127 any", "deny ip any any ttl gt 1",
            "permit ip any any totallen lt 1024"});
    extended("permit tcp any any eq 1").flags |= IPACL_FLAG_ESTABLISHED;
    extended("permit udp any any").status = 0;
    const Plan cost = plan(*e);
    ASSERT_EQ(cost.rules.size(), 6U);
    EXPECT_EQ(cost.rules[0].sport, 30U);
    EXPECT_EQ(cost.rules[0].dport, 16U);
    EXPECT_EQ(cost.rules[0].entries, 30U * 16);
    // Stored, 0.0.0.127 has its last octet on top: 7 blocks below it and itself.
    if (ip("0.0.0.1").s_addr > ip("1.0.0.0").s_addr) {
        EXPECT_EQ(cost.rules[1].entries, 8U);
    }
    EXPECT_EQ(cost.rules[2].entries, 7U);
    EXPECT_EQ(cost.rules[3].entries, 1U);
    EXPECT_EQ(cost.rules[4].entries, 2U);
    EXPECT_EQ(cost.rules[5].entries, 0U);
    uint64_t total = 0;
    for (const RuleCost &rule : cost.rules)
        total += rule.entries;
    EXPECT_EQ(cost.entries, total);
    EXPECT_EQ(cost.merged_rules, 6U);
    EXPECT_EQ(cost.merged_entries, total);
}

// --- Small universes ---

// Random rules that can tell apart only the values listed in `reps`: every packet is decided like
// one that is made of them.
class Universe {
  public:
    explicit Universe(uint32_t seed) : dice(seed) {
        constexpr size_t kMaxPackets = 1500;
        size_t packets = reps(kLaterFragment).size();
        for (int tries = 0; tries < 8; tries++) {
            const auto field = dice.below(kLaterFragment);
            if (used_[field] || packets * reps(static_cast<int>(field)).size() > kMaxPackets)
                continue;
            used_[field] = true;
            packets *= reps(static_cast<int>(field)).size();
        }
    }

    ipacl_standard_rule standard_rule() {
        ipacl_standard_rule rule{};
        rule.flags = static_cast<uint16_t>(dice.below(4) | (dice.one_in(6) ? IPACL_FLAG_LOG : 0));
        rule.status = dice.one_in(10) ? 0 : 1;
        rule.compare_flag = dice.of<uint16_t>({1, 1, 2, 0});
        used_[kSource] = true;
        address(rule.srcaddr, rule.srcmsk, rule.src_begin_addr, rule.src_end_addr);
        return rule;
    }

    ipacl_extended_rule extended_rule() {
        ipacl_extended_rule rule{};
        rule.flags = static_cast<uint16_t>(1 + dice.one_in(2));
        if (dice.one_in(12))
            rule.flags = static_cast<uint16_t>(dice.below(8));
        rule.status = dice.one_in(10) ? 0 : 1;
        rule.protcol = IPACL_PROTOCOL_IP;
        if (used_[kProtocol] && !dice.one_in(3))
            rule.protcol = dice.of<uint16_t>({1, 2, 6, 6, 17, 17, 300});
        rule.src_compare_flag = dice.of<uint16_t>({1, 1, 1, 1, 2, 2, 2, 0});
        rule.dst_compare_flag = dice.of<uint16_t>({1, 1, 1, 1, 2, 2, 2, 3});
        rule.src_end_addr.s_addr = rule.dst_end_addr.s_addr = UINT32_MAX;
        if (used_[kSource])
            address(rule.srcaddr, rule.srcmsk, rule.src_begin_addr, rule.src_end_addr);
        if (used_[kDestination])
            address(rule.dstaddr, rule.dstmsk, rule.dst_begin_addr, rule.dst_end_addr);
        if (used_[kSourcePort])
            ports(rule.src_port, rule.src_port_flags, rule.src_begin_port, rule.src_end_port);
        if (used_[kDestinationPort])
            ports(rule.dst_port, rule.dst_port_flags, rule.dst_begin_port, rule.dst_end_port);
        options(rule);
        return rule;
    }

    // Calls fn(packet) for every packet.
    void for_each_packet(const std::function<void(const Packet &)> &fn) const {
        Packet packet;
        fill(packet, 0, fn);
    }

    Dice dice;

  private:
    enum {
        kSource,
        kDestination,
        kProtocol,
        kSourcePort,
        kDestinationPort,
        kTypes,
        kTosBits,
        kPrecedenceBits,
        kFlags,
        kFragmentBits,
        kTotalLength,
        kTimeToLive,
        kLaterFragment,
        kCount
    };

    // Masks and ranges that see the lowest two bits of the stored word, and whether any other is
    // set.
    void address(in_addr &addr, in_addr &mask, in_addr &begin, in_addr &end) {
        addr.s_addr = dice.below(4);
        mask.s_addr = dice.below(4) | (dice.one_in(2) ? ~3U : 0);
        if (dice.one_in(4))
            mask.s_addr = 0;
        begin.s_addr = dice.below(5);
        end.s_addr = dice.one_in(3) ? UINT32_MAX : begin.s_addr + dice.below(3);
        if (dice.one_in(16))
            std::swap(begin, end);
        begin.s_addr = std::min(begin.s_addr, 4U);
        if (end.s_addr >= 4)
            end.s_addr = UINT32_MAX;
    }

    // Conditions that see 0, 1, 2 and what is above.
    void ports(uint16_t &port, uint16_t &bits, uint16_t &begin, uint16_t &end) {
        port = static_cast<uint16_t>(dice.below(3));
        bits = dice.of<uint16_t>({0, 0, 1, 2, 4, 0x10, 0x20, 0x21, 0x30, 0x03, 0x37});
        begin = static_cast<uint16_t>(dice.below(4));
        end = dice.one_in(3) ? uint16_t{65535} : static_cast<uint16_t>(dice.below(3));
    }

    void option(ipacl_extended_rule &rule, int field, uint16_t bit) {
        if (used_[field] && dice.one_in(2))
            rule.flags = static_cast<uint16_t>(rule.flags | bit);
    }

    void options(ipacl_extended_rule &rule) {
        option(rule, kTypes, IPACL_FLAG_ICMP_TYPE);
        option(rule, kTypes, IPACL_FLAG_IGMP_TYPE);
        if (used_[kTypes] && (rule.protcol == 1 || rule.protcol == 2))
            rule.src_port = dice.of<uint16_t>({0, 1, 300});
        option(rule, kTosBits, IPACL_FLAG_TOS);
        rule.tos = dice.of<uint8_t>({0, 1, 1, 16});
        option(rule, kPrecedenceBits, IPACL_FLAG_PRECEDENCE);
        rule.precedence = dice.of<uint8_t>({0, 1, 1, 9});
        option(rule, kFlags, IPACL_FLAG_ESTABLISHED);
        option(rule, kFragmentBits, IPACL_FLAG_DONT_FRAGMENT);
        option(rule, kFragmentBits, IPACL_FLAG_FRAGMENT);
        option(rule, kFragmentBits, IPACL_FLAG_OFFSET);
        rule.fragment_flags = static_cast<uint8_t>(dice.below(4));
        rule.offset_flags = static_cast<uint8_t>(dice.below(2));
        option(rule, kTotalLength, IPACL_FLAG_TOTALLEN);
        rule.totallen = static_cast<uint16_t>(dice.below(3));
        rule.totallen_flags = dice.of<uint16_t>({0, 1, 2, 4, 5, 0x12, 0x24});
        option(rule, kTimeToLive, IPACL_FLAG_TTL);
        rule.ttl = dice.of<uint16_t>({0, 1, 2, 300});
        rule.ttl_flags = dice.of<uint16_t>({0, 1, 2, 4, 6, 0x11, 0x24});
    }

    // What stands for all values of a field, and how each is put into a packet.
    static const std::vector<uint32_t> &reps(int field) {
        static const std::vector<uint32_t> kReps[kCount] = {
            {0, 1, 2, 3, 0x80000000, 5, 0x10002, 0xFFFFFFFF},
            {0, 1, 2, 3, 4, 0x10001, 6, 0xFFFFFFFF},
            {1, 2, 6, 17, 0},
            {0, 1, 2, 60000},
            {0, 1, 2, 3},
            {0x00, 0x01, 0x02, 0x10, 0x11, 0x12, 0x20, 0x21, 0x22},
            {0, 1, 15},
            {0, 1, 7},
            {0, 0x10, 0x04, 0x2B},
            {0, 1, 2, 3, 4, 5, 6, 7},
            {0, 1, 2, 0x10001},
            {0, 1, 2, 255},
            {0, 1}};
        return kReps[field];
    }

    static void put(Packet &p, int field, uint32_t value) {
        acl_info &i = p.info;
        const auto half = static_cast<uint16_t>(value);
        const auto byte = static_cast<uint8_t>(value);
        switch (field) {
        case kSource:
            i.src_ip = value;
            break;
        case kDestination:
            i.dst_ip = value;
            break;
        case kProtocol:
            i.proto = byte;
            break;
        case kSourcePort:
            i.src_port = half;
            break;
        case kDestinationPort:
            i.dst_port = half;
            break;
        case kTypes:
            i.icmp_type = byte & 0xF;
            i.igmp_type = byte >> 4;
            break;
        case kTosBits:
            i.tos = static_cast<uint8_t>((i.tos & 0xE1) | byte << 1);
            break;
        case kPrecedenceBits:
            i.tos = static_cast<uint8_t>((i.tos & 0x1F) | byte << 5);
            break;
        case kFlags:
            i.tcp_flags = byte;
            break;
        case kFragmentBits:
            i.fragment_flags = byte & 3;
            i.offset_flags = byte >> 2;
            break;
        case kTotalLength:
            i.totallen = value;
            break;
        case kTimeToLive:
            i.ttl = byte;
            break;
        default:
            p.frag = value != 0;
        }
    }

    void fill(Packet &packet, int field, const std::function<void(const Packet &)> &fn) const {
        if (field == kCount) {
            fn(packet);
            return;
        }
        for (const uint32_t value : reps(field)) {
            put(packet, field, value);
            fill(packet, field + 1, fn);
            // What no rule can see has one value.
            if (!used_[field] && field != kLaterFragment)
                break;
        }
    }

    bool used_[kCount] = {};
};

// A list that keeps its own rules.
struct Own {
    ipacl list{};
    std::vector<ipacl_standard_rule> standard;
    std::vector<ipacl_extended_rule> extended;

    void link() {
        const auto chain = [](auto &rules) {
            for (size_t i = 0; i < rules.size(); i++)
                rules[i].ipacl_next = i + 1 < rules.size() ? &rules[i + 1] : nullptr;
            return rules.empty() ? nullptr : rules.data();
        };
        list.ipacl_s = chain(standard);
        list.ipacl_e = chain(extended);
        list.rule_count = static_cast<uint32_t>(standard.size() + extended.size());
    }
    size_t size() const { return list.rule_count; }
};

class SmallUniverse : public ServiceTest {
  protected:
    explicit SmallUniverse() = default;

    void deal(Universe &universe, Own &own, bool is_standard) {
        own.list.is_standard = is_standard;
        for (uint32_t i = universe.dice.below(8); i > 0; i--) {
            if (is_standard)
                own.standard.push_back(universe.standard_rule());
            else
                own.extended.push_back(universe.extended_rule());
        }
        own.link();
    }

    // Another list like it: mostly the same rules.
    void alter(Universe &universe, Own &own) {
        const auto change = [&](auto &rules, auto &&new_rule) {
            for (uint32_t i = universe.dice.below(3); i > 0 && !rules.empty(); i--) {
                const uint32_t at = universe.dice.below(static_cast<uint32_t>(rules.size()));
                const uint32_t with = universe.dice.below(static_cast<uint32_t>(rules.size()));
                switch (universe.dice.below(4)) {
                case 0:
                    rules[at] = new_rule();
                    break;
                case 1:
                    rules.erase(rules.begin() + at);
                    break;
                case 2:
                    rules.insert(rules.begin() + at, new_rule());
                    break;
                default:
                    std::swap(rules[at], rules[with]);
                }
            }
        };
        if (own.list.is_standard)
            change(own.standard, [&] { return universe.standard_rule(); });
        else
            change(own.extended, [&] { return universe.extended_rule(); });
        own.link();
    }

    // Which rules of a list take a packet, whatever stands before them.
    static std::vector<bool> takers(const Own &own, const Packet &packet) {
        std::vector<bool> takes;
        const auto ask = [&](auto rule, bool is_standard) {
            ipacl alone{};
            rule.ipacl_next = nullptr;
            if constexpr (std::is_same_v<decltype(rule), ipacl_standard_rule>)
                alone.ipacl_s = &rule;
            else
                alone.ipacl_e = &rule;
            alone.is_standard = is_standard;
            takes.push_back(naive_rule(alone, packet) == 1);
        };
        for (const auto &rule : own.standard)
            ask(rule, true);
        for (const auto &rule : own.extended)
            ask(rule, false);
        return takes;
    }

    void check_unreachable(const Universe &universe, const Own &own) {
        std::vector<bool> decides(own.size() + 1), takes_any(own.size());
        std::vector<std::vector<bool>> packets;
        universe.for_each_packet([&](const Packet &packet) {
            decides[naive_rule(own.list, packet)] = true;
            packets.push_back(takers(own, packet));
            for (size_t i = 0; i < own.size(); i++)
                takes_any[i] = takes_any[i] || packets.back()[i];
        });
        std::map<size_t, Unreachable> found;
        for (const auto &u : unreachable(own.list))
            found[u.rule] = u;
        for (size_t i = 0; i < own.size(); i++) {
            ASSERT_EQ(found.count(i + 1), !decides[i + 1]) << "rule " << i + 1;
            if (decides[i + 1])
                continue;
            const auto &u = found[i + 1];
            ASSERT_EQ(u.reason == Unreachable::kCovered, takes_any[i]) << "rule " << i + 1;
            check_cover(packets, i, u.covering);
        }
    }

    // A cover covers, comes before, and holds no rule that it could do without.
    static void check_cover(const std::vector<std::vector<bool>> &packets, size_t rule,
                            const std::vector<size_t> &covering) {
        std::vector<bool> needed(covering.size());
        for (const auto &takes : packets) {
            if (!takes[rule])
                continue;
            size_t coverers = 0, last = 0;
            for (size_t n = 0; n < covering.size(); n++)
                if (takes[covering[n] - 1]) {
                    coverers++;
                    last = n;
                }
            ASSERT_GT(coverers, 0U) << "rule " << rule + 1 << " is not covered";
            if (coverers == 1)
                needed[last] = true;
        }
        for (size_t n = 0; n < covering.size(); n++) {
            ASSERT_LE(covering[n], rule);
            ASSERT_TRUE(needed[n]) << "rule " << rule + 1 << " is covered without " << covering[n];
        }
    }

    void check_diff(const Universe &universe, const ipacl &a, const ipacl &b) {
        const Difference difference = diff(a, b, 100000);
        ASSERT_TRUE(difference.complete);
        bool any = false;
        universe.for_each_packet([&](const Packet &packet) {
            const bool differs = naive_result(a, packet) != naive_result(b, packet);
            const bool told = std::any_of(difference.changes.begin(), difference.changes.end(),
                                          [&](const Change &c) { return holds(c.region, packet); });
            any = any || differs;
            if (differs != told)
                FAIL() << packet_text(packet) << (told ? " does not differ" : " is missing");
        });
        ASSERT_EQ(any, !difference.changes.empty());
        ASSERT_EQ(any, difference.share.value() > 0);
        for (const Change &change : difference.changes) {
            ASSERT_TRUE(holds(change.region, change.witness));
            ASSERT_EQ(change.before.result, naive_result(a, change.witness));
            ASSERT_EQ(change.after.result, naive_result(b, change.witness));
            ASSERT_EQ(change.before.rule, naive_rule(a, change.witness));
            ASSERT_EQ(change.after.rule, naive_rule(b, change.witness));
        }
        const auto witness = first_difference(a, b);
        ASSERT_EQ(any, witness.has_value());
        if (witness) {
            ASSERT_NE(naive_result(a, *witness), naive_result(b, *witness));
        }
    }

    void check_merge(const Universe &universe, const ipacl &list) {
        ipacl *copy = nullptr;
        ASSERT_EQ(acl_rule_merger_create_upper_ipacl(&list, &copy), IPACL_MERGE_RC_OK);
        bool differs = false;
        universe.for_each_packet([&](const Packet &packet) {
            differs = differs || naive_result(list, packet) != naive_result(*copy, packet);
        });
        delete_acl_rule_location(copy, nullptr, 0);
        sys_mem_free(copy);
        ASSERT_EQ(merge(list).witness.has_value(), differs);
    }
};

// IPACL_ANALYSIS_PAIRS pairs of lists, or as many as an ordinary run has time for.
uint32_t pairs_to_try() {
    const char *wanted = getenv("IPACL_ANALYSIS_PAIRS");
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr uint32_t kPairs = 150;
#else
    constexpr uint32_t kPairs = 1500;
#endif
    return wanted ? static_cast<uint32_t>(strtoul(wanted, nullptr, 10)) : kPairs;
}

TEST_F(SmallUniverse, EveryAnswerAgreesWithEveryPacketOfIt) {
    const char *first = getenv("IPACL_ANALYSIS_FIRST");
    const uint32_t from = first ? static_cast<uint32_t>(strtoul(first, nullptr, 10)) : 0;
    for (uint32_t pair = from; pair < from + pairs_to_try(); pair++) {
        SCOPED_TRACE("pair " + std::to_string(pair));
        Universe universe(pair);
        Own a, b;
        const bool is_standard = universe.dice.one_in(4);
        deal(universe, a, is_standard);
        if (universe.dice.one_in(3)) {
            deal(universe, b, universe.dice.one_in(8) != is_standard);
        } else {
            b = a;
            alter(universe, b);
        }
        check_unreachable(universe, a);
        check_diff(universe, a.list, b.list);
        check_merge(universe, a.list);
        if (HasFatalFailure() || HasNonfatalFailure())
            break;
    }
}

// --- Large lists ---

class LargeLists : public ServiceTest {
  protected:
    static constexpr int kRules = 1000;

    // Rules as they are found in the field, now and then odd ones.
    static ipacl_extended_rule rule(Dice &dice) {
        if (dice.one_in(10))
            return dice.extended_rule();
        ipacl_extended_rule r{};
        r.status = IPACL_RULE_ACTIVE;
        r.src_compare_flag = r.dst_compare_flag = IPACL_COMPARE_MASK;
        r.flags = dice.of<uint16_t>({1, 1, 2});
        r.protcol = dice.of<uint16_t>({6, 6, 6, 17, 17, 1, IPACL_PROTOCOL_IP});
        const auto block = [&](in_addr &addr, in_addr &mask) {
            mask.s_addr = htonl(UINT32_MAX << dice.below(17));
            addr.s_addr = htonl(0x0A000000 | (dice.word() & 0xFFFFFF)) & mask.s_addr;
        };
        block(r.srcaddr, r.srcmsk);
        if (!dice.one_in(4))
            block(r.dstaddr, r.dstmsk);
        r.dst_port_flags = dice.of<uint16_t>({0, 4, 4, 4, 0x20, 1});
        r.dst_port = dice.of<uint16_t>({22, 25, 53, 80, 443, 1023});
        r.dst_begin_port = dice.half();
        r.dst_end_port = static_cast<uint16_t>(r.dst_begin_port + dice.below(500));
        return r;
    }

    static void deal(Dice &dice, Own &own) {
        for (int i = 0; i < kRules; i++)
            own.extended.push_back(rule(dice));
        own.link();
    }

    // A packet near a random rule.
    static Packet packet_near(Dice &dice, const Own &own) {
        const auto &rules = own.extended;
        Packet packet;
        packet.info = dice.packet_near(rules[dice.below(static_cast<uint32_t>(rules.size()))]);
        packet.frag = dice.one_in(4);
        return packet;
    }

    static constexpr int kPackets = 30000;
};

TEST_F(LargeLists, NoPacketIsDecidedByAnUnreachableRule) {
    Dice dice(11);
    Own own;
    deal(dice, own);
    std::vector<bool> dead(kRules + 1);
    for (const auto &u : unreachable(own.list))
        dead[u.rule] = true;
    EXPECT_TRUE(std::count(dead.begin(), dead.end(), true) > kRules / 100);
    for (int i = 0; i < kPackets; i++) {
        const Packet packet = packet_near(dice, own);
        ASSERT_FALSE(dead[naive_rule(own.list, packet)]) << packet_text(packet);
    }
}

TEST_F(LargeLists, APacketIsInARegionExactlyWhenItsVerdictChanges) {
    Dice dice(12);
    Own a, b;
    deal(dice, a);
    b.extended = a.extended;
    for (int i = 0; i < 3; i++) {
        b.extended[dice.below(kRules)] = rule(dice);
        b.extended.erase(b.extended.begin() + dice.below(kRules - 3));
    }
    b.link();
    const Difference difference = diff(a.list, b.list, 1000);
    ASSERT_TRUE(difference.complete);
    ASSERT_FALSE(difference.changes.empty());
    Own changed; // look where something changes
    for (size_t i = 0; i < b.extended.size(); i++)
        if (memcmp(&b.extended[i].srcaddr, &a.extended[i].srcaddr, sizeof(in_addr)) != 0)
            changed.extended.push_back(a.extended[i]);
    int differing = 0;
    for (int i = 0; i < kPackets; i++) {
        const Packet packet = dice.one_in(2) ? packet_near(dice, a) : packet_near(dice, changed);
        const bool differs = naive_result(a.list, packet) != naive_result(b.list, packet);
        const bool told = std::any_of(difference.changes.begin(), difference.changes.end(),
                                      [&](const Change &c) { return holds(c.region, packet); });
        ASSERT_EQ(differs, told) << packet_text(packet);
        differing += differs;
    }
    EXPECT_GT(differing, 0);
}

TEST_F(LargeLists, ListsThatAreProvedEqualDecideEveryPacketAlike) {
    Dice dice(13);
    Own a, b;
    deal(dice, a);
    b.extended = a.extended;
    // Neighbours of one action change places, and what can never match goes.
    for (size_t i = 0; i + 1 < b.extended.size(); i += 2)
        if (((b.extended[i].flags ^ b.extended[i + 1].flags) & 7) == 0)
            std::swap(b.extended[i], b.extended[i + 1]);
    b.link();
    size_t gone = 0;
    for (const auto &u : unreachable(b.list))
        b.extended.erase(b.extended.begin() + static_cast<long>(u.rule - 1 - gone++));
    b.link();
    ASSERT_GT(gone, 0U);
    const auto witness = first_difference(a.list, b.list);
    ASSERT_FALSE(witness) << packet_text(*witness);
    for (int i = 0; i < kPackets; i++) {
        const Packet packet = packet_near(dice, a);
        ASSERT_EQ(naive_result(a.list, packet), naive_result(b.list, packet));
    }
}

TEST_F(LargeLists, UnrelatedListsAreToldApartByWitnesses) {
    Dice dice(14);
    Own a, b;
    deal(dice, a);
    deal(dice, b);
    const Difference difference = diff(a.list, b.list, 5);
    ASSERT_EQ(difference.changes.size(), 5U);
    EXPECT_FALSE(difference.complete);
    for (const Change &change : difference.changes) {
        EXPECT_TRUE(holds(change.region, change.witness));
        EXPECT_NE(naive_result(a.list, change.witness), naive_result(b.list, change.witness));
    }
    for (int i = 0; i < kPackets; i++) {
        const Packet packet = packet_near(dice, a);
        for (const Change &change : difference.changes)
            if (holds(change.region, packet)) {
                ASSERT_NE(naive_result(a.list, packet), naive_result(b.list, packet));
            }
    }
}

// Half of all addresses are compared with a wide range, in the order of stored words.
ipacl_extended_rule wide_rule(Dice &dice) {
    ipacl_extended_rule r{};
    r.status = IPACL_RULE_ACTIVE;
    r.flags = dice.of<uint16_t>({1, 2});
    r.protcol = dice.of<uint16_t>({6, 17, 1, IPACL_PROTOCOL_IP});
    const auto side = [&](uint16_t &flag, in_addr &addr, in_addr &mask, in_addr &begin,
                          in_addr &end) {
        if (dice.one_in(2)) {
            flag = IPACL_COMPARE_RANGE;
            std::tie(begin.s_addr, end.s_addr) = std::minmax({dice.word(), dice.word()});
        } else {
            flag = IPACL_COMPARE_MASK;
            mask.s_addr = htonl(UINT32_MAX << dice.below(25));
            addr.s_addr = dice.word() & mask.s_addr;
        }
    };
    side(r.src_compare_flag, r.srcaddr, r.srcmsk, r.src_begin_addr, r.src_end_addr);
    side(r.dst_compare_flag, r.dstaddr, r.dstmsk, r.dst_begin_addr, r.dst_end_addr);
    r.dst_port_flags = dice.of<uint16_t>({0, 4, 1});
    r.dst_port = dice.half();
    return r;
}

TEST_F(LargeLists, WideRangesTakeABoundedNumberOfNodes) {
    Dice dice(15);
    Own a, b;
    for (int i = 0; i < kRules; i++)
        a.extended.push_back(wide_rule(dice));
    a.link();
    constexpr long kMost = 5'000'000;
    long before = work();
    EXPECT_GT(unreachable(a.list).size(), size_t{kRules / 10});
    const long for_unreachable = work() - before;
    EXPECT_GT(for_unreachable, 0);
    EXPECT_LT(for_unreachable, kMost);
    b.extended = a.extended;
    for (int i = 0; i < 3; i++)
        b.extended[dice.below(kRules)] = wide_rule(dice);
    b.link();
    before = work();
    EXPECT_TRUE(diff(a.list, b.list, 1000).share);
    const long for_diff = work() - before;
    EXPECT_GT(for_diff, 0);
    EXPECT_LT(for_diff, kMost);
}

} // namespace
