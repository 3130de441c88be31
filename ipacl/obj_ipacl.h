/* The bus object "L.IPACL": its attributes, command codes and methods.
 *
 * Handlers run on the event-loop thread, one request at a time, and take no lock. */
#ifndef IPACL_OBJ_IPACL_H
#define IPACL_OBJ_IPACL_H

#include "platform/ebus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Index of each attribute in `ipacl_policy`. */
enum ipacl_attribute {
    IPACL_NAME,
    IPACL_ACTION,
    IPACL_MOUDLE, /* spelled so on the wire */
    IPACL_TYPE,
    IPACL_RULE,
    IPACL_RULE_STRUCT,
    IPACL_HANDLER,
    IPACL_POLICY_MAX
};

/* Values of the attribute "action". */
enum ipacl_action_code {
    IPACL_ACTION_CREATE,
    IPACL_ACTION_EDIT,
    IPACL_ACTION_EXIT,
    IPACL_ACTION_DELETE,
    IPACL_ACTION_SHOW,
    IPACL_ACTION_JSON
};

/* Values of the attribute "moudle": who sends. */
enum ipacl_moudle { IPACL_MOUDLE_CMD, IPACL_MOUDLE_HAL };

extern const struct blobmsg_policy ipacl_policy[IPACL_POLICY_MAX];
extern const struct ebus_invoke_method_s ipacl_methods[6];
extern struct ebus_object_s ipacl_object;

/* The methods. Results are bus statuses: 0, 2 for a missing or malformed attribute, -1 for a
 * refused operation. */
int ipacl_create(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                 struct blob_buf *reply);
int ipacl_destroy(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                  struct blob_buf *reply);
int ipacl_action(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                 struct blob_buf *reply);
int ipacl_gsync_init(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                     struct blob_buf *reply);
int ipacl_gsync_decode(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                       struct blob_buf *reply);
int ipacl_show_running(struct ebus_request_s *req, const char *method, struct blob_attr *msg,
                       struct blob_buf *reply);

#ifdef __cplusplus
}
#endif

#endif
