// The broker: clients, the objects they publish, who subscribes to whom, and the way of a message.
//
// One thread, one epoll set. Calls are passed on without remembering them: an answer finds its way
// by the client id in its header. Nothing a client sends or fails to read holds up another one.
#pragma once

#include "client.h"

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace busd {

// The attributes of a message by id. The last well-formed one counts; others are as if absent.
struct Attributes {
    explicit Attributes(std::string_view body);
    std::optional<uint32_t> number(unsigned id) const;
    std::optional<std::string_view> text(unsigned id) const; // without its NUL
    std::optional<std::string_view> bytes(unsigned id) const;
    bool has(unsigned id) const { return value[id].data() != nullptr; }

    std::string_view value[UBUS_ATTR_MAX];
};

struct Type {
    uint32_t id;
    std::string signature;
    unsigned users = 0;
};

struct Object {
    uint32_t id = 0;
    Client *owner = nullptr;
    std::optional<std::string> path;
    Type *type = nullptr;
    uint16_t seq = 0;                // of what the broker itself tells about the object
    std::list<Object *> subscribers; // newest first, one entry for each subscription
    std::list<Object *> targets;     // what the object is subscribed to
    std::vector<std::string> patterns;
};

class Broker {
  public:
    Broker() = default;
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    // Listens on `path`, taking it over if it is in use. 0, or errno.
    int listen(const char *path);
    // Serves until `stop` is readable. Calls `tick` whenever the timer (a timerfd, or -1) runs out.
    void run(int stop, int timer, void (*tick)());

  private:
    void accept_client();
    void serve_client(Client &client, uint32_t events);
    void drop(Client &client);
    void bury();

    void handle(Client &client, const Message &message);
    std::optional<int> dispatch(Client &client, const Message &message);
    std::optional<int> lookup(Client &client, const Message &message);
    std::optional<int> add_object(Client &client, const Message &message);
    std::optional<int> remove_object(Client &client, const Message &message);
    std::optional<int> invoke(Client &client, const Message &message);
    std::optional<int> subscribe(Client &client, const Message &message);
    std::optional<int> notify(Client &client, const Message &message);
    void forward_answer(Client &client, const Message &message);

    // The broker's own objects.
    int system_object(Client &client, const Message &message, uint32_t id, std::string_view method,
                      std::string_view data);
    int event_register(Client &client, std::string_view data);
    int event_send(Client &client, std::string_view data);
    int acl_query(Client &client, const Message &message);
    int monitor(Client &client, std::string_view method);

    void send(Client &client, uint8_t type, uint16_t seq, uint32_t peer, const Body &body);
    void reply(Client &client, const Message &to, uint8_t type, const Body &body);
    void report(const Client &client, const Message &message, bool sent);
    void watch(Client &client);

    void release(Object &object);
    void end_subscription(Object &subscriber, Object &target);
    void tell_active(Object &object);
    void announce(const Object &object, const char *event);
    void send_event(const Client *sender, std::string_view name, std::string_view data);
    void send_object(Client &client, const Message &message, const Object &object);
    bool attach_type(Object &object, const Attributes &tb);
    void detach_type(Object &object);

    Object *find(std::optional<uint32_t> id);
    template <class Map>
    uint32_t new_id(const Map &map);

    int listen_fd_ = -1;
    int epoll_fd_ = -1;
    int spare_fd_ = -1; // given up for a moment when descriptors have run out
    std::string path_;
    std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
    std::vector<uint32_t> dead_;
    std::map<uint32_t, Type> types_;
    std::unordered_map<uint32_t, std::unique_ptr<Object>> objects_;
    std::list<Object *> order_; // as they were added
    std::map<std::string, Object *, std::less<>> paths_;
    uint16_t event_seq_ = 0;
    unsigned monitors_ = 0;
};

} // namespace busd
