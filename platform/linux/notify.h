// The service manager's notification socket.
#pragma once

namespace notify {

// Tells the service manager, where there is one, a state such as "READY=1".
void send(const char *state);

} // namespace notify
