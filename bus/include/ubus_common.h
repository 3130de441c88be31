/* What the library and the broker share beside the messages. */
#ifndef UBUS_COMMON_H
#define UBUS_COMMON_H

#include "ubusmsg.h"

#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"

#endif
