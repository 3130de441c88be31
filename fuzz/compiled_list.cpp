// The compiled form of a list against the matcher: every walk gives the same result and the same
// deciding rule for every packet, with plenty of memory, with just enough, and none with too
// little. An input is a list of either kind, then packets, most of them near a rule.

#include "fuzz.h"

#include "acl_form.h"
#include "bench/rule_sets.h"
#include "linear_answer.h"
#include "rules.h"

#include <cstring>
#include <vector>

namespace {

using Standard = ipacl_standard_rule;
using Extended = ipacl_extended_rule;
using fuzz::require;

constexpr size_t kPlenty = 64 << 20;
constexpr size_t kMostRules = 17'000; // more than a mask has bits for pages
constexpr size_t kMostPackets = 80;

// --- Rules: any packet, or one at random; then changed field by field ---

uint16_t number(fuzz::Input &in) { return in.below(2) ? in.byte() : in.half(); }

// Prefixes as a network and as the stored word has them, and all else.
in_addr mask(fuzz::Input &in) {
    const uint8_t length = in.below(32);
    switch (in.below(4)) {
    case 0:
        return {htonl(~(UINT32_MAX >> length))};
    case 1:
        return {~(UINT32_MAX >> length)};
    case 2:
        return {UINT32_MAX};
    default:
        return {in.word()};
    }
}

void plain(Standard &rule) { rule.compare_flag = IPACL_COMPARE_MASK; }
void plain(Extended &rule) {
    rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
    rule.protcol = IPACL_PROTOCOL_IP;
}
void deal(Standard &rule, Dice &dice) { rule = dice.standard_rule(); }
void deal(Extended &rule, Dice &dice) { rule = dice.extended_rule(); }

void change(Standard &rule, fuzz::Input &in) {
    in_addr Standard::*const addresses[] = {&Standard::srcaddr, &Standard::srcmsk,
                                            &Standard::src_begin_addr, &Standard::src_end_addr};
    rule.*in.of(addresses) = mask(in);
    uint16_t Standard::*const numbers[] = {&Standard::flags, &Standard::compare_flag,
                                           &Standard::any_flag};
    rule.*in.of(numbers) = number(in);
}

void change(Extended &rule, fuzz::Input &in) {
    in_addr Extended::*const addresses[] = {&Extended::srcaddr,        &Extended::srcmsk,
                                            &Extended::dstaddr,        &Extended::dstmsk,
                                            &Extended::src_end_addr,   &Extended::src_begin_addr,
                                            &Extended::dst_begin_addr, &Extended::dst_end_addr};
    uint16_t Extended::*const numbers[] = {&Extended::src_port,
                                           &Extended::src_port_flags,
                                           &Extended::src_begin_port,
                                           &Extended::src_end_port,
                                           &Extended::dst_port,
                                           &Extended::dst_port_flags,
                                           &Extended::dst_begin_port,
                                           &Extended::dst_end_port,
                                           &Extended::totallen,
                                           &Extended::totallen_flags,
                                           &Extended::ttl,
                                           &Extended::ttl_flags,
                                           &Extended::src_compare_flag,
                                           &Extended::dst_compare_flag,
                                           &Extended::protcol};
    uint8_t Extended::*const bytes[] = {&Extended::tos, &Extended::precedence,
                                        &Extended::fragment_flags, &Extended::offset_flags};
    const uint16_t protocols[] = {1, 2, 6, 17, IPACL_PROTOCOL_IP};
    switch (in.below(5)) {
    case 0:
        rule.*in.of(addresses) = mask(in);
        break;
    case 1:
        rule.*in.of(numbers) = number(in);
        break;
    case 2:
        rule.*in.of(bytes) = in.byte();
        break;
    case 3:
        rule.flags = static_cast<uint16_t>(rule.flags ^ 1U << in.below(16));
        break;
    default:
        rule.protcol = in.of(protocols);
    }
}

// The same rule for the `n`th of many neighbours.
void move_on(Standard &rule, uint32_t n) {
    rule.srcaddr.s_addr += n;
    rule.src_begin_addr.s_addr += n;
    rule.src_end_addr.s_addr += n;
}
void move_on(Extended &rule, uint32_t n) {
    rule.srcaddr.s_addr += n;
    rule.dst_begin_addr.s_addr += n;
    rule.dst_port = static_cast<uint16_t>(rule.dst_port + n);
    rule.src_end_port = static_cast<uint16_t>(rule.src_end_port + n);
}

// How often a rule stands in the list: seldom often, for that takes time.
size_t repeats(uint8_t word) {
    if (word < 200)
        return 1;
    if (word < 250)
        return word - 198;
    return word < 255 ? size_t{2} * aclfast::Page::kRules : kMostRules;
}

template <class Rule>
std::vector<Rule> rules_of(fuzz::Input &in, Dice &dice) {
    std::vector<Rule> rules;
    for (uint8_t count = in.below(24); count > 0; count--) {
        Rule rule{};
        if (in.below(2)) {
            deal(rule, dice);
        } else {
            plain(rule);
            rule.flags = IPACL_FLAG_PERMIT;
            rule.status = IPACL_RULE_ACTIVE;
        }
        for (uint8_t changes = in.below(8); changes > 0; changes--)
            change(rule, in);
        if (in.below(16) == 15)
            rule.status = in.below(3);
        const size_t end = std::min(rules.size() + repeats(in.byte()), kMostRules);
        const uint32_t step = in.below(2) ? 1 : in.word();
        while (rules.size() < end) {
            rules.push_back(rule);
            move_on(rule, step);
        }
    }
    return rules;
}

// --- Packets ---

void change(acl_info &packet, fuzz::Input &in) {
    uint8_t acl_info::*const bytes[] = {
        &acl_info::proto,     &acl_info::tos, &acl_info::tcp_flags,      &acl_info::igmp_type,
        &acl_info::icmp_type, &acl_info::ttl, &acl_info::fragment_flags, &acl_info::offset_flags};
    switch (in.below(4)) {
    case 0:
        (in.below(2) ? packet.src_ip : packet.dst_ip) ^= mask(in).s_addr;
        break;
    case 1:
        (in.below(2) ? packet.src_port : packet.dst_port) = number(in);
        break;
    case 2:
        packet.totallen = in.below(2) ? number(in) : in.word();
        break;
    default:
        packet.*in.of(bytes) = in.byte();
    }
}

// Values of the rule's own, or right beside them: there its conditions end.
void touch(acl_info &packet, const Standard &rule, fuzz::Input &in) {
    const in_addr source[] = {rule.srcaddr, rule.src_begin_addr, rule.src_end_addr};
    packet.src_ip = in.of(source).s_addr + in.below(3) - 1;
}
void touch(acl_info &packet, const Extended &rule, fuzz::Input &in) {
    const in_addr source[] = {rule.srcaddr, rule.src_begin_addr, rule.src_end_addr};
    const in_addr destination[] = {rule.dstaddr, rule.dst_begin_addr, rule.dst_end_addr};
    const uint16_t source_ports[] = {rule.src_port, rule.src_begin_port, rule.src_end_port};
    const uint16_t destination_ports[] = {rule.dst_port, rule.dst_begin_port, rule.dst_end_port};
    const uint32_t step = in.below(3) - 1U;
    switch (in.below(6)) {
    case 0:
        packet.src_ip = in.of(source).s_addr + step;
        break;
    case 1:
        packet.dst_ip = in.of(destination).s_addr + step;
        break;
    case 2:
        packet.src_port = static_cast<uint16_t>(in.of(source_ports) + step);
        break;
    case 3:
        packet.dst_port = static_cast<uint16_t>(in.of(destination_ports) + step);
        break;
    case 4:
        packet.totallen = rule.totallen + step;
        break;
    default:
        packet.ttl = static_cast<uint8_t>(rule.ttl + step);
    }
}

struct Question {
    std::vector<acl_info> packets;
    std::vector<uint8_t> frags;
    std::vector<acl_fast_answer> answers; // the right ones
    bool any_fragment = false;

    const uint8_t *fragments() const { return any_fragment ? frags.data() : nullptr; }
};

template <class Rule>
Question question_about(const ipacl &list, const std::vector<Rule> &rules, fuzz::Input &in,
                        Dice &dice) {
    Question question;
    question.any_fragment = in.below(2);
    while (!in.empty() && question.packets.size() < kMostPackets) {
        const size_t near = in.half();
        const Rule rule = rules.empty() ? Rule{} : rules[near % rules.size()];
        acl_info packet = dice.packet_near(rule);
        for (uint8_t touches = in.below(3); touches > 0; touches--)
            touch(packet, rule, in);
        for (uint8_t changes = in.below(4); changes > 0; changes--)
            change(packet, in);
        question.packets.push_back(packet);
        question.frags.push_back(question.any_fragment ? in.below(2) : 0);
        question.answers.push_back(linear_answer(list, packet, question.frags.back()));
    }
    return question;
}

// --- What must hold ---

void expect(const Question &question, const std::vector<acl_fast_answer> &answers) {
    require(std::equal(answers.begin(), answers.end(), question.answers.begin(), same_answer),
            "form and matcher say the same");
}

void expect_right(const acl_fast &form, const Question &question) {
    const size_t count = question.packets.size();
    std::vector<acl_fast_answer> answers(count);
    acl_fast_check_many(&form, question.packets.data(), question.fragments(), count,
                        answers.data());
    expect(question, answers);
    for (size_t i = 0; i < count; i++)
        answers[i].result =
            acl_fast_check(&form, &question.packets[i], question.frags[i], &answers[i].rule);
    expect(question, answers);
    if (form.columns.empty())
        return;
    for (aclfast::Walk *walk : aclfast::walks()) {
        const uint8_t *frags = question.fragments();
        for (size_t i = 0; i < count; i += aclfast::kTogether)
            walk(form, {&question.packets[i], frags ? frags + i : nullptr,
                        std::min(aclfast::kTogether, count - i), &answers[i]});
        expect(question, answers);
    }
}

// A form made with less memory than plenty, or null: one compilation more, for they take time.
acl_fast *made_short(const ipacl &list, size_t size, fuzz::Input &in) {
    const size_t number = in.below(2) ? in.byte() : in.word();
    acl_fast *form = nullptr;
    size_t bound = kPlenty;
    switch (in.below(4)) {
    case 0:
        bound = size + number % kPlenty;
        form = acl_compile(&list, bound);
        break;
    case 1:
        require(!acl_compile(&list, number % size), "a form does not fit into less than it holds");
        break;
    case 2:
        fake::fail_allocation(static_cast<int>(number % 256));
        form = acl_compile(&list, bound);
        fake::fail_allocation(0);
        break;
    default:
        break;
    }
    require(acl_fast_bytes(form) <= bound, "a form keeps to its bound");
    return form;
}

template <class Rule>
void play_kind(fuzz::Input &in, Rule *ipacl::*head, bool is_standard) {
    const std::string_view bytes = in.bytes(6);
    fuzz::Input shortness(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    Dice dice(in.byte());
    std::vector<Rule> rules = rules_of<Rule>(in, dice);
    ipacl list{};
    list.is_standard = is_standard;
    list.*head = rule_sets::link(rules);
    const Question question = question_about(list, rules, in, dice);

    acl_fast *form = acl_compile(&list, kPlenty);
    require(form, "plenty of memory is enough");
    acl_fast *other = made_short(list, acl_fast_bytes(form), shortness);
    for (Rule &rule : rules) // a form keeps nothing of its list
        memset(static_cast<void *>(&rule), 0xA5, sizeof rule);
    for (acl_fast *made : {form, other}) {
        if (made)
            expect_right(*made, question);
        acl_fast_free(made);
    }
}

} // namespace

void fuzz::play(Input &in) {
    const size_t start = fake::mark();
    if (in.below(2))
        play_kind(in, &ipacl::ipacl_s, true);
    else
        play_kind(in, &ipacl::ipacl_e, false);
    require(fake::free_lost(start) == 0, "no memory is lost");
    fake::take_sizes();
}
