#include "ebus_narrow.h"

#include <cstring>

namespace ebus {
namespace {

// Bytes of an integer type; 0 for any other.
unsigned width(int type) {
    switch (type) {
    case BLOBMSG_TYPE_INT8:
        return 1;
    case BLOBMSG_TYPE_INT16:
        return 2;
    case BLOBMSG_TYPE_INT32:
        return 4;
    case BLOBMSG_TYPE_INT64:
        return 8;
    default:
        return 0;
    }
}

uint64_t value_of(blob_attr *attr) {
    return width(blobmsg_type(attr)) == 8   ? blobmsg_get_u64(attr)
           : width(blobmsg_type(attr)) == 4 ? blobmsg_get_u32(attr)
                                            : blobmsg_get_u16(attr);
}

// The type that an attribute is to be narrowed to, or its own.
int narrowed_type(const ebus_invoke_method_s &method, blob_attr *attr) {
    const int type = blobmsg_type(attr);
    if (width(type) < 2)
        return type;
    for (int i = 0; i < method.n_policy; i++) {
        const auto &entry = method.policy[i];
        const unsigned wanted = width(entry.type);
        if (!entry.name || strcmp(entry.name, blobmsg_name(attr)) != 0 || wanted == 0 ||
            wanted >= width(type))
            continue;
        return value_of(attr) >> (8 * wanted) == 0 ? static_cast<int>(entry.type) : type;
    }
    return type;
}

int add_integer(blob_buf *buf, int type, const char *name, uint64_t value) {
    switch (width(type)) {
    case 1:
        return blobmsg_add_u8(buf, name, static_cast<uint8_t>(value));
    case 2:
        return blobmsg_add_u16(buf, name, static_cast<uint16_t>(value));
    default:
        return blobmsg_add_u32(buf, name, static_cast<uint32_t>(value));
    }
}

// The bytes of the attributes that are well formed; nothing behind a malformed one is looked at.
// `change` tells whether any of them is to be narrowed.
size_t inspect(const ebus_invoke_method_s &method, blob_attr *msg, bool &change) {
    const auto *start = static_cast<const char *>(blob_data(msg));
    blob_attr *attr;
    size_t left;
    change = false;
    blob_for_each_attr(attr, msg, left) {
        if (!blobmsg_check_attr_len(attr, false, left))
            break;
        change =
            change || (blob_is_extended(attr) && narrowed_type(method, attr) != blobmsg_type(attr));
    }
    return static_cast<size_t>(reinterpret_cast<const char *>(attr) - start);
}

} // namespace

blob_attr *narrow(const ebus_invoke_method_s &method, blob_attr *msg, blob_buf *buf) {
    bool change;
    const size_t good = inspect(method, msg, change);
    if (!change)
        return msg;
    if (blobmsg_buf_init(buf) != 0)
        return nullptr;
    auto *attr = static_cast<blob_attr *>(blob_data(msg));
    for (size_t at = 0; at < good; at += blob_pad_len(attr), attr = blob_next(attr)) {
        const int type = blob_is_extended(attr) ? narrowed_type(method, attr) : blobmsg_type(attr);
        const bool added =
            type != blobmsg_type(attr)
                ? add_integer(buf, type, blobmsg_name(attr), value_of(attr)) == 0
                : blob_put_raw(buf, attr, static_cast<unsigned>(blob_pad_len(attr))) != nullptr;
        if (!added)
            return nullptr;
    }
    const size_t rest = blob_len(msg) - good; // malformed: as it came
    if (rest >= sizeof(blob_attr) && !blob_put_raw(buf, attr, static_cast<unsigned>(rest)))
        return nullptr;
    return buf->head;
}

} // namespace ebus
