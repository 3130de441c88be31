/* The client and server library of the message bus.
 *
 * One context is one connection. Records handed in belong to the caller and must stay alive while
 * they are registered or outstanding. Not thread safe. Messages handed to callbacks are valid until
 * the callback returns. */
#ifndef LIBUBUS_H
#define LIBUBUS_H

#include "libubox/avl.h"
#include "libubox/blobmsg.h"
#include "libubox/list.h"
#include "libubox/uloop.h"
#include "ubus_common.h"
#include "ubusmsg.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ubus_context;
struct ubus_event_handler;
struct ubus_object;
struct ubus_object_data;
struct ubus_request;
struct ubus_request_data;
struct ubus_subscriber;

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj,
                                      void *priv);
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method,
                              struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *obj,
                                      uint32_t id);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);

struct ubus_method {
    const char *name; /* null: takes every method */
    ubus_handler_t handler;
    unsigned long mask;
    unsigned long tags;
    const struct blobmsg_policy *policy; /* announced only; handlers parse for themselves */
    int n_policy;
};

#define UBUS_METHOD(_name, _handler, _policy)                                                      \
    {                                                                                              \
        .name = (_name), .handler = (_handler), .mask = 0, .tags = 0, .policy = (_policy),         \
        .n_policy = ARRAY_SIZE(_policy)                                                            \
    }
#define UBUS_METHOD_NOARG(_name, _handler)                                                         \
    { .name = (_name), .handler = (_handler), .mask = 0, .tags = 0, .policy = NULL, .n_policy = 0 }
#define UBUS_OBJECT_TYPE(_name, _methods)                                                          \
    { .name = (_name), .id = 0, .methods = (_methods), .n_methods = ARRAY_SIZE(_methods) }

struct ubus_object_type {
    const char *name;
    uint32_t id;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_object {
    struct avl_node avl;
    const char *name;
    uint32_t id; /* 0: not registered */
    const char *path;
    struct ubus_object_type *type;
    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending;
    struct uloop_fd sock;
    struct uloop_timeout pending_timer;
    uint32_t local_id; /* as received, in network byte order */
    uint16_t request_seq;
    bool cancel_poll;
    int stack_depth;
    void (*connection_lost)(struct ubus_context *ctx);
    void *msgbuf; /* the library's */
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature;
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl;
    bool deferred;
    int fd;
    int *req_fd;
};

struct ubus_request {
    struct list_head list;
    struct list_head pending;
    int status_code;
    bool status_msg;
    bool blocked;
    bool cancelled;
    bool notify;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb;
    ubus_data_handler_t data_cb;
    ubus_complete_handler_t complete_cb;
    struct ubus_context *ctx;
    void *priv;
};

/* --- Connection --- */

/* Connects and waits for the broker's greeting; a null path is the default socket. Null, or -1 and
 * errno, when there is no broker. */
struct ubus_context *ubus_connect(const char *path);
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
void ubus_free(struct ubus_context *ctx);
void ubus_shutdown(struct ubus_context *ctx);

/* Connects again and registers all objects again, with new ids. 0, or a status. */
int ubus_reconnect(struct ubus_context *ctx, const char *path);
void ubus_add_uloop(struct ubus_context *ctx);
/* For loops of other makes: when the socket is readable, and once after calls that wait, for what
 * came meanwhile. */
void ubus_handle_event(struct ubus_context *ctx);
const char *ubus_strerror(int error);

/* --- Server --- */

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);
void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                        struct ubus_request_data *new_req);
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                    int ret);
/* A timeout below 0 wants no answers; otherwise the broker's list of subscribers is waited for, but
 * not what they answer. */
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
                struct blob_attr *msg, int timeout);

/* --- Client --- */

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);

/* Calls a method and waits; timeout in milliseconds, 0 for ever. The server's status, or one of
 * the library's. */
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout);

/* Calls a method; set the request's callbacks after this, then ubus_complete_request_async. */
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method,
                      struct blob_attr *msg, struct ubus_request *req);
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub);
int ubus_unregister_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub);
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                const char *pattern);
int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev);
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);

#ifdef __cplusplus
}
#endif

#endif
