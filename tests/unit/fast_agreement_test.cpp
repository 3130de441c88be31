// The compiled form against the matcher: the same rule and the same result for every packet.
//
// IPACL_FAST_PAIRS in the environment sets the number of (list, packet) pairs; bench/fast-agree
// asks for a hundred million.

#include "acl_form.h"
#include "bench/rule_sets.h"
#include "linear_answer.h"
#include "rules.h"

#include <cinttypes>
#include <cstdlib>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kPairs = 100'000;
#else
constexpr uint64_t kPairs = 2'000'000;
#endif
constexpr size_t kPacketsOfAList = 500;
constexpr size_t kMostMemory = 64 << 20;

uint64_t pairs() {
    const char *text = getenv("IPACL_FAST_PAIRS");
    return text ? strtoull(text, nullptr, 10) : kPairs;
}

struct Question {
    std::vector<acl_info> packets;
    std::vector<uint8_t> frags;

    void ask(const acl_info &packet, bool frag) {
        packets.push_back(packet);
        frags.push_back(frag);
    }
};

// The answers of the library's own choice of a walk; every other walk must give the same.
std::vector<acl_fast_answer> ask(const acl_fast &form, const Question &question) {
    const size_t count = question.packets.size();
    std::vector<acl_fast_answer> answers(count), others(count);
    acl_fast_check_many(&form, question.packets.data(), question.frags.data(), count,
                        answers.data());
    if (form.columns.empty())
        return answers;
    for (aclfast::Walk *walk : aclfast::walks()) {
        for (size_t i = 0; i < count; i += aclfast::kTogether)
            walk(form, {&question.packets[i], &question.frags[i],
                        std::min(aclfast::kTogether, count - i), &others[i]});
        EXPECT_TRUE(std::equal(answers.begin(), answers.end(), others.begin(), same_answer));
    }
    return answers;
}

// Compares one list whose rules lie in one array; returns how many packets a rule decided.
uint64_t compare(const ipacl &list, const Question &question) {
    acl_fast *form = acl_compile(&list, kMostMemory);
    if (!form) {
        ADD_FAILURE() << "not compiled";
        return 0;
    }
    const auto answers = ask(*form, question);
    uint64_t decided = 0;
    for (size_t i = 0; i < answers.size() && !testing::Test::HasFailure(); i++) {
        const acl_fast_answer right = linear_answer(list, question.packets[i], question.frags[i]);
        EXPECT_EQ(answers[i].rule, right.rule);
        EXPECT_EQ(answers[i].result, right.result);
        if (i % 8 == 0) {
            uint32_t rule;
            EXPECT_EQ(acl_fast_check(form, &question.packets[i], question.frags[i], &rule),
                      right.result);
            EXPECT_EQ(rule, right.rule);
        }
        decided += right.rule != 0;
    }
    acl_fast_free(form);
    return decided;
}

// Mostly short lists, some of up to 2,000 rules.
uint32_t some_count(Dice &dice) {
    return dice.one_in(8) ? dice.below(2001) : dice.below(dice.of<uint32_t>({2, 12, 100, 600}));
}

// Compares lists made by `one`, which returns pairs and decided packets, until there are enough.
template <class F>
void repeat(uint64_t wanted, F &&one) {
    uint64_t done = 0, decided = 0;
    while (done < wanted && !testing::Test::HasFailure()) {
        const auto [pairs, hits] = one();
        done += pairs;
        decided += hits;
    }
    EXPECT_GE(decided, wanted / 3) << "too few packets matched to tell anything";
    printf("%" PRIu64 " pairs, %" PRIu64 " decided by a rule\n", done, decided);
}

// Makes a rule match few packets, so that rules far down a list decide too.
void narrow_address(Dice &dice, uint16_t &compare_flag, in_addr &mask) {
    if (compare_flag != IPACL_COMPARE_RANGE)
        compare_flag = IPACL_COMPARE_MASK;
    mask.s_addr |= dice.word() | dice.of({0x00FFFFFFU, 0xFFFF0000U, 0xFFFFU});
}
void narrow_addresses(Dice &dice, ipacl_standard_rule &rule) {
    narrow_address(dice, rule.compare_flag, rule.srcmsk);
}
void narrow_addresses(Dice &dice, ipacl_extended_rule &rule) {
    narrow_address(dice, rule.src_compare_flag, rule.srcmsk);
    narrow_address(dice, rule.dst_compare_flag, rule.dstmsk);
}

template <class Rule>
std::pair<uint64_t, uint64_t> wild_list(Dice &dice, ipacl &list, Rule *ipacl::*head,
                                        Rule (Dice::*deal)()) {
    std::vector<Rule> rules(some_count(dice));
    const bool narrow = dice.one_in(2);
    for (Rule &rule : rules) {
        rule = (dice.*deal)();
        if (narrow)
            narrow_addresses(dice, rule);
    }
    list.*head = rule_sets::link(rules);
    Question question;
    for (size_t i = 0; i < kPacketsOfAList; i++) {
        const Rule &near =
            rules.empty() ? Rule{} : rules[dice.below(static_cast<uint32_t>(rules.size()))];
        question.ask(dice.packet_near(near), dice.one_in(2));
    }
    return {question.packets.size(), compare(list, question)};
}

TEST(FastAgreement, WildExtendedLists) {
    Dice dice(11);
    repeat(pairs() / 2, [&] {
        ipacl list{};
        return wild_list(dice, list, &ipacl::ipacl_e, &Dice::extended_rule);
    });
}

TEST(FastAgreement, WildStandardLists) {
    Dice dice(12);
    repeat(pairs() / 4, [&] {
        ipacl list{};
        list.is_standard = 1;
        return wild_list(dice, list, &ipacl::ipacl_s, &Dice::standard_rule);
    });
}

TEST(FastAgreement, RuleSetsAsInTheField) {
    Dice dice(13);
    repeat(pairs() / 4, [&]() -> std::pair<uint64_t, uint64_t> {
        const auto kind = static_cast<rule_sets::Kind>(dice.below(rule_sets::kKinds));
        auto rules = rule_sets::rules(kind, 1 + some_count(dice), dice.word());
        Question question;
        for (const acl_info &packet : rule_sets::packets(kind, rules, kPacketsOfAList, dice.word()))
            question.ask(packet, dice.one_in(8));
        for (auto &rule : rules)
            if (dice.one_in(8))
                rule.status = 0;
        ipacl list{};
        list.ipacl_e = rule_sets::link(rules);
        return {question.packets.size(), compare(list, question)};
    });
}

} // namespace
