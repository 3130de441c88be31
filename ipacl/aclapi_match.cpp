// Matching: what a list says about a packet, a frame or a network.
//
// One walk per kind returns the first rule that matches; everything else here looks a list up,
// locks, and turns that rule into a result. The tests compare integers as they are stored, write
// each condition once for both kinds, sides and operators, and look first at what decides most.

#include "acl_explain.h"
#include "acl_kind.h"
#include "acl_lock.h"
#include "acl_words.h"

#include <algorithm>
#include <iterator>
#include <syslog.h>
#include <utility>

namespace {

using acl::Test;
using acl_words::kDestination;
using acl_words::kSource;

// Every test of an extended rule goes through a listener, which returns what it is told. Nobody
// listens to the walk, which is as fast as without.
struct Nobody {
    bool operator()(Test, bool holds, size_t = 0) const { return holds; }
};

// Notes the test that fails; none is made after it.
struct Note {
    acl::Failure &failure;
    bool operator()(Test test, bool holds, size_t option = 0) const {
        if (!holds)
            failure = {test, option};
        return holds;
    }
};

template <class Rule>
bool in_range(const Rule &rule, const acl_words::Address<Rule> &fields, uint32_t ip) {
    return (rule.*fields.begin).s_addr <= ip && ip <= (rule.*fields.end).s_addr;
}

template <class Rule>
bool address_matches(const Rule &rule, const acl_words::Address<Rule> &fields, uint32_t ip) {
    if (fields.by_mask(rule)) [[likely]]
        return ((ip ^ (rule.*fields.addr).s_addr) & (rule.*fields.mask).s_addr) == 0;
    return in_range(rule, fields, ip);
}

constexpr bool compared(uint16_t flag) {
    return flag == IPACL_COMPARE_MASK || flag == IPACL_COMPARE_RANGE;
}

template <class Listener>
bool addresses_match(const ipacl_extended_rule &rule, const acl_info &info, Listener tell) {
    // kept: with any other pair of compare flags no address is tested at all.
    if (!compared(rule.src_compare_flag) || !compared(rule.dst_compare_flag)) [[unlikely]]
        return true;
    return tell(Test::kSource, address_matches(rule, kSource.address, info.src_ip)) &&
           tell(Test::kDestination, address_matches(rule, kDestination.address, info.dst_ip));
}

// Every set operator must hold.
template <class T>
bool operators_hold(uint16_t bits, T value, T operand) {
    return (!(bits & IPACL_OP_EQ) || value == operand) &&
           (!(bits & IPACL_OP_NEQ) || value != operand) &&
           (!(bits & IPACL_OP_GT) || value > operand) && (!(bits & IPACL_OP_LT) || value < operand);
}

bool port_matches(const ipacl_extended_rule &rule, const acl_words::Side &side, uint16_t port) {
    const uint16_t bits = rule.*side.port_flags;
    if (bits == 0)
        return true;
    return operators_hold(bits, port, rule.*side.port) &&
           (!(bits & IPACL_OP_RANGE) ||
            (rule.*side.begin_port <= port && port <= rule.*side.end_port));
}

template <class Listener>
bool message_type_matches(const ipacl_extended_rule &rule, const acl_info &info, Listener tell) {
    return tell(Test::kIcmpType,
                !(rule.flags & IPACL_FLAG_ICMP_TYPE) || info.icmp_type == rule.src_port) &&
           tell(Test::kIgmpType,
                !(rule.flags & IPACL_FLAG_IGMP_TYPE) || info.igmp_type == rule.src_port);
}

template <class Listener>
bool protocol_matches(const ipacl_extended_rule &rule, const acl_info &info, bool frag,
                      Listener tell) {
    if (rule.protcol == IPACL_PROTOCOL_IP)
        return true;
    if (!tell(Test::kProtocol, rule.protcol == info.proto))
        return false;
    if (frag)
        return true;
    if (acl_words::has_ports(rule.protcol))
        return tell(Test::kSourcePort, port_matches(rule, kSource, info.src_port)) &&
               tell(Test::kDestinationPort, port_matches(rule, kDestination, info.dst_port));
    if (rule.protcol == acl_words::kIcmp || rule.protcol == acl_words::kIgmp)
        return message_type_matches(rule, info, tell);
    return true;
}

template <size_t I>
bool option_matches(const ipacl_extended_rule &rule, const acl_info &info) {
    constexpr const auto &option = acl_words::kOptions[I];
    if (!(rule.flags & option.flag))
        return true;
    const uint32_t value = option.packet(info);
    if constexpr (option.shape == acl_words::Option::kNumber)
        return value == rule.*option.byte;
    else if constexpr (option.shape == acl_words::Option::kChoice)
        return ((value ^ rule.*option.byte) & option.bit) == 0;
    else
        return operators_hold<uint32_t>(rule.*option.op & ~IPACL_OP_NEQ, value, rule.*option.value);
}

template <class Listener>
bool options_match(const ipacl_extended_rule &rule, const acl_info &info, bool frag,
                   Listener tell) {
    constexpr uint8_t kAckOrRst = 0x10 | 0x04;
    if (!tell(Test::kEstablished,
              frag || !(rule.flags & IPACL_FLAG_ESTABLISHED) || (info.tcp_flags & kAckOrRst)))
        return false;
    return [&]<size_t... I>(std::index_sequence<I...>) {
        return (tell(Test::kOption, option_matches<I>(rule, info), I) && ...);
    }
    (std::make_index_sequence<std::size(acl_words::kOptions)>());
}

template <class Listener>
bool rule_matches(const ipacl_extended_rule &rule, const acl_info &info, bool frag, Listener tell) {
    return addresses_match(rule, info, tell) && protocol_matches(rule, info, frag, tell) &&
           options_match(rule, info, frag, tell);
}

bool source_matches(const ipacl_standard_rule &rule, uint32_t ip) {
    return address_matches(rule, acl_words::kStandardSource, ip);
}

template <class Listener>
bool rule_matches(const ipacl_standard_rule &rule, const acl_info &info, bool, Listener tell) {
    return tell(Test::kSource, source_matches(rule, info.src_ip));
}

template <class Rule>
acl::Failure failure_of(const Rule &rule, const acl_info &info, bool frag) {
    acl::Failure failure{Test::kNone, 0};
    const Note tell{failure};
    if (tell(Test::kActive, rule.status == IPACL_RULE_ACTIVE))
        rule_matches(rule, info, frag, tell);
    return failure;
}

// Nearly all rules are active and fail on an address, so the status, which lies far behind in the
// record, is looked at last.
template <class Rule, class F>
const Rule *first_match(const Rule *rule, F &&matches) {
    while (rule && !(matches(*rule) && rule->status == IPACL_RULE_ACTIVE))
        rule = rule->ipacl_next;
    return rule;
}

// The result of a list whose first rule is `head` and whose deciding rule is `rule`.
template <class Rule>
uint32_t verdict(const Rule *head, const Rule *rule) {
    if (!head)
        return IPACL_CHECK_NO_RULES;
    return rule ? rule->flags & (IPACL_FLAG_PERMIT | IPACL_FLAG_DENY | IPACL_FLAG_LOG)
                : static_cast<uint32_t>(IPACL_CHECK_NO_MATCH);
}

uint32_t check_list(const acl_info *info, const ipacl *list, int frag) {
    if (!list)
        return IPACL_CHECK_NO_LIST;
    return acl::StandardKind::owns(*list) ? ipacl_check_standard(info, list)
                                          : ipacl_check_extended(info, list, frag);
}

uint32_t check_network(uint32_t addr, uint32_t mask, const ipacl *list) {
    return list && acl::StandardKind::owns(*list) ? ipacl_check_standard_network(addr, mask, list)
                                                  : static_cast<uint32_t>(IPACL_CHECK_NO_LIST);
}

uint32_t check_named(const acl_info *info, const char *name, int frag) {
    acl::Lock lock;
    return check_list(info, ipacl_find(name), frag);
}

uint32_t check_and_log(const acl_info *info, const char *name, int level, const char *fmt,
                       int frag) {
    const uint32_t result = check_named(info, name, frag);
    if (!(result & IPACL_FLAG_LOG))
        return result;
    if (fmt) {
        void (*const log)(int, const char *, ...) = syslog;
        log(level, fmt); // the caller's text is the whole format
        return result;
    }
    uint8_t src[4], dst[4];
    memcpy(src, &info->src_ip, sizeof src);
    memcpy(dst, &info->dst_ip, sizeof dst);
    syslog(level, "list %s %s packet(proto = %d) %d.%d.%d.%d -> %d.%d.%d.%d, 1 packet\n", name,
           result & IPACL_FLAG_PERMIT ? "permitted" : "denied", info->proto, src[0], src[1], src[2],
           src[3], dst[0], dst[1], dst[2], dst[3]);
    return result;
}

// Reads fields of a frame; what lies beyond its end is zero.
class Frame {
  public:
    explicit Frame(const message *m)
        : data_(m ? m->read_pointer : nullptr),
          size_(data_ && m->end > data_ ? static_cast<size_t>(m->end - data_) : 0) {}

    template <class T>
    T raw(size_t offset) const {
        T value = 0;
        if (offset < size_)
            memcpy(&value, data_ + offset, std::min(sizeof value, size_ - offset));
        return value;
    }
    uint8_t byte(size_t offset) const { return raw<uint8_t>(offset); }

  private:
    const uint8_t *data_;
    size_t size_;
};

acl_info read_frame(const Frame &frame) {
    constexpr size_t kIp = 14;
    acl_info info{};
    info.tos = frame.byte(kIp + 1);
    info.proto = frame.byte(kIp + 9);
    info.src_ip = frame.raw<uint32_t>(kIp + 12);
    info.dst_ip = frame.raw<uint32_t>(kIp + 16);
    const size_t transport = kIp + 4 * static_cast<size_t>(frame.byte(kIp) & 0xF);
    if (acl_words::has_ports(info.proto)) {
        info.src_port = frame.raw<uint16_t>(transport); // kept: not converted
        info.dst_port = frame.raw<uint16_t>(transport + 2);
    }
    if (info.proto == acl_words::kTcp)
        info.tcp_flags = frame.byte(transport + 13) & 0x3F;
    if (info.proto == acl_words::kIcmp) {
        info.icmp_type = frame.byte(transport);
        info.icmp_code = frame.byte(transport + 1);
    }
    if (info.proto == acl_words::kIgmp)
        info.igmp_type = frame.byte(transport);
    return info;
}

} // namespace

acl::Failure acl::first_failure(const ipacl_standard_rule &rule, const acl_info &info, bool frag) {
    return failure_of(rule, info, frag);
}

acl::Failure acl::first_failure(const ipacl_extended_rule &rule, const acl_info &info, bool frag) {
    return failure_of(rule, info, frag);
}

const ipacl_standard_rule *ipacl_match_standard(const ipacl_standard_rule *rule,
                                                const acl_info *info) {
    return first_match(
        rule, [ip = info->src_ip](const ipacl_standard_rule &r) { return source_matches(r, ip); });
}

const ipacl_extended_rule *ipacl_match_extended(const ipacl_extended_rule *rule,
                                                const acl_info *info, int frag) {
    return first_match(rule, [&packet = *info, fragment = frag != 0](const ipacl_extended_rule &r) {
        return rule_matches(r, packet, fragment, Nobody{});
    });
}

uint32_t ipacl_check_standard(const acl_info *acl_info, const ipacl *acl) {
    return verdict(acl->ipacl_s, ipacl_match_standard(acl->ipacl_s, acl_info));
}

uint32_t ipacl_check_extended(const acl_info *acl_info, const ipacl *acl, int frag) {
    return verdict(acl->ipacl_e, ipacl_match_extended(acl->ipacl_e, acl_info, frag));
}

uint32_t ipacl_check_standard_network(uint32_t addr, uint32_t mask, const ipacl *acl) {
    using acl_words::kStandardSource;
    const ipacl_standard_rule *head = acl->ipacl_s;
    const auto *rule = first_match(head, [&](const ipacl_standard_rule &r) {
        return address_matches(r, kStandardSource, addr) &&
               (!kStandardSource.by_mask(r) || r.srcmsk.s_addr <= mask);
    });
    return verdict(head, rule);
}

uint32_t ipacl_check(const acl_info *acl_info, const char *acl_name) {
    return check_named(acl_info, acl_name, 0);
}

uint32_t ipacl_check_frag(const acl_info *acl_info, const char *acl_name) {
    return check_named(acl_info, acl_name, 1);
}

uint32_t ipacl_check_by_ptr(const acl_info *acl_info, const ipacl *acl) {
    acl::Lock lock;
    return check_list(acl_info, acl, 0);
}

uint32_t ipacl_check_network(uint32_t addr, uint32_t mask, const char *acl_name) {
    acl::Lock lock;
    return check_network(addr, mask, ipacl_find(acl_name));
}

uint32_t ipacl_check_network_by_ptr(uint32_t addr, uint32_t mask, const ipacl *acl) {
    acl::Lock lock;
    return check_network(addr, mask, acl);
}

uint32_t ipacl_check_log(const acl_info *acl_info, const char *acl_name, int log_level,
                         const char *fmt) {
    return check_and_log(acl_info, acl_name, log_level, fmt, 0);
}

uint32_t ipacl_check_frag_log(const acl_info *acl_info, const char *acl_name, int log_level,
                              const char *fmt) {
    return check_and_log(acl_info, acl_name, log_level, fmt, 1);
}

uint32_t ipacl_check_test(const message *m, const char *acl_name) {
    const ipacl *list = ipacl_find(acl_name);
    if (!list)
        return IPACL_FLAG_PERMIT; // kept: unlike the other checks
    const Frame frame(m);
    const acl_info info = read_frame(frame);
    // kept: the word is tested as it lies in memory.
    const bool fragment = (frame.raw<uint16_t>(20) & 0x1FFF) != 0;
    return check_list(&info, list, fragment);
}

uint32_t ipacl_check_psos(const message *, uint32_t, uint32_t) { return IPACL_FLAG_PERMIT; }
