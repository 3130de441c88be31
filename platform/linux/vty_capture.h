// What the terminal keeps for the reply while a bus request is served.
#pragma once

#include <cstddef>

namespace vty {

// The most text that one reply carries; what passes it ends at a line end.
inline constexpr size_t kMaxCapture = 1024 * 1024 - 16 * 1024;

// From now on text without a handler is kept.
void begin_capture();

// Ends keeping. The text, NUL-terminated and valid until release_capture, or null for none;
// `truncated` tells that some was dropped.
const char *end_capture(bool &truncated);

// Gives the memory of a large text back.
void release_capture();

} // namespace vty
