/* The bus wrapper: one connection to the local message bus and the objects published on it.
 *
 * On a device the platform's bus library provides it; on a plain Linux host platform/linux does.
 * Handlers run on the event-loop thread, one at a time. A connection that is lost after
 * ebus_add_uloop is made again by itself and every object is published again; the object records
 * and all they point at must therefore stay alive until ebus_disconnect. */
#ifndef IPACL_PLATFORM_EBUS_H
#define IPACL_PLATFORM_EBUS_H

#include <libubox/blobmsg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The request being served; what it holds is the wrapper's business. */
struct ebus_request_s;

/* Serves one request. `msg` is the attribute message, or null when the caller sent none; an integer
 * that came wider than the method's policy says was narrowed to it if the value fits. Attributes
 * put into `reply` (initialised, empty) go back to the caller. The result is the bus status. */
typedef int (*ebus_handler_t)(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                              struct blob_buf *reply);

struct ebus_invoke_method_s {
    const char *name;
    ebus_handler_t handler;
    const struct blobmsg_policy *policy;
    int n_policy;
};

struct ebus_object_s {
    const char *name;
    const struct ebus_invoke_method_s *methods;
    int n_methods;
};

/* Connects to the bus (on a Linux host: UBUS_SOCKET, or the bus's own default). 0, or a negative
 * error. */
int ebus_connect(void);

/* Publishes an object. 0, or the bus status of the refusal. */
int ebus_add_object(struct ebus_object_s *object);

/* Attaches the connection to the event loop; uloop_init must have run. */
void ebus_add_uloop(void);

/* Ends the connection; harmless when there is none. */
void ebus_disconnect(void);

/* Announces an event to every listener on the bus. 0, or a bus status (also while disconnected). */
int ebus_send_event(const char *name, struct blob_attr *msg);

#ifdef __cplusplus
}
#endif

#endif
