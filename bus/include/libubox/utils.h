/* Small helpers that the bus headers and their users share. */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <endian.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif

#ifndef container_of
#define container_of(pointer, type, member) ((type *)((char *)(pointer)-offsetof(type, member)))
#endif

#define cpu_to_be16(value) htobe16(value)
#define cpu_to_be32(value) htobe32(value)
#define cpu_to_be64(value) htobe64(value)
#define be16_to_cpu(value) be16toh(value)
#define be32_to_cpu(value) be32toh(value)
#define be64_to_cpu(value) be64toh(value)

#endif
