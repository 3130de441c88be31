// One connection to the broker: what it has sent and what it is to be sent.
#pragma once

#include <libubus.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace busd {

// A root attribute under construction, as bytes.
class Body {
  public:
    Body &put(unsigned id, uint32_t value);
    Body &put(unsigned id, std::string_view bytes); // as they are
    Body &put_text(unsigned id, std::string_view text);
    Body &put_flag(unsigned id, uint8_t value);
    const std::string &bytes() const { return bytes_; }

  private:
    void open(unsigned id, size_t size);
    void pad();

    std::string bytes_;
};

// One message: header and attributes, without the root's own word.
struct Message {
    uint8_t type = 0;
    uint16_t seq = 0;
    uint32_t peer = 0;
    std::string_view body;
};

enum class Read { kIdle, kAlive, kGone };

class Client {
  public:
    Client(int socket, uint32_t client_id, uid_t peer_uid, gid_t peer_gid, const char *user_name,
           const char *group_name)
        : fd(socket), id(client_id), uid(peer_uid), gid(peer_gid), user(user_name),
          group(group_name) {}
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Sends at once what the connection takes and queues the rest; a client that does not read
    // has at most 1 MiB queued, and what comes then is dropped, message by message.
    void send(const Message &message);
    // Goes on with what is queued. False when the connection is gone.
    bool flush();
    bool blocked() const { return !queue_.empty(); }

    // Reads once. Idle: nothing had come; gone: the connection has ended.
    Read receive();
    // Takes the next whole message out of what was read; its body is valid until the next call of
    // receive. False when there is none; `broken` tells that none can follow.
    bool next(Message &message, bool &broken);

    const int fd;
    const uint32_t id;
    const uid_t uid;
    const gid_t gid;
    const std::string user;
    const std::string group;
    bool gone = false;
    bool waiting = false; // registered for writing
    bool monitors = false;
    uint16_t monitor_seq = 0;

  private:
    std::string inbox_;
    size_t handled_ = 0;
    std::string queue_;
};

} // namespace busd
