// Bytes into the bus client library, as a broker that sends anything: sound messages and any bytes,
// in any pieces, whenever the library reads. An input is a sequence of steps: calls of the library,
// and what it is sent meanwhile. What the library sends is a sequence of whole messages, and the
// end of the connection is always noticed.
//
// The library runs as it is, in this thread: whenever it would wait, the broker's side takes its
// turn, and goes away when the input is used up.

#include "wire.h"

#include <array>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

class Broker {
  public:
    explicit Broker(fuzz::Input &in) : in_(in) {}
    ~Broker() { hang_up(); }
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    // The client's end of a new connection, greeted as the input has it.
    int accept(int type) {
        hang_up();
        std::array<int, 2> ends{};
        fuzz::require(socketpair(AF_UNIX, type, 0, ends.data()) == 0, "a connection can be made");
        fd_ = ends[0];
        heard_ = {};
        const bool sound = in_.below(8) != 0;
        send(sound ? fuzz::header(UBUS_MSG_HELLO, 0, fuzz::kFirstId) + std::string("\0\0\0\4", 4)
                   : fuzz::traffic(in_));
        return ends[1];
    }
    // One turn: hears what it was told, then sends something, or goes.
    void act() {
        listen();
        if (in_.empty())
            return hang_up();
        switch (in_.below(16)) {
        case 0:
            return hang_up();
        case 1: { // data and the end at once
            send(fuzz::traffic(in_));
            return hang_up();
        }
        case 2: { // in two pieces
            const std::string bytes = fuzz::traffic(in_);
            held_ += bytes.substr(bytes.size() / 2);
            return send(bytes.substr(0, bytes.size() / 2));
        }
        default:
            return send(fuzz::traffic(in_));
        }
    }
    void listen() {
        char bytes[4096];
        ssize_t got = 0;
        while (fd_ >= 0 && (got = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT)) > 0)
            heard_.take({bytes, static_cast<size_t>(got)});
    }
    void hang_up() {
        if (fd_ < 0)
            return;
        listen();
        close(fd_);
        fd_ = -1;
        held_.clear();
    }

  private:
    void send(const std::string &bytes) {
        const std::string all = held_ + bytes;
        held_.clear();
        if (fd_ >= 0)
            ::send(fd_, all.data(), all.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    fuzz::Input &in_;
    int fd_ = -1;
    std::string held_;
    fuzz::Framing heard_;
};

Broker *broker;

// Looks at every attribute, as far down as tables and arrays go.
void walk(blob_attr *attr, size_t size, int depth) {
    blob_attr *inner;
    for (size_t left = size; left > 0 && depth > 0; left = 0)
        __blob_for_each_attr(inner, attr, left) {
            if (!blobmsg_check_attr_len(inner, false, left))
                return;
            const int type = blobmsg_type(inner);
            if (type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY)
                walk(static_cast<blob_attr *>(blobmsg_data(inner)),
                     static_cast<size_t>(blobmsg_len(inner)), depth - 1);
        }
}

void walk(blob_attr *message) {
    if (message)
        walk(static_cast<blob_attr *>(blob_data(message)), blob_len(message), 4);
}

const blobmsg_policy kPolicy[] = {
    {.name = "name", .type = BLOBMSG_TYPE_STRING},
    {.name = "action", .type = BLOBMSG_TYPE_INT8},
    {.name = "rule_struct", .type = BLOBMSG_TYPE_UNSPEC},
};

class Client {
  public:
    explicit Client(fuzz::Input &in) : in_(in), ctx_(ubus_connect("/fuzz/bus.sock")) {
        self = this;
        object_.name = "L.IPACL";
        object_.type = &type_;
        object_.methods = kMethods;
        object_.n_methods = ARRAY_SIZE(kMethods);
        object_.subscribe_cb = [](ubus_context *, ubus_object *) {};
        listener_.cb = [](ubus_context *, ubus_event_handler *, const char *, blob_attr *message) {
            walk(message);
        };
        subscriber_.cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *,
                            blob_attr *message) {
            walk(message);
            return 0;
        };
        subscriber_.remove_cb = [](ubus_context *, ubus_subscriber *, uint32_t) {};
        if (!ctx_)
            return;
        attach();
    }
    ~Client() {
        if (ctx_)
            ubus_free(ctx_);
        uloop_done();
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void play() {
        while (ctx_ && !in_.empty())
            step();
        if (ctx_)
            expect_loss();
    }

  private:
    static int serve(ubus_context *ctx, ubus_object *object, ubus_request_data *req, const char *,
                     blob_attr *message) {
        return self->serve_call(ctx, object, req, message);
    }
    static inline const ubus_method kMethods[] = {
        UBUS_METHOD("create", serve, kPolicy),
        UBUS_METHOD("action", serve, kPolicy),
        UBUS_METHOD_NOARG("showrunning", serve),
    };

    int serve_call(ubus_context *ctx, ubus_object *object, ubus_request_data *req,
                   blob_attr *message) {
        std::array<blob_attr *, ARRAY_SIZE(kPolicy)> tb{};
        blobmsg_parse(kPolicy, static_cast<int>(tb.size()), tb.data(), blob_data(message),
                      static_cast<unsigned>(blob_len(message)));
        fuzz::Blob reply;
        if (tb[0])
            blobmsg_add_string(&reply.buf, "name", blobmsg_get_string(tb[0]));
        if (tb[2])
            blobmsg_add_blob(&reply.buf, tb[2]);
        switch (in_.below(8)) {
        case 0:
            ubus_remove_object(ctx, object);
            break;
        case 1: {
            ubus_request_data later;
            ubus_defer_request(ctx, req, &later);
            ubus_send_reply(ctx, &later, reply.buf.head);
            ubus_complete_deferred_request(ctx, &later, 0);
            break;
        }
        case 2:
            ubus_send_event(ctx, "event", reply.buf.head);
            break;
        case 3:
            return -1;
        default:
            ubus_send_reply(ctx, req, reply.buf.head);
        }
        return 0;
    }

    static void look_up(ubus_context *, ubus_object_data *found, void *) {
        walk(found->signature);
        fuzz::require(strlen(found->path) < UBUS_MAX_MSGLEN, "a path is a text");
    }
    static void take_data(ubus_request *, int, blob_attr *message) { walk(message); }

    void invoke_later() {
        if (call_.list.next || call_pending_)
            return;
        call_ = {};
        if (ubus_invoke_async(ctx_, fuzz::id(in_), "create", nullptr, &call_) != UBUS_STATUS_OK)
            return;
        call_pending_ = true;
        call_.data_cb = take_data;
        call_.complete_cb = [](ubus_request *, int) { self->call_pending_ = false; };
        ubus_complete_request_async(ctx_, &call_);
    }
    void abort_call() {
        if (call_pending_)
            ubus_abort_request(ctx_, &call_);
        call_pending_ = false;
    }
    void attach() {
        ctx_->connection_lost = [](ubus_context *) { self->lost_ = true; };
        ubus_add_uloop(ctx_);
    }
    void reconnect() {
        lost_ = false;
        if (ubus_reconnect(ctx_, "/fuzz/bus.sock") == UBUS_STATUS_OK)
            ubus_add_uloop(ctx_);
    }
    void invoke() {
        fuzz::Blob fields;
        fuzz::add_attribute(fields.buf, in_);
        ubus_invoke(ctx_, fuzz::id(in_), "action", fields.buf.head, take_data, nullptr, 0);
    }

    void step() {
        uint32_t id;
        switch (in_.below(16)) {
        case 0:
            if (!object_.id)
                ubus_add_object(ctx_, &object_);
            break;
        case 1:
            if (object_.id)
                ubus_remove_object(ctx_, &object_);
            break;
        case 2:
            ubus_lookup_id(ctx_, "L.IPACL", &id);
            break;
        case 3:
            ubus_lookup(ctx_, in_.below(2) ? nullptr : "L.*", look_up, nullptr);
            break;
        case 4:
            invoke();
            break;
        case 5:
            invoke_later();
            break;
        case 6:
            abort_call();
            break;
        case 7:
            ubus_register_event_handler(ctx_, &listener_, "*");
            break;
        case 8:
            if (listener_.obj.id)
                ubus_unregister_event_handler(ctx_, &listener_);
            break;
        case 9:
            if (ubus_register_subscriber(ctx_, &subscriber_) == UBUS_STATUS_OK)
                ubus_subscribe(ctx_, &subscriber_, fuzz::id(in_));
            break;
        case 10:
            if (subscriber_.obj.id)
                ubus_unsubscribe(ctx_, &subscriber_, fuzz::id(in_));
            break;
        case 11:
            if (object_.id)
                ubus_notify(ctx_, &object_, "changed", nullptr, in_.below(2) ? 0 : -1);
            break;
        case 12:
            reconnect();
            break;
        case 13:
            if (subscriber_.obj.id)
                ubus_unregister_subscriber(ctx_, &subscriber_);
            break;
        default:
            broker->act();
            pass();
        }
    }
    static void pass() { // several, for what is queued
        for (int i = 0; i < 4; i++)
            uloop_run_timeout(0);
    }

    // The broker is gone: the loop finds out.
    void expect_loss() {
        broker->hang_up();
        const bool connected = ctx_->sock.fd >= 0;
        for (int i = 0; i < 64 && connected && !lost_; i++)
            uloop_run_timeout(0);
        fuzz::require(!connected || lost_, "a lost connection is noticed");
    }

    static inline Client *self;
    fuzz::Input &in_;
    ubus_context *ctx_;
    ubus_object_type type_ = UBUS_OBJECT_TYPE("L.IPACL", kMethods);
    ubus_object object_{};
    ubus_event_handler listener_{};
    ubus_subscriber subscriber_{};
    ubus_request call_{};
    bool call_pending_ = false;
    bool lost_ = false;
};

} // namespace

// The system calls that make a connection and wait for it.
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return domain == AF_UNIX ? broker->accept(type)
                             : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

int connect(int, const sockaddr *, socklen_t) { return 0; }

int poll(pollfd *fds, nfds_t count, int) {
    if (count == 0)
        return 0; // a pause
    for (;;) {
        const timespec now{};
        const auto ready = static_cast<int>(syscall(SYS_ppoll, fds, count, &now, nullptr, 0));
        if (ready != 0)
            return ready;
        broker->act();
    }
}

} // extern "C"

void fuzz::play(Input &in) {
    Broker other_side(in);
    broker = &other_side;
    Client(in).play();
    broker = nullptr;
}
