// Which test of a rule fails: the first, by the matcher's own order.

#include "rules.h"

#include "acl_explain.h"

#include <functional>

namespace {

using Which = acl::Test;

template <class Rule>
bool matches(const Rule &rule, const acl_info &packet, bool frag);
template <>
bool matches(const ipacl_standard_rule &rule, const acl_info &packet, bool) {
    return ipacl_match_standard(&rule, &packet) != nullptr;
}
template <>
bool matches(const ipacl_extended_rule &rule, const acl_info &packet, bool frag) {
    return ipacl_match_extended(&rule, &packet, frag) != nullptr;
}

template <class Deal>
void compare(Deal &&deal, Dice &dice) {
    int matched = 0;
    constexpr int kTries = 200'000;
    for (int i = 0; i < kTries && !testing::Test::HasFailure(); i++) {
        const auto rule = deal();
        const acl_info packet = dice.packet_near(rule);
        const bool frag = dice.one_in(3);
        const bool takes = matches(rule, packet, frag);
        EXPECT_EQ(acl::first_failure(rule, packet, frag).test == Which::kNone, takes);
        matched += takes;
    }
    EXPECT_GT(matched, kTries / 10);
    EXPECT_LT(matched, kTries * 9 / 10);
}

TEST(Explain, NoTestFailsJustWhenTheWalkTakesThePacket) {
    Dice dice(71);
    compare([&] { return dice.extended_rule(); }, dice);
    compare([&] { return dice.standard_rule(); }, dice);
}

class FirstFailure : public TwoLists {
  protected:
    FirstFailure() {
        rule = &extended("permit tcp 10.0.0.0 255.0.0.0 gt 1023 192.0.2.0 255.255.255.0 eq 80 "
                         "tos 4 precedence 2 donotfragment-set not-fragment offset-zero "
                         "totallen gt 40 ttl gt 1");
        rule->flags |= IPACL_FLAG_ESTABLISHED;
        packet.src_ip = ip("10.1.2.3").s_addr;
        packet.dst_ip = ip("192.0.2.9").s_addr;
        packet.proto = 6;
        packet.src_port = 1024;
        packet.dst_port = 80;
        packet.tcp_flags = 0x10;
        packet.tos = 2 << 5 | 4 << 1;
        packet.fragment_flags = IPACL_DONT_FRAGMENT_SET;
        packet.totallen = 41;
        packet.ttl = 2;
    }
    ipacl_extended_rule *rule;
    acl_info packet{};
};

TEST_F(FirstFailure, IsTheFirstOfThoseThatFail) {
    struct Step {
        Which test;
        size_t option;
        std::function<void(acl_info &)> spoil;
    };
    const Step steps[] = {
        {Which::kSource, 0, [](acl_info &p) { p.src_ip = 0; }},
        {Which::kDestination, 0, [](acl_info &p) { p.dst_ip = 0; }},
        {Which::kProtocol, 0, [](acl_info &p) { p.proto = 17; }},
        {Which::kSourcePort, 0, [](acl_info &p) { p.src_port = 1; }},
        {Which::kDestinationPort, 0, [](acl_info &p) { p.dst_port = 81; }},
        {Which::kEstablished, 0, [](acl_info &p) { p.tcp_flags = 2; }},
        {Which::kOption, 0, [](acl_info &p) { p.tos ^= 2; }},
        {Which::kOption, 1, [](acl_info &p) { p.tos ^= 0x20; }},
        {Which::kOption, 2, [](acl_info &p) { p.fragment_flags ^= IPACL_DONT_FRAGMENT_SET; }},
        {Which::kOption, 3, [](acl_info &p) { p.fragment_flags ^= IPACL_IS_FRAGMENT; }},
        {Which::kOption, 4, [](acl_info &p) { p.offset_flags ^= IPACL_OFFSET_NOT_ZERO; }},
        {Which::kOption, 5, [](acl_info &p) { p.totallen = 40; }},
        {Which::kOption, 6, [](acl_info &p) { p.ttl = 1; }},
    };
    EXPECT_EQ(acl::first_failure(*rule, packet, false).test, Which::kNone);
    // From the last test on, everything behind a spoilt field is spoilt as well.
    for (size_t i = std::size(steps); i-- > 0;) {
        steps[i].spoil(packet);
        const auto failure = acl::first_failure(*rule, packet, false);
        EXPECT_EQ(failure.test, steps[i].test) << i;
        EXPECT_EQ(failure.option, steps[i].option) << i;
    }
    rule->status = 0;
    EXPECT_EQ(acl::first_failure(*rule, packet, false).test, Which::kActive);
}

TEST_F(FirstFailure, ALaterFragmentIsNotAskedForPortsAndFlags) {
    packet.src_port = packet.dst_port = packet.tcp_flags = 0;
    EXPECT_EQ(acl::first_failure(*rule, packet, true).test, Which::kNone);
    packet.ttl = 0;
    EXPECT_EQ(acl::first_failure(*rule, packet, true).test, Which::kOption);
}

TEST_F(FirstFailure, TypesOfMessages) {
    auto &icmp = extended("permit icmp any any");
    icmp.flags |= IPACL_FLAG_ICMP_TYPE;
    icmp.src_port = 8;
    acl_info ping{};
    ping.proto = 1;
    EXPECT_EQ(acl::first_failure(icmp, ping, false).test, Which::kIcmpType);
    ping.icmp_type = 8;
    EXPECT_EQ(acl::first_failure(icmp, ping, false).test, Which::kNone);
    auto &igmp = extended("permit igmp any any");
    igmp.flags |= IPACL_FLAG_IGMP_TYPE;
    igmp.src_port = 0x16;
    ping.proto = 2;
    EXPECT_EQ(acl::first_failure(igmp, ping, false).test, Which::kIgmpType);
}

TEST_F(FirstFailure, AStandardRuleAsksForTheSource) {
    const auto &hosts = standard("permit 10.0.0.0 255.255.255.0");
    EXPECT_EQ(acl::first_failure(hosts, packet, false).test, Which::kSource);
    packet.src_ip = ip("10.0.0.9").s_addr;
    EXPECT_EQ(acl::first_failure(hosts, packet, false).test, Which::kNone);
}

} // namespace
