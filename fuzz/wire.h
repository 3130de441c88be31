// Messages of the bus out of an input: sound ones with any content, and bytes as they are.
#pragma once

#include "fuzz.h"

#include <libubus.h>

namespace fuzz {

// A buffer under construction, freed with the block.
struct Blob {
    Blob() { blobmsg_buf_init(&buf); }
    ~Blob() { blob_buf_free(&buf); }
    Blob(const Blob &) = delete;
    Blob &operator=(const Blob &) = delete;
    std::string content() const {
        return {static_cast<const char *>(blob_data(buf.head)), blob_len(buf.head)};
    }

    blob_buf buf{};
};

// Names that somebody on the bus asks for, and two that nobody does.
inline const char *name(Input &in) {
    static const char *const names[] = {
        "name",   "action",  "moudle", "type", "rule", "rule_struct", "cmd_handler",
        "object", "pattern", "id",     "data", "",     "other"};
    return in.of(names);
}

// One named attribute of a sound kind: a number, a text, or any bytes under any type.
inline void add_attribute(blob_buf &buf, Input &in) {
    const char *key = name(in);
    switch (in.below(8)) {
    case 0:
    case 1:
        blobmsg_add_u8(&buf, key, in.below(8));
        break;
    case 2:
        blobmsg_add_u32(&buf, key, in.word());
        break;
    case 3:
        blobmsg_add_u64(&buf, key, in.byte());
        break;
    case 4:
    case 5:
    case 6:
        blobmsg_add_string(&buf, key, std::string(in.until('\0')).c_str());
        break;
    default: {
        const uint8_t type = in.below(16); // half of them are none
        const std::string_view value = in.bytes(in.byte());
        blobmsg_add_field(&buf, type, key, value.data(), static_cast<unsigned>(value.size()));
    }
    }
}

// Ids that are likely to be somebody's: the broker's own, and those that it gave out first.
constexpr uint32_t kFirstId = 0x1000;
inline uint32_t id(Input &in) {
    const uint8_t number = in.below(64);
    return number < 4 ? number : kFirstId + number - 4;
}

// The attributes of a message.
inline std::string body(Input &in) {
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    for (uint8_t count = in.below(8); count > 0; count--) {
        const int attribute = in.below(UBUS_ATTR_MAX + 1);
        switch (in.below(6)) {
        case 0:
            blob_put_u32(&buf, attribute, id(in));
            break;
        case 1:
            blob_put_u8(&buf, attribute, in.byte());
            break;
        case 2:
            blob_put_string(&buf, attribute, std::string(in.until('\0')).c_str());
            break;
        case 3: {
            const std::string_view value = in.bytes(in.byte());
            blob_put(&buf, attribute, value.data(), static_cast<unsigned>(value.size()));
            break;
        }
        default: {
            Blob fields;
            for (uint8_t n = in.below(4); n > 0; n--)
                add_attribute(fields.buf, in);
            const std::string content = fields.content();
            blob_put(&buf, attribute, content.data(), static_cast<unsigned>(content.size()));
        }
        }
    }
    std::string bytes(reinterpret_cast<char *>(buf.head), blob_raw_len(buf.head));
    blob_buf_free(&buf);
    return bytes;
}

inline std::string header(uint8_t type, uint16_t seq, uint32_t peer) {
    const ubus_msghdr header{0, type, cpu_to_be16(seq), cpu_to_be32(peer)};
    return {reinterpret_cast<const char *>(&header), sizeof header};
}

// What a connection carries next: a sound message, or bytes as they are.
inline std::string traffic(Input &in) {
    if (in.below(4) == 0)
        return std::string(in.bytes(in.half()));
    const uint8_t type = in.below(__UBUS_MSG_LAST);
    const uint16_t seq = in.byte();
    const uint32_t peer = id(in);
    return header(type, seq, peer) + body(in);
}

// Looks at everything that a connection was sent: whole messages, one after the other.
class Framing {
  public:
    void take(std::string_view bytes) {
        bytes_ += bytes;
        size_t at = 0;
        while (bytes_.size() - at >= kHeader + sizeof(blob_attr)) {
            ubus_msghdr header;
            blob_attr root;
            bytes_.copy(reinterpret_cast<char *>(&header), kHeader, at);
            bytes_.copy(reinterpret_cast<char *>(&root), sizeof root, at + kHeader);
            const size_t length = be32_to_cpu(root.id_len) & BLOB_ATTR_LEN_MASK;
            require(header.version == 0 && header.type < __UBUS_MSG_LAST && length >= sizeof root,
                    "what is sent is a sequence of messages");
            if (bytes_.size() - at < kHeader + length)
                break;
            at += kHeader + length;
        }
        bytes_.erase(0, at);
    }

  private:
    static constexpr size_t kHeader = sizeof(ubus_msghdr);
    std::string bytes_;
};

} // namespace fuzz
