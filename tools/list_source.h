// Lists in this process: read from configuration text by the library's own rule commands.
#pragma once

#include "ipacl/ipacl.h"

#include <stdexcept>
#include <string>

namespace ipaclctl {

// A question that can't be answered: no such list, a text that can't be read.
struct Trouble : std::runtime_error {
    using runtime_error::runtime_error;
};

// Where a configuration comes from.
struct Configuration {
    std::string text;
    std::string source; // file name
    bool running;       // it is the service's own: it must read back exactly
};

// Reads a file, or standard input for "-".
Configuration read_configuration(const std::string &file);

// The list `name` of a configuration, kept as the list `slot` of this process, which must not be
// there yet. What the service would refuse is said on standard error and left out. Throws Trouble
// when there is no such list.
const ipacl &read_list(const Configuration &configuration, const std::string &name,
                       const char *slot);

} // namespace ipaclctl
