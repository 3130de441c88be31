// Connections, objects and the way of a message. See broker.h.

#include "broker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace busd {
namespace {

constexpr uint32_t kUnusableId = 0x01000000; // reads as 1 in a client that does not swap it

uint32_t word_at(std::string_view bytes) {
    uint32_t word;
    memcpy(&word, bytes.data(), sizeof word);
    return be32_to_cpu(word);
}

bool well_formed(unsigned id, std::string_view value) {
    switch (id) {
    case UBUS_ATTR_STATUS:
    case UBUS_ATTR_OBJID:
    case UBUS_ATTR_OBJTYPE:
    case UBUS_ATTR_TARGET:
        return value.size() == 4;
    case UBUS_ATTR_ACTIVE:
    case UBUS_ATTR_NO_REPLY:
        return value.size() == 1;
    case UBUS_ATTR_OBJPATH:
    case UBUS_ATTR_METHOD:
    case UBUS_ATTR_USER:
    case UBUS_ATTR_GROUP:
        return !value.empty() && value.back() == '\0';
    case UBUS_ATTR_SIGNATURE:
    case UBUS_ATTR_DATA:
        return true;
    default:
        return false;
    }
}

// A signature is a sequence of named tables.
bool signature_valid(std::string_view signature) {
    std::string copy(signature); // aligned
    size_t at = 0;
    while (at < copy.size()) {
        const auto *attr = reinterpret_cast<const blob_attr *>(copy.data() + at);
        if (!blobmsg_check_attr_len(attr, true, copy.size() - at) ||
            blobmsg_type(attr) != BLOBMSG_TYPE_TABLE)
            return false;
        at += blob_pad_len(attr);
    }
    return true;
}

template <class T>
void erase_one(std::list<T> &list, const T &value) {
    const auto it = std::find(list.begin(), list.end(), value);
    if (it != list.end())
        list.erase(it);
}

} // namespace

Attributes::Attributes(std::string_view body) {
    while (body.size() >= 4) {
        const uint32_t word = word_at(body);
        const size_t length = word & BLOB_ATTR_LEN_MASK;
        const size_t whole = (std::max<size_t>(length, 4) + 3) & ~size_t{3};
        if (length == 0 || whole > body.size())
            return;
        const unsigned id = (word & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
        if (length >= 4 && id < UBUS_ATTR_MAX && well_formed(id, body.substr(4, length - 4)))
            value[id] = body.substr(4, length - 4);
        body.remove_prefix(whole);
    }
}

std::optional<uint32_t> Attributes::number(unsigned id) const {
    return has(id) ? std::optional(word_at(value[id])) : std::nullopt;
}

std::optional<std::string_view> Attributes::text(unsigned id) const {
    return has(id) ? std::optional(value[id].substr(0, value[id].find('\0'))) : std::nullopt;
}

std::optional<std::string_view> Attributes::bytes(unsigned id) const {
    return has(id) ? std::optional(value[id]) : std::nullopt;
}

Broker::~Broker() {
    clients_.clear();
    for (int fd : {listen_fd_, epoll_fd_, spare_fd_})
        if (fd >= 0)
            close(fd);
    if (!path_.empty())
        unlink(path_.c_str());
}

int Broker::listen(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return ENAMETOOLONG;
    memcpy(address.sun_path, path, strlen(path));
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (epoll_fd_ < 0 || listen_fd_ < 0)
        return errno;
    unlink(path);
    // Only root and this broker's user may connect: the mode keeps others out, and so does the
    // look at the peer's credentials.
    const mode_t mask = umask(0177);
    const int bound =
        bind(listen_fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(mask);
    if (bound < 0 || ::listen(listen_fd_, 64) < 0)
        return errno;
    path_ = path;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = 0;
    return epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &event) < 0 ? errno : 0;
}

// Clients are known to epoll by their id, which is at least 1024, so nothing dangles.
void Broker::run(int stop, int timer, void (*tick)()) {
    constexpr uint64_t kStop = 1;
    constexpr uint64_t kTimer = 2;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kStop;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, stop, &event);
    event.data.u64 = kTimer;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, timer, &event);
    for (;;) {
        epoll_event ready[32];
        const int count = epoll_wait(epoll_fd_, ready, std::size(ready), -1);
        for (int i = 0; i < count; i++) {
            if (ready[i].data.u64 == kStop)
                return;
            if (ready[i].data.u64 == kTimer) {
                uint64_t times;
                if (read(timer, &times, sizeof times) == sizeof times)
                    tick();
                continue;
            }
            if (ready[i].data.u64 == 0) {
                accept_client();
                continue;
            }
            const auto it = clients_.find(static_cast<uint32_t>(ready[i].data.u64));
            if (it != clients_.end() && !it->second->gone)
                serve_client(*it->second, ready[i].events);
        }
        bury();
    }
}

template <class Map>
uint32_t Broker::new_id(const Map &map) {
    uint32_t id;
    while (getrandom(&id, sizeof id, 0) != sizeof id || id < UBUS_SYSTEM_OBJECT_MAX ||
           id == kUnusableId || map.contains(id)) {
    }
    return id;
}

void Broker::accept_client() {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EMFILE && errno != ENFILE)
            return;
        // Turn the caller away rather than being woken for it for ever.
        close(spare_fd_);
        fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            close(fd);
        spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
        return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    const passwd *user = known ? getpwuid(peer.uid) : nullptr;
    const group *group = user ? getgrgid(peer.gid) : nullptr;
    if (!group || (peer.uid != 0 && peer.uid != geteuid())) {
        close(fd);
        return;
    }
    const uint32_t id = new_id(clients_);
    auto client =
        std::make_unique<Client>(fd, id, peer.uid, peer.gid, user->pw_name, group->gr_name);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) < 0)
        return;
    Client &added = *clients_.emplace(id, std::move(client)).first->second;
    send(added, UBUS_MSG_HELLO, 0, id, Body());
}

void Broker::serve_client(Client &client, uint32_t events) {
    if ((events & EPOLLOUT) && !client.flush())
        return drop(client);
    watch(client);
    if (!(events & ~static_cast<uint32_t>(EPOLLOUT)))
        return;
    const Read read = client.receive();
    Message message;
    bool broken;
    while (client.next(message, broken))
        handle(client, message);
    if (broken || read == Read::kGone)
        drop(client);
}

// Asks to be told when a client with a queue takes more.
void Broker::watch(Client &client) {
    if (client.gone || client.waiting == client.blocked())
        return;
    client.waiting = client.blocked();
    epoll_event event{};
    event.events = client.waiting ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.u64 = client.id;
    epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, client.fd, &event);
}

// Takes a client off the bus; its record is freed when nothing refers to it any more.
void Broker::drop(Client &client) {
    client.gone = true;
    if (client.monitors)
        monitors_--;
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, client.fd, nullptr);
    std::vector<Object *> owned; // newest first
    for (auto it = order_.rbegin(); it != order_.rend(); ++it)
        if ((*it)->owner == &client)
            owned.push_back(*it);
    for (Object *object : owned)
        release(*object);
    dead_.push_back(client.id);
}

void Broker::bury() {
    for (uint32_t id : dead_)
        clients_.erase(id);
    dead_.clear();
}

void Broker::send(Client &client, uint8_t type, uint16_t seq, uint32_t peer, const Body &body) {
    const Message message{type, seq, peer, body.bytes()};
    report(client, message, true);
    client.send(message);
    watch(client);
}

void Broker::reply(Client &client, const Message &to, uint8_t type, const Body &body) {
    send(client, type, to.seq, to.peer, body);
}

void Broker::handle(Client &client, const Message &message) {
    report(client, message, false);
    if (const auto status = dispatch(client, message))
        reply(client, message, UBUS_MSG_STATUS,
              Body().put(UBUS_ATTR_STATUS, static_cast<uint32_t>(*status)));
}

// The status that ends the request, or none when somebody else sends it.
std::optional<int> Broker::dispatch(Client &client, const Message &message) {
    switch (message.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        forward_answer(client, message);
        return std::nullopt;
    case UBUS_MSG_PING: {
        report(client, {UBUS_MSG_DATA, message.seq, message.peer, message.body}, true);
        client.send({UBUS_MSG_DATA, message.seq, message.peer, message.body});
        return UBUS_STATUS_OK;
    }
    case UBUS_MSG_LOOKUP:
        return lookup(client, message);
    case UBUS_MSG_INVOKE:
        return invoke(client, message);
    case UBUS_MSG_ADD_OBJECT:
        return add_object(client, message);
    case UBUS_MSG_REMOVE_OBJECT:
        return remove_object(client, message);
    case UBUS_MSG_SUBSCRIBE:
    case UBUS_MSG_UNSUBSCRIBE:
        return subscribe(client, message);
    case UBUS_MSG_NOTIFY:
        return notify(client, message);
    default:
        return UBUS_STATUS_INVALID_COMMAND;
    }
}

Object *Broker::find(std::optional<uint32_t> id) {
    const auto it = id ? objects_.find(*id) : objects_.end();
    return it == objects_.end() ? nullptr : it->second.get();
}

void Broker::send_object(Client &client, const Message &message, const Object &object) {
    if (!object.type)
        return;
    reply(client, message, UBUS_MSG_DATA,
          Body()
              .put_text(UBUS_ATTR_OBJPATH, *object.path)
              .put(UBUS_ATTR_OBJID, object.id)
              .put(UBUS_ATTR_OBJTYPE, object.type->id)
              .put(UBUS_ATTR_SIGNATURE, std::string_view(object.type->signature)));
}

std::optional<int> Broker::lookup(Client &client, const Message &message) {
    const auto wanted = Attributes(message.body).text(UBUS_ATTR_OBJPATH);
    if (!wanted) {
        for (const auto &[path, object] : paths_)
            send_object(client, message, *object);
        return UBUS_STATUS_OK;
    }
    if (wanted->empty())
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (wanted->back() != '*') {
        const auto it = paths_.find(*wanted);
        if (it == paths_.end())
            return UBUS_STATUS_NOT_FOUND;
        send_object(client, message, *it->second);
        return UBUS_STATUS_OK;
    }
    const auto prefix = wanted->substr(0, wanted->size() - 1);
    int status = UBUS_STATUS_NOT_FOUND;
    for (auto it = paths_.lower_bound(prefix); it != paths_.end() && it->first.starts_with(prefix);
         ++it) {
        send_object(client, message, *it->second);
        status = UBUS_STATUS_OK;
    }
    return status;
}

// Gives an object its type. True when a new one was made of a signature.
bool Broker::attach_type(Object &object, const Attributes &tb) {
    if (const auto id = tb.number(UBUS_ATTR_OBJTYPE)) {
        const auto it = types_.find(*id);
        object.type = it == types_.end() ? nullptr : &it->second;
    } else if (const auto signature = tb.bytes(UBUS_ATTR_SIGNATURE);
               signature && signature_valid(*signature)) {
        const uint32_t type = new_id(types_);
        object.type = &types_.emplace(type, Type{type, std::string(*signature)}).first->second;
        object.type->users++;
        return true;
    }
    if (object.type)
        object.type->users++;
    return false;
}

void Broker::detach_type(Object &object) {
    if (object.type && --object.type->users == 0)
        types_.erase(object.type->id);
    object.type = nullptr;
}

std::optional<int> Broker::add_object(Client &client, const Message &message) {
    const Attributes tb(message.body);
    const auto path = tb.text(UBUS_ATTR_OBJPATH);
    if (path && paths_.contains(*path))
        return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = new_id(objects_);
    Object &object = *objects_.emplace(id, std::make_unique<Object>()).first->second;
    object.id = id;
    object.owner = &client;
    order_.push_back(&object);
    const bool typed = attach_type(object, tb);
    Body body;
    body.put(UBUS_ATTR_OBJID, id);
    if (typed)
        body.put(UBUS_ATTR_OBJTYPE, object.type->id);
    if (path) {
        object.path = std::string(*path);
        paths_.emplace(*object.path, &object);
        announce(object, "ubus.object.add");
    }
    reply(client, message, UBUS_MSG_DATA, body);
    return UBUS_STATUS_OK;
}

std::optional<int> Broker::remove_object(Client &client, const Message &message) {
    const auto id = Attributes(message.body).number(UBUS_ATTR_OBJID);
    if (!id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (*id >= UBUS_SYSTEM_OBJECT_EVENT && *id <= UBUS_SYSTEM_OBJECT_MONITOR)
        return UBUS_STATUS_PERMISSION_DENIED;
    Object *object = find(id);
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    Body body;
    body.put(UBUS_ATTR_OBJID, *id);
    if (object->type && object->type->users == 1)
        body.put(UBUS_ATTR_OBJTYPE, object->type->id);
    reply(client, message, UBUS_MSG_DATA, body);
    release(*object);
    return UBUS_STATUS_OK;
}

// Takes an object off the bus and tells everybody concerned.
void Broker::release(Object &object) {
    const bool had_subscribers = !object.subscribers.empty();
    while (!object.subscribers.empty()) {
        Object &subscriber = *object.subscribers.front();
        object.subscribers.pop_front();
        erase_one(subscriber.targets, &object);
        send(*subscriber.owner, UBUS_MSG_UNSUBSCRIBE, ++subscriber.seq, 0,
             Body().put(UBUS_ATTR_OBJID, subscriber.id).put(UBUS_ATTR_TARGET, object.id));
    }
    if (had_subscribers)
        tell_active(object);
    while (!object.targets.empty())
        end_subscription(object, *object.targets.front());
    if (object.path) {
        paths_.erase(*object.path);
        announce(object, "ubus.object.remove");
    }
    detach_type(object);
    erase_one(order_, &object);
    objects_.erase(object.id);
}

void Broker::end_subscription(Object &subscriber, Object &target) {
    erase_one(subscriber.targets, &target);
    erase_one(target.subscribers, &subscriber);
    if (target.subscribers.empty())
        tell_active(target);
}

// Tells an object's owner whether it has subscribers now.
void Broker::tell_active(Object &object) {
    send(*object.owner, UBUS_MSG_NOTIFY, ++object.seq, 0,
         Body()
             .put(UBUS_ATTR_OBJID, object.id)
             .put_flag(UBUS_ATTR_ACTIVE, !object.subscribers.empty()));
}

std::optional<int> Broker::invoke(Client &client, const Message &message) {
    const Attributes tb(message.body);
    const auto id = tb.number(UBUS_ATTR_OBJID);
    const auto method = tb.text(UBUS_ATTR_METHOD);
    if (!id || !method)
        return UBUS_STATUS_INVALID_ARGUMENT;
    const auto data = tb.bytes(UBUS_ATTR_DATA);
    if (*id >= UBUS_SYSTEM_OBJECT_EVENT && *id <= UBUS_SYSTEM_OBJECT_MONITOR)
        return system_object(client, message, *id, *method, data.value_or(std::string_view()));
    Object *object = find(id);
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    Body body;
    body.put(UBUS_ATTR_OBJID, *id)
        .put(UBUS_ATTR_METHOD, tb.value[UBUS_ATTR_METHOD])
        .put_text(UBUS_ATTR_USER, client.user)
        .put_text(UBUS_ATTR_GROUP, client.group);
    if (data)
        body.put(UBUS_ATTR_DATA, *data);
    send(*object->owner, UBUS_MSG_INVOKE, message.seq, client.id, body);
    return std::nullopt;
}

std::optional<int> Broker::subscribe(Client &client, const Message &message) {
    const Attributes tb(message.body);
    const auto id = tb.number(UBUS_ATTR_OBJID);
    const auto target_id = tb.number(UBUS_ATTR_TARGET);
    if (!id || !target_id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *subscriber = find(id);
    Object *target = find(target_id);
    if (!subscriber || !target)
        return UBUS_STATUS_NOT_FOUND;
    if (subscriber->owner != &client || target->owner == &client)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (message.type == UBUS_MSG_SUBSCRIBE) {
        const bool first = target->subscribers.empty();
        target->subscribers.push_front(subscriber);
        subscriber->targets.push_front(target);
        if (first)
            tell_active(*target);
        return UBUS_STATUS_OK;
    }
    const auto &targets = subscriber->targets;
    if (std::find(targets.begin(), targets.end(), target) == targets.end())
        return UBUS_STATUS_NOT_FOUND;
    end_subscription(*subscriber, *target);
    return UBUS_STATUS_OK;
}

std::optional<int> Broker::notify(Client &client, const Message &message) {
    const Attributes tb(message.body);
    const auto id = tb.number(UBUS_ATTR_OBJID);
    const auto data = tb.bytes(UBUS_ATTR_DATA);
    if (!id || !data || !tb.has(UBUS_ATTR_METHOD))
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *object = find(id);
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    const bool quiet = tb.has(UBUS_ATTR_NO_REPLY) && tb.value[UBUS_ATTR_NO_REPLY][0] != '\0';
    if (!quiet) {
        Body ids;
        for (const Object *subscriber : object->subscribers)
            ids.put(0, subscriber->id);
        reply(client, message, UBUS_MSG_STATUS,
              Body()
                  .put(UBUS_ATTR_OBJID, *id)
                  .put(UBUS_ATTR_SUBSCRIBERS, std::string_view(ids.bytes()))
                  .put(UBUS_ATTR_STATUS, UBUS_STATUS_OK));
    }
    for (const Object *subscriber : object->subscribers) {
        Body body;
        if (quiet)
            body.put_flag(UBUS_ATTR_NO_REPLY, 1);
        body.put(UBUS_ATTR_OBJID, subscriber->id)
            .put(UBUS_ATTR_METHOD, tb.value[UBUS_ATTR_METHOD])
            .put_text(UBUS_ATTR_USER, client.user)
            .put_text(UBUS_ATTR_GROUP, client.group)
            .put(UBUS_ATTR_DATA, *data);
        send(*subscriber->owner, UBUS_MSG_INVOKE, message.seq, client.id, body);
    }
    return std::nullopt;
}

// A server's answer: to the client that its header names, with the object as peer.
void Broker::forward_answer(Client &client, const Message &message) {
    const Attributes tb(message.body);
    const auto id = tb.number(UBUS_ATTR_OBJID);
    const unsigned needed = message.type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA;
    const Object *object = find(id);
    const auto receiver = clients_.find(message.peer);
    if (!object || object->owner != &client || !tb.has(needed) || receiver == clients_.end() ||
        receiver->second->gone)
        return;
    const Message forwarded{message.type, message.seq, *id, message.body};
    report(*receiver->second, forwarded, true);
    receiver->second->send(forwarded);
    watch(*receiver->second);
}

} // namespace busd
