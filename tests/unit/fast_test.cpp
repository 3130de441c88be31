// The compiled form at its edges. That it agrees with the matcher at large is the matter of
// fast_agreement_test.cpp.

#include "acl_form.h"
#include "bench/rule_sets.h"
#include "rules.h"

#include <memory>
#include <new>
#include <thread>

namespace {

constexpr size_t kPlenty = 64 << 20;

using Halves = std::initializer_list<uint16_t>;
using Form = std::unique_ptr<acl_fast, decltype(&acl_fast_free)>;

Form compiled(const ipacl &list, size_t max_bytes = kPlenty) {
    return {acl_compile(&list, max_bytes), acl_fast_free};
}

// A list of given rules, which live as long as it does.
template <class Rule, Rule *ipacl::*head>
struct ListOf : ipacl {
    explicit ListOf(std::vector<Rule> content) : ipacl{}, rules(std::move(content)) {
        is_standard = std::is_same_v<Rule, ipacl_standard_rule>;
        this->*head = rule_sets::link(rules);
    }
    std::vector<Rule> rules;
};
using Standard = ListOf<ipacl_standard_rule, &ipacl::ipacl_s>;
using Extended = ListOf<ipacl_extended_rule, &ipacl::ipacl_e>;

ipacl_standard_rule permit_any() {
    ipacl_standard_rule rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.compare_flag = IPACL_COMPARE_MASK;
    rule.status = IPACL_RULE_ACTIVE;
    return rule;
}

ipacl_standard_rule permit(const char *address, const char *mask) {
    ipacl_standard_rule rule = permit_any();
    rule.srcaddr = ip(address);
    rule.srcmsk = ip(mask);
    return rule;
}

ipacl_extended_rule any_packet() {
    ipacl_extended_rule rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.protcol = IPACL_PROTOCOL_IP;
    rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
    rule.status = IPACL_RULE_ACTIVE;
    return rule;
}

acl_info from(const char *address) {
    acl_info packet{};
    packet.src_ip = ip(address).s_addr;
    return packet;
}

uint32_t deciding(const acl_fast *form, const acl_info &packet, int frag = 0) {
    uint32_t rule = UINT32_MAX;
    acl_fast_check(form, &packet, frag, &rule);
    return rule;
}

// The matcher and the compiled form say the same about one packet.
void expect_agreement(const Extended &list, const acl_fast *form, const acl_info &packet) {
    for (const int frag : {0, 1}) {
        const auto *rule = ipacl_match_extended(list.ipacl_e, &packet, frag);
        EXPECT_EQ(deciding(form, packet, frag), rule ? rule - list.ipacl_e + 1 : 0);
        EXPECT_EQ(acl_fast_check(form, &packet, frag, nullptr),
                  ipacl_check_extended(&packet, &list, frag));
    }
}

class Fast : public ServiceTest {};

TEST_F(Fast, ANullListOrFormIsNoList) {
    EXPECT_EQ(acl_compile(nullptr, kPlenty), nullptr);
    const acl_info packet{};
    uint32_t rule = 7;
    EXPECT_EQ(acl_fast_check(nullptr, &packet, 0, &rule), uint32_t{IPACL_CHECK_NO_LIST});
    EXPECT_EQ(rule, 0U);
    EXPECT_EQ(acl_fast_bytes(nullptr), 0U);
    acl_fast_free(nullptr);
}

TEST_F(Fast, AListWithoutRulesOrWithoutActiveOnesSaysWhich) {
    for (const bool is_standard : {false, true}) {
        ipacl empty{};
        empty.is_standard = is_standard;
        EXPECT_EQ(
            acl_fast_check(compiled(empty).get(), std::make_unique<acl_info>().get(), 0, nullptr),
            uint32_t{IPACL_CHECK_NO_RULES});
    }
    auto rule = permit_any();
    rule.status = 2;
    const Standard inactive({rule});
    EXPECT_EQ(
        acl_fast_check(compiled(inactive).get(), std::make_unique<acl_info>().get(), 0, nullptr),
        uint32_t{IPACL_CHECK_NO_MATCH});
}

TEST_F(Fast, PositionsCountInactiveRules) {
    auto inactive = permit_any();
    inactive.status = 0;
    const Standard list({inactive, permit("10.0.0.1", "255.255.255.255"), inactive, permit_any()});
    const Form form = compiled(list);
    EXPECT_EQ(deciding(form.get(), from("10.0.0.1")), 2U);
    EXPECT_EQ(deciding(form.get(), from("10.0.0.2")), 4U);
}

TEST_F(Fast, TheResultHoldsTheLogBit) {
    auto rule = permit_any();
    rule.flags = IPACL_FLAG_DENY | IPACL_FLAG_LOG | IPACL_FLAG_REMARK | IPACL_FLAG_REVERSE_MASK;
    const Standard list({rule});
    const acl_info packet{};
    EXPECT_EQ(acl_fast_check(compiled(list).get(), &packet, 0, nullptr), 6U);
}

TEST_F(Fast, RangesOrderAddressesAsStored) {
    auto range = permit_any();
    range.compare_flag = 0; // any value but 1 is a range
    range.src_begin_addr = ip("10.0.0.1");
    range.src_end_addr = ip("9.0.0.2");
    const Standard list({range});
    const Form form = compiled(list);
    for (const char *address :
         {"10.0.0.1", "9.0.0.1", "11.0.0.1", "0.0.0.2", "9.0.0.2", "10.0.0.2", "200.9.9.1"}) {
        const acl_info packet = from(address);
        EXPECT_EQ(acl_fast_check(form.get(), &packet, 0, nullptr),
                  ipacl_check_standard(&packet, &list))
            << address;
    }
    EXPECT_EQ(deciding(form.get(), from("200.0.0.1")), 1U);
    EXPECT_EQ(deciding(form.get(), from("10.0.0.2")), 0U);
}

TEST_F(Fast, ATurnedRangeMatchesNothing) {
    auto range = permit_any();
    range.compare_flag = IPACL_COMPARE_RANGE;
    range.src_begin_addr = ip("0.0.0.9");
    range.src_end_addr = ip("0.0.0.1");
    const Standard list({range});
    const Form form = compiled(list);
    for (const char *address : {"0.0.0.1", "0.0.0.5", "0.0.0.9", "255.255.255.255", "0.0.0.0"})
        EXPECT_EQ(deciding(form.get(), from(address)), 0U) << address;
}

TEST_F(Fast, MasksMayHaveAnyBits) {
    for (const char *mask : {"255.0.255.0", "0.0.0.255", "0.0.255.255", "254.255.255.255",
                             "0.0.0.1", "128.0.0.1", "255.255.255.254", "1.2.4.8"}) {
        const Standard list({permit("10.11.12.13", mask)});
        const Form form = compiled(list);
        for (int bit = 0; bit < 32; bit++) {
            acl_info packet = from("10.11.12.13");
            EXPECT_EQ(deciding(form.get(), packet), 1U);
            packet.src_ip ^= uint32_t{1} << bit;
            const bool compared = ip(mask).s_addr >> bit & 1;
            EXPECT_EQ(deciding(form.get(), packet), compared ? 0U : 1U) << mask << " " << bit;
        }
    }
}

TEST_F(Fast, TheFirstAndTheLastAddressHaveRows) {
    const Standard list(
        {permit("0.0.0.0", "255.255.255.255"), permit("255.255.255.255", "255.255.255.255")});
    const Form form = compiled(list);
    EXPECT_EQ(deciding(form.get(), from("0.0.0.0")), 1U);
    EXPECT_EQ(deciding(form.get(), from("255.255.255.255")), 2U);
    EXPECT_EQ(deciding(form.get(), from("255.255.255.254")), 0U);
    EXPECT_EQ(deciding(form.get(), from("0.0.0.1")), 0U);
}

TEST_F(Fast, EveryPairOfCompareFlags) {
    for (uint16_t pair = 0; pair < 16; pair++) {
        auto rule = any_packet();
        rule.src_compare_flag = pair / 4;
        rule.dst_compare_flag = pair % 4;
        rule.srcaddr = rule.src_begin_addr = rule.src_end_addr = ip("10.0.0.1");
        rule.dstaddr = rule.dst_begin_addr = rule.dst_end_addr = ip("10.0.0.2");
        rule.srcmsk = rule.dstmsk = ip("255.255.255.255");
        const Extended list({rule});
        const Form form = compiled(list);
        for (const char *src : {"10.0.0.1", "10.0.0.3"})
            for (const char *dst : {"10.0.0.2", "10.0.0.3"}) {
                acl_info packet = from(src);
                packet.dst_ip = ip(dst).s_addr;
                expect_agreement(list, form.get(), packet);
            }
    }
}

// Each combination of operators, around its operands and at the ends.
TEST_F(Fast, EveryCombinationOfPortOperators) {
    for (const uint16_t operand : Halves{0, 1, 100, 65534, 65535})
        for (uint16_t bits = 0; bits < 0x80; bits++) {
            auto rule = any_packet();
            rule.protcol = bits & 0x40 ? 17 : 6;
            rule.src_port_flags = rule.dst_port_flags = bits;
            rule.src_port = rule.dst_port = operand;
            rule.src_begin_port = rule.dst_begin_port = 99;
            rule.src_end_port = rule.dst_end_port = 101;
            const Extended list({rule});
            const Form form = compiled(list);
            for (const uint16_t port :
                 Halves{0, 1, 2, 98, 99, 100, 101, 102, 65533, 65534, 65535}) {
                acl_info packet{};
                packet.proto = static_cast<uint8_t>(rule.protcol);
                packet.src_port = port;
                packet.dst_port = bits & 0x10 ? port : operand;
                expect_agreement(list, form.get(), packet);
            }
        }
}

TEST_F(Fast, EveryCombinationOfComparisonOperators) {
    for (const uint16_t operand : Halves{0, 1, 200, 255, 256, 65535})
        for (uint16_t bits = 0; bits < 0x40; bits++) {
            auto rule = any_packet();
            rule.flags |= IPACL_FLAG_TOTALLEN;
            rule.totallen_flags = bits;
            rule.totallen = operand;
            auto ttl = any_packet();
            ttl.flags |= IPACL_FLAG_TTL;
            ttl.ttl_flags = bits;
            ttl.ttl = operand;
            const Extended list({rule, ttl});
            const Form form = compiled(list);
            for (const uint32_t value :
                 {0U, 1U, 2U, 199U, 200U, 201U, 254U, 255U, 256U, 65535U, 65536U, UINT32_MAX}) {
                acl_info packet{};
                packet.totallen = value;
                packet.ttl = static_cast<uint8_t>(value);
                expect_agreement(list, form.get(), packet);
            }
        }
}

// All bytes against rules that test one field, within what a packet can hold and beyond it.
TEST_F(Fast, EveryOptionOnEveryByte) {
    using Set = void (*)(ipacl_extended_rule &, uint16_t);
    constexpr Set kOptions[] = {
        [](auto &r, auto v) { r.flags |= IPACL_FLAG_TOS, r.tos = static_cast<uint8_t>(v); },
        [](auto &r, auto v) {
            r.flags |= IPACL_FLAG_PRECEDENCE, r.precedence = static_cast<uint8_t>(v);
        },
        [](auto &r, auto v) {
            r.flags |= IPACL_FLAG_DONT_FRAGMENT, r.fragment_flags = static_cast<uint8_t>(v);
        },
        [](auto &r, auto v) {
            r.flags |= IPACL_FLAG_FRAGMENT, r.fragment_flags = static_cast<uint8_t>(v);
        },
        [](auto &r, auto v) {
            r.flags |= IPACL_FLAG_OFFSET, r.offset_flags = static_cast<uint8_t>(v);
        },
        [](auto &r, auto) { r.flags |= IPACL_FLAG_ESTABLISHED; },
        [](auto &r, auto v) { r.protcol = 1, r.flags |= IPACL_FLAG_ICMP_TYPE, r.src_port = v; },
        [](auto &r, auto v) { r.protcol = 2, r.flags |= IPACL_FLAG_IGMP_TYPE, r.src_port = v; },
        [](auto &r, auto v) { r.protcol = 2, r.flags |= IPACL_FLAG_ICMP_TYPE, r.src_port = v; },
        [](auto &r, auto v) { r.protcol = 6, r.flags |= IPACL_FLAG_ICMP_TYPE, r.src_port = v; },
        [](auto &r, auto v) { r.protcol = v; },
    };
    for (const Set set : kOptions)
        for (const uint16_t value : Halves{0, 1, 2, 3, 5, 6, 7, 8, 15, 16, 255, 256, 300}) {
            auto rule = any_packet();
            set(rule, value);
            const Extended list({rule});
            const Form form = compiled(list);
            for (uint32_t byte = 0; byte < 256; byte++) {
                acl_info packet{};
                packet.tos = packet.tcp_flags = packet.fragment_flags = packet.offset_flags =
                    packet.icmp_type = packet.igmp_type = static_cast<uint8_t>(byte);
                packet.proto = static_cast<uint8_t>(rule.protcol < 7 ? rule.protcol : byte);
                expect_agreement(list, form.get(), packet);
            }
        }
}

TEST_F(Fast, OfEqualRulesTheFirstDecides) {
    const Standard list(std::vector<ipacl_standard_rule>(3000, permit_any()));
    EXPECT_EQ(deciding(compiled(list).get(), from("10.0.0.1")), 1U);
}

TEST_F(Fast, ListsOfManyPagesAreWalkedToTheirLastRule) {
    std::vector<ipacl_standard_rule> rules;
    for (uint32_t i = 0; i < 40'000; i++) {
        rules.push_back(permit("0.0.0.0", "255.255.255.255"));
        rules.back().srcaddr.s_addr = htonl(i * 7919);
    }
    const Standard list(std::move(rules));
    const Form form = compiled(list);
    ASSERT_TRUE(form);
    for (uint32_t i = 0; i < 40'000; i++) {
        acl_info packet{};
        packet.src_ip = htonl(i * 7919);
        EXPECT_EQ(deciding(form.get(), packet), i + 1);
        packet.src_ip = htonl(i * 7919 + 1);
        EXPECT_EQ(deciding(form.get(), packet), 0U);
    }
}

TEST_F(Fast, BatchesMayHaveAnySize) {
    const Standard list({permit("10.0.0.1", "255.255.255.255"), permit_any()});
    const Form form = compiled(list);
    for (const size_t count : std::initializer_list<size_t>{0, 1, 31, 32, 33, 64, 100}) {
        std::vector<acl_info> packets(count, from("10.0.0.2"));
        std::vector<acl_fast_answer> answers(count + 1, {99, 99});
        if (count > 0)
            packets.back() = from("10.0.0.1");
        acl_fast_check_many(form.get(), packets.data(), nullptr, count, answers.data());
        for (size_t i = 0; i < count; i++) {
            EXPECT_EQ(answers[i].rule, i + 1 == count ? 1U : 2U);
            EXPECT_EQ(answers[i].result, 1U);
        }
        EXPECT_EQ(answers[count].rule, 99U) << "written beyond the batch";
    }
}

TEST_F(Fast, AFormKeepsNothingOfItsList) {
    Standard list({permit("10.0.0.1", "255.255.255.255")});
    const Form form = compiled(list);
    list.rules[0] = permit_any();
    EXPECT_EQ(deciding(form.get(), from("10.0.0.2")), 0U);
    list.ipacl_s = nullptr;
    EXPECT_EQ(deciding(form.get(), from("10.0.0.1")), 1U);
}

TEST_F(Fast, ThreadsShareAForm) {
    Extended list(rule_sets::rules(rule_sets::kChain, 600, 5));
    const auto packets = rule_sets::packets(rule_sets::kChain, list.rules, 1000, 6);
    const Form form = compiled(list);
    std::vector<acl_fast_answer> answers[2];
    std::vector<std::thread> threads;
    for (auto &mine : answers) {
        mine.resize(packets.size());
        threads.emplace_back([&] {
            acl_fast_check_many(form.get(), packets.data(), nullptr, packets.size(), mine.data());
        });
    }
    for (auto &thread : threads)
        thread.join();
    for (size_t i = 0; i < packets.size(); i++) {
        const auto *rule = ipacl_match_extended(list.ipacl_e, &packets[i], 0);
        EXPECT_EQ(answers[0][i].rule, rule ? rule - list.ipacl_e + 1 : 0);
        EXPECT_EQ(answers[1][i].rule, answers[0][i].rule);
    }
}

TEST_F(Fast, ABoundTooLowIsRefusedAndLeavesNothing) {
    const Extended list(rule_sets::rules(rule_sets::kChain, 300, 7));
    const size_t before = fake::live_blocks();
    size_t refused = 0, enough = kPlenty;
    while (enough - refused > 1) {
        const size_t bound = refused + (enough - refused) / 2;
        if (const Form form = compiled(list, bound)) {
            EXPECT_LE(acl_fast_bytes(form.get()), bound);
            enough = bound;
        } else {
            refused = bound;
        }
        EXPECT_EQ(fake::live_blocks(), before);
    }
    EXPECT_GT(refused, 16'384U) << "too little to be true";
    EXPECT_LT(enough, 4U << 20);
    for (const size_t bound : {size_t{0}, size_t{1}, sizeof(acl_fast), refused / 2})
        EXPECT_FALSE(compiled(list, bound)) << bound;
    EXPECT_EQ(fake::live_blocks(), before);
}

TEST_F(Fast, MemoryIsCountedWholeAndGivenBack) {
    aclfast::Budget budget(1000);
    void *block = budget.allocate(800, 64);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 64, 0U);
    const auto sizes = fake::take_sizes();
    ASSERT_EQ(sizes.size(), 1U);
    EXPECT_EQ(budget.left(), 1000 - sizes[0]);
    EXPECT_THROW((void)budget.allocate(200, 8), std::bad_alloc);
    const volatile size_t everything = SIZE_MAX; // which the compiler would refuse
    EXPECT_THROW((void)budget.allocate(everything, 8), std::bad_alloc);
    budget.deallocate(block, 800, 64);
    EXPECT_EQ(budget.left(), 1000U);
    EXPECT_EQ(fake::live_blocks(), 0U);
}

// A form that can't be trimmed is still a form; anything else that fails is a refusal.
TEST_F(Fast, EveryAllocationMayFail) {
    const Extended list(rule_sets::rules(rule_sets::kFirewall, 700, 8));
    const auto packet = rule_sets::packets(rule_sets::kFirewall, list.rules, 1, 9)[0];
    fake::reset();
    const uint32_t rule = deciding(compiled(list).get(), packet);
    const int allocations = static_cast<int>(fake::allocations());
    int refused = 0;
    for (int nth = 1; nth <= allocations; nth++) {
        fake::fail_allocation(nth);
        const Form form = compiled(list);
        refused += !form;
        if (form)
            EXPECT_EQ(deciding(form.get(), packet), rule);
        else
            EXPECT_EQ(fake::live_blocks(), 0U);
    }
    EXPECT_GT(refused, allocations * 3 / 4);
    fake::fail_all_allocations(true);
    EXPECT_FALSE(compiled(list));
    fake::fail_all_allocations(false);
    EXPECT_TRUE(compiled(list));
    EXPECT_EQ(fake::live_blocks(), 0U);
}

} // namespace
