// Strict reading of a configuration file, without a service.
#pragma once

#include <string>

namespace ipaclctl {

enum class LintFormat { kText, kJson, kSarif };

// Reads `file` (- is standard input) and writes what it finds to standard output. The exit status:
// 0 no errors, 1 errors (with `warnings_count`, warnings too), 2 the file can't be read.
int lint(const std::string &file, LintFormat format, bool warnings_count);

} // namespace ipaclctl
