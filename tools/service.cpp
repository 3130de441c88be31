#include "service.h"

#include "ipacl/obj_ipacl.h"

#include <cjson/cJSON.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <poll.h>
#include <random>
#include <sstream>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace ipaclctl {
namespace {

constexpr size_t kInFlight = 64; // requests that may wait for their replies

const char *path_or_null(const std::string &path) { return path.empty() ? nullptr : path.c_str(); }

void pause() {
    const timespec tenth{0, 100'000'000};
    nanosleep(&tenth, nullptr);
}

// The attribute message of a request.
class Message {
  public:
    explicit Message(const Request &request) {
        blobmsg_buf_init(&buf_);
        if (request.name)
            blobmsg_add_string(&buf_, "name", request.name->c_str());
        add_u8("action", request.action);
        add_u8("moudle", request.moudle);
        if (request.type)
            blobmsg_add_u8(&buf_, "type", *request.type == Kind::kStandard);
        if (request.rule)
            blobmsg_add_string(&buf_, "rule", request.rule->c_str());
        if (request.handler)
            blobmsg_add_u32(&buf_, "cmd_handler", *request.handler);
    }
    ~Message() { blob_buf_free(&buf_); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;

    blob_attr *head() { return buf_.head; }

  private:
    void add_u8(const char *name, std::optional<uint8_t> value) {
        if (value)
            blobmsg_add_u8(&buf_, name, *value);
    }
    blob_buf buf_{};
};

void on_reply(ubus_request *req, int, blob_attr *msg) {
    static const blobmsg_policy policy[] = {
        {.name = "output", .type = BLOBMSG_TYPE_STRING},
        {.name = "truncated", .type = BLOBMSG_TYPE_INT8},
    };
    blob_attr *tb[2];
    auto &reply = *static_cast<Reply *>(req->priv);
    blobmsg_parse(policy, 2, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (tb[0])
        reply.output += blobmsg_get_string(tb[0]);
    if (tb[1])
        reply.truncated = blobmsg_get_bool(tb[1]);
}

// The two files through which the service hands over text.
class HandlerFiles {
  public:
    HandlerFiles() {
        const char *directory = getenv("IPACL_VTY_DIR");
        std::random_device random;
        do
            number_ = random() & INT32_MAX;
        while (number_ == 0);
        prefix_ = std::string(directory && *directory ? directory : "/run/ipacl") + "/vty_" +
                  std::to_string(number_) + "_";
        remove();
    }
    ~HandlerFiles() { remove(); }
    HandlerFiles(const HandlerFiles &) = delete;
    HandlerFiles &operator=(const HandlerFiles &) = delete;

    uint32_t number() const { return number_; }

    // The listing followed by the answers; none when the service could not write them here.
    std::optional<std::string> read() const {
        std::ifstream listing(prefix_ + "0"), answers(prefix_ + "1");
        if (!listing || !answers)
            return std::nullopt;
        std::ostringstream text;
        for (auto *file : {&listing, &answers})
            if (file->peek() != std::ifstream::traits_type::eof())
                text << file->rdbuf();
        return text.str();
    }

  private:
    void remove() const {
        for (const char *end : {"0", "1"})
            unlink((prefix_ + end).c_str());
    }
    std::string prefix_;
    uint32_t number_;
};

} // namespace

// A request on its way, and what is needed to send it once more.
struct Service::Sent {
    Sent(const char *m, const Request &r, std::function<void(const Reply &)> d)
        : method(m), request(r), done(std::move(d)) {}

    const char *method;
    Request request;
    std::function<void(const Reply &)> done;
    ubus_request bus{};
    Reply reply;
};

Service::Service(std::string path, int timeout) : path_(std::move(path)), timeout_(timeout) {
    if (path_.empty())
        if (const char *socket = getenv("UBUS_SOCKET"))
            path_ = socket;
    connect();
}

Service::~Service() {
    for (const auto &sent : sent_)
        ubus_abort_request(ctx_, &sent->bus);
    if (ctx_)
        ubus_free(ctx_);
}

void Service::connect() {
    ctx_ = ubus_connect(path_or_null(path_));
    if (!ctx_)
        throw Unreachable("no message bus at " + (path_.empty() ? UBUS_UNIX_SOCKET : path_) + ": " +
                          strerror(errno));
    ctx_->connection_lost = [](ubus_context *) {};
    if (!find_service()) {
        ubus_free(ctx_); // the destructor does not run for what was never made
        throw Unreachable("the access-list service is not on the bus; is ipacl running?");
    }
}

bool Service::find_service() {
    id_ = 0;
    return ubus_lookup_id(ctx_, "L.IPACL", &id_) == UBUS_STATUS_OK && id_ != 0;
}

// Waits until the service can be asked again.
bool Service::come_back() {
    for (int i = 0; i <= patience_; i++) {
        if (!find_service() && ubus_reconnect(ctx_, path_or_null(path_)) == UBUS_STATUS_OK)
            find_service();
        if (id_)
            break;
        if (i == 0 && patience_ > 0 && absence_.waiting)
            absence_.waiting();
        if (i < patience_)
            pause();
    }
    if (id_ && absence_.back)
        absence_.back();
    return id_ != 0;
}

int Service::try_call(const char *method, const Request &request, Reply &reply) {
    reply = Reply{};
    Message message(request);
    return ubus_invoke(ctx_, id_, method, message.head(), on_reply, &reply, timeout_ * 1000);
}

// True when the reply never came.
bool Service::lost(const Reply &reply) const {
    return reply.status == UBUS_STATUS_CONNECTION_FAILED || reply.status == UBUS_STATUS_NOT_FOUND ||
           reply.status == UBUS_STATUS_TIMEOUT || ctx_->sock.eof ||
           (reply.status == UBUS_STATUS_INVALID_ARGUMENT && hung_up());
}

// A connection that broke while nobody looked: a request can't be sent, and that is all one hears.
bool Service::hung_up() const {
    pollfd socket{ctx_->sock.fd, POLLIN, 0};
    return poll(&socket, 1, 0) == 1 && (socket.revents & (POLLHUP | POLLERR));
}

Reply Service::call(const char *method, const Request &request) {
    finish();
    Reply reply;
    reply.status = try_call(method, request, reply);
    if (lost(reply) && come_back())
        reply.status = try_call(method, request, reply);
    if (lost(reply))
        throw Unreachable(std::string("the access-list service does not answer: ") +
                          ubus_strerror(reply.status));
    return reply;
}

void Service::send(const char *method, const Request &request,
                   std::function<void(const Reply &)> done) {
    if (sent_.size() >= kInFlight)
        finish_oldest();
    auto &sent = *sent_.emplace_back(std::make_unique<Sent>(method, request, std::move(done)));
    Message message(request);
    sent.reply.status = ubus_invoke_async(ctx_, id_, method, message.head(), &sent.bus);
    if (sent.reply.status != UBUS_STATUS_OK)
        return; // told when its turn comes
    sent.bus.data_cb = on_reply;
    sent.bus.priv = &sent.reply;
    ubus_complete_request_async(ctx_, &sent.bus);
}

// A request whose reply is lost is asked once more, by a call that waits.
void Service::finish_oldest() {
    const std::unique_ptr<Sent> sent = std::move(sent_.front());
    sent_.pop_front();
    Reply &reply = sent->reply;
    if (reply.status == UBUS_STATUS_OK)
        reply.status = sent->bus.status_msg
                           ? sent->bus.status_code
                           : ubus_complete_request(ctx_, &sent->bus, timeout_ * 1000);
    if (reply.status != UBUS_STATUS_OK && lost(reply)) {
        // The connection is made anew: what else is on its way is lost as well.
        for (const auto &other : sent_) {
            ubus_abort_request(ctx_, &other->bus);
            other->reply.status = UBUS_STATUS_CONNECTION_FAILED;
        }
        const auto others = std::exchange(sent_, {});
        reply = call(sent->method, sent->request);
        sent->done(reply);
        for (const auto &other : others)
            other->done(call(other->method, other->request));
        return;
    }
    sent->done(reply);
}

void Service::finish() {
    while (!sent_.empty())
        finish_oldest();
}

std::string Service::text(const char *method, Request request) {
    const HandlerFiles files;
    request.handler = files.number();
    Reply reply = call(method, request);
    if (reply.status == UBUS_STATUS_OK && !reply.truncated)
        if (auto text = files.read())
            return *text;
    // The files are not to be had here, or not whole; the reply carries what fits into a message.
    request.handler.reset();
    reply = call(method, request);
    if (reply.status != UBUS_STATUS_OK)
        throw Unreachable(std::string("the service has no text to give: ") +
                          ubus_strerror(reply.status));
    if (reply.truncated)
        throw Unreachable("the text is too long for a bus message, and the terminal files can't "
                          "be had whole");
    return reply.output;
}

std::vector<std::pair<std::string, Kind>> Service::lists() {
    Request request;
    request.action = IPACL_ACTION_JSON;
    request.moudle = IPACL_MOUDLE_CMD;
    const std::unique_ptr<cJSON, void (*)(cJSON *)> json(
        cJSON_Parse(text("action", request).c_str()), cJSON_Delete);
    std::vector<std::pair<std::string, Kind>> all;
    const cJSON *list;
    cJSON_ArrayForEach(list, json.get()) {
        const char *name = cJSON_GetStringValue(cJSON_GetObjectItem(list, "IpAccessListName"));
        const char *kind = cJSON_GetStringValue(cJSON_GetObjectItem(list, "IpAccessListAttribute"));
        if (name && kind)
            all.emplace_back(name, kind_word(kind).value_or(Kind::kExtended));
    }
    return all;
}

std::optional<Kind> Service::kind_of(const std::string &name) {
    for (const auto &[listed, kind] : lists())
        if (listed == name)
            return kind;
    return std::nullopt;
}

namespace {

struct Watcher {
    ubus_event_handler handler; // first: the event names it
    const std::function<bool(const std::string &, const std::string &)> *fn;
};

void on_event(ubus_context *, ubus_event_handler *ev, const char *, blob_attr *msg) {
    static const blobmsg_policy policy[] = {
        {.name = "name", .type = BLOBMSG_TYPE_STRING},
        {.name = "state", .type = BLOBMSG_TYPE_STRING},
    };
    blob_attr *tb[2];
    blobmsg_parse(policy, 2, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    const auto *watcher = reinterpret_cast<Watcher *>(ev);
    if (tb[0] && tb[1] && !(*watcher->fn)(blobmsg_get_string(tb[0]), blobmsg_get_string(tb[1])))
        uloop_end();
}

} // namespace

void Service::watch(const std::function<void()> &ready,
                    const std::function<bool(const std::string &, const std::string &)> &fn) {
    Watcher watcher{};
    watcher.handler.cb = on_event;
    watcher.fn = &fn;
    if (const int status =
            ubus_register_event_handler(ctx_, &watcher.handler, "resource.access-list"))
        throw Unreachable(std::string("can't listen to announcements: ") + ubus_strerror(status));
    ctx_->connection_lost = [](ubus_context *) { uloop_end(); };
    ubus_add_uloop(ctx_);
    ready();
    uloop_run();
    if (ctx_->sock.eof)
        throw Unreachable("the message bus went away");
}

} // namespace ipaclctl
