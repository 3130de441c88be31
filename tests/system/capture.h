// Captures, byte by byte, for tests that replay them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::string;

inline void put16(Bytes &bytes, unsigned value) {
    bytes.push_back(static_cast<char>(value >> 8));
    bytes.push_back(static_cast<char>(value));
}

// An IPv4 packet; `fragment` is the word of flags and offset.
struct Ipv4 {
    uint8_t source[4] = {10, 0, 0, 1}, destination[4] = {192, 0, 2, 9};
    uint8_t protocol = 6, ttl = 64;
    unsigned fragment = 0;
    Bytes payload;

    Bytes bytes() const {
        Bytes all("\x45\x00", 2);
        put16(all, static_cast<unsigned>(20 + payload.size()));
        put16(all, 1);
        put16(all, fragment);
        all.push_back(static_cast<char>(ttl));
        all.push_back(static_cast<char>(protocol));
        put16(all, 0);
        for (const uint8_t byte : source)
            all.push_back(static_cast<char>(byte));
        for (const uint8_t byte : destination)
            all.push_back(static_cast<char>(byte));
        return all + payload;
    }
};

inline Bytes tcp(unsigned source, unsigned destination, unsigned flags = 2) {
    Bytes all;
    put16(all, source);
    put16(all, destination);
    all.append(8, '\0').append("\x50");
    all.push_back(static_cast<char>(flags));
    return all.append(6, '\0');
}

inline Bytes udp(unsigned source, unsigned destination) {
    Bytes all;
    put16(all, source);
    put16(all, destination);
    return all.append(4, '\0');
}

// Ethernet with any VLAN tags.
inline Bytes ethernet(const Bytes &packet, unsigned type = 0x0800,
                      const std::vector<unsigned> &tags = {}) {
    Bytes all(12, '\2');
    for (const unsigned tag : tags) {
        put16(all, tag);
        put16(all, 5);
    }
    put16(all, type);
    return all + packet;
}

inline void put32(Bytes &bytes, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<char>(value >> shift));
}

// A capture file, little-endian.
inline Bytes capture(uint32_t link, const std::vector<Bytes> &frames, size_t snap = SIZE_MAX) {
    Bytes file;
    put32(file, 0xA1B2C3D4);
    put32(file, 2 | 4 << 16);
    put32(file, 0);
    put32(file, 0);
    put32(file, 65535);
    put32(file, link);
    for (const Bytes &frame : frames) {
        const Bytes kept = frame.substr(0, snap);
        put32(file, 0);
        put32(file, 0);
        put32(file, static_cast<uint32_t>(kept.size()));
        put32(file, static_cast<uint32_t>(frame.size()));
        file += kept;
    }
    return file;
}
