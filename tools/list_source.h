// Lists in this process: read from configuration text by the library's own rule commands.
#pragma once

#include "ipacl/ipacl.h"

#include <functional>
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

// The same, and for no file what `running` gives.
Configuration configuration_of(const std::string &file,
                               const std::function<std::string()> &running);

// A line without blanks at its ends.
std::string trimmed(const std::string &line);

// The command that makes a rule which is shown as `line`. Port 20 is shown as "ftp-data", a word
// that the commands read as 21.
std::string command_of_shown(const std::string &line);

// The list `name` of a configuration, kept as the list `slot` of this process, which must not be
// there yet. What the service would refuse is said on standard error, left out, and counted in
// `refused` unless that is null. Throws Trouble when there is no such list.
const ipacl &read_list(const Configuration &configuration, const std::string &name,
                       const char *slot, size_t *refused = nullptr);

} // namespace ipaclctl
