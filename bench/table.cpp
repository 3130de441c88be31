#include "table.h"

#include "medians.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

std::string duration(double seconds) {
    const auto [factor, unit] = seconds < 1e-6   ? std::pair(1e9, "ns")
                                : seconds < 1e-3 ? std::pair(1e6, "us")
                                : seconds < 1    ? std::pair(1e3, "ms")
                                                 : std::pair(1.0, "s");
    char text[32];
    snprintf(text, sizeof text, "%.4g %s", seconds * factor, unit);
    return text;
}

void print_row(const std::string &name, double ours, double floor, double goal) {
    printf("%-56s %10s %10s %7.3g", name.c_str(), duration(ours).c_str(), duration(floor).c_str(),
           ours / floor);
    if (goal > 0)
        printf(" %6.2g %s", goal, ours / floor <= goal ? "met" : "missed");
    printf("\n");
    fflush(stdout);
}

void print_skipped(const std::string &name, const std::string &why) {
    printf("%-56s SKIPPED: %s\n", name.c_str(), why.c_str());
    fflush(stdout);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2;
}

void Table::add(const std::string &name, double goal, Run ours, Run floor, bool timed_by_hand) {
    const std::pair<const char *, Run> halves[] = {{"/ours", std::move(ours)},
                                                   {"/floor", std::move(floor)}};
    for (const auto &[end, run] : halves) {
        auto *made = benchmark::RegisterBenchmark((name + end).c_str(), run)
                         ->Repetitions(7)
                         ->ReportAggregatesOnly()
                         ->MinTime(0.02);
        if (timed_by_hand)
            made->UseManualTime();
    }
    rows_.push_back({name, goal});
}

int Table::print(int argc, char **argv) {
    std::vector<char *> arguments(argv, argv + argc);
    std::string in_turns = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, in_turns.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;
    Medians medians;
    medians.SetOutputStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&medians);
    for (const Row &row : rows_)
        if (const double floor = medians.ns(row.name + "/floor"); floor > 0)
            print_row(row.name, medians.ns(row.name + "/ours") / 1e9, floor / 1e9, row.goal);
    return 0;
}
