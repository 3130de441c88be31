#include "rules.h"

#include <utility>

namespace {

constexpr uint16_t kOptionBits[] = {
    IPACL_FLAG_ICMP_TYPE, IPACL_FLAG_IGMP_TYPE,  IPACL_FLAG_TIME_RANGE,    IPACL_FLAG_ESTABLISHED,
    IPACL_FLAG_TOS,       IPACL_FLAG_PRECEDENCE, IPACL_FLAG_DONT_FRAGMENT, IPACL_FLAG_FRAGMENT,
    IPACL_FLAG_TOTALLEN,  IPACL_FLAG_TTL,        IPACL_FLAG_REMARK,        IPACL_FLAG_REVERSE_MASK,
    IPACL_FLAG_OFFSET};

} // namespace

void Dice::range(in_addr &begin, in_addr &end) {
    begin.s_addr = word();
    end.s_addr = begin.s_addr + (one_in(2) ? below(1U << 24) : word() >> below(32));
    if (one_in(16))
        std::swap(begin, end);
}

ipacl_standard_rule Dice::standard_rule() {
    ipacl_standard_rule rule{};
    rule.flags = static_cast<uint16_t>(below(8));
    for (const uint16_t bit : {IPACL_FLAG_REMARK, IPACL_FLAG_REVERSE_MASK})
        if (one_in(8))
            rule.flags = static_cast<uint16_t>(rule.flags | bit);
    rule.compare_flag = of<uint16_t>({1, 1, 1, 1, 2, 2, 2, 0, 3});
    rule.any_flag = static_cast<uint16_t>(below(2));
    rule.status = one_in(8) ? of({0, 2, -1}) : 1;
    rule.srcaddr.s_addr = word();
    rule.srcmsk = mask();
    range(rule.src_begin_addr, rule.src_end_addr);
    return rule;
}

ipacl_extended_rule Dice::extended_rule() {
    ipacl_extended_rule rule{};
    rule.protcol = of<uint16_t>({1, 2, 6, 6, 6, 17, 17, 47, 132, 0xFFFF, 0xFFFF, byte()});
    rule.flags = static_cast<uint16_t>(below(8));
    for (const uint16_t bit : kOptionBits)
        if (one_in(6))
            rule.flags = static_cast<uint16_t>(rule.flags | bit);
    rule.src_compare_flag = of<uint16_t>({1, 1, 1, 1, 2, 2, 2, 2, 0, 3});
    rule.dst_compare_flag = of<uint16_t>({1, 1, 1, 1, 2, 2, 2, 2, 0, 3});
    rule.srcaddr.s_addr = word();
    rule.srcmsk = mask();
    range(rule.src_begin_addr, rule.src_end_addr);
    rule.dstaddr.s_addr = word();
    rule.dstmsk = mask();
    range(rule.dst_begin_addr, rule.dst_end_addr);
    const auto operators = [&] {
        return one_in(6) ? static_cast<uint16_t>(below(64))
                         : of<uint16_t>({0, 0, 0, 1, 2, 4, 0x10, 0x20, 0x21, 0x30});
    };
    rule.src_port_flags = operators();
    rule.dst_port_flags = operators();
    rule.src_port = one_in(2) ? static_cast<uint16_t>(below(256)) : half();
    rule.dst_port = half();
    rule.src_begin_port = half();
    rule.src_end_port = static_cast<uint16_t>(rule.src_begin_port + below(200));
    rule.dst_begin_port = half();
    rule.dst_end_port = static_cast<uint16_t>(rule.dst_begin_port + below(200));
    rule.tos = static_cast<uint8_t>(below(16));
    rule.precedence = static_cast<uint8_t>(below(8));
    rule.fragment_flags = static_cast<uint8_t>(below(4));
    rule.offset_flags = static_cast<uint8_t>(below(2));
    rule.totallen = half();
    rule.totallen_flags = of<uint16_t>({0, 1, 2, 4, 4, 5, 3, 0x14, 0x21});
    rule.ttl = one_in(8) ? half() : byte();
    rule.ttl_flags = of<uint16_t>({0, 1, 2, 4, 4, 6, 7, 0x11});
    rule.status = one_in(8) ? of({0, 2, -1}) : 1;
    return rule;
}

uint32_t Dice::address_near(bool by_mask, in_addr addr, in_addr mask, in_addr begin, in_addr end) {
    if (by_mask)
        return (addr.s_addr & mask.s_addr) | (word() & ~mask.s_addr);
    if (one_in(3))
        return near(one_in(2) ? begin.s_addr : end.s_addr);
    const uint32_t size = end.s_addr - begin.s_addr;
    return begin.s_addr + (size == UINT32_MAX ? word() : below(size + 1));
}

uint16_t Dice::port_near(uint16_t bits, uint16_t port, uint16_t begin, uint16_t end) {
    if (bits & IPACL_OP_RANGE)
        return near(one_in(2) ? begin : end);
    if (bits & IPACL_OP_GT)
        return static_cast<uint16_t>(port + 1 + below(3));
    if (bits & (IPACL_OP_LT | IPACL_OP_NEQ))
        return static_cast<uint16_t>(port - 1 - below(3));
    return one_in(8) ? near(port) : port;
}

void Dice::mutate(acl_info &p) {
    switch (below(13)) {
    case 0:
        p.src_ip ^= 1U << below(32);
        break;
    case 1:
        p.dst_ip ^= 1U << below(32);
        break;
    case 2:
        p.src_port = near(p.src_port);
        break;
    case 3:
        p.dst_port = near(p.dst_port);
        break;
    case 4:
        p.proto = of<uint8_t>({1, 2, 6, 17, 47, byte()});
        break;
    case 5:
        p.tos = static_cast<uint8_t>(p.tos ^ (1U << below(8)));
        break;
    case 6:
        p.tcp_flags = byte() & 0x3F;
        break;
    case 7:
        p.icmp_type = near(p.icmp_type);
        break;
    case 8:
        p.igmp_type = near(p.igmp_type);
        break;
    case 9:
        p.fragment_flags ^= of<uint8_t>({1, 2});
        break;
    case 10:
        p.offset_flags ^= 1;
        break;
    case 11:
        p.totallen = near(p.totallen);
        break;
    default:
        p.ttl = near(p.ttl);
    }
}

acl_info Dice::packet_near(const ipacl_standard_rule &rule) {
    acl_info p{};
    p.src_ip = address_near(rule.compare_flag == 1, rule.srcaddr, rule.srcmsk, rule.src_begin_addr,
                            rule.src_end_addr);
    if (one_in(3))
        p.src_ip ^= 1U << below(32);
    p.dst_ip = word();
    p.proto = byte();
    return p;
}

acl_info Dice::packet_near(const ipacl_extended_rule &rule) {
    acl_info p{};
    p.src_ip = address_near(rule.src_compare_flag == 1, rule.srcaddr, rule.srcmsk,
                            rule.src_begin_addr, rule.src_end_addr);
    p.dst_ip = address_near(rule.dst_compare_flag == 1, rule.dstaddr, rule.dstmsk,
                            rule.dst_begin_addr, rule.dst_end_addr);
    p.src_port =
        port_near(rule.src_port_flags, rule.src_port, rule.src_begin_port, rule.src_end_port);
    p.dst_port =
        port_near(rule.dst_port_flags, rule.dst_port, rule.dst_begin_port, rule.dst_end_port);
    p.proto =
        rule.protcol > 255 ? of<uint8_t>({1, 6, 17, byte()}) : static_cast<uint8_t>(rule.protcol);
    p.tos = static_cast<uint8_t>(rule.precedence * 32U | rule.tos * 2U | below(2));
    p.tcp_flags = one_in(8) ? byte() & 0x3F : of<uint8_t>({0x10, 0x04, 0x14, 0x3F});
    p.icmp_type = static_cast<uint8_t>(rule.src_port);
    p.igmp_type = static_cast<uint8_t>(rule.src_port);
    p.icmp_code = byte();
    p.fragment_flags = rule.fragment_flags;
    p.offset_flags = rule.offset_flags;
    const auto operand = [&](uint16_t bits, uint32_t value) {
        return bits & IPACL_OP_GT ? value + 1 : bits & IPACL_OP_LT ? value - 1 : value;
    };
    p.totallen = operand(rule.totallen_flags, rule.totallen);
    p.ttl = static_cast<uint8_t>(operand(rule.ttl_flags, rule.ttl));
    if (one_in(3))
        mutate(p);
    return p;
}
