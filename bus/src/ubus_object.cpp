// Objects: publishing them, serving calls to them, notifications and events.

#include "ubus_internal.h"

namespace {

using namespace ubus;

void on_registered(ubus_request *req, int, blob_attr *root) {
    auto *obj = static_cast<ubus_object *>(req->priv);
    const Attributes tb(root);
    if (!tb.get(UBUS_ATTR_OBJID, obj->id))
        return;
    if (obj->type)
        tb.get(UBUS_ATTR_OBJTYPE, obj->type->id);
}

void on_removed(ubus_request *req, int, blob_attr *root) {
    auto *obj = static_cast<ubus_object *>(req->priv);
    const Attributes tb(root);
    if (!tb[UBUS_ATTR_OBJID])
        return;
    obj->id = 0;
    if (obj->type && tb[UBUS_ATTR_OBJTYPE])
        obj->type->id = 0;
}

void put_signature(Body &body, const ubus_object_type &type) {
    void *signature = blob_nest_start(&body, UBUS_ATTR_SIGNATURE);
    body.check(signature);
    for (int i = 0; i < type.n_methods; i++) {
        const ubus_method &method = type.methods[i];
        void *table = blobmsg_open_table(&body, method.name);
        body.check(table);
        for (int j = 0; j < method.n_policy; j++) {
            if (method.mask && !(method.mask & (1UL << j)))
                continue;
            body.check(blobmsg_add_u32(&body, method.policy[j].name, method.policy[j].type) == 0);
        }
        blobmsg_close_table(&body, table);
    }
    blob_nest_end(&body, signature);
}

ubus_object *find_object(ubus_context *ctx, uint32_t id) {
    ubus_object *obj;
    list_for_each_entry(obj, &ctx->objects.list_head, avl.list) if (obj->id == id) return obj;
    return nullptr;
}

const ubus_method *find_method(const ubus_object *obj, const char *name) {
    for (int i = 0; i < obj->n_methods; i++)
        if (!obj->methods[i].name || strcmp(obj->methods[i].name, name) == 0)
            return &obj->methods[i];
    return nullptr;
}

// Takes no memory: whoever called gets an answer however short it is.
void send_status(ubus_context *ctx, const ubus_request_data &req, int status) {
    const auto word = [](unsigned id, size_t length) {
        return cpu_to_be32(id << BLOB_ATTR_ID_SHIFT | static_cast<uint32_t>(length));
    };
    uint32_t message[5] = {word(0, sizeof message), word(UBUS_ATTR_STATUS, 8),
                           cpu_to_be32(static_cast<uint32_t>(status)), word(UBUS_ATTR_OBJID, 8),
                           cpu_to_be32(req.object)};
    send_message(ctx, UBUS_MSG_STATUS, req.seq, req.peer, reinterpret_cast<blob_attr *>(message));
}

// The status of a call, served if it can be.
int call_object(ubus_context *ctx, ubus_object *obj, ubus_request_data &req, const char *method,
                blob_attr *data) {
    const ubus_method *entry = find_method(obj, method);
    if (!entry)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    if (!data)
        return UBUS_STATUS_INVALID_ARGUMENT;
    return entry->handler(ctx, obj, &req, method, data);
}

void handle_invoke(ubus_context *ctx, const ubus_msghdr &header, const Attributes &tb) {
    ubus_request_data req{};
    req.peer = header.peer;
    req.seq = header.seq;
    req.fd = -1;
    if (!tb.get(UBUS_ATTR_OBJID, req.object))
        return;
    ubus_object *obj = find_object(ctx, req.object);
    const char *method = tb.text(UBUS_ATTR_METHOD);
    if (!obj || !method) {
        req.peer = 0; // the broker drops such an answer
        send_status(ctx, req, obj ? UBUS_STATUS_INVALID_ARGUMENT : UBUS_STATUS_NOT_FOUND);
        return;
    }
    req.acl = {tb.text(UBUS_ATTR_USER), tb.text(UBUS_ATTR_GROUP), obj->name};
    const int status = call_object(ctx, obj, req, method, tb[UBUS_ATTR_DATA]);
    if (!req.deferred && !tb[UBUS_ATTR_NO_REPLY])
        send_status(ctx, req, status);
}

void handle_subscribers(ubus_context *ctx, const Attributes &tb) {
    uint32_t id;
    if (!tb.get(UBUS_ATTR_OBJID, id) || !tb[UBUS_ATTR_ACTIVE])
        return;
    ubus_object *obj = find_object(ctx, id);
    if (!obj)
        return;
    obj->has_subscribers = blob_get_u8(tb[UBUS_ATTR_ACTIVE]) != 0;
    if (obj->subscribe_cb)
        obj->subscribe_cb(ctx, obj);
}

int serve_notification(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                       const char *method, blob_attr *msg) {
    auto *sub = container_of(obj, ubus_subscriber, obj);
    return sub->cb ? sub->cb(ctx, obj, req, method, msg) : 0;
}

int serve_event(ubus_context *ctx, ubus_object *obj, ubus_request_data *, const char *method,
                blob_attr *msg) {
    auto *ev = container_of(obj, ubus_event_handler, obj);
    ev->cb(ctx, ev, method, msg);
    return 0;
}

const ubus_method kNotification = {nullptr, serve_notification, 0, 0, nullptr, 0};
const ubus_method kEvent = {nullptr, serve_event, 0, 0, nullptr, 0};

void handle_unsubscribed(ubus_context *ctx, const Attributes &tb) {
    uint32_t id, target;
    if (!tb.get(UBUS_ATTR_OBJID, id) || !tb.get(UBUS_ATTR_TARGET, target))
        return;
    ubus_object *obj = find_object(ctx, id);
    if (!obj || obj->methods != &kNotification)
        return;
    auto *sub = container_of(obj, ubus_subscriber, obj);
    if (sub->remove_cb)
        sub->remove_cb(ctx, sub, target);
}

// Registers an object of the library's own, once.
int add_anonymous(ubus_context *ctx, ubus_object *obj, const ubus_method *method) {
    if (obj->id)
        return UBUS_STATUS_OK;
    obj->methods = method;
    obj->n_methods = 1;
    return ubus_add_object(ctx, obj);
}

int change_subscription(ubus_context *ctx, int type, uint32_t obj, uint32_t target) {
    Body body;
    body.put(UBUS_ATTR_OBJID, obj).put(UBUS_ATTR_TARGET, target);
    return run_request(ctx, body, type, 0, nullptr, nullptr);
}

} // namespace

void ubus::handle_call(ubus_context *ctx, const ubus_msghdr &header, blob_attr *root) {
    const Attributes tb(root);
    switch (header.type) {
    case UBUS_MSG_INVOKE:
        handle_invoke(ctx, header, tb);
        break;
    case UBUS_MSG_NOTIFY:
        handle_subscribers(ctx, tb);
        break;
    case UBUS_MSG_UNSUBSCRIBE:
        handle_unsubscribed(ctx, tb);
        break;
    default: // nothing that a client has to expect
        break;
    }
}

int ubus_add_object(ubus_context *ctx, ubus_object *obj) {
    Body body;
    if (obj->name && obj->type) {
        body.put(UBUS_ATTR_OBJPATH, obj->name);
        if (obj->type->id)
            body.put(UBUS_ATTR_OBJTYPE, obj->type->id);
        else
            put_signature(body, *obj->type);
    }
    if (const int status = run_request(ctx, body, UBUS_MSG_ADD_OBJECT, 0, on_registered, obj))
        return status;
    if (!obj->id)
        return UBUS_STATUS_NO_DATA;
    list_add_tail(&obj->avl.list, &ctx->objects.list_head);
    return UBUS_STATUS_OK;
}

int ubus_remove_object(ubus_context *ctx, ubus_object *obj) {
    Body body;
    body.put(UBUS_ATTR_OBJID, obj->id);
    const int status = run_request(ctx, body, UBUS_MSG_REMOVE_OBJECT, 0, on_removed, obj);
    if (status == UBUS_STATUS_OK && obj->avl.list.next)
        list_del(&obj->avl.list);
    return status;
}

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg) {
    Body body;
    body.put(UBUS_ATTR_OBJID, req->object).put_data(msg);
    // Too long a reply would cost this connection, so it is refused here.
    if (!body.whole() || !send_message(ctx, UBUS_MSG_DATA, req->seq, req->peer, body.root()))
        return UBUS_STATUS_NO_DATA;
    return UBUS_STATUS_OK;
}

void ubus_defer_request(ubus_context *, ubus_request_data *req, ubus_request_data *new_req) {
    *new_req = *req;
    req->deferred = true;
}

void ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret) {
    send_status(ctx, *req, ret);
}

int ubus_notify(ubus_context *ctx, ubus_object *obj, const char *type, blob_attr *msg,
                int timeout) {
    Body body;
    body.put(UBUS_ATTR_OBJID, obj->id).put(UBUS_ATTR_METHOD, type).put_data(msg);
    if (timeout < 0)
        body.put_flag(UBUS_ATTR_NO_REPLY);
    ubus_request req{};
    if (const int status = start_request(ctx, &req, body, UBUS_MSG_NOTIFY, obj->id))
        return status;
    return timeout < 0 ? UBUS_STATUS_OK : ubus_complete_request(ctx, &req, timeout);
}

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *sub) {
    return add_anonymous(ctx, &sub->obj, &kNotification);
}

int ubus_unregister_subscriber(ubus_context *ctx, ubus_subscriber *sub) {
    return ubus_remove_object(ctx, &sub->obj);
}

int ubus_subscribe(ubus_context *ctx, ubus_subscriber *sub, uint32_t id) {
    return change_subscription(ctx, UBUS_MSG_SUBSCRIBE, sub->obj.id, id);
}

int ubus_unsubscribe(ubus_context *ctx, ubus_subscriber *sub, uint32_t id) {
    return change_subscription(ctx, UBUS_MSG_UNSUBSCRIBE, sub->obj.id, id);
}

int ubus_register_event_handler(ubus_context *ctx, ubus_event_handler *ev, const char *pattern) {
    if (!pattern)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (const int status = add_anonymous(ctx, &ev->obj, &kEvent))
        return status;
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    blobmsg_add_u32(&buf, "object", ev->obj.id);
    blobmsg_add_string(&buf, "pattern", pattern);
    const int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", buf.head, nullptr, nullptr, 0);
    blob_buf_free(&buf);
    return status;
}

int ubus_unregister_event_handler(ubus_context *ctx, ubus_event_handler *ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

int ubus_send_event(ubus_context *ctx, const char *id, blob_attr *data) {
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    blobmsg_add_string(&buf, "id", id);
    blobmsg_add_field(&buf, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : nullptr,
                      data ? static_cast<unsigned>(blob_len(data)) : 0);
    const int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", buf.head, nullptr, nullptr, 0);
    blob_buf_free(&buf);
    return status;
}
