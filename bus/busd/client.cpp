// Bytes of one connection.

#include "client.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace busd {
namespace {

constexpr size_t kHeader = 12; // with the root's own word
constexpr size_t kChunk = 64 << 10;
constexpr size_t kMaxQueue = 1 << 20;

template <class T>
T read_be(const char *bytes) {
    T value = 0;
    for (size_t i = 0; i < sizeof(T); i++)
        value = static_cast<T>(value << 8 | static_cast<unsigned char>(bytes[i]));
    return value;
}

template <class T>
void append_be(std::string &bytes, T value) {
    for (size_t i = sizeof(T); i-- > 0;)
        bytes.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
}

} // namespace

Body &Body::put(unsigned id, std::string_view bytes) {
    append_be(bytes_, static_cast<uint32_t>(id << BLOB_ATTR_ID_SHIFT | (bytes.size() + 4)));
    bytes_.append(bytes);
    bytes_.append((4 - bytes.size() % 4) % 4, '\0');
    return *this;
}

Body &Body::put(unsigned id, uint32_t value) {
    std::string bytes;
    append_be(bytes, value);
    return put(id, bytes);
}

Body &Body::put_text(unsigned id, std::string_view text) {
    return put(id, std::string(text) + '\0');
}

Body &Body::put_flag(unsigned id, uint8_t value) {
    return put(id, std::string(1, static_cast<char>(value)));
}

Client::~Client() { close(fd); }

void Client::send(const Message &message) {
    if (gone)
        return;
    std::string bytes;
    bytes.reserve(kHeader + message.body.size());
    bytes.push_back('\0');
    bytes.push_back(static_cast<char>(message.type));
    append_be(bytes, message.seq);
    append_be(bytes, message.peer);
    append_be(bytes, static_cast<uint32_t>(message.body.size() + 4));
    bytes.append(message.body);
    if (!queue_.empty()) {
        if (queue_.size() + bytes.size() <= kMaxQueue)
            queue_.append(bytes);
        return;
    }
    const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR)
        return; // the end of the connection is seen when it is read
    const size_t done = sent < 0 ? 0 : static_cast<size_t>(sent);
    if (done < bytes.size())
        queue_.assign(bytes, done);
}

bool Client::flush() {
    while (!queue_.empty()) {
        const ssize_t sent = ::send(fd, queue_.data(), queue_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0)
            return errno == EAGAIN || errno == EINTR;
        queue_.erase(0, static_cast<size_t>(sent));
    }
    queue_.shrink_to_fit();
    return true;
}

Read Client::receive() {
    inbox_.erase(0, handled_);
    handled_ = 0;
    const size_t had = inbox_.size();
    size_t room = kChunk;
    if (had >= kHeader) {
        const size_t whole = 8 + (read_be<uint32_t>(inbox_.data() + 8) & BLOB_ATTR_LEN_MASK);
        room = std::max(room, whole - std::min(whole, had));
    }
    inbox_.resize(had + room);
    const ssize_t got = recv(fd, inbox_.data() + had, room, MSG_DONTWAIT);
    inbox_.resize(had + (got > 0 ? static_cast<size_t>(got) : 0));
    if (inbox_.empty() && inbox_.capacity() > 2 * kChunk)
        inbox_.shrink_to_fit();
    if (got > 0)
        return Read::kAlive;
    return got < 0 && (errno == EAGAIN || errno == EINTR) ? Read::kIdle : Read::kGone;
}

bool Client::next(Message &message, bool &broken) {
    broken = false;
    if (inbox_.size() - handled_ < kHeader)
        return false;
    const char *start = inbox_.data() + handled_;
    const size_t root = read_be<uint32_t>(start + 8) & BLOB_ATTR_LEN_MASK;
    if (root < 4 || root > UBUS_MAX_MSGLEN) {
        broken = true;
        return false;
    }
    if (inbox_.size() - handled_ < 8 + root)
        return false;
    message.type = static_cast<uint8_t>(start[1]);
    message.seq = read_be<uint16_t>(start + 2);
    message.peer = read_be<uint32_t>(start + 4);
    message.body = std::string_view(start + kHeader, root - 4);
    handled_ += 8 + root;
    return true;
}

} // namespace busd
