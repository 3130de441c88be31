// The table of bench/run: a row is what something costs here, what it can't cost less than, and
// the ratio of the two.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

// Seconds as text of at most nine characters, with a unit that fits.
std::string duration(double seconds);

// Prints one row of times in seconds. `goal`: the ratio that is aimed at; 0: none is.
void print_row(const std::string &name, double ours, double floor, double goal);

// Prints a row that could not be measured, and why.
void print_skipped(const std::string &name, const std::string &why);

double median(std::vector<double> values);

// Pairs of benchmarks, run in turns so that whatever else the machine does hits both.
class Table {
  public:
    using Run = std::function<void(benchmark::State &)>;

    // `ours` and `floor` call SetItemsProcessed with the same items for the same work.
    void add(const std::string &name, double goal, Run ours, Run floor, bool timed_by_hand = false);
    // Runs what --benchmark_filter leaves and prints its rows. 0, or 1 for a wrong argument.
    int print(int argc, char **argv);

  private:
    struct Row {
        std::string name;
        double goal;
    };
    std::vector<Row> rows_;
};

// Repeats one piece of work of `items` items.
template <class F>
Table::Run repeat(size_t items, F work) {
    return [=](benchmark::State &state) {
        for (auto _ : state)
            work();
        state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(items));
    };
}
