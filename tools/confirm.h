// Waiting for somebody to say that he can still reach the device.
#pragma once

#include "service.h"

#include <libubus.h>

#include <string>

namespace ipaclctl {

// Somebody who waits, known on the bus: there is one at a time. He outlives the terminal that he
// was started from.
class Confirmation {
  public:
    enum Word { kConfirmed, kTimeout, kInterrupted, kBusLost };

    // Throws Trouble when somebody else waits already, Unreachable without a bus.
    explicit Confirmation(const std::string &socket);
    ~Confirmation();
    Confirmation(const Confirmation &) = delete;
    Confirmation &operator=(const Confirmation &) = delete;

    // Waits for the command "confirm", or for Enter where standard input is a terminal.
    Word wait(int seconds);

  private:
    ubus_context *ctx_;
};

// The command: 0, or 1 when nobody waits.
int confirm(Service &service);

} // namespace ipaclctl
