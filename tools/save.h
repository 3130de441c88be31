// Writing a file so that it is either the old one or the new one, whole, whatever happens.
#pragma once

#include <string>

namespace ipaclctl {

// What a service is given after each start.
inline constexpr const char *kStartupConfig = "/etc/ipacl/startup-config";

// Replaces what `file` (or the file that it links to) holds by `text`: a temporary file beside it
// is written, forced to the disk and renamed over it. Owner and mode are kept; a new file may be
// read by its group and nobody else. "" or what went wrong; then the old file is untouched.
std::string replace_file(const std::string &file, const std::string &text);

} // namespace ipaclctl
