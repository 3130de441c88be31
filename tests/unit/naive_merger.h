// A slow, plain second version of the pair decision and of the merging passes, for comparison
// with the production code only.
#ifndef NAIVE_MERGER_H
#define NAIVE_MERGER_H

#include "ipacl.h"

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace naive {

// First and last address in host order.
struct span {
    std::uint32_t low;
    std::uint32_t high;
};

inline span mask_span(in_addr addr, in_addr mask) {
    span s;
    s.low = ntohl(addr.s_addr & mask.s_addr);
    s.high = ntohl(addr.s_addr | ~mask.s_addr);
    return s;
}

inline span range_span(in_addr begin, in_addr end) {
    span s;
    s.low = ntohl(begin.s_addr);
    s.high = ntohl(end.s_addr);
    return s;
}

inline bool contains(span outer, span inner) {
    return outer.low <= inner.low && inner.high <= outer.high;
}

inline bool has_one_bit(std::uint32_t word) {
    int bits = 0;
    for (int i = 0; i < 32; i++) {
        if (((word >> i) & 1u) != 0) {
            bits++;
        }
    }
    return bits == 1;
}

// Two blocks (a, m) and (b, k), all words as stored. Two halves fuse by clearing a bit of m.
inline int block_rule(in_addr a, in_addr &m, in_addr b, in_addr k) {
    std::uint32_t net_a = a.s_addr & m.s_addr;
    std::uint32_t net_b = b.s_addr & k.s_addr;

    if (net_a != net_b) {
        std::uint32_t d = net_a ^ net_b;
        if (has_one_bit(d) && m.s_addr == k.s_addr) {
            m.s_addr = m.s_addr & ~d;
            return 1;
        }
        return 0;
    }

    if (m.s_addr < k.s_addr) {
        if ((m.s_addr & ~k.s_addr) == 0) {
            return 1;
        }
        return 0;
    }
    if ((k.s_addr & ~m.s_addr) == 0) {
        return 2;
    }
    return 0;
}

inline int standard_pair(ipacl_standard_rule &a, const ipacl_standard_rule &b) {
    bool any_equal = a.any_flag == b.any_flag;

    // 1. both active
    if (a.status != 1) {
        return 0;
    }
    if (b.status != 1) {
        return 0;
    }

    // 2. flags differ
    if (a.flags != b.flags) {
        if (a.srcaddr.s_addr == b.srcaddr.s_addr && a.srcmsk.s_addr == b.srcmsk.s_addr &&
            a.compare_flag == b.compare_flag &&
            a.src_begin_addr.s_addr == b.src_begin_addr.s_addr &&
            a.src_end_addr.s_addr == b.src_end_addr.s_addr && any_equal) {
            a.flags = static_cast<std::uint16_t>(a.flags | 0x0004); // log
            return 1;
        }
        return 0;
    }

    bool a_is_mask = a.compare_flag == 1;
    bool b_is_mask = b.compare_flag == 1;

    // 3. A mask, B range
    if (a_is_mask && !b_is_mask) {
        span sa = mask_span(a.srcaddr, a.srcmsk);
        span sb = range_span(b.src_begin_addr, b.src_end_addr);
        if (sa.low < sb.low) {
            if (sa.high >= sb.high) {
                return any_equal ? 1 : 0;
            }
            return 0;
        }
        if (sa.low >= sb.low && sa.high > sb.high) {
            if (sa.low == sb.low) {
                return any_equal ? 1 : 0;
            }
            return 0;
        }
        return any_equal ? 2 : 0;
    }

    // 4. A range, B mask
    if (!a_is_mask && b_is_mask) {
        span sa = range_span(a.src_begin_addr, a.src_end_addr);
        span sb = mask_span(b.srcaddr, b.srcmsk);
        if (sa.low <= sb.low) {
            if (sa.high >= sb.high) {
                return any_equal ? 1 : 0;
            }
            if (sa.low == sb.low) {
                return any_equal ? 2 : 0;
            }
            return 0;
        }
        if (sb.high < sa.high) {
            return 0;
        }
        return any_equal ? 2 : 0;
    }

    // 5. both range
    if (!a_is_mask && !b_is_mask) {
        if (a.srcaddr.s_addr != b.srcaddr.s_addr) {
            return 0;
        }
        if (a.srcmsk.s_addr != b.srcmsk.s_addr) {
            return 0;
        }
        if (!any_equal) {
            return 0;
        }
        span sa = range_span(a.src_begin_addr, a.src_end_addr);
        span sb = range_span(b.src_begin_addr, b.src_end_addr);
        if (sa.low > sb.low) {
            if (sa.high <= sb.high) {
                return 2;
            }
            return 0;
        }
        if (sa.high >= sb.high) {
            return 1;
        }
        if (sa.low == sb.low) {
            return 2;
        }
        return 0;
    }

    // 6. both mask
    if (a.src_begin_addr.s_addr != b.src_begin_addr.s_addr) {
        return 0;
    }
    if (a.src_end_addr.s_addr != b.src_end_addr.s_addr) {
        return 0;
    }
    if (!any_equal) {
        return 0;
    }
    return block_rule(a.srcaddr, a.srcmsk, b.srcaddr, b.srcmsk);
}

inline bool same_src_mask_fields(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    return a.srcaddr.s_addr == b.srcaddr.s_addr && a.srcmsk.s_addr == b.srcmsk.s_addr;
}

inline bool same_dst_mask_fields(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    return a.dstaddr.s_addr == b.dstaddr.s_addr && a.dstmsk.s_addr == b.dstmsk.s_addr;
}

inline bool same_src_range_fields(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    return a.src_begin_addr.s_addr == b.src_begin_addr.s_addr &&
           a.src_end_addr.s_addr == b.src_end_addr.s_addr;
}

inline bool same_dst_range_fields(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    return a.dst_begin_addr.s_addr == b.dst_begin_addr.s_addr &&
           a.dst_end_addr.s_addr == b.dst_end_addr.s_addr;
}

// Everything but the addresses.
inline bool extended_agree(const ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    // 1.
    if (a.protcol != b.protcol) {
        return false;
    }

    // 2. B's name need only be the beginning of A's
    if (std::strncmp(a.src_vlan_name, b.src_vlan_name, std::strlen(b.src_vlan_name)) != 0) {
        return false;
    }

    // 3.
    if (a.src_port_flags != b.src_port_flags) {
        return false;
    }
    if (a.src_port_flags != 0 && a.src_port != b.src_port) {
        return false;
    }
    if (a.dst_port_flags != b.dst_port_flags) {
        return false;
    }
    if (a.dst_port_flags != 0 && a.dst_port != b.dst_port) {
        return false;
    }

    // 4.
    if ((a.flags & 0x0008) != 0 && a.src_port != b.src_port) { // icmp-type
        return false;
    }
    if ((a.flags & 0x0010) != 0 && a.src_port != b.src_port) { // igmp-type
        return false;
    }
    if ((a.flags & 0x0020) != 0 && std::strcmp(a.time_range, b.time_range) != 0) { // time-range
        return false;
    }
    if ((a.flags & 0x0080) != 0 && a.tos != b.tos) { // tos
        return false;
    }
    if ((a.flags & 0x0100) != 0 && a.precedence != b.precedence) { // precedence
        return false;
    }
    if ((a.flags & 0x0200) != 0 && // don't-fragment
        (a.fragment_flags & 0x01) != (b.fragment_flags & 0x01)) {
        return false;
    }
    if ((a.flags & 0x0400) != 0 && // fragment
        (a.fragment_flags & 0x02) != (b.fragment_flags & 0x02)) {
        return false;
    }
    if ((a.flags & 0x8000) != 0 && // offset
        (a.offset_flags & 0x01) != (b.offset_flags & 0x01)) {
        return false;
    }
    if ((a.flags & 0x0800) != 0) { // total-length
        if (a.totallen_flags != b.totallen_flags) {
            return false;
        }
        if (a.totallen != b.totallen) {
            return false;
        }
    }
    if ((a.flags & 0x1000) != 0) { // ttl
        if (a.ttl_flags != b.ttl_flags) {
            return false;
        }
        if (a.ttl != b.ttl) {
            return false;
        }
    }

    // 5.
    if (a.src_begin_port != b.src_begin_port) {
        return false;
    }
    if (a.src_end_port != b.src_end_port) {
        return false;
    }
    if (a.dst_begin_port != b.dst_begin_port) {
        return false;
    }
    if (a.dst_end_port != b.dst_end_port) {
        return false;
    }
    if (a.src_any_flag != b.src_any_flag) {
        return false;
    }
    if (a.dst_any_flag != b.dst_any_flag) {
        return false;
    }

    // 6.
    if (a.flags != b.flags) {
        return false;
    }

    // 7. both active
    if (a.status != 1) {
        return false;
    }
    if (b.status != 1) {
        return false;
    }
    return true;
}

// Identical spans give 1.
inline int first_rule_first(span a_src, span b_src, span a_dst, span b_dst) {
    if (contains(a_src, b_src) && contains(a_dst, b_dst)) {
        return 1;
    }
    if (contains(b_src, a_src) && contains(b_dst, a_dst)) {
        return 2;
    }
    return 0;
}

// Identical spans give 2.
inline int second_rule_first(span a_src, span b_src, span a_dst, span b_dst) {
    if (contains(b_src, a_src) && contains(b_dst, a_dst)) {
        return 2;
    }
    if (contains(a_src, b_src) && contains(a_dst, b_dst)) {
        return 1;
    }
    return 0;
}

inline int extended_pair(ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    if (!extended_agree(a, b)) {
        return 0;
    }

    if (a.src_compare_flag != 1 && a.src_compare_flag != 2) {
        return 0;
    }
    if (b.src_compare_flag != 1 && b.src_compare_flag != 2) {
        return 0;
    }
    if (a.dst_compare_flag != 1 && a.dst_compare_flag != 2) {
        return 0;
    }
    if (b.dst_compare_flag != 1 && b.dst_compare_flag != 2) {
        return 0;
    }

    // Both readings of every dimension; each key below picks the one its digit names.
    span as_mask = mask_span(a.srcaddr, a.srcmsk);
    span bs_mask = mask_span(b.srcaddr, b.srcmsk);
    span ad_mask = mask_span(a.dstaddr, a.dstmsk);
    span bd_mask = mask_span(b.dstaddr, b.dstmsk);
    span as_range = range_span(a.src_begin_addr, a.src_end_addr);
    span bs_range = range_span(b.src_begin_addr, b.src_end_addr);
    span ad_range = range_span(a.dst_begin_addr, a.dst_end_addr);
    span bd_range = range_span(b.dst_begin_addr, b.dst_end_addr);

    // A source, B source, A destination, B destination; 1 is mask, 2 is range
    unsigned key = a.src_compare_flag * 0x1000u + b.src_compare_flag * 0x100u +
                   a.dst_compare_flag * 0x10u + b.dst_compare_flag;

    switch (key) {
    case 0x1111:
        if (!same_src_range_fields(a, b)) {
            return 0;
        }
        if (!same_dst_range_fields(a, b)) {
            return 0;
        }
        if (same_src_mask_fields(a, b)) {
            return block_rule(a.dstaddr, a.dstmsk, b.dstaddr, b.dstmsk);
        }
        if (!same_dst_mask_fields(a, b)) {
            return 0;
        }
        return block_rule(a.srcaddr, a.srcmsk, b.srcaddr, b.srcmsk);

    case 0x1112:
        if (!same_src_range_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_mask, bs_mask, ad_mask, bd_range);

    case 0x1121:
        if (!same_src_range_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_mask, bs_mask, ad_range, bd_mask);

    case 0x1122:
        if (!same_src_range_fields(a, b)) {
            return 0;
        }
        if (!same_dst_mask_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_mask, bs_mask, ad_range, bd_range);

    case 0x1211:
        if (!same_dst_range_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_mask, bs_range, ad_mask, bd_mask);

    case 0x1212:
        return second_rule_first(as_mask, bs_range, ad_mask, bd_range);

    case 0x1221:
        return 0;

    case 0x1222:
        if (!same_dst_mask_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_mask, bs_range, ad_range, bd_range);

    case 0x2111:
        if (!same_dst_range_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_range, bs_mask, ad_mask, bd_mask);

    case 0x2112:
        return 0;

    case 0x2121:
        return first_rule_first(as_range, bs_mask, ad_range, bd_mask);

    case 0x2122:
        if (!same_dst_mask_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_range, bs_mask, ad_range, bd_range);

    case 0x2211:
        if (!same_src_mask_fields(a, b)) {
            return 0;
        }
        if (!same_dst_range_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_range, bs_range, ad_mask, bd_mask);

    case 0x2212:
        if (!same_src_mask_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_range, bs_range, ad_mask, bd_range);

    case 0x2221:
        if (!same_src_mask_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_range, bs_range, ad_range, bd_mask);

    case 0x2222:
        if (!same_src_mask_fields(a, b)) {
            return 0;
        }
        if (!same_dst_mask_fields(a, b)) {
            return 0;
        }
        return first_rule_first(as_range, bs_range, ad_range, bd_range);

    default:
        return 0;
    }
}

inline int pair(ipacl_standard_rule &a, const ipacl_standard_rule &b) {
    return standard_pair(a, b);
}

inline int pair(ipacl_extended_rule &a, const ipacl_extended_rule &b) {
    return extended_pair(a, b);
}

template <class Rule>
void merge_passes(std::vector<Rule> &rules, unsigned &operations) {
    operations = 0;
    std::size_t n = rules.size();
    if (n < 2) {
        return;
    }

    for (std::size_t pass = 1; pass <= n; pass++) {
        bool removed = false;
        std::size_t i = 0;
        while (i < rules.size()) {
            for (std::size_t j = i + 1; j < rules.size(); j++) {
                bool both_permit = (rules[i].flags & 0x0001) != 0 && (rules[j].flags & 0x0001) != 0;
                bool both_deny = (rules[i].flags & 0x0002) != 0 && (rules[j].flags & 0x0002) != 0;
                if (!both_permit && !both_deny) {
                    continue;
                }
                operations++;
                int result = pair(rules[i], rules[j]);
                if (result == 2) {
                    // the follower slides into place i and is passed over below
                    rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(i));
                    removed = true;
                    break;
                }
                if (result == 1) {
                    rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(j));
                    removed = true;
                    break;
                }
            }
            i++;
        }
        if (!removed) {
            return;
        }
    }
}

} // namespace naive

#endif
