/* The resource service: who owns which named resource, and who is told when one changes.
 *
 * On a device the platform's resource service provides it; on a plain Linux host platform/linux
 * does: it keeps the owners of this process and announces every synchronisation as the bus event
 * "resource.access-list" with {"name": list, "state": "changed" or "removed"}. Event-loop thread
 * only. */
#ifndef IPACL_PLATFORM_RESOURCE_H
#define IPACL_PLATFORM_RESOURCE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { RESOURCE_TYPE_ACCESSLIST = 3 };
enum { RESOURCE_INDEX_TYPE_STRING = 1 };

/* Reads a resource by its index; `param1` points to the pointer that receives it. 0, or -1. */
typedef int32_t (*resource_read_t)(uint32_t type, uint32_t index_type, const void *index,
                                   void *param1, void *param2, void *param3, void *param4);

/* Writes a resource by its index. */
typedef int32_t (*resource_write_t)(uint32_t type, uint32_t index_type, const void *index,
                                    void *param1, void *param2, void *param3, void *param4);

/* Turn an index into transport bytes and back. Results: the number of bytes used, or -1 when
 * `size` is too small or the bytes are no index. */
typedef int32_t (*resource_encode_t)(const void *index, void *bytes, uint32_t size);
typedef int32_t (*resource_decode_t)(const void *bytes, uint32_t size, void *index,
                                     uint32_t index_size);

int32_t __RESOURCE_TYPE_ACCESSLIST_encode(const void *index, void *bytes, uint32_t size);
int32_t __RESOURCE_TYPE_ACCESSLIST_decode(const void *bytes, uint32_t size, void *index,
                                          uint32_t index_size);

/* Registers `owner` as the owner of the resource `index` of a type, replacing an earlier owner of
 * the same index. The index text is copied. 0, or -1 when memory is short or an argument is bad. */
int32_t __resource_register_owner(const void *owner, uint32_t type, resource_encode_t encode,
                                  resource_decode_t decode, uint32_t index_type, const void *index,
                                  resource_write_t write, resource_read_t read);

/* Tells every user of the resource `name` that it changed (`resource` is its record) or went
 * (`resource` is null; its owner is forgotten). 0, or the service's error code. A bus that is away
 * is no error: whoever listens reads the lists again when it is back. */
int32_t resource_synchronize(uint32_t id, const void *resource, const char *name);

/* For users of resources in the same process: reads through the owner's read function. 0, or -1
 * when nobody owns the resource or its owner refuses. */
int32_t resource_read(uint32_t type, uint32_t index_type, const void *index, void *param1,
                      void *param2, void *param3, void *param4);

#ifdef __cplusplus
}
#endif

#endif
