/* The message buffer that carries a raw frame between the device's components.
 *
 * On a device the platform's message library provides it; here it is what the access-list service
 * reads of one: a read pointer at the first byte of the frame and the end of what may be read. */
#ifndef IPACL_PLATFORM_MESSAGE_H
#define IPACL_PLATFORM_MESSAGE_H

#include <stdint.h>

struct message {
    const uint8_t *read_pointer;
    const uint8_t *end;
};

#endif
