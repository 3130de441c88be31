/* The interface service: names of device interfaces.
 *
 * On a device the platform's interface library provides it; on a plain Linux host the id is the
 * kernel's interface index. */
#ifndef IPACL_PLATFORM_INTF_H
#define IPACL_PLATFORM_INTF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Gets the name of the interface `devid`. `*name` points to the caller's buffer of 20 bytes; the
 * service fills it or makes `*name` point to a name of its own. 0, or a negative error. */
int32_t interface_omnivorous_callback_getname(uint32_t devid, char **name);

#ifdef __cplusplus
}
#endif

#endif
