// The service as the tool sees it: requests to "L.IPACL" and the text that comes back.
#pragma once

#include "kind.h"

#include <libubus.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ipaclctl {

// Something that makes going on pointless: no bus, no service, no answer.
struct Unreachable : std::runtime_error {
    using runtime_error::runtime_error;
};

// The attributes of a request; what is not set is not sent.
struct Request {
    std::optional<std::string> name;
    std::optional<uint8_t> action;
    std::optional<uint8_t> moudle;
    std::optional<Kind> type;
    std::optional<std::string> rule;
    std::optional<uint32_t> handler;
};

struct Reply {
    int status = 0;
    std::string output; // what the service wrote to its terminal
    bool truncated = false;
};

class Service {
  public:
    // Connects to the bus at `path` (empty: UBUS_SOCKET, or the bus's own place). `timeout` is for
    // one call, in seconds.
    Service(std::string path, int timeout);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // The socket of the bus; empty: the bus's own place.
    const std::string &path() const { return path_; }

    // Calls a method. When the bus or the service goes away, waits a while for it to come back
    // and asks once more.
    Reply call(const char *method, const Request &request);

    // Sends a request without waiting for its reply, which `done` is called with: for one request
    // after the other, in the order in which they were sent, from a later send or from finish.
    void send(const char *method, const Request &request, std::function<void(const Reply &)> done);

    // Waits until every request that was sent has its reply.
    void finish();

    // The same as call for requests whose text may be longer than a message: it comes through
    // files.
    std::string text(const char *method, Request request);

    // The kind of a list, or none when there is no such list.
    std::optional<Kind> kind_of(const std::string &name);

    // Every list and its kind, in the order of the configuration.
    std::vector<std::pair<std::string, Kind>> lists();

    // Told when a call has to wait for the service, and when the service is there again; the call
    // is made once more after that. Calls may be made from `back`.
    struct Absence {
        std::function<void()> waiting;
        std::function<void()> back;
    };
    void on_absence(Absence absence) { absence_ = std::move(absence); }

    // How long a call waits for a service that is away, in tenths of a second.
    void set_patience(int tenths) { patience_ = tenths; }
    int patience() const { return patience_; }

    // Calls fn(list, state) for every announcement of a changed or removed list, until it returns
    // false. `ready` is called once announcements are being heard.
    void watch(const std::function<void()> &ready,
               const std::function<bool(const std::string &, const std::string &)> &fn);

  private:
    struct Sent;

    void connect();
    bool lost(const Reply &reply) const;
    bool hung_up() const;
    void finish_oldest();
    bool find_service();
    bool come_back();
    int try_call(const char *method, const Request &request, Reply &reply);

    std::string path_;
    int timeout_;
    int patience_ = 50;
    Absence absence_;
    ubus_context *ctx_ = nullptr;
    uint32_t id_ = 0;
    std::deque<std::unique_ptr<Sent>> sent_; // the oldest first
};

} // namespace ipaclctl
