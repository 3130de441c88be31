// The command that tells why a list decides about a packet as it does.
//
// Exit status: 0 the packet is permitted, 1 it is not, 2 no answer.
#pragma once

#include "analysis_commands.h"

namespace ipaclctl {

// Adds it to the command line; see add_analysis_commands.
void add_explain_command(CLI::App &app, std::function<std::string()> running, LocalCommand &chosen);

} // namespace ipaclctl
