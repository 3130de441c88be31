// The small services of the system library.

#include "platform/sys.h"

#include <bit>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <sched.h>

void tm_wkafter(uint32_t ticks) {
    constexpr uint32_t kTicksPerSecond = 100;
    if (ticks == 0) {
        sched_yield();
        return;
    }
    const timespec pause{static_cast<time_t>(ticks / kTicksPerSecond),
                         static_cast<long>(ticks % kTicksPerSecond) * 10'000'000};
    nanosleep(&pause, nullptr);
}

uint32_t ffb(uint32_t word) { return static_cast<uint32_t>(std::countl_zero(word)); }

void lltostr(uint64_t value, char *text) {
    constexpr size_t kSize = 21;
    (void)snprintf(text, kSize, "%llu", static_cast<unsigned long long>(value));
}

int sys_debug_print(int, int, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int written = vprintf(fmt, args);
    va_end(args);
    (void)fflush(stdout);
    return written;
}
