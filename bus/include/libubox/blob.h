/* Binary attributes: a big-endian word of flag, id and length, then the payload, padded to 4. */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include "utils.h"

#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_EXTENDED 0x80000000
#define BLOB_ATTR_ALIGN 4

struct blob_attr {
    uint32_t id_len;
};

/* A message under construction. Zero it before the first init; any put may move the buffer. */
struct blob_buf {
    struct blob_attr *head;
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

static inline void *blob_data(const struct blob_attr *attr) {
    return (char *)attr + sizeof(struct blob_attr);
}
static inline unsigned int blob_id(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}
static inline bool blob_is_extended(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}
/* Payload length, without the word; the word must say at least 4. */
static inline size_t blob_len(const struct blob_attr *attr) {
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK) - sizeof(struct blob_attr);
}
static inline size_t blob_raw_len(const struct blob_attr *attr) {
    return blob_len(attr) + sizeof(struct blob_attr);
}
static inline size_t blob_pad_len(const struct blob_attr *attr) {
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}
static inline struct blob_attr *blob_next(const struct blob_attr *attr) {
    return (struct blob_attr *)((char *)attr + blob_pad_len(attr));
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr) {
    return *(const uint8_t *)blob_data(attr);
}
static inline uint16_t blob_get_u16(const struct blob_attr *attr) {
    uint16_t value;
    memcpy(&value, blob_data(attr), sizeof value);
    return be16_to_cpu(value);
}
static inline uint32_t blob_get_u32(const struct blob_attr *attr) {
    uint32_t value;
    memcpy(&value, blob_data(attr), sizeof value);
    return be32_to_cpu(value);
}
static inline uint64_t blob_get_u64(const struct blob_attr *attr) {
    uint64_t value;
    memcpy(&value, blob_data(attr), sizeof value);
    return be64_to_cpu(value);
}
static inline const char *blob_get_string(const struct blob_attr *attr) {
    return (const char *)blob_data(attr);
}

/* 0, or -ENOMEM. Memory of an earlier message is used again. */
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);
bool blob_buf_grow(struct blob_buf *buf, int required);

/* The new attribute, or null when memory is short or the message would pass 16 MiB. */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str) {
    return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}
static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t value) {
    return blob_put(buf, id, &value, sizeof value);
}
static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t value) {
    value = cpu_to_be16(value);
    return blob_put(buf, id, &value, sizeof value);
}
static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t value) {
    value = cpu_to_be32(value);
    return blob_put(buf, id, &value, sizeof value);
}
static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t value) {
    value = cpu_to_be64(value);
    return blob_put(buf, id, &value, sizeof value);
}

/* Opens a container; the cookie closes it again and is an offset, not an address. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

/* A copy that the caller frees, or null. */
struct blob_attr *blob_memdup(const struct blob_attr *attr);
bool blob_attr_equal(const struct blob_attr *a, const struct blob_attr *b);

/* Walks `rem` bytes of attributes; stops where the next one does not fit with its padding. */
#define __blob_for_each_attr(pos, attr, rem)                                                       \
    for ((pos) = (struct blob_attr *)(attr);                                                       \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&        \
         blob_pad_len(pos) >= sizeof(struct blob_attr);                                            \
         (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem)                                                         \
    for ((rem) = (attr) ? blob_len(attr) : 0,                                                      \
        (pos) = (struct blob_attr *)((attr) ? blob_data(attr) : NULL);                             \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&        \
         blob_pad_len(pos) >= sizeof(struct blob_attr);                                            \
         (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif
