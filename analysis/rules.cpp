#include "rules.h"

#include "acl_words.h"

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>

namespace analysis {
namespace {

constexpr uint8_t kAck = 0x10, kRst = 0x04;

void set_bit(uint8_t &byte, uint8_t bit, uint32_t value) {
    byte = static_cast<uint8_t>(value ? byte | bit : byte & ~bit);
}

// A field that is a member of the descriptor.
template <auto member>
FieldInfo member_field(const char *name, int bits, std::vector<uint32_t> usual) {
    return {name, bits, [](const Packet &p) -> uint32_t { return p.info.*member; },
            [](Packet &p, uint32_t value) {
                auto &place = p.info.*member;
                place = static_cast<std::remove_reference_t<decltype(place)>>(value);
            },
            std::move(usual)};
}

template <uint32_t acl_info::*member>
FieldInfo address_field(const char *name) {
    return {name,
            32,
            [](const Packet &p) { return ntohl(p.info.*member); },
            [](Packet &p, uint32_t value) { p.info.*member = htonl(value); },
            {}};
}

// A field that is one bit of a member.
template <uint8_t acl_info::*member, uint8_t bit>
FieldInfo flag_field(const char *name) {
    return {name,
            1,
            [](const Packet &p) -> uint32_t { return (p.info.*member & bit) != 0; },
            [](Packet &p, uint32_t value) { set_bit(p.info.*member, bit, value); },
            {0}};
}

// Bits of the type-of-service byte.
template <int shift, int bits>
FieldInfo tos_field(const char *name) {
    constexpr uint32_t mask = (1U << bits) - 1;
    return {name,
            bits,
            [](const Packet &p) -> uint32_t { return p.info.tos >> shift & mask; },
            [](Packet &p, uint32_t value) {
                p.info.tos = static_cast<uint8_t>((p.info.tos & ~(mask << shift)) | value << shift);
            },
            {0}};
}

// NOLINTNEXTLINE: without memory at the start there is no tool
const FieldInfo kFields[kFieldCount] = {

    address_field<&acl_info::src_ip>("src"),
    address_field<&acl_info::dst_ip>("dst"),
    member_field<&acl_info::src_port>("sport", 16, {1024}),
    member_field<&acl_info::dst_port>("dport", 16, {80}),
    member_field<&acl_info::proto>("proto", 8, {6, 17, 1}),
    tos_field<1, 4>("tos"),
    tos_field<5, 3>("precedence"),
    {"established",
     1,
     [](const Packet &p) -> uint32_t { return (p.info.tcp_flags & (kAck | kRst)) != 0; },
     [](Packet &p, uint32_t value) { p.info.tcp_flags = value ? kAck : 0; },
     {0}},
    member_field<&acl_info::icmp_type>("icmp-type", 8, {0}),
    member_field<&acl_info::igmp_type>("igmp-type", 8, {0}),
    member_field<&acl_info::ttl>("ttl", 8, {64}),
    flag_field<&acl_info::fragment_flags, IPACL_DONT_FRAGMENT_SET>("dont-fragment"),
    flag_field<&acl_info::fragment_flags, IPACL_IS_FRAGMENT>("is-fragment"),
    flag_field<&acl_info::offset_flags, IPACL_OFFSET_NOT_ZERO>("offset"),
    member_field<&acl_info::totallen>("length", 32, {64}),
    {"later-fragment",
     1,
     [](const Packet &p) -> uint32_t { return p.frag; },
     [](Packet &p, uint32_t value) { p.frag = value != 0; },
     {0}},
};

Test spans(Field field, std::vector<Span> values) {
    return {field, Test::kSpans, std::move(values)};
}

Test equals(Field field, uint32_t value) {
    if (value > info(field).max())
        return spans(field, {});
    return spans(field, {{value, value}});
}

// The values that every operator lets through, of a field and an operand that may lie beyond it.
Test compare(Field field, uint16_t bits, uint32_t operand, Span range) {
    int64_t first = 0, last = info(field).max();
    if (bits & IPACL_OP_EQ) {
        first = std::max<int64_t>(first, operand);
        last = std::min<int64_t>(last, operand);
    }
    if (bits & IPACL_OP_GT)
        first = std::max<int64_t>(first, int64_t{operand} + 1);
    if (bits & IPACL_OP_LT)
        last = std::min<int64_t>(last, int64_t{operand} - 1);
    if (bits & IPACL_OP_RANGE) {
        first = std::max<int64_t>(first, range.first);
        last = std::min<int64_t>(last, range.last);
    }
    std::vector<Span> values;
    const auto add = [&](int64_t from, int64_t to) {
        if (from <= to)
            values.push_back({static_cast<uint32_t>(from), static_cast<uint32_t>(to)});
    };
    if (bits & IPACL_OP_NEQ) {
        add(first, std::min<int64_t>(last, int64_t{operand} - 1));
        add(std::max<int64_t>(first, int64_t{operand} + 1), last);
    } else {
        add(first, last);
    }
    return spans(field, std::move(values));
}

template <class Record>
Test address_test(Field field, const Record &rule, const acl_words::Address<Record> &f) {
    if (f.by_mask(rule)) {
        const uint32_t mask = ntohl((rule.*f.mask).s_addr);
        return {field, Test::kMasked, {}, ntohl((rule.*f.addr).s_addr) & mask, mask};
    }
    const Span span{(rule.*f.begin).s_addr, (rule.*f.end).s_addr};
    return {field, Test::kStored,
            span.first <= span.last ? std::vector{span} : std::vector<Span>{}};
}

// Keeps a test that tells something.
void add(std::vector<Test> &tests, Test test) {
    if (!test.always())
        tests.push_back(std::move(test));
}

Rule conditions(const ipacl_standard_rule &record) {
    Rule rule{};
    add(rule.always, address_test(kSrc, record, acl_words::kStandardSource));
    return rule;
}

Test port_test(Field field, const ipacl_extended_rule &record, const acl_words::Side &side) {
    return compare(field, record.*side.port_flags, record.*side.port,
                   {record.*side.begin_port, record.*side.end_port});
}

constexpr bool compared(uint16_t flag) {
    return flag == IPACL_COMPARE_MASK || flag == IPACL_COMPARE_RANGE;
}

void add_addresses(Rule &rule, const ipacl_extended_rule &record) {
    if (!compared(record.src_compare_flag) || !compared(record.dst_compare_flag))
        return;
    add(rule.always, address_test(kSrc, record, acl_words::kSource.address));
    add(rule.always, address_test(kDst, record, acl_words::kDestination.address));
}

void add_protocol(Rule &rule, const ipacl_extended_rule &record) {
    if (record.protcol == IPACL_PROTOCOL_IP)
        return;
    add(rule.always, equals(kProto, record.protcol));
    if (acl_words::has_ports(record.protcol)) {
        add(rule.whole, port_test(kSrcPort, record, acl_words::kSource));
        add(rule.whole, port_test(kDstPort, record, acl_words::kDestination));
    } else if (record.protcol == acl_words::kIcmp || record.protcol == acl_words::kIgmp) {
        if (record.flags & IPACL_FLAG_ICMP_TYPE)
            add(rule.whole, equals(kIcmpType, record.src_port));
        if (record.flags & IPACL_FLAG_IGMP_TYPE)
            add(rule.whole, equals(kIgmpType, record.src_port));
    }
}

// The field that an option of the vocabulary tests.
Field field_of(const acl_words::Option &option) {
    constexpr struct {
        uint16_t flag;
        Field field;
    } kRows[] = {
        {IPACL_FLAG_TOS, kTos},
        {IPACL_FLAG_PRECEDENCE, kPrecedence},
        {IPACL_FLAG_DONT_FRAGMENT, kDontFragment},
        {IPACL_FLAG_FRAGMENT, kIsFragment},
        {IPACL_FLAG_OFFSET, kOffset},
        {IPACL_FLAG_TOTALLEN, kLength},
        {IPACL_FLAG_TTL, kTtl},
    };
    for (const auto &row : kRows)
        if (row.flag == option.flag)
            return row.field;
    throw std::logic_error("the analysis does not know an option of the rules");
}

Test option_test(const acl_words::Option &option, const ipacl_extended_rule &record) {
    const Field field = field_of(option);
    switch (option.shape) {
    case acl_words::Option::kNumber:
        return equals(field, record.*option.byte);
    case acl_words::Option::kChoice:
        return equals(field, (record.*option.byte & option.bit) != 0);
    case acl_words::Option::kCompare:
        break;
    }
    constexpr uint16_t kComparisons = IPACL_OP_EQ | IPACL_OP_GT | IPACL_OP_LT;
    return compare(field, record.*option.op & kComparisons, record.*option.value, {});
}

Rule conditions(const ipacl_extended_rule &record) {
    Rule rule{};
    add_addresses(rule, record);
    add_protocol(rule, record);
    if (record.flags & IPACL_FLAG_ESTABLISHED)
        add(rule.whole, equals(kEstablished, 1));
    for (const auto &option : acl_words::kOptions)
        if (record.flags & option.flag)
            add(rule.always, option_test(option, record));
    return rule;
}

template <class Record>
std::vector<Rule> chain(const Record *record) {
    std::vector<Rule> rules;
    for (; record; record = record->ipacl_next) {
        Rule rule = conditions(*record);
        rule.number = rules.size() + 1;
        rule.active = record->status == IPACL_RULE_ACTIVE;
        rule.result = record->flags & (IPACL_FLAG_PERMIT | IPACL_FLAG_DENY | IPACL_FLAG_LOG);
        rules.push_back(std::move(rule));
    }
    return rules;
}

bool disjoint(const Test &a, const Test &b) {
    if (a.field != b.field || a.kind != b.kind)
        return false;
    if (a.kind == Test::kMasked)
        return ((a.address ^ b.address) & a.mask & b.mask) != 0;
    return std::none_of(a.spans.begin(), a.spans.end(), [&](const Span &x) {
        return std::any_of(b.spans.begin(), b.spans.end(),
                           [&](const Span &y) { return x.first <= y.last && y.first <= x.last; });
    });
}

} // namespace

const FieldInfo &info(Field field) { return kFields[field]; }

uint32_t stored(uint32_t address) { return htonl(address); }

bool Test::always() const {
    if (kind == kMasked)
        return mask == 0;
    const uint32_t max = info(field).max();
    return spans.size() == 1 && spans[0] == Span{0, max};
}

bool Test::holds(const Packet &packet) const {
    const uint32_t value = info(field).get(packet);
    if (kind == kMasked)
        return ((value ^ address) & mask) == 0;
    const uint32_t compared = kind == kStored ? stored(value) : value;
    return std::any_of(spans.begin(), spans.end(), [&](const Span &span) {
        return span.first <= compared && compared <= span.last;
    });
}

bool Rule::never() const {
    return std::any_of(always.begin(), always.end(), [](const Test &t) { return t.never(); });
}

bool plainly_disjoint(const Rule &a, const Rule &b) {
    return std::any_of(a.always.begin(), a.always.end(), [&](const Test &x) {
        return std::any_of(b.always.begin(), b.always.end(),
                           [&](const Test &y) { return disjoint(x, y); });
    });
}

std::vector<Rule> rules_of(const ipacl &list) {
    return list.is_standard == 1 ? chain(list.ipacl_s) : chain(list.ipacl_e);
}

} // namespace analysis
