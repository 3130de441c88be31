// The bus wrapper over libubus.
//
// One connection, at most a handful of objects. When the broker goes away a timer tries again until
// it is back and the objects are published again; requests that come while it is away have nobody
// to send them, and nothing else is lost.

#include "platform/ebus.h"

#include "ebus_narrow.h"
#include "vty_capture.h"

#include <libubus.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

struct ebus_request_s {
    ubus_context *ctx;
    ubus_request_data *data;
};

namespace {

constexpr int kMaxObjects = 4;
constexpr int kMaxMethods = 16;
constexpr int kFirstRetry = 100; // milliseconds, doubled up to the last
constexpr int kLastRetry = 1000;

struct Published {
    ebus_object_s *object; // null: free
    ubus_object bus;
    ubus_object_type type;
    ubus_method methods[kMaxMethods];
};

ubus_context *context;
Published published[kMaxObjects];
uloop_timeout retry_timer;
int retry_after;

const char *socket_path() { return getenv("UBUS_SOCKET"); }

const ebus_invoke_method_s *find_method(const ubus_object *obj, const char *name) {
    const ebus_object_s *object = container_of(obj, Published, bus)->object;
    for (int i = 0; i < object->n_methods; i++)
        if (strcmp(object->methods[i].name, name) == 0)
            return &object->methods[i];
    return nullptr;
}

// Adds the text that the request has written to its reply. False when memory is short.
bool add_output(blob_buf *reply) {
    bool truncated;
    const char *text = vty::end_capture(truncated);
    const bool added = (!text || blobmsg_add_string(reply, "output", text) == 0) &&
                       (!truncated || blobmsg_add_u8(reply, "truncated", 1) == 0);
    vty::release_capture();
    return added;
}

int serve(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *name,
          blob_attr *msg) {
    const ebus_invoke_method_s *method = find_method(obj, name);
    if (!method)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    blob_buf narrowed{}, reply{};
    int status = UBUS_STATUS_NO_MEMORY;
    blob_attr *arguments = msg ? ebus::narrow(*method, msg, &narrowed) : nullptr;
    if ((arguments || !msg) && blobmsg_buf_init(&reply) == 0) {
        ebus_request_s request{ctx, req};
        vty::begin_capture();
        status = method->handler(&request, name, arguments, &reply);
        // A caller must not take a lost text for none.
        if (!add_output(&reply) ||
            (blob_len(reply.head) > 0 && ubus_send_reply(ctx, req, reply.head) != UBUS_STATUS_OK))
            status = UBUS_STATUS_NO_MEMORY;
    }
    blob_buf_free(&narrowed);
    blob_buf_free(&reply);
    return status;
}

void connection_lost(ubus_context *) {
    retry_after = kFirstRetry;
    uloop_timeout_set(&retry_timer, 0);
}

// Adds the connection to the loop. True when it is there and every object is published.
bool served() {
    ubus_add_uloop(context);
    return context->sock.registered &&
           std::all_of(std::begin(published), std::end(published),
                       [](const Published &p) { return !p.object || p.bus.id != 0; });
}

void retry(uloop_timeout *timer) {
    if (ubus_reconnect(context, socket_path()) == UBUS_STATUS_OK) {
        context->connection_lost = connection_lost;
        if (served())
            return;
    }
    uloop_timeout_set(timer, retry_after);
    retry_after = std::min(2 * retry_after, kLastRetry);
}

bool describe(Published &p, ebus_object_s *object) {
    if (object->n_methods > kMaxMethods)
        return false;
    p = Published{};
    p.object = object;
    for (int i = 0; i < object->n_methods; i++)
        p.methods[i] = {.name = object->methods[i].name,
                        .handler = serve,
                        .mask = 0,
                        .tags = 0,
                        .policy = object->methods[i].policy,
                        .n_policy = object->methods[i].n_policy};
    p.type.name = object->name;
    p.type.methods = p.bus.methods = p.methods;
    p.type.n_methods = p.bus.n_methods = object->n_methods;
    p.bus.name = object->name;
    p.bus.type = &p.type;
    return true;
}

} // namespace

int ebus_connect(void) {
    context = ubus_connect(socket_path());
    if (!context)
        return -1;
    context->connection_lost = connection_lost;
    retry_timer.cb = retry;
    return 0;
}

int ebus_add_object(ebus_object_s *object) {
    if (!context)
        return UBUS_STATUS_CONNECTION_FAILED;
    auto *free_entry = std::find_if(std::begin(published), std::end(published),
                                    [](const Published &p) { return !p.object; });
    if (free_entry == std::end(published) || !describe(*free_entry, object))
        return UBUS_STATUS_NO_MEMORY;
    const int status = ubus_add_object(context, &free_entry->bus);
    if (status != UBUS_STATUS_OK)
        free_entry->object = nullptr;
    return status;
}

void ebus_add_uloop(void) {
    if (context && !served())
        connection_lost(context);
}

void ebus_disconnect(void) {
    uloop_timeout_cancel(&retry_timer);
    if (context)
        ubus_free(context);
    context = nullptr;
    for (auto &p : published)
        p.object = nullptr;
}

int ebus_send_event(const char *name, blob_attr *msg) {
    if (!context || context->sock.eof)
        return UBUS_STATUS_CONNECTION_FAILED;
    return ubus_send_event(context, name, msg);
}
