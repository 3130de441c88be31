// The commands of ipaclctl. Each returns the exit status: 0 done, 1 refused.
#pragma once

#include "service.h"

#include <optional>
#include <string>

namespace ipaclctl {

int load_file(Service &service, const std::string &file, bool verbose, bool force);
int show_running(Service &service);
int save(Service &service, const std::string &file);
int show_lists(Service &service, const std::optional<std::string> &name);
int show_json(Service &service, const std::optional<std::string> &name, std::optional<Kind> kind);
int create(Service &service, const std::string &name, Kind kind);
int destroy(Service &service, const std::string &name, std::optional<Kind> kind);
int rule(Service &service, const std::string &name, const std::string &words, bool force);

// What is shown of one list, or of all.
std::string listing(Service &service, const std::optional<std::string> &name);
std::string json_text(Service &service, const std::optional<std::string> &name, Kind kind);

int watch(Service &service, unsigned count);

} // namespace ipaclctl
