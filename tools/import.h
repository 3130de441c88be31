// The command that turns access lists of other devices into ours.
//
// Exit status: 0 everything was converted, 1 something is lost, 2 no answer.
#pragma once

#include "analysis_commands.h"

namespace ipaclctl {

// Adds it to the command line; see add_analysis_commands.
void add_import_command(CLI::App &app, LocalCommand &chosen);

} // namespace ipaclctl
