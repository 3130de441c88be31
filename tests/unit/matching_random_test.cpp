// The matcher against a second, plain one: the same rule must decide about every packet.

#include "naive_matcher.h"
#include "rules.h"

namespace {

// Sanitizers make everything slow: there a tenth is tried.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kPairs = 1'100'000;
#else
constexpr int kPairs = 11'000'000;
#endif
constexpr int kPacketsOfAList = 64;

template <class Rule>
size_t position(const Rule *head, const Rule *rule) {
    size_t at = 0;
    for (const Rule *r = head; rule && r; r = r->ipacl_next) {
        at++;
        if (r == rule)
            return at;
    }
    return 0;
}

// A list of `count` random rules, linked.
template <class Rule, class F>
void deal(std::vector<Rule> &rules, uint32_t count, F &&rule) {
    rules.clear();
    for (uint32_t i = 0; i < count; i++)
        rules.push_back(rule());
    for (uint32_t i = 0; i + 1 < count; i++)
        rules[i].ipacl_next = &rules[i + 1];
}

// Tries `pairs` packets, each near a rule of a fresh random list. `check` compares one pair and
// tells whether a rule matched.
template <class Rule, class Deal, class Check>
void compare(Dice &dice, int pairs, Deal &&new_rule, Check &&check) {
    std::vector<Rule> rules;
    int matched = 0;
    for (int done = 0; done < pairs && !testing::Test::HasFailure(); done += kPacketsOfAList) {
        deal(rules, 1 + dice.below(12), new_rule);
        for (int i = 0; i < kPacketsOfAList; i++) {
            const Rule &target = rules[dice.below(static_cast<uint32_t>(rules.size()))];
            matched += check(rules.data(), target);
        }
    }
    EXPECT_GE(matched, pairs / 3) << "too few packets matched to tell anything";
}

TEST(RandomMatching, ExtendedListsAgreeInRuleAndResult) {
    Dice dice(1);
    compare<ipacl_extended_rule>(
        dice, kPairs, [&] { return dice.extended_rule(); },
        [&](ipacl_extended_rule *head, const ipacl_extended_rule &target) {
            const acl_info packet = dice.packet_near(target);
            const bool frag = dice.one_in(2);
            ipacl list{};
            list.ipacl_e = head;
            const size_t decides = naive::extended_rule(head, packet, frag);
            EXPECT_EQ(position(head, ipacl_match_extended(head, &packet, frag)), decides);
            EXPECT_EQ(ipacl_check_extended(&packet, &list, frag),
                      naive::check_extended(head, packet, frag));
            return decides != 0;
        });
}

TEST(RandomMatching, StandardListsAgreeInRuleAndResult) {
    Dice dice(2);
    compare<ipacl_standard_rule>(
        dice, kPairs / 4, [&] { return dice.standard_rule(); },
        [&](ipacl_standard_rule *head, const ipacl_standard_rule &target) {
            const acl_info packet = dice.packet_near(target);
            ipacl list{};
            list.ipacl_s = head;
            const size_t decides = naive::standard_rule(head, packet);
            EXPECT_EQ(position(head, ipacl_match_standard(head, &packet)), decides);
            EXPECT_EQ(ipacl_check_standard(&packet, &list), naive::check_standard(head, packet));
            return decides != 0;
        });
}

TEST(RandomMatching, NetworksAgreeInResult) {
    Dice dice(3);
    compare<ipacl_standard_rule>(
        dice, kPairs / 4, [&] { return dice.standard_rule(); },
        [&](ipacl_standard_rule *head, const ipacl_standard_rule &target) {
            const uint32_t addr = dice.packet_near(target).src_ip;
            const uint32_t mask =
                dice.one_in(2) ? dice.near(target.srcmsk.s_addr) : dice.mask().s_addr;
            ipacl list{};
            list.ipacl_s = head;
            EXPECT_EQ(ipacl_check_standard_network(addr, mask, &list),
                      naive::check_network(head, addr, mask));
            return naive::network_rule(head, addr, mask) != 0;
        });
}

} // namespace
