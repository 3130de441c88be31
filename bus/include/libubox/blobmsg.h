/* Named, typed attributes: the arguments and results of bus methods. */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include "blob.h"

#ifdef __cplusplus
extern "C" {
#endif

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8
};

struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type;
};

/* Finds the attributes that a policy names. Clears tb first. 0, -22 for no data, -1 at the first
 * malformed attribute, entries before it staying set. Absent and wrongly typed entries are null. */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                  void *data, unsigned int len);

/* Validity of one attribute within `len` bytes. */
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

static inline int blobmsg_type(const struct blob_attr *attr) { return (int)blob_id(attr); }
const char *blobmsg_name(const struct blob_attr *attr);
void *blobmsg_data(const struct blob_attr *attr); /* null for null */
int blobmsg_len(const struct blob_attr *attr);    /* 0 for null */
static inline int blobmsg_data_len(const struct blob_attr *attr) { return blobmsg_len(attr); }

uint8_t blobmsg_get_u8(struct blob_attr *attr);
uint16_t blobmsg_get_u16(struct blob_attr *attr);
uint32_t blobmsg_get_u32(struct blob_attr *attr);
uint64_t blobmsg_get_u64(struct blob_attr *attr);
static inline bool blobmsg_get_bool(struct blob_attr *attr) { return blobmsg_get_u8(attr) != 0; }
char *blobmsg_get_string(struct blob_attr *attr); /* null for null */

static inline int blobmsg_buf_init(struct blob_buf *buf) {
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

/* 0, or -1 when memory is short. */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len);
int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr);
int blobmsg_add_double(struct blob_buf *buf, const char *name, double value);

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t value) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &value, sizeof value);
}
static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t value) {
    value = cpu_to_be16(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &value, sizeof value);
}
static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t value) {
    value = cpu_to_be32(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &value, sizeof value);
}
static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t value) {
    value = cpu_to_be64(value);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &value, sizeof value);
}
static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string) {
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string,
                             (unsigned int)strlen(string) + 1);
}

/* A cookie to close the container with, or null when memory is short. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);
static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, false);
}
static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name) {
    return blobmsg_open_nested(buf, name, true);
}
static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}
static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie) {
    blob_nest_end(buf, cookie);
}

#define blobmsg_for_each_attr(pos, attr, rem)                                                      \
    for ((rem) = (attr) ? (size_t)blobmsg_len(attr) : 0,                                           \
        (pos) = (struct blob_attr *)((attr) ? blobmsg_data(attr) : NULL);                          \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&        \
         blob_pad_len(pos) >= sizeof(struct blob_attr);                                            \
         (rem) -= blob_pad_len(pos), (pos) = blob_next(pos))

#ifdef __cplusplus
}
#endif

#endif
