// The command that makes lists what a configuration says, or leaves them as they were.
#pragma once

#include "service.h"

#include <cstddef>
#include <string>

namespace ipaclctl {

struct Apply {
    std::string file;
    bool dry_run = false;
    int confirm = 0; // seconds; 0: without
    size_t limit = 10;
};

// Shows what differs, sends it, and looks whether it came out. 0 done; 1 refused, failed or not
// confirmed: the lists are as they were. Throws Trouble, with nothing sent, for a configuration
// that the service would not take whole.
int apply(Service &service, const Apply &what);

} // namespace ipaclctl
