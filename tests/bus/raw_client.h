// Clients of the broker that speak bytes of their own.
#pragma once

#include "busd_process.h"

#include <libubus.h>

#include <gtest/gtest.h>

inline Bytes message(int type, uint16_t seq, const Bytes &body, size_t root) {
    Bytes bytes{'\0',
                static_cast<char>(type),
                static_cast<char>(seq >> 8),
                static_cast<char>(seq & 0xFF),
                0,
                0,
                0,
                0};
    for (int shift : {24, 16, 8, 0})
        bytes.push_back(static_cast<char>(root >> shift & 0xFF));
    return bytes + body;
}

inline Bytes message(int type, uint16_t seq, const Bytes &body = "") {
    return message(type, seq, body, body.size() + 4);
}

// A message with the root's attributes one behind the other.
inline Bytes attribute(unsigned id, const Bytes &value) {
    const size_t word = id << BLOB_ATTR_ID_SHIFT | (value.size() + 4);
    return message(0, 0, "", word).substr(8) + value + Bytes((4 - value.size() % 4) % 4, '\0');
}

inline Bytes attribute(unsigned id, uint32_t value) {
    return attribute(id, message(0, 0, "", value).substr(8));
}

inline Bytes text_attribute(unsigned id, const char *text) {
    return attribute(id, Bytes(text) + '\0');
}

// The number in the first attribute `id` of a whole message; 0 when it has none.
inline uint32_t number_in(const Bytes &whole, unsigned id) {
    const auto word = [&](size_t at) {
        uint32_t value = 0;
        for (size_t i = at; i < at + 4; i++)
            value = value << 8 | static_cast<unsigned char>(whole[i]);
        return value;
    };
    for (size_t at = 12; at + 8 <= whole.size();) {
        if (whole[at] == static_cast<char>(id))
            return word(at + 4);
        at += ((word(at) & BLOB_ATTR_LEN_MASK) + 3) & ~3U;
    }
    return 0;
}

// Sends a request and returns the status that ends it; `data` takes what comes before.
inline int request(int fd, int type, const Bytes &body, std::vector<Bytes> *data = nullptr) {
    write_bytes(fd, message(type, 3, body));
    for (;;) {
        const Bytes answer = read_message(fd);
        if (answer.empty())
            return -1;
        if (answer[1] == UBUS_MSG_STATUS)
            return static_cast<int>(number_in(answer, UBUS_ATTR_STATUS));
        if (data)
            data->push_back(answer);
    }
}

// Adds an object described by `body`; its id.
inline uint32_t add_object(int fd, const Bytes &body = "") {
    std::vector<Bytes> data;
    EXPECT_EQ(request(fd, UBUS_MSG_ADD_OBJECT, body, &data), UBUS_STATUS_OK);
    return data.empty() ? 0 : number_in(data[0], UBUS_ATTR_OBJID);
}

inline Bytes object_and(uint32_t object, const Bytes &more = "") {
    return attribute(UBUS_ATTR_OBJID, object) + more;
}

class BrokerTest : public testing::Test {
  protected:
    ~BrokerTest() override {
        for (int fd : open_)
            close(fd);
    }
    int client() {
        const int fd = connect_to(process.path());
        EXPECT_EQ(read_message(fd).size(), 12U);
        open_.push_back(fd);
        return fd;
    }
    // The broker answers a ping: it is alive and serves this client.
    static void expect_served(int fd) {
        write_bytes(fd, message(UBUS_MSG_PING, 9));
        EXPECT_EQ(to_hex(read_message(fd)), "000200090000000000000004");
        EXPECT_EQ(to_hex(read_message(fd)), "00010009000000000000000c0100000800000000");
    }
    static void expect_closed(int fd) { EXPECT_EQ(read_message(fd), ""); }

    BrokerProcess process;
    std::vector<int> open_;
};
