// Messages of the routing netlink as the kernel sends them.
#pragma once

#include <cstdint>
#include <linux/rtnetlink.h>
#include <string_view>
#include <vector>

namespace netlink {

using Bytes = std::vector<unsigned char>;

template <class T>
void append(Bytes &bytes, const T &value) {
    const auto *raw = reinterpret_cast<const unsigned char *>(&value);
    bytes.insert(bytes.end(), raw, raw + sizeof value);
}

inline Bytes attribute(uint16_t type, std::string_view payload) {
    Bytes bytes;
    append(bytes, static_cast<uint16_t>(4 + payload.size()));
    append(bytes, type);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    return bytes;
}

inline Bytes notification(uint16_t type, uint32_t index, const Bytes &attributes = {}) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(24 + attributes.size());
    header.nlmsg_type = type;
    ifaddrmsg body{};
    body.ifa_index = index;
    Bytes bytes;
    append(bytes, header);
    append(bytes, body);
    bytes.insert(bytes.end(), attributes.begin(), attributes.end());
    return bytes;
}

inline Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace netlink
