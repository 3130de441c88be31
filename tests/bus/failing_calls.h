// System calls that fail on demand, in the threads that ask for it: those calls are replaced in the
// test binary.
#pragma once

#include <cstdint>
#include <vector>

namespace failing {

enum Call { kListen, kAccept, kGetsockopt, kEpollCtl, kSend, kRecv, kCalls };

// Lets the next `times` calls fail with `error`.
void arm(Call call, int error, int times = 1);
// How often armed calls have failed.
int failed();

// The next words that getrandom gives; then it goes on as ever.
void draw(const std::vector<uint32_t> &words);

// While one lives, what was armed happens in its thread.
class Here {
  public:
    Here();
    ~Here();
    Here(const Here &) = delete;
    Here &operator=(const Here &) = delete;
};

} // namespace failing
