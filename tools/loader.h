// Plays a configuration in running-config form through the service.
#pragma once

#include "service.h"

#include <istream>
#include <string>

namespace ipaclctl {

struct LoadResult {
    size_t lists = 0;
    size_t rules = 0;
    size_t errors = 0; // lines that were not sent, or refused
    size_t warnings = 0;
};

// Reads all of `in` and applies it line by line. What is wrong with a line goes to standard error
// as "SOURCE:LINE: ..." or "SOURCE:LINE:COLUMN: ..."; the lines behind it are played all the same.
// A rule with an error by strict reading is not sent, but with `force`.
LoadResult load(Service &service, std::istream &in, const std::string &source, bool force);

// Sends one rule command. "" or what is wrong.
std::string send_rule(Service &service, const std::string &name, Kind kind,
                      const std::string &rule);

// Opens a list for editing, making it if need be; leaves that mode; destroys it.
std::string open_list(Service &service, const std::string &name, Kind kind);
std::string leave_list(Service &service, const std::string &name, Kind kind);
std::string destroy_list(Service &service, const std::string &name, Kind kind);

} // namespace ipaclctl
