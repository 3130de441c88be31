// A second, plain packet matcher: slow and literal, used only to check the real one against.
#ifndef NAIVE_MATCHER_H
#define NAIVE_MATCHER_H

#include <cstddef>
#include <cstdint>

#include "ipacl.h"

namespace naive {

// 1-based position of the deciding rule, or 0 if none.
inline size_t standard_rule(const ipacl_standard_rule *head, const acl_info &packet) {
    size_t position = 0;
    for (const ipacl_standard_rule *rule = head; rule != nullptr; rule = rule->ipacl_next) {
        position = position + 1;
        if (rule->status != 1) { // inactive
            continue;
        }
        if (rule->compare_flag == 1) { // mask
            uint32_t packet_part = packet.src_ip & rule->srcmsk.s_addr;
            uint32_t rule_part = rule->srcaddr.s_addr & rule->srcmsk.s_addr;
            if (packet_part == rule_part) {
                return position;
            }
        } else { // range, on the words as stored
            if (rule->src_begin_addr.s_addr <= packet.src_ip &&
                packet.src_ip <= rule->src_end_addr.s_addr) {
                return position;
            }
        }
    }
    return 0;
}

// True when the source address passes the rule's mask.
inline bool source_mask(const ipacl_extended_rule &rule, const acl_info &packet) {
    return (packet.src_ip & rule.srcmsk.s_addr) == (rule.srcaddr.s_addr & rule.srcmsk.s_addr);
}

// True when the source address lies in the rule's range, on the words as stored.
inline bool source_range(const ipacl_extended_rule &rule, const acl_info &packet) {
    return rule.src_begin_addr.s_addr <= packet.src_ip && packet.src_ip <= rule.src_end_addr.s_addr;
}

// True when the destination address passes the rule's mask.
inline bool destination_mask(const ipacl_extended_rule &rule, const acl_info &packet) {
    return ((packet.dst_ip ^ rule.dstaddr.s_addr) & rule.dstmsk.s_addr) == 0;
}

// True when the destination address lies in the rule's range, on the words as stored.
inline bool destination_range(const ipacl_extended_rule &rule, const acl_info &packet) {
    return rule.dst_begin_addr.s_addr <= packet.dst_ip && packet.dst_ip <= rule.dst_end_addr.s_addr;
}

// True when a port passes every operator that is set.
inline bool port_holds(uint16_t port, uint16_t flags, uint16_t operand, uint16_t begin,
                       uint16_t end) {
    if ((flags & 0x04) != 0 && !(port == operand)) { // eq
        return false;
    }
    if ((flags & 0x10) != 0 && !(port != operand)) { // neq
        return false;
    }
    if ((flags & 0x01) != 0 && !(port > operand)) { // gt
        return false;
    }
    if ((flags & 0x02) != 0 && !(port < operand)) { // lt
        return false;
    }
    if ((flags & 0x20) != 0 && !(begin <= port && port <= end)) { // range
        return false;
    }
    return true;
}

// True when the rule passes every test.
inline bool extended_matches(const ipacl_extended_rule &rule, const acl_info &packet, bool frag) {
    // Addresses. Any other pair of compare flags makes no address test.
    if (rule.src_compare_flag == 1 && rule.dst_compare_flag == 1) { // mask, mask
        if (!source_mask(rule, packet)) {
            return false;
        }
        if (!destination_mask(rule, packet)) {
            return false;
        }
    }
    if (rule.src_compare_flag == 2 && rule.dst_compare_flag == 1) { // range, mask
        if (!source_range(rule, packet)) {
            return false;
        }
        if (!destination_mask(rule, packet)) {
            return false;
        }
    }
    if (rule.src_compare_flag == 1 && rule.dst_compare_flag == 2) { // mask, range
        if (!source_mask(rule, packet)) {
            return false;
        }
        if (!destination_range(rule, packet)) {
            return false;
        }
    }
    if (rule.src_compare_flag == 2 && rule.dst_compare_flag == 2) { // range, range
        if (!source_range(rule, packet)) {
            return false;
        }
        if (!destination_range(rule, packet)) {
            return false;
        }
    }

    if (rule.protcol != 65535) { // not "ip"
        if (packet.proto != rule.protcol) {
            return false;
        }

        if (!frag) {
            if (packet.proto == 6 || packet.proto == 17) { // tcp, udp
                if (!port_holds(packet.src_port, rule.src_port_flags, rule.src_port,
                                rule.src_begin_port, rule.src_end_port)) {
                    return false;
                }
                if (!port_holds(packet.dst_port, rule.dst_port_flags, rule.dst_port,
                                rule.dst_begin_port, rule.dst_end_port)) {
                    return false;
                }
            }

            // Both type bits count for both protocols.
            if (packet.proto == 1 || packet.proto == 2) { // icmp, igmp
                if ((rule.flags & 0x0008) != 0) {         // icmp-type
                    if (packet.icmp_type != rule.src_port) {
                        return false;
                    }
                }
                if ((rule.flags & 0x0010) != 0) { // igmp-type
                    if (packet.igmp_type != rule.src_port) {
                        return false;
                    }
                }
            }
        }
    }

    if ((rule.flags & 0x0080) != 0) { // tos
        if (rule.tos != ((packet.tos >> 1) & 0xF)) {
            return false;
        }
    }

    if ((rule.flags & 0x0100) != 0) { // precedence
        if (rule.precedence != (packet.tos >> 5)) {
            return false;
        }
    }

    // Established counts whatever the protocol.
    if (!frag) {
        if ((rule.flags & 0x0040) != 0) { // established
            bool ack = (packet.tcp_flags & 0x10) != 0;
            bool rst = (packet.tcp_flags & 0x04) != 0;
            if (!ack && !rst) {
                return false;
            }
        }
    }

    if ((rule.flags & 0x0200) != 0) { // don't-fragment
        if ((packet.fragment_flags & 0x01) != (rule.fragment_flags & 0x01)) {
            return false;
        }
    }

    if ((rule.flags & 0x0400) != 0) { // fragment
        if ((packet.fragment_flags & 0x02) != (rule.fragment_flags & 0x02)) {
            return false;
        }
    }

    if ((rule.flags & 0x8000) != 0) { // offset
        if ((packet.offset_flags & 0x01) != (rule.offset_flags & 0x01)) {
            return false;
        }
    }

    if ((rule.flags & 0x0800) != 0) {            // total-length
        if ((rule.totallen_flags & 0x04) != 0) { // eq
            if (!(packet.totallen == rule.totallen)) {
                return false;
            }
        }
        if ((rule.totallen_flags & 0x01) != 0) { // gt
            if (!(packet.totallen > rule.totallen)) {
                return false;
            }
        }
        if ((rule.totallen_flags & 0x02) != 0) { // lt
            if (!(packet.totallen < rule.totallen)) {
                return false;
            }
        }
    }

    if ((rule.flags & 0x1000) != 0) {       // ttl
        if ((rule.ttl_flags & 0x04) != 0) { // eq
            if (!(packet.ttl == rule.ttl)) {
                return false;
            }
        }
        if ((rule.ttl_flags & 0x01) != 0) { // gt
            if (!(packet.ttl > rule.ttl)) {
                return false;
            }
        }
        if ((rule.ttl_flags & 0x02) != 0) { // lt
            if (!(packet.ttl < rule.ttl)) {
                return false;
            }
        }
    }

    return true;
}

// 1-based position of the deciding rule, or 0 if none.
inline size_t extended_rule(const ipacl_extended_rule *head, const acl_info &packet, bool frag) {
    size_t position = 0;
    for (const ipacl_extended_rule *rule = head; rule != nullptr; rule = rule->ipacl_next) {
        position = position + 1;
        if (rule->status != 1) { // inactive
            continue;
        }
        if (extended_matches(*rule, packet, frag)) {
            return position;
        }
    }
    return 0;
}

// 1-based position of the deciding rule, or 0 if none.
inline size_t network_rule(const ipacl_standard_rule *head, uint32_t addr, uint32_t mask) {
    size_t position = 0;
    for (const ipacl_standard_rule *rule = head; rule != nullptr; rule = rule->ipacl_next) {
        position = position + 1;
        if (rule->status != 1) { // inactive
            continue;
        }
        if (rule->compare_flag != 1) { // range; the mask is not looked at
            if (rule->src_begin_addr.s_addr <= addr && addr <= rule->src_end_addr.s_addr) {
                return position;
            }
        } else { // mask, on the words as stored
            if (rule->srcmsk.s_addr <= mask) {
                uint32_t query_part = addr & rule->srcmsk.s_addr;
                uint32_t rule_part = rule->srcaddr.s_addr & rule->srcmsk.s_addr;
                if (query_part == rule_part) {
                    return position;
                }
            }
        }
    }
    return 0;
}

inline uint32_t check_standard(const ipacl_standard_rule *head, const acl_info &packet) {
    if (head == nullptr) {
        return 17; // no rules
    }
    size_t position = standard_rule(head, packet);
    if (position == 0) {
        return 34; // no match
    }
    const ipacl_standard_rule *rule = head;
    for (size_t i = 1; i < position; i++) {
        rule = rule->ipacl_next;
    }
    return rule->flags & 7u; // permit, deny, log
}

inline uint32_t check_extended(const ipacl_extended_rule *head, const acl_info &packet, bool frag) {
    if (head == nullptr) {
        return 17; // no rules
    }
    size_t position = extended_rule(head, packet, frag);
    if (position == 0) {
        return 34; // no match
    }
    const ipacl_extended_rule *rule = head;
    for (size_t i = 1; i < position; i++) {
        rule = rule->ipacl_next;
    }
    return rule->flags & 7u; // permit, deny, log
}

inline uint32_t check_network(const ipacl_standard_rule *head, uint32_t addr, uint32_t mask) {
    if (head == nullptr) {
        return 17; // no rules
    }
    size_t position = network_rule(head, addr, mask);
    if (position == 0) {
        return 34; // no match
    }
    const ipacl_standard_rule *rule = head;
    for (size_t i = 1; i < position; i++) {
        rule = rule->ipacl_next;
    }
    return rule->flags & 7u; // permit, deny, log
}

} // namespace naive

#endif
