// Matching, per rule: a packet that misses every rule but the last, against a walk over the same
// records that looks at nothing but what the first failing test of a rule must look at.

#include "lists.h"
#include "rule_sets.h"
#include "service_rows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <linux/perf_event.h>
#include <memory>
#include <random>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using Standard = ipacl_standard_rule;
using Extended = ipacl_extended_rule;

uint32_t first_word(const Standard &rule) { return rule.srcaddr.s_addr ^ rule.compare_flag; }
uint32_t first_word(const Extended &rule) {
    return rule.srcaddr.s_addr ^ rule.src_compare_flag ^ rule.dst_compare_flag;
}

template <class Rule>
uint32_t bare_walk(const Rule *rule) {
    uint32_t sum = 0;
    for (; rule; rule = rule->ipacl_next)
        sum += first_word(*rule);
    return sum;
}

uint32_t match(const Standard *rule, const acl_info &packet) {
    return ipacl_match_standard(rule, &packet)->flags;
}
uint32_t match(const Extended *rule, const acl_info &packet) {
    return ipacl_match_extended(rule, &packet, 0)->flags;
}

// Copies of a list's rules, linked in the same order, lying in that order or in another.
template <class Rule>
class Records {
  public:
    Records(const Rule *rules, uint32_t count, bool shuffled) : records_(count) {
        std::vector<uint32_t> places(count);
        for (uint32_t i = 0; i < count; i++)
            places[i] = i;
        if (shuffled)
            std::shuffle(places.begin(), places.end(), std::mt19937(1));
        Rule **link = &head_;
        for (uint32_t i = 0; i < count; i++, rules = rules->ipacl_next) {
            *link = &records_[places[i]];
            **link = *rules;
            link = &(*link)->ipacl_next;
        }
        *link = nullptr;
        last_ = &records_[places[count - 1]];
    }
    const Rule *head() const { return head_; }
    // A packet that only the last rule takes.
    acl_info packet() const {
        acl_info info{};
        info.src_ip = last_->srcaddr.s_addr;
        if constexpr (std::is_same_v<Rule, Extended>) {
            info.dst_ip = last_->dstaddr.s_addr;
            info.dst_port = last_->dst_port;
            info.proto = static_cast<uint8_t>(last_->protcol);
        }
        return info;
    }

  private:
    std::vector<Rule> records_;
    Rule *head_ = nullptr;
    const Rule *last_;
};

std::string name_of(const char *kind, uint32_t size, bool shuffled) {
    std::string name = "match a rule: ";
    name += kind;
    name += ", ";
    name += std::to_string(size);
    name += shuffled ? " shuffled" : " in order";
    return name;
}

template <class Rule>
void add(Table &table, const char *kind, const Rule *rules, uint32_t size, bool shuffled) {
    const auto records = std::make_shared<Records<Rule>>(rules, size, shuffled);
    const acl_info packet = records->packet();
    table.add(name_of(kind, size, shuffled), size < 1024 ? 2 : 1.3,
              repeat(size,
                     [records, packet] {
                         const acl_info *unknown = &packet;
                         benchmark::DoNotOptimize(unknown); // to the compiler it may be any
                         benchmark::DoNotOptimize(match(records->head(), *unknown));
                     }),
              repeat(size, [records] { benchmark::DoNotOptimize(bare_walk(records->head())); }));
}

int open_counter(uint64_t what) {
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_HARDWARE;
    attributes.config = what;
    attributes.disabled = 1;
    attributes.exclude_kernel = 1;
    return static_cast<int>(syscall(SYS_perf_event_open, &attributes, 0, -1, -1, 0));
}

} // namespace

void add_match_rows(Table &table) {
    constexpr uint32_t kSizes[] = {16, 128, 1024, 16384};
    const auto *standard = list_of("match-s", true, 16384).ipacl_s;
    const auto *extended = list_of("match-e", false, 16384).ipacl_e;
    for (const uint32_t size : kSizes)
        for (const bool shuffled : {false, true}) {
            add(table, "standard", standard, size, shuffled);
            add(table, "extended", extended, size, shuffled);
        }
}

void print_mispredictions() {
    const std::string name = "mispredicted branches a packet, mixed trace";
    const int fd = open_counter(PERF_COUNT_HW_BRANCH_MISSES);
    if (fd < 0)
        return print_skipped(name, std::string("no counters here: ") + strerror(errno));
    constexpr uint32_t kRules = 1024, kPackets = 4096;
    auto rules = rule_sets::rules(rule_sets::kAccessList, kRules, 1);
    const auto packets = rule_sets::packets(rule_sets::kAccessList, rules, kPackets, 2);
    const auto *head = rule_sets::link(rules);
    std::vector<double> counts;
    for (int round = 0; round < 7; round++) {
        ioctl(fd, PERF_EVENT_IOC_RESET, 0);
        ioctl(fd, PERF_EVENT_IOC_ENABLE, 0);
        for (const acl_info &packet : packets)
            benchmark::DoNotOptimize(ipacl_match_extended(head, &packet, 0));
        ioctl(fd, PERF_EVENT_IOC_DISABLE, 0);
        uint64_t count = 0;
        if (read(fd, &count, sizeof count) == sizeof count)
            counts.push_back(static_cast<double>(count) / kPackets);
    }
    close(fd);
    if (counts.empty())
        print_skipped(name, "the counter can't be read");
    else
        printf("%-56s %10.2f\n", name.c_str(), median(counts));
}
