// Building binary attributes.

#include <libubox/blob.h>

#include <cerrno>
#include <cstdlib>

namespace {

constexpr size_t kGrowth = 256;
constexpr size_t kMax = BLOB_ATTR_LEN_MASK;

size_t padded(size_t length) {
    return (length + BLOB_ATTR_ALIGN - 1) & ~size_t{BLOB_ATTR_ALIGN - 1};
}

size_t offset_of(const blob_buf *buf, const blob_attr *attr) {
    return static_cast<size_t>(reinterpret_cast<const char *>(attr) -
                               static_cast<const char *>(buf->buf));
}

blob_attr *attr_at(const blob_buf *buf, size_t offset) {
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

uint32_t word(int id, size_t length) {
    return cpu_to_be32((static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT & BLOB_ATTR_ID_MASK) |
                       static_cast<uint32_t>(length));
}

// Makes the open container `bytes` longer.
void extend(blob_attr *container, size_t bytes) {
    const uint32_t now = be32_to_cpu(container->id_len);
    container->id_len = cpu_to_be32((now & ~static_cast<uint32_t>(BLOB_ATTR_LEN_MASK)) |
                                    ((now + static_cast<uint32_t>(bytes)) & BLOB_ATTR_LEN_MASK));
}

// Room for `bytes` behind the open container; null when there is none.
char *reserve(blob_buf *buf, size_t bytes) {
    if (!buf->head)
        return nullptr;
    const size_t used = offset_of(buf, buf->head) + blob_pad_len(buf->head);
    if (used + bytes > static_cast<size_t>(buf->buflen) &&
        (bytes > kMax ||
         !blob_buf_grow(buf, static_cast<int>(used + bytes - static_cast<size_t>(buf->buflen)))))
        return nullptr;
    return static_cast<char *>(buf->buf) + used;
}

} // namespace

bool blob_buf_grow(blob_buf *buf, int required) {
    const size_t wanted = static_cast<size_t>(buf->buflen) +
                          (static_cast<size_t>(required) + kGrowth - 1) / kGrowth * kGrowth;
    if (required < 0 || wanted > kMax)
        return false;
    const size_t head = buf->head ? offset_of(buf, buf->head) : 0;
    void *grown = realloc(buf->buf, wanted);
    if (!grown)
        return false;
    buf->buf = grown;
    buf->buflen = static_cast<int>(wanted);
    buf->head = attr_at(buf, head);
    return true;
}

int blob_buf_init(blob_buf *buf, int id) {
    if (!buf->grow)
        buf->grow = blob_buf_grow;
    if (buf->buflen < static_cast<int>(sizeof(blob_attr)) && !buf->grow(buf, sizeof(blob_attr)))
        return -ENOMEM;
    buf->head = static_cast<blob_attr *>(buf->buf);
    buf->head->id_len = word(id, sizeof(blob_attr));
    return 0;
}

void blob_buf_free(blob_buf *buf) {
    free(buf->buf);
    buf->buf = nullptr;
    buf->buflen = 0;
    buf->head = nullptr;
}

blob_attr *blob_new(blob_buf *buf, int id, int payload) {
    const size_t length = sizeof(blob_attr) + static_cast<size_t>(payload);
    char *room = reserve(buf, padded(length));
    if (!room)
        return nullptr;
    auto *attr = reinterpret_cast<blob_attr *>(room);
    attr->id_len = word(id, length);
    memset(room + length, 0, padded(length) - length);
    extend(buf->head, padded(length));
    return attr;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len) {
    if (len > kMax)
        return nullptr;
    blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
    if (attr && ptr)
        memcpy(blob_data(attr), ptr, len);
    return attr;
}

blob_attr *blob_put_raw(blob_buf *buf, const void *ptr, unsigned int len) {
    if (len < sizeof(blob_attr) || !ptr)
        return nullptr;
    char *room = reserve(buf, padded(len));
    if (!room)
        return nullptr;
    memcpy(room, ptr, len);
    memset(room + len, 0, padded(len) - len);
    extend(buf->head, padded(len));
    return reinterpret_cast<blob_attr *>(room);
}

// The open container lies inside the one before; its length is added there when it is closed.
void *blob_nest_start(blob_buf *buf, int id) {
    const size_t outer = offset_of(buf, buf->head);
    char *room = reserve(buf, sizeof(blob_attr));
    if (!room)
        return nullptr;
    buf->head = reinterpret_cast<blob_attr *>(room);
    buf->head->id_len = word(id, sizeof(blob_attr));
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the interface keeps the place in a pointer
    return reinterpret_cast<void *>(outer + 1); // never null
}

void blob_nest_end(blob_buf *buf, void *cookie) {
    if (!cookie)
        return;
    const size_t inner = blob_pad_len(buf->head);
    buf->head = attr_at(buf, reinterpret_cast<uintptr_t>(cookie) - 1);
    extend(buf->head, inner);
}

blob_attr *blob_memdup(const blob_attr *attr) {
    const size_t size = blob_pad_len(attr);
    auto *copy = static_cast<blob_attr *>(malloc(size));
    if (copy)
        memcpy(copy, attr, size);
    return copy;
}

bool blob_attr_equal(const blob_attr *a, const blob_attr *b) {
    if (!a || !b)
        return a == b;
    return blob_pad_len(a) == blob_pad_len(b) && memcmp(a, b, blob_pad_len(a)) == 0;
}
