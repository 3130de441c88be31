// Recorded exchanges: files of messages, one a line, with the ids that vary from run to run.
#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using Bytes = std::string;

inline Bytes from_hex(const std::string &hex) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

inline std::string to_hex(const Bytes &bytes) {
    std::string hex;
    for (char byte : bytes) {
        const auto c = static_cast<unsigned char>(byte);
        hex += "0123456789abcdef"[c >> 4];
        hex += "0123456789abcdef"[c & 15];
    }
    return hex;
}

struct Line {
    bool to_broker;
    char who;
    Bytes bytes;
    uint8_t type() const { return static_cast<uint8_t>(bytes[1]); }
};

struct Exchange {
    std::map<std::string, Bytes> ids; // role to the four bytes recorded
    std::vector<Line> lines;
};

inline Exchange read_exchange(const std::string &name) {
    Exchange exchange;
    std::ifstream in(std::string(VECTORS) + "/" + name + ".txt");
    if (!in)
        throw std::runtime_error("no exchange " + name);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("# ids:")) {
            std::istringstream words(line.substr(6));
            for (std::string word; words >> word;)
                exchange.ids[word.substr(0, word.find('='))] =
                    from_hex(word.substr(word.find('=') + 1));
        } else if (!line.empty() && line[0] != '#') {
            const bool to_broker = line[2] == 'B';
            exchange.lines.push_back(
                {to_broker, to_broker ? line[0] : line[2], from_hex(line.substr(4))});
        }
    }
    return exchange;
}

// Reads exactly `size` bytes, or fewer when nothing more comes.
inline Bytes read_bytes(int fd, size_t size) {
    Bytes bytes;
    while (bytes.size() < size) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1)
            break;
        char buffer[65536];
        const ssize_t got = recv(fd, buffer, std::min(sizeof buffer, size - bytes.size()), 0);
        if (got <= 0)
            break;
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
}

// One whole message; empty at the end of the connection.
inline Bytes read_message(int fd) {
    Bytes bytes = read_bytes(fd, 12);
    if (bytes.size() < 12)
        return "";
    size_t length = 0;
    for (size_t i = 9; i < 12; i++)
        length = length << 8 | static_cast<unsigned char>(bytes[i]);
    return bytes + read_bytes(fd, length - 4);
}

inline void write_bytes(int fd, const Bytes &bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0)
            return;
        done += static_cast<size_t>(sent);
    }
}

inline sockaddr_un unix_address(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

inline int connect_to(const std::string &path) {
    const sockaddr_un address = unix_address(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}
