// The command that puts the packets of a capture to a list, or to two.
//
// Exit status: 0 done, 1 two lists decide differently, 2 no answer or not a whole one.
#pragma once

#include "analysis_commands.h"

namespace ipaclctl {

// Adds it to the command line; see add_analysis_commands.
void add_replay_command(CLI::App &app, std::function<std::string()> running, LocalCommand &chosen);

} // namespace ipaclctl
