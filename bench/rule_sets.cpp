#include "rule_sets.h"

#include <arpa/inet.h>

#include <algorithm>
#include <random>
#include <set>
#include <tuple>

namespace rule_sets {

namespace {

// One choice and its weight.
template <class T>
struct Share {
    T value;
    uint32_t weight;
};
template <class T>
using Shares = std::vector<Share<T>>;

enum PortShape { kAnyPort, kOnePort, kHighPorts, kLowPorts, kSomePorts };

struct Profile {
    Shares<uint32_t> source_length, destination_length;
    Shares<uint16_t> protocol;
    Shares<PortShape> source_port, destination_port;
    uint32_t nested; // in a hundred prefixes, those that begin as a part of an earlier one
};

const Profile kProfiles[] = {
    {.source_length = {{0, 30}, {8, 2}, {16, 8}, {24, 20}, {27, 8}, {30, 7}, {32, 25}},
     .destination_length = {{0, 2}, {16, 5}, {20, 5}, {24, 23}, {27, 10}, {30, 10}, {32, 45}},
     .protocol = {{6, 75}, {17, 15}, {1, 4}, {IPACL_PROTOCOL_IP, 6}},
     .source_port = {{kAnyPort, 98}, {kOnePort, 2}},
     .destination_port = {{kAnyPort, 28}, {kOnePort, 60}, {kHighPorts, 6}, {kSomePorts, 6}},
     .nested = 70},
    {.source_length = {{0, 45}, {8, 3}, {16, 7}, {24, 15}, {28, 5}, {32, 25}},
     .destination_length = {{0, 35}, {16, 5}, {24, 20}, {28, 5}, {32, 35}},
     .protocol = {{6, 60}, {17, 25}, {1, 5}, {47, 2}, {IPACL_PROTOCOL_IP, 8}},
     .source_port = {{kAnyPort, 70}, {kOnePort, 15}, {kHighPorts, 10}, {kSomePorts, 5}},
     .destination_port =
         {{kAnyPort, 30}, {kOnePort, 45}, {kHighPorts, 10}, {kLowPorts, 5}, {kSomePorts, 10}},
     .nested = 50},
    {.source_length = {{0, 15}, {8, 3}, {16, 12}, {24, 25}, {28, 10}, {32, 35}},
     .destination_length = {{0, 12}, {8, 3}, {16, 15}, {24, 25}, {28, 10}, {32, 35}},
     .protocol = {{6, 55}, {17, 25}, {1, 8}, {IPACL_PROTOCOL_IP, 12}},
     .source_port = {{kAnyPort, 80}, {kOnePort, 12}, {kHighPorts, 5}, {kSomePorts, 3}},
     .destination_port = {{kAnyPort, 40}, {kOnePort, 45}, {kHighPorts, 7}, {kSomePorts, 8}},
     .nested = 60},
};

constexpr uint16_t kServices[] = {20,   21,   22,   23,   25,   53,   67,   69,   80,   88,
                                  110,  119,  123,  135,  137,  139,  143,  161,  162,  179,
                                  389,  443,  445,  514,  515,  587,  636,  993,  995,  1433,
                                  1521, 1645, 1723, 2049, 3306, 3389, 5060, 5432, 8080, 8443};

class Generator {
  public:
    explicit Generator(uint32_t seed) : engine_(seed) {}

    uint32_t word() { return static_cast<uint32_t>(engine_()); }
    uint32_t below(uint32_t n) { return word() % n; }
    uint16_t port_from(uint32_t lo, uint32_t hi) {
        return static_cast<uint16_t>(lo + below(hi - lo + 1));
    }
    template <class T>
    T of(const Shares<T> &shares) {
        uint32_t total = 0;
        for (const auto &share : shares)
            total += share.weight;
        uint32_t at = below(total);
        for (const auto &share : shares) {
            if (at < share.weight)
                return share.value;
            at -= share.weight;
        }
        return shares.back().value;
    }
    uint16_t service() { return kServices[below(std::size(kServices))]; }

  private:
    std::mt19937 engine_;
};

constexpr uint32_t mask_of(uint32_t length) { return length ? UINT32_MAX << (32 - length) : 0; }

// Draws prefixes, most of them within earlier ones.
class Prefixes {
  public:
    Prefixes(Generator &generator, uint32_t nested) : generator_(generator), nested_(nested) {}

    void draw(uint32_t length, in_addr &address, in_addr &mask) {
        uint32_t base = generator_.word();
        if (!seen_.empty() && generator_.below(100) < nested_) {
            const auto &[parent, parent_length] =
                seen_[generator_.below(static_cast<uint32_t>(seen_.size()))];
            const uint32_t kept = mask_of(std::min(length, parent_length));
            base = (parent & kept) | (base & ~kept);
        }
        base &= mask_of(length);
        if (length > 0 && length < 32)
            seen_.emplace_back(base, length);
        address.s_addr = htonl(base);
        mask.s_addr = htonl(mask_of(length));
    }

  private:
    Generator &generator_;
    uint32_t nested_;
    std::vector<std::pair<uint32_t, uint32_t>> seen_;
};

void draw_port(Generator &generator, PortShape shape, uint16_t &flags, uint16_t &port,
               uint16_t &begin, uint16_t &end) {
    switch (shape) {
    case kAnyPort:
        return;
    case kOnePort:
        flags = IPACL_OP_EQ;
        port = generator.below(4) ? generator.service() : generator.port_from(1024, 65535);
        return;
    case kHighPorts:
        flags = IPACL_OP_GT;
        port = 1023;
        return;
    case kLowPorts:
        flags = IPACL_OP_LT;
        port = 1024;
        return;
    case kSomePorts:
        flags = IPACL_OP_RANGE;
        begin = generator.port_from(1024, 60000);
        end = static_cast<uint16_t>(begin + generator.below(1U << (1 + generator.below(10))));
    }
}

auto identity(const ipacl_extended_rule &r) {
    return std::tuple(r.protcol, r.srcaddr.s_addr, r.srcmsk.s_addr, r.dstaddr.s_addr,
                      r.dstmsk.s_addr, r.src_port_flags, r.src_port, r.src_begin_port,
                      r.src_end_port, r.dst_port_flags, r.dst_port, r.dst_begin_port,
                      r.dst_end_port);
}

ipacl_extended_rule plain_rule(Generator &generator) {
    ipacl_extended_rule rule{};
    rule.flags = generator.below(2) ? IPACL_FLAG_PERMIT : IPACL_FLAG_DENY;
    rule.status = IPACL_RULE_ACTIVE;
    rule.src_compare_flag = rule.dst_compare_flag = IPACL_COMPARE_MASK;
    return rule;
}

// Host pairs within 10.0.0.0/8, then one rule for everything from elsewhere.
ipacl_extended_rule host_rule(Generator &generator, bool last) {
    ipacl_extended_rule rule = plain_rule(generator);
    rule.protcol = last ? uint16_t{IPACL_PROTOCOL_IP} : uint16_t{6};
    if (last)
        return rule;
    rule.srcaddr.s_addr = htonl(0x0A000000 | generator.below(1U << 24));
    rule.dstaddr.s_addr = htonl(0x0A000000 | generator.below(1U << 24));
    rule.srcmsk.s_addr = rule.dstmsk.s_addr = UINT32_MAX;
    draw_port(generator, kOnePort, rule.dst_port_flags, rule.dst_port, rule.dst_begin_port,
              rule.dst_end_port);
    return rule;
}

uint16_t port_within(Generator &generator, uint16_t flags, uint16_t port, uint16_t begin,
                     uint16_t end) {
    switch (flags) {
    case IPACL_OP_EQ:
        return port;
    case IPACL_OP_GT:
        return generator.port_from(port + 1U, 65535);
    case IPACL_OP_LT:
        return generator.port_from(0, port - 1U);
    case IPACL_OP_RANGE:
        return generator.port_from(begin, end);
    default:
        return generator.below(2) ? generator.service() : generator.port_from(1024, 65535);
    }
}

uint32_t address_within(Generator &generator, in_addr address, in_addr mask) {
    return address.s_addr | (generator.word() & ~mask.s_addr);
}

} // namespace

std::vector<ipacl_extended_rule> rules(Kind kind, uint32_t count, uint32_t seed) {
    Generator generator(seed);
    const Profile &profile = kProfiles[kind == kLastOnly ? 0 : kind];
    Prefixes sources(generator, profile.nested), destinations(generator, profile.nested);
    std::set<decltype(identity({}))> seen;
    std::vector<ipacl_extended_rule> rules;
    for (uint32_t tries = 0; rules.size() < count; tries++) {
        ipacl_extended_rule rule;
        if (kind == kLastOnly) {
            rule = host_rule(generator, rules.size() + 1 == count);
        } else {
            rule = plain_rule(generator);
            rule.protcol = generator.of(profile.protocol);
            sources.draw(generator.of(profile.source_length), rule.srcaddr, rule.srcmsk);
            destinations.draw(generator.of(profile.destination_length), rule.dstaddr, rule.dstmsk);
            if (rule.protcol == 6 || rule.protcol == 17) {
                draw_port(generator, generator.of(profile.source_port), rule.src_port_flags,
                          rule.src_port, rule.src_begin_port, rule.src_end_port);
                draw_port(generator, generator.of(profile.destination_port), rule.dst_port_flags,
                          rule.dst_port, rule.dst_begin_port, rule.dst_end_port);
            }
        }
        if (seen.insert(identity(rule)).second)
            rules.push_back(rule);
    }
    // The narrow before the wide, as people write them, though not strictly.
    const auto width = [](const ipacl_extended_rule &r) {
        return __builtin_popcount(r.srcmsk.s_addr) + __builtin_popcount(r.dstmsk.s_addr);
    };
    if (kind != kLastOnly)
        std::stable_sort(rules.begin(), rules.end(),
                         [&](const auto &a, const auto &b) { return width(a) / 8 > width(b) / 8; });
    return rules;
}

std::vector<acl_info> packets(Kind kind, const std::vector<ipacl_extended_rule> &rules,
                              uint32_t count, uint32_t seed) {
    Generator generator(seed);
    std::vector<acl_info> packets;
    for (uint32_t i = 0; i < count; i++) {
        const auto &rule = kind == kLastOnly
                               ? rules.back()
                               : rules[generator.below(static_cast<uint32_t>(rules.size()))];
        acl_info packet{};
        packet.src_ip = address_within(generator, rule.srcaddr, rule.srcmsk);
        packet.dst_ip = address_within(generator, rule.dstaddr, rule.dstmsk);
        if (kind == kLastOnly)
            packet.src_ip |= htonl(0xC0000000);
        packet.proto = rule.protcol == IPACL_PROTOCOL_IP ? (generator.below(4) ? 6 : 17)
                                                         : static_cast<uint8_t>(rule.protcol);
        packet.src_port = port_within(generator, rule.src_port_flags, rule.src_port,
                                      rule.src_begin_port, rule.src_end_port);
        packet.dst_port = port_within(generator, rule.dst_port_flags, rule.dst_port,
                                      rule.dst_begin_port, rule.dst_end_port);
        packets.push_back(packet);
    }
    return packets;
}

} // namespace rule_sets
