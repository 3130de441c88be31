// What Google Benchmark measured: the median of each benchmark's repetitions, by name.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

// Keeps the medians, by name, beside printing them.
class Medians : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs)
            if (run.aggregate_name == "median")
                ns_[run.run_name.function_name] =
                    1e9 / static_cast<double>(run.counters.at("items_per_second"));
        ConsoleReporter::ReportRuns(runs);
    }
    // Nanoseconds an item; 0 for what was not measured.
    double ns(const std::string &name) const {
        const auto found = ns_.find(name);
        return found == ns_.end() ? 0 : found->second;
    }

  private:
    std::map<std::string, double> ns_;
};
