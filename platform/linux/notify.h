// The service manager's notification socket.
#pragma once

namespace notify {

// Tells the service manager, where there is one, a state such as "READY=1".
void send(const char *state);

// What is sent to say that this process is alive.
constexpr const char *kAlive = "WATCHDOG=1";

// Half of the time within which the service manager wants to hear of this process, in
// milliseconds; 0 when nobody watches.
int watchdog_period();

} // namespace notify
