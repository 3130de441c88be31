// Start-up synchroniser and watchdog over the service manager's notification socket.

#include "platform/syncinit.h"

#include "notify.h"
#include "platform/sys.h"

#include <libubus.h>

#include <ctime>

namespace {

uloop_timeout watchdog_timer;
int watchdog_period; // milliseconds; 0: nobody watches

void kick(uloop_timeout *timer) {
    notify::send(notify::kAlive);
    uloop_timeout_set(timer, watchdog_period);
}

} // namespace

void syncinit_finish(void) {
    notify::send("READY=1");
    watchdog_period = notify::watchdog_period();
    if (watchdog_period > 0) {
        watchdog_timer.cb = kick;
        uloop_timeout_set(&watchdog_timer, watchdog_period);
    }
}

// Called once a list in long listings: tells the manager at most once a second.
void reset_watch_dog(void) {
    static time_t last;
    if (watchdog_period == 0)
        return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec != last)
        notify::send(notify::kAlive);
    last = now.tv_sec;
}
