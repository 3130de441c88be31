// Plays a configuration in running-config form through the service.
#pragma once

#include "service.h"

#include <istream>
#include <string>

namespace ipaclctl {

struct LoadResult {
    size_t lists = 0;
    size_t rules = 0;
    size_t errors = 0;
};

// Reads all of `in` and applies it line by line. What is wrong with a line goes to standard error
// as "SOURCE:LINE: ..."; the lines behind it are played all the same.
LoadResult load(Service &service, std::istream &in, const std::string &source);

// What is wrong with a rule line that the service would refuse without telling us, or "".
std::string refused_silently(Kind kind, const std::string &rule);

// "" when a list may be called so, else what is wrong.
std::string bad_name(const std::string &name);

// Sends one rule command. "" or what is wrong.
std::string send_rule(Service &service, const std::string &name, Kind kind,
                      const std::string &rule);

// Opens a list for editing, making it if need be; leaves that mode; destroys it.
std::string open_list(Service &service, const std::string &name, Kind kind);
std::string leave_list(Service &service, const std::string &name, Kind kind);
std::string destroy_list(Service &service, const std::string &name, Kind kind);

} // namespace ipaclctl
