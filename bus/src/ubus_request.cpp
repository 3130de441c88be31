// Requests: sending them, waiting for their end, and the client calls made of them.

#include "ubus_internal.h"

#include <cstdio>
#include <ctime>

namespace ubus {
namespace {

bool well_formed(ubus_msg_attr id, const blob_attr *attr) {
    const size_t length = blob_len(attr);
    switch (id) {
    case UBUS_ATTR_STATUS:
    case UBUS_ATTR_OBJID:
    case UBUS_ATTR_OBJTYPE:
    case UBUS_ATTR_TARGET:
        return length == 4;
    case UBUS_ATTR_ACTIVE:
    case UBUS_ATTR_NO_REPLY:
        return length == 1;
    case UBUS_ATTR_OBJPATH:
    case UBUS_ATTR_METHOD:
    case UBUS_ATTR_USER:
    case UBUS_ATTR_GROUP:
        return length >= 1 && blob_get_string(attr)[length - 1] == '\0';
    case UBUS_ATTR_SIGNATURE:
    case UBUS_ATTR_DATA:
    case UBUS_ATTR_SUBSCRIBERS:
        return true;
    case UBUS_ATTR_UNSPEC:
    case UBUS_ATTR_MAX:
        break;
    }
    return false;
}

int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * int64_t{1000} + ts.tv_nsec / 1'000'000;
}

void end_request(ubus_request *req, int status) {
    list_del(&req->list);
    req->status_msg = true;
    req->status_code = status;
    if (req->complete_cb)
        req->complete_cb(req, status);
}

ubus_request *find_request(ubus_context *ctx, const ubus_msghdr &header) {
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests,
                        list) if (req->seq == header.seq && req->peer == header.peer) return req;
    return nullptr;
}

void on_lookup_id(ubus_request *req, int, blob_attr *root) {
    Attributes(root).get(UBUS_ATTR_OBJID, *static_cast<uint32_t *>(req->priv));
}

struct Lookup {
    ubus_lookup_handler_t cb;
    void *priv;
};

void on_lookup(ubus_request *req, int, blob_attr *root) {
    const auto *lookup = static_cast<const Lookup *>(req->priv);
    const Attributes tb(root);
    ubus_object_data data{0, 0, tb.text(UBUS_ATTR_OBJPATH), tb[UBUS_ATTR_SIGNATURE]};
    if (!tb.get(UBUS_ATTR_OBJID, data.id) || !tb.get(UBUS_ATTR_OBJTYPE, data.type_id) || !data.path)
        return;
    lookup->cb(req->ctx, &data, lookup->priv);
}

void put_call(Body &body, uint32_t obj, const char *method, blob_attr *msg) {
    body.put(UBUS_ATTR_OBJID, obj).put(UBUS_ATTR_METHOD, method).put_data(msg);
}

} // namespace

Attributes::Attributes(blob_attr *root) {
    const size_t end = blob_len(root);
    auto *bytes = static_cast<char *>(blob_data(root));
    for (size_t at = 0; at + sizeof(blob_attr) <= end;) {
        auto *a = reinterpret_cast<blob_attr *>(bytes + at);
        const size_t length = be32_to_cpu(a->id_len) & BLOB_ATTR_LEN_MASK;
        const size_t whole = (length + 3) & ~size_t{3};
        if (length == 0 || at + whole > end)
            return;
        at += whole;
        const unsigned id = blob_id(a);
        if (length >= sizeof(blob_attr) && id < UBUS_ATTR_MAX &&
            well_formed(static_cast<ubus_msg_attr>(id), a))
            attr[id] = a; // the last acceptable one counts
    }
}

bool Attributes::get(ubus_msg_attr id, uint32_t &value) const {
    if (attr[id])
        value = blob_get_u32(attr[id]);
    return attr[id] != nullptr;
}

const char *Attributes::text(ubus_msg_attr id) const {
    return attr[id] ? blob_get_string(attr[id]) : nullptr;
}

Body &Body::put(ubus_msg_attr id, uint32_t value) {
    check(blob_put_u32(&buf_, id, value));
    return *this;
}

Body &Body::put(ubus_msg_attr id, const char *text) {
    check(blob_put_string(&buf_, id, text));
    return *this;
}

Body &Body::put_flag(ubus_msg_attr id) {
    check(blob_put_u8(&buf_, id, 1));
    return *this;
}

Body &Body::put_data(blob_attr *msg) {
    check(blob_put(&buf_, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr,
                   msg ? static_cast<unsigned>(blob_len(msg)) : 0));
    return *this;
}

int start_request(ubus_context *ctx, ubus_request *req, Body &body, int type, uint32_t peer) {
    *req = ubus_request{};
    if (!body.whole() || ctx->sock.eof)
        return UBUS_STATUS_INVALID_ARGUMENT;
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ++ctx->request_seq;
    return send_message(ctx, type, req->seq, peer, body.root()) ? UBUS_STATUS_OK
                                                                : UBUS_STATUS_INVALID_ARGUMENT;
}

int run_request(ubus_context *ctx, Body &body, int type, uint32_t peer, ubus_data_handler_t raw,
                void *priv) {
    ubus_request req{};
    if (const int status = start_request(ctx, &req, body, type, peer))
        return status;
    req.raw_data_cb = raw;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, 0);
}

void handle_answer(ubus_context *ctx, const ubus_msghdr &header, blob_attr *root) {
    ubus_request *req = find_request(ctx, header);
    if (!req)
        return;
    if (header.type == UBUS_MSG_STATUS) {
        uint32_t status = UBUS_STATUS_INVALID_ARGUMENT;
        Attributes(root).get(UBUS_ATTR_STATUS, status);
        end_request(req, static_cast<int>(status));
        return;
    }
    if (req->raw_data_cb)
        req->raw_data_cb(req, header.type, root);
    if (!req->data_cb)
        return;
    if (blob_attr *data = Attributes(root)[UBUS_ATTR_DATA])
        req->data_cb(req, header.type, data);
}

void fail_requests(ubus_context *ctx) {
    while (!list_empty(&ctx->requests)) {
        auto *req = list_first_entry(&ctx->requests, ubus_request, list);
        // Who waits for it sees the lost connection; who does not is told of a timeout.
        end_request(req, req->blocked ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT);
    }
}

} // namespace ubus

using namespace ubus;

void ubus_complete_request_async(ubus_context *ctx, ubus_request *req) {
    if (!req->list.next)
        list_add_tail(&req->list, &ctx->requests);
}

int ubus_complete_request(ubus_context *ctx, ubus_request *req, int timeout) {
    ubus_complete_request_async(ctx, req);
    req->blocked = true;
    const int64_t end = now_ms() + timeout;
    ctx->stack_depth++;
    while (!req->status_msg) {
        const int64_t left = timeout > 0 ? end - now_ms() : kForever;
        if (timeout > 0 && left <= 0)
            break;
        receive(ctx, static_cast<int>(left));
    }
    ctx->stack_depth--;
    if (!busy(ctx) && !list_empty(&ctx->pending))
        uloop_timeout_set(&ctx->pending_timer, 0);
    if (req->status_msg)
        return req->status_code;
    ubus_abort_request(ctx, req);
    return UBUS_STATUS_TIMEOUT;
}

void ubus_abort_request(ubus_context *, ubus_request *req) {
    if (req->list.next)
        list_del(&req->list);
    req->cancelled = true;
}

int ubus_invoke_async(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                      ubus_request *req) {
    Body body;
    put_call(body, obj, method, msg);
    return start_request(ctx, req, body, UBUS_MSG_INVOKE, obj);
}

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout) {
    ubus_request req{};
    if (const int status = ubus_invoke_async(ctx, obj, method, msg, &req))
        return status;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id) {
    Body body;
    body.put(UBUS_ATTR_OBJPATH, path);
    return run_request(ctx, body, UBUS_MSG_LOOKUP, 0, on_lookup_id, id);
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv) {
    Body body;
    if (path)
        body.put(UBUS_ATTR_OBJPATH, path);
    Lookup lookup{cb, priv};
    return run_request(ctx, body, UBUS_MSG_LOOKUP, 0, on_lookup, &lookup);
}

const char *ubus_strerror(int error) {
    static const char *const texts[__UBUS_STATUS_LAST] = {
        "Success",
        "Invalid command",
        "Invalid argument",
        "Method not found",
        "Not found",
        "No response",
        "Permission denied",
        "Request timed out",
        "Operation not supported",
        "Unknown error",
        "Connection failed",
        "Out of memory",
        "Parsing message data failed",
        "System error",
    };
    static char unknown[32];
    if (error >= 0 && error < __UBUS_STATUS_LAST)
        return texts[error];
    (void)snprintf(unknown, sizeof unknown, "Unknown error: %d", error);
    return unknown;
}
