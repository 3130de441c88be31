// Named attributes: building them, and finding those that a policy names.
//
// A name header is a big-endian length, the name, a NUL, and padding to 4; the value follows.

#include <libubox/blobmsg.h>

#include <cerrno>

namespace {

constexpr size_t kMaxName = 255;

size_t header_size(size_t name_length) { return (2 + name_length + 1 + 3) & ~size_t{3}; }

size_t name_length(const blob_attr *attr) {
    uint16_t length;
    memcpy(&length, blob_data(attr), sizeof length);
    return be16_to_cpu(length);
}

// Starts a named attribute with room for a value of `len` bytes.
blob_attr *new_named(blob_buf *buf, int type, const char *name, size_t len) {
    if (!name)
        name = "";
    const size_t length = strlen(name);
    if (length > UINT16_MAX || len > BLOB_ATTR_LEN_MASK)
        return nullptr;
    const size_t header = header_size(length);
    blob_attr *attr = blob_new(buf, type, static_cast<int>(header + len));
    if (!attr)
        return nullptr;
    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    auto *bytes = static_cast<char *>(blob_data(attr));
    memset(bytes, 0, header);
    const uint16_t be_length = cpu_to_be16(static_cast<uint16_t>(length));
    memcpy(bytes, &be_length, sizeof be_length);
    memcpy(bytes + 2, name, length); // NOLINT(bugprone-not-null-terminated-result): zeroed above
    return attr;
}

bool value_valid(int type, const char *value, size_t length) {
    switch (type) {
    case BLOBMSG_TYPE_INT8:
        return length == 1;
    case BLOBMSG_TYPE_INT16:
        return length == 2;
    case BLOBMSG_TYPE_INT32:
        return length == 4;
    case BLOBMSG_TYPE_INT64:
        return length == 8;
    case BLOBMSG_TYPE_DOUBLE:
        return length >= 8;
    case BLOBMSG_TYPE_STRING:
        return length >= 1 && value[length - 1] == '\0';
    default:
        return type <= BLOBMSG_TYPE_LAST;
    }
}

bool fits(const blobmsg_policy &entry, const blob_attr *attr) {
    if (!entry.name)
        return false;
    if (entry.type != BLOBMSG_TYPE_UNSPEC && static_cast<int>(entry.type) != blobmsg_type(attr))
        return false;
    const size_t length = strlen(entry.name);
    return length <= kMaxName && length == name_length(attr) &&
           memcmp(entry.name, blobmsg_name(attr), length) == 0;
}

// The value behind the name, if there is one; `attr` is not null.
char *value_bytes(const blob_attr *attr) {
    auto *bytes = static_cast<char *>(blob_data(attr));
    return blob_is_extended(attr) ? bytes + header_size(name_length(attr)) : bytes;
}

template <class T>
T value_of(const blob_attr *attr) {
    T value;
    memcpy(&value, value_bytes(attr), sizeof value);
    return value;
}

} // namespace

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len) {
    if (len < sizeof(blob_attr) || (be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK) < 4 ||
        blob_raw_len(attr) > len)
        return false;
    const size_t payload = blob_len(attr);
    const auto *bytes = static_cast<const char *>(blob_data(attr));
    size_t header = 0;
    if (blob_is_extended(attr)) {
        if (payload < 4)
            return false;
        const size_t length = name_length(attr);
        header = header_size(length);
        if (header > payload || bytes[2 + length] != '\0' || (name && length == 0))
            return false;
    } else if (name) {
        return false;
    }
    return value_valid(blobmsg_type(attr), bytes + header, payload - header);
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data,
                  unsigned int len) {
    for (int i = 0; i < policy_len; i++)
        tb[i] = nullptr;
    if (!data || len == 0)
        return -EINVAL;
    auto *attr = static_cast<blob_attr *>(data);
    size_t left = len;
    while (left >= sizeof(blob_attr)) {
        const size_t length = be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
        const size_t whole = (length + 3) & ~size_t{3};
        if (length == 0 || whole > left)
            break;
        if (!blobmsg_check_attr_len(attr, false, left))
            return -1;
        for (int i = 0; blob_is_extended(attr) && i < policy_len; i++)
            if (!tb[i] && fits(policy[i], attr))
                tb[i] = attr;
        left -= whole;
        attr = blob_next(attr);
    }
    return 0;
}

const char *blobmsg_name(const blob_attr *attr) {
    return blob_is_extended(attr) ? static_cast<const char *>(blob_data(attr)) + 2 : "";
}

void *blobmsg_data(const blob_attr *attr) { return attr ? value_bytes(attr) : nullptr; }

int blobmsg_len(const blob_attr *attr) {
    if (!attr)
        return 0;
    const auto *start = static_cast<const char *>(blob_data(attr));
    const auto header = value_bytes(attr) - start;
    return static_cast<int>(blob_len(attr)) - static_cast<int>(header);
}

uint8_t blobmsg_get_u8(blob_attr *attr) { return value_of<uint8_t>(attr); }
uint16_t blobmsg_get_u16(blob_attr *attr) { return be16_to_cpu(value_of<uint16_t>(attr)); }
uint32_t blobmsg_get_u32(blob_attr *attr) { return be32_to_cpu(value_of<uint32_t>(attr)); }
uint64_t blobmsg_get_u64(blob_attr *attr) { return be64_to_cpu(value_of<uint64_t>(attr)); }

char *blobmsg_get_string(blob_attr *attr) { return static_cast<char *>(blobmsg_data(attr)); }

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data,
                      unsigned int len) {
    blob_attr *attr = new_named(buf, type, name, len);
    if (!attr)
        return -1;
    if (len > 0)
        memcpy(value_bytes(attr), data, len);
    return 0;
}

int blobmsg_add_blob(blob_buf *buf, blob_attr *attr) {
    return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), value_bytes(attr),
                             static_cast<unsigned int>(blobmsg_len(attr)));
}

int blobmsg_add_double(blob_buf *buf, const char *name, double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof bits);
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof bits);
}

// Like blob_nest_start, with a name header as the first content of the container.
void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array) {
    if (!buf->head)
        return nullptr;
    const size_t outer =
        static_cast<size_t>(reinterpret_cast<char *>(buf->head) - static_cast<char *>(buf->buf));
    const uint32_t outer_word = buf->head->id_len;
    blob_attr *attr = new_named(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0);
    if (!attr)
        return nullptr;
    buf->head->id_len = outer_word; // the length is added when the container is closed
    buf->head = attr;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): as blob_nest_start
    return reinterpret_cast<void *>(outer + 1);
}
