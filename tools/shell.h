// The command line of a network device: modes, prompts, abbreviations, help and completion.
#pragma once

#include "service.h"

namespace ipaclctl {

// Obeys what is typed on the terminal or comes through a pipe, until its end. The exit status: 0,
// or 1 when a line of a pipe was wrong or refused. With `force` no line is held back.
int run_shell(Service &service, bool force);

} // namespace ipaclctl
