// The compiled form against DPDK's rte_acl: the same rules and packets, batches of 32, one thread.
//
// Every method that this processor can run is measured, medians of seven rounds taken in turn.
// First both are asked about every packet and must name the same rule.

#include "rule_sets.h"

#include "aclfast.h"

#include <rte_acl.h>
#include <rte_eal.h>
#include <rte_errno.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr size_t kBatch = 32;
constexpr uint32_t kPackets = 4096;
constexpr int kRounds = 7;
constexpr size_t kMostMemory = 64 << 20;

// A packet as rte_acl takes it, in network order.
struct Key {
    uint8_t protocol;
    uint8_t unused[3];
    uint32_t src, dst;
    uint16_t src_port, dst_port;
};

enum { kProtocolField, kSourceField, kDestinationField, kSourcePortField, kDestinationPortField };

constexpr rte_acl_field_def field(uint8_t type, uint8_t size, uint8_t index, uint8_t input,
                                  size_t offset) {
    return {type, size, index, input, static_cast<uint32_t>(offset)};
}
constexpr rte_acl_field_def kKeyFields[] = {
    field(RTE_ACL_FIELD_TYPE_BITMASK, 1, kProtocolField, 0, offsetof(Key, protocol)),
    field(RTE_ACL_FIELD_TYPE_MASK, 4, kSourceField, 1, offsetof(Key, src)),
    field(RTE_ACL_FIELD_TYPE_MASK, 4, kDestinationField, 2, offsetof(Key, dst)),
    field(RTE_ACL_FIELD_TYPE_RANGE, 2, kSourcePortField, 3, offsetof(Key, src_port)),
    field(RTE_ACL_FIELD_TYPE_RANGE, 2, kDestinationPortField, 3, offsetof(Key, dst_port)),
};
constexpr uint32_t kKeyFieldCount = std::size(kKeyFields);
RTE_ACL_RULE_DEF(Rule, kKeyFieldCount);

struct Method {
    const char *name;
    enum rte_acl_classify_alg algorithm;
};
constexpr Method kMethods[] = {{"scalar", RTE_ACL_CLASSIFY_SCALAR},
                               {"sse", RTE_ACL_CLASSIFY_SSE},
                               {"avx2", RTE_ACL_CLASSIFY_AVX2},
                               {"avx512x16", RTE_ACL_CLASSIFY_AVX512X16},
                               {"avx512x32", RTE_ACL_CLASSIFY_AVX512X32}};

void prefix(rte_acl_field &to, in_addr address, in_addr mask) {
    to.value.u32 = ntohl(address.s_addr);
    to.mask_range.u32 = static_cast<uint32_t>(__builtin_popcount(mask.s_addr));
}

void ports(rte_acl_field &to, uint16_t flags, uint16_t port, uint16_t begin, uint16_t end) {
    uint32_t lo = 0, hi = UINT16_MAX;
    if (flags & IPACL_OP_EQ)
        lo = hi = port;
    if (flags & IPACL_OP_GT)
        lo = port + 1U;
    if (flags & IPACL_OP_LT)
        hi = port - 1U;
    if (flags & IPACL_OP_RANGE)
        lo = begin, hi = end;
    to.value.u16 = static_cast<uint16_t>(lo);
    to.mask_range.u16 = static_cast<uint16_t>(hi);
}

Rule converted(const ipacl_extended_rule &from, uint32_t position) {
    Rule rule{};
    rule.data.category_mask = 1;
    rule.data.priority = static_cast<int32_t>(RTE_ACL_MAX_PRIORITY - position);
    rule.data.userdata = position;
    const bool any_protocol = from.protcol == IPACL_PROTOCOL_IP;
    rule.field[kProtocolField].value.u8 =
        any_protocol ? uint8_t{0} : static_cast<uint8_t>(from.protcol);
    rule.field[kProtocolField].mask_range.u8 = any_protocol ? 0 : 0xFF;
    prefix(rule.field[kSourceField], from.srcaddr, from.srcmsk);
    prefix(rule.field[kDestinationField], from.dstaddr, from.dstmsk);
    ports(rule.field[kSourcePortField], from.src_port_flags, from.src_port, from.src_begin_port,
          from.src_end_port);
    ports(rule.field[kDestinationPortField], from.dst_port_flags, from.dst_port,
          from.dst_begin_port, from.dst_end_port);
    return rule;
}

// The processor time of this thread, in milliseconds: others may use the machine meanwhile.
double now_ms() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

rte_acl_ctx *build(const std::vector<ipacl_extended_rule> &rules) {
    rte_acl_param param{};
    param.name = "bench";
    param.rule_size = RTE_ACL_RULE_SZ(kKeyFieldCount);
    param.max_rule_num = static_cast<uint32_t>(rules.size());
    rte_acl_ctx *context = rte_acl_create(&param);
    if (!context)
        return nullptr;
    uint32_t position = 0;
    int error = 0;
    for (const auto &from : rules) {
        const Rule rule = converted(from, ++position);
        error |= rte_acl_add_rules(context, reinterpret_cast<const rte_acl_rule *>(&rule), 1);
    }
    rte_acl_config config{};
    config.num_categories = 1;
    config.num_fields = kKeyFieldCount;
    memcpy(config.defs, kKeyFields, sizeof kKeyFields);
    if (error || rte_acl_build(context, &config) != 0) {
        rte_acl_free(context);
        return nullptr;
    }
    return context;
}

std::vector<Key> keys_of(const std::vector<acl_info> &packets) {
    std::vector<Key> keys;
    for (const auto &packet : packets)
        keys.push_back({packet.proto,
                        {},
                        packet.src_ip,
                        packet.dst_ip,
                        htons(packet.src_port),
                        htons(packet.dst_port)});
    return keys;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Nanoseconds a packet of `ask`, which answers the batch at an index, over about 10 ms.
template <class F>
double time_of(F &&ask) {
    const double begin = now_ms();
    uint64_t packets = 0;
    double ms = 0;
    for (; ms < 10; ms = now_ms() - begin, packets += kPackets)
        for (size_t at = 0; at < kPackets; at += kBatch)
            ask(at);
    return ms * 1e6 / static_cast<double>(packets);
}

// Measures one rule set; false when the two disagree or one can't be built.
bool measure(rule_sets::Kind kind, uint32_t size) {
    auto rules = rule_sets::rules(kind, size, 1);
    const auto packets = rule_sets::packets(kind, rules, kPackets, 2);
    const auto keys = keys_of(packets);
    std::vector<const uint8_t *> data;
    for (const Key &key : keys)
        data.push_back(reinterpret_cast<const uint8_t *>(&key));
    ipacl list{};
    list.ipacl_e = rule_sets::link(rules);

    double begin = now_ms();
    acl_fast *form = acl_compile(&list, kMostMemory);
    const double our_ms = now_ms() - begin;
    begin = now_ms();
    rte_acl_ctx *context = build(rules);
    const double its_ms = now_ms() - begin;
    if (!form || !context) {
        printf("%-12s %6u | not built\n", rule_sets::kNames[kind], size);
        return false;
    }

    acl_fast_answer answers[kPackets];
    uint32_t results[kPackets];
    const auto ours = [&](size_t at) {
        acl_fast_check_many(form, &packets[at], nullptr, kBatch, answers + at);
    };
    const auto its = [&](size_t at) {
        rte_acl_classify(context, &data[at], results + at, kBatch, 1);
    };
    std::vector<double> our_ns, its_ns[std::size(kMethods)];
    bool agree = true;
    for (int round = 0; round < kRounds; round++) {
        our_ns.push_back(time_of(ours));
        for (size_t m = 0; m < std::size(kMethods); m++) {
            if (rte_acl_set_ctx_classify(context, kMethods[m].algorithm) != 0)
                continue; // not on this processor
            its_ns[m].push_back(time_of(its));
            for (uint32_t i = 0; i < kPackets; i++)
                agree = agree && results[i] == answers[i].rule;
        }
    }
    printf("%-12s %6u | %8.1f |", rule_sets::kNames[kind], size, median(our_ns));
    double best = 0;
    for (const auto &ns : its_ns) {
        if (ns.empty()) {
            printf(" %9s", "-");
            continue;
        }
        const double middle = median(ns);
        printf(" %9.1f", middle);
        best = best == 0 ? middle : std::min(best, middle);
    }
    printf(" | %6.2f | %8.1f %8.1f | %s\n", best / median(our_ns), our_ms, its_ms,
           agree ? "same rules" : "DIFFERENT RULES");
    fflush(stdout);
    acl_fast_free(form);
    rte_acl_free(context);
    return agree;
}

} // namespace

int main(int, char **argv) {
    std::string name = argv[0];
    std::string words[] = {name,          "--no-huge",
                           "--no-pci",    "--no-telemetry",
                           "--no-shconf", "-m",
                           "256",         "-l",
                           "0",           "--force-max-simd-bitwidth",
                           "512",         "--log-level",
                           "error"};
    std::vector<char *> arguments;
    for (auto &word : words)
        arguments.push_back(word.data());
    if (rte_eal_init(static_cast<int>(arguments.size()), arguments.data()) < 0) {
        fprintf(stderr, "SKIPPED: DPDK's environment does not start here: %s\n",
                rte_strerror(rte_errno));
        return 0;
    }
    printf("%-12s %6s | %8s |", "batches", "rules", "ours ns");
    for (const auto &method : kMethods)
        printf(" %9s", method.name);
    printf(" | %6s | %8s %8s |\n", "times", "ours ms", "its ms");
    bool good = true;
    for (const auto kind :
         {rule_sets::kAccessList, rule_sets::kFirewall, rule_sets::kChain, rule_sets::kLastOnly})
        for (const uint32_t size : {16U, 64U, 256U, 1024U, 4096U, 16384U})
            good = measure(kind, size) && good;
    rte_eal_cleanup();
    return good ? 0 : 1;
}
