// The compiled form against the linear walk: nanoseconds a packet, one by one and in batches of
// 32, and what compiling costs. The last table holds medians and ratios.

#include "medians.h"
#include "rule_sets.h"

#include "aclapi.h"
#include "aclfast.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <string>

namespace {

constexpr size_t kBatch = 32;
constexpr uint32_t kPackets = 4096;
constexpr uint32_t kSizes[] = {16, 64, 256, 1024, 4096, 16384};
constexpr size_t kMostMemory = 64 << 20;

// A rule set as a list, its compiled form and packets for it.
struct Setting {
    Setting(rule_sets::Kind kind, uint32_t size)
        : rules(rule_sets::rules(kind, size, 1)),
          packets(rule_sets::packets(kind, rules, kPackets, 2)) {
        list.ipacl_e = rule_sets::link(rules);
        compile();
    }
    void compile() {
        const clock_t begin = clock();
        form.reset(acl_compile(&list, kMostMemory));
        compile_ms = 1e3 * static_cast<double>(clock() - begin) / CLOCKS_PER_SEC;
    }

    std::vector<ipacl_extended_rule> rules;
    std::vector<acl_info> packets;
    ipacl list{};
    std::unique_ptr<acl_fast, decltype(&acl_fast_free)> form{nullptr, acl_fast_free};
    double compile_ms = 0;
};

const Setting &setting(rule_sets::Kind kind, uint32_t size) {
    static std::map<std::pair<rule_sets::Kind, uint32_t>, Setting> settings;
    return settings.try_emplace({kind, size}, kind, size).first->second;
}

void linear(const Setting &s, size_t at) {
    benchmark::DoNotOptimize(ipacl_check_extended(&s.packets[at], &s.list, 0));
}

void single(const Setting &s, size_t at) {
    uint32_t rule;
    benchmark::DoNotOptimize(acl_fast_check(s.form.get(), &s.packets[at], 0, &rule));
    benchmark::DoNotOptimize(rule);
}

void batch(const Setting &s, size_t at) {
    acl_fast_answer answers[kBatch];
    acl_fast_check_many(s.form.get(), &s.packets[at], nullptr, kBatch, answers);
    benchmark::DoNotOptimize(answers);
}

struct Method {
    const char *name;
    size_t packets;
    void (*ask)(const Setting &, size_t);
};
constexpr Method kMethods[] = {
    {"linear", 1, linear}, {"single", 1, single}, {"batch", kBatch, batch}};

std::string name_of(const char *kind, uint32_t size, const char *method) {
    std::string name = kind;
    name += '/';
    name += std::to_string(size);
    name += '/';
    name += method;
    return name;
}

void run(benchmark::State &state, rule_sets::Kind kind, uint32_t size, const Method &method) {
    const Setting &s = setting(kind, size);
    if (!s.form) {
        state.SkipWithError("not compiled");
        return;
    }
    size_t at = 0;
    for (auto _ : state) {
        method.ask(s, at);
        at = (at + method.packets) % kPackets;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(method.packets));
}

void print_table(const Medians &medians) {
    printf("\n%-12s %6s | %9s | %8s %6s | %8s %6s | %10s %9s\n", "rules", "", "linear ns", "one ns",
           "times", "of 32 ns", "times", "compile ms", "KiB");
    for (int k = 0; k < rule_sets::kKinds; k++)
        for (const uint32_t size : kSizes) {
            const char *kind = rule_sets::kNames[k];
            const double ns[] = {medians.ns(name_of(kind, size, "linear")),
                                 medians.ns(name_of(kind, size, "single")),
                                 medians.ns(name_of(kind, size, "batch"))};
            if (ns[0] == 0 || ns[1] == 0 || ns[2] == 0)
                continue; // filtered out
            const Setting &s = setting(static_cast<rule_sets::Kind>(k), size);
            printf("%-12s %6u | %9.1f | %8.1f %6.2f | %8.1f %6.2f | %10.1f %9.0f\n", kind, size,
                   ns[0], ns[1], ns[0] / ns[1], ns[2], ns[0] / ns[2], s.compile_ms,
                   static_cast<double>(acl_fast_bytes(s.form.get())) / 1024);
        }
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    for (int k = 0; k < rule_sets::kKinds; k++)
        for (const uint32_t size : kSizes)
            for (const Method &method : kMethods) {
                const auto kind = static_cast<rule_sets::Kind>(k);
                const std::string name = name_of(rule_sets::kNames[k], size, method.name);
                benchmark::RegisterBenchmark(
                    name.c_str(), [=](benchmark::State &state) { run(state, kind, size, method); })
                    ->Repetitions(7)
                    ->ReportAggregatesOnly()
                    ->MinTime(0.03);
            }
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    print_table(medians);
    return 0;
}
