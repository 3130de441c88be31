// Bytes of one connection.

#include "client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sys/socket.h>
#include <sys/uio.h>
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

using Word = char[4];

// A number as it goes out.
std::string_view put_be(Word &to, uint32_t value) {
    value = cpu_to_be32(value);
    memcpy(to, &value, sizeof to);
    return {to, sizeof to};
}

} // namespace

// Starts an attribute whose content will be `size` bytes.
void Body::open(unsigned id, size_t size) {
    Word word;
    bytes_.append(put_be(word, static_cast<uint32_t>(id << BLOB_ATTR_ID_SHIFT | (size + 4))));
}

void Body::pad() { bytes_.append((4 - bytes_.size() % 4) % 4, '\0'); }

Body &Body::put(unsigned id, std::string_view bytes) {
    open(id, bytes.size());
    bytes_.append(bytes);
    pad();
    return *this;
}

Body &Body::put(unsigned id, uint32_t value) {
    Word word;
    return put(id, put_be(word, value));
}

Body &Body::put_text(unsigned id, std::string_view text) {
    open(id, text.size() + 1);
    bytes_.append(text);
    bytes_.push_back('\0');
    pad();
    return *this;
}

Body &Body::put_flag(unsigned id, uint8_t value) {
    const char byte = static_cast<char>(value);
    return put(id, std::string_view(&byte, 1));
}

Client::~Client() { close(fd); }

void Client::send(const Message &message) {
    if (gone)
        return;
    ubus_msghdr header{0, message.type, cpu_to_be16(message.seq), cpu_to_be32(message.peer)};
    Word root;
    put_be(root, static_cast<uint32_t>(message.body.size() + sizeof root));
    iovec parts[] = {{&header, sizeof header},
                     {root, sizeof root},
                     {const_cast<char *>(message.body.data()), // NOLINT: is only read
                      message.body.size()}};
    size_t done = 0; // bytes that are out
    if (queue_.empty()) {
        msghdr all{};
        all.msg_iov = parts;
        all.msg_iovlen = std::size(parts);
        const ssize_t sent = sendmsg(fd, &all, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN && errno != EINTR)
            return; // the end of the connection is seen when it is read
        done = sent < 0 ? 0 : static_cast<size_t>(sent);
    } else if (queue_.size() + kHeader + message.body.size() > kMaxQueue) {
        return;
    }
    for (const auto &part : parts) {
        const size_t skipped = std::min(done, part.iov_len);
        queue_.append(static_cast<const char *>(part.iov_base) + skipped, part.iov_len - skipped);
        done -= skipped;
    }
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
    static char chunk[kChunk]; // for all clients, so that none has to be kept clean
    inbox_.erase(0, handled_);
    handled_ = 0;
    if (inbox_.empty() && inbox_.capacity() > 2 * kChunk)
        inbox_.shrink_to_fit();
    const ssize_t got = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (got > 0) {
        inbox_.append(chunk, static_cast<size_t>(got));
        return Read::kAlive;
    }
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
