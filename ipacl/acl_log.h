// The error log of the store: every line names its severity, the function and the source line.
#pragma once

#include <syslog.h>

// Severity of everything the service logs, unless a line says otherwise.
inline constexpr int kLogError = 3;

#define ACL_LOG_ERROR(text, ...)                                                                   \
    syslog(kLogError, "%%IPACL-%d-%s(%d): " text, kLogError, __func__,                             \
           __LINE__ __VA_OPT__(, ) __VA_ARGS__)
