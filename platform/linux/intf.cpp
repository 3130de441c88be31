// Names of interfaces, by the kernel's index.

#include "platform/intf.h"

#include <net/if.h>

int32_t interface_omnivorous_callback_getname(uint32_t devid, char **name) {
    static_assert(IF_NAMESIZE <= 20, "fits the caller's buffer");
    return if_indextoname(devid, *name) ? 0 : -1;
}
