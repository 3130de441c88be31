// The commands that answer about lists before a change is made: unreachable, diff, equal, merge and
// plan, each for running lists or for those of a file.
//
// Exit status: 0 nothing to report, 1 something found (an unreachable rule, a difference, a merge
// that is disproved), 2 no answer.
#pragma once

#include "analysis/analysis.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace ipaclctl {

using LocalCommand = std::function<int()>;

// Adds them to the command line. `running` gives the running configuration; the command that is
// chosen is stored in `chosen`.
void add_analysis_commands(CLI::App &app, std::function<std::string()> running,
                           LocalCommand &chosen);

// Writes what changes from a list called `a` to one called `b`.
void tell_difference(const std::string &a, const std::string &b,
                     const analysis::Difference &difference);

} // namespace ipaclctl
