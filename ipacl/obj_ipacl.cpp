// The bus object "L.IPACL": attributes in, lists changed or shown, status out.
//
// A handler decodes the attributes, checks by a mask which are there, and calls the module that
// does the work. What "action" does is a row of kDispatch. Show requests open the calling
// terminal's redirection around their output.

#include "obj_ipacl.h"

#include "acl_kind.h"
#include "acl_log.h"
#include "aclapi.h"
#include "ipaclext.h"
#include "ipaclstd.h"
#include "platform/resource.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <libubus.h>

#include <cstdio>
#include <iterator>
#include <sys/stat.h>

const char *vty_file_pre;

const blobmsg_policy ipacl_policy[IPACL_POLICY_MAX] = {
    {.name = "name", .type = BLOBMSG_TYPE_STRING},
    {.name = "action", .type = BLOBMSG_TYPE_INT8},
    {.name = "moudle", .type = BLOBMSG_TYPE_INT8},
    {.name = "type", .type = BLOBMSG_TYPE_INT8},
    {.name = "rule", .type = BLOBMSG_TYPE_STRING},
    {.name = "rule_struct", .type = BLOBMSG_TYPE_UNSPEC},
    {.name = "cmd_handler", .type = BLOBMSG_TYPE_INT32},
};

const ebus_invoke_method_s ipacl_methods[6] = {
    {"create", ipacl_create, ipacl_policy, IPACL_POLICY_MAX},
    {"destroy", ipacl_destroy, ipacl_policy, IPACL_POLICY_MAX},
    {"action", ipacl_action, ipacl_policy, IPACL_POLICY_MAX},
    {"gsync_init", ipacl_gsync_init, ipacl_policy, IPACL_POLICY_MAX},
    {"gsync_decode", ipacl_gsync_decode, ipacl_policy, IPACL_POLICY_MAX},
    {"showrunning", ipacl_show_running, ipacl_policy, IPACL_POLICY_MAX},
};

ebus_object_s ipacl_object = {"L.IPACL", ipacl_methods, std::size(ipacl_methods)};

namespace {

constexpr uint32_t bit(ipacl_attribute attribute) { return 1U << attribute; }

constexpr uint32_t kNamed =
    bit(IPACL_NAME) | bit(IPACL_ACTION) | bit(IPACL_MOUDLE) | bit(IPACL_TYPE);

// The attributes of one request.
class Request {
  public:
    explicit Request(blob_attr *msg) {
        if (msg)
            blobmsg_parse(ipacl_policy, IPACL_POLICY_MAX, tb_, blob_data(msg),
                          static_cast<unsigned int>(blob_len(msg)));
    }

    bool has(ipacl_attribute attribute) const { return tb_[attribute] != nullptr; }
    bool has_all(uint32_t mask) const {
        for (int i = 0; i < IPACL_POLICY_MAX; i++)
            if ((mask & (1U << i)) && !tb_[i])
                return false;
        return true;
    }

    const char *name() const { return text(IPACL_NAME); }
    const char *rule() const { return text(IPACL_RULE); }
    int action() const { return blobmsg_get_u8(tb_[IPACL_ACTION]); }
    int moudle() const { return blobmsg_get_u8(tb_[IPACL_MOUDLE]); }
    int is_standard() const { return blobmsg_get_u8(tb_[IPACL_TYPE]) != 0; }
    int handler() const { return static_cast<int>(blobmsg_get_u32(tb_[IPACL_HANDLER])); }

    // The rule record sent by the hardware layer, with its names terminated. Its pointers are the
    // sender's and mean nothing here. False when its size is not that of the record.
    bool record(ipacl_standard_rule &rule) const { return copy_record(&rule, sizeof rule); }
    bool record(ipacl_extended_rule &rule) const {
        if (!copy_record(&rule, sizeof rule))
            return false;
        for (auto *field : {&rule.src_vlan_name, &rule.dst_vlan_name, &rule.time_range})
            (*field)[IPACL_NAME_LEN] = '\0';
        return true;
    }

  private:
    const char *text(ipacl_attribute attribute) const {
        return tb_[attribute] ? blobmsg_get_string(tb_[attribute]) : nullptr;
    }
    bool copy_record(void *rule, size_t size) const {
        blob_attr *attr = tb_[IPACL_RULE_STRUCT];
        if (static_cast<size_t>(blobmsg_len(attr)) != size)
            return false;
        memcpy(rule, blobmsg_data(attr), size);
        return true;
    }

    blob_attr *tb_[IPACL_POLICY_MAX] = {};
};

void close_stream(FILE *&stream) {
    if (stream)
        (void)fclose(stream);
    stream = nullptr;
}

// Opens one output file of the terminal `handler` for appending, or leaves the stream null.
void open_stream(FILE *&stream, int handler, int number) {
    char name[100] = {};
    const int length =
        snprintf(name, sizeof name, "%s_%d_%d", vty_file_pre ? vty_file_pre : "", handler, number);
    const bool usable = vty_file_pre && static_cast<size_t>(length) < sizeof name;
    stream = usable ? fopen(name, "a+") : nullptr;
    if (!stream)
        printf("%%VTY-HANDLER: open %s error\n", name);
    if (usable)
        chmod(name, 0777);
}

void open_terminal(int handler) {
    const int previous = log_print_handler;
    if (previous != 0 && previous != handler) {
        printf("%%VTY-HANDLER: Set vty print handler error, pre:%d new:%d\n", previous, handler);
        return;
    }
    if (handler == 0)
        return;
    if (log_print_fp_0 || log_print_fp_1) {
        printf("%%VTY-HANDLER-ERROR: Maybe last vty not end!\n");
        vty_set_handler(0);
        close_stream(log_print_fp_0);
        close_stream(log_print_fp_1);
    }
    vty_set_handler(handler);
    open_stream(log_print_fp_0, handler, 0);
    open_stream(log_print_fp_1, handler, 1);
}

void close_terminal(int handler) {
    if (log_print_handler != handler) {
        printf("%%VTY-HANDLER: Clear vty print handler error, pre:%d new:%d\n", log_print_handler,
               handler);
        return;
    }
    vty_set_handler(0);
    close_stream(log_print_fp_0);
    close_stream(log_print_fp_1);
}

// Runs `show` with its output redirected to the calling terminal, if the request names one.
template <class F>
int show_to_terminal(const Request &request, F &&show) {
    const bool redirected = request.has(IPACL_HANDLER);
    if (redirected)
        open_terminal(request.handler());
    show();
    if (redirected)
        close_terminal(request.handler());
    return UBUS_STATUS_OK;
}

template <class Rule>
int change_precedence(const Request &request, int (*change)(const char *, const Rule *)) {
    Rule rule{};
    if (!request.record(rule))
        return UBUS_STATUS_INVALID_ARGUMENT;
    change(request.name(), &rule);
    return UBUS_STATUS_OK;
}

int edit_from_hardware(const Request &request) {
    return request.is_standard() ? change_precedence(request, do_standard_change_precedence)
                                 : change_precedence(request, do_extended_change_precedence);
}

int edit_by_command(const Request &request) {
    if (request.is_standard())
        do_standard_end(request.name(), request.rule());
    else
        do_extended_end(request.name(), request.rule());
    return UBUS_STATUS_OK;
}

int edit_by_others(const Request &) { return UBUS_STATUS_INVALID_ARGUMENT; }

int leave(const Request &request) {
    if (request.is_standard())
        acls_exit(request.name());
    else
        acle_exit(request.name());
    return UBUS_STATUS_OK;
}

int show(const Request &request) {
    return show_to_terminal(request, [&] {
        if (!request.has(IPACL_NAME)) {
            acl_print();
            return;
        }
        const ipacl *list = ipacl_config_find(request.name());
        if (list && list->status != IPACL_STATUS_HIDDEN_2)
            show_rule(list, 0);
    });
}

int show_json(const Request &request) {
    const bool named = request.has(IPACL_NAME);
    if (named && !request.has(IPACL_TYPE))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return show_to_terminal(
        request, [&] { ipacl_show_json(request.name(), named ? request.is_standard() : 0); });
}

struct Dispatch {
    int action;
    int moudle; // or kAnyone
    uint32_t needs;
    int (*serve)(const Request &);
};

constexpr int kAnyone = -1;

// The first row that fits an "action" request serves it; without one nothing is done.
constexpr Dispatch kDispatch[] = {
    {IPACL_ACTION_EDIT, IPACL_MOUDLE_HAL,
     bit(IPACL_NAME) | bit(IPACL_TYPE) | bit(IPACL_RULE_STRUCT), edit_from_hardware},
    {IPACL_ACTION_EDIT, IPACL_MOUDLE_CMD, bit(IPACL_NAME) | bit(IPACL_TYPE) | bit(IPACL_RULE),
     edit_by_command},
    {IPACL_ACTION_EDIT, kAnyone, 0, edit_by_others},
    {IPACL_ACTION_EXIT, kAnyone, bit(IPACL_NAME) | bit(IPACL_TYPE), leave},
    {IPACL_ACTION_SHOW, kAnyone, 0, show},
    {IPACL_ACTION_JSON, kAnyone, 0, show_json},
};

// True while the list may be opened for editing or destroyed.
bool changeable(const ipacl &list) {
    return list.status == IPACL_STATUS_READY || list.status == IPACL_STATUS_NOTREADY;
}

} // namespace

int ipacl_create(ebus_request_s *, const char *, blob_attr *msg, blob_buf *) {
    const Request request(msg);
    if (!request.has_all(kNamed))
        return UBUS_STATUS_INVALID_ARGUMENT;
    ipacl *list = get_ipacl_byname(request.name(), request.is_standard());
    if (!list) {
        syslog(kLogError, "named IP access list with this name already exists\n");
        return -1;
    }
    if (!changeable(*list))
        return -1;
    list->status = IPACL_STATUS_NOTREADY;
    // kept: an empty rule record is allocated, and neither used nor freed.
    acl::with_kind(*list, []<class Kind>(Kind) {
        if (void *record = sys_mem_malloc(sizeof(typename Kind::Rule)))
            memset(record, 0, sizeof(typename Kind::Rule));
    });
    return UBUS_STATUS_OK;
}

int ipacl_destroy(ebus_request_s *, const char *, blob_attr *msg, blob_buf *) {
    const Request request(msg);
    if (!request.has_all(kNamed))
        return UBUS_STATUS_INVALID_ARGUMENT;
    const ipacl *list = get_ipacl_byname(request.name(), request.is_standard());
    if (!list)
        return UBUS_STATUS_OK;
    if (!changeable(*list))
        return -1;
    const int announced = resource_synchronize(list->id, nullptr, list->name);
    return ipacl_delete(request.name(), request.is_standard()) ? announced : -1;
}

int ipacl_action(ebus_request_s *, const char *, blob_attr *msg, blob_buf *) {
    const Request request(msg);
    if (!request.has_all(bit(IPACL_ACTION) | bit(IPACL_MOUDLE)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    for (const auto &row : kDispatch) {
        if (row.action != request.action())
            continue;
        if (row.moudle != kAnyone && row.moudle != request.moudle())
            continue;
        return request.has_all(row.needs) ? row.serve(request) : UBUS_STATUS_INVALID_ARGUMENT;
    }
    return UBUS_STATUS_OK;
}

int ipacl_gsync_init(ebus_request_s *, const char *, blob_attr *, blob_buf *) {
    return UBUS_STATUS_OK;
}

int ipacl_gsync_decode(ebus_request_s *, const char *, blob_attr *, blob_buf *) {
    return UBUS_STATUS_OK;
}

int ipacl_show_running(ebus_request_s *, const char *, blob_attr *msg, blob_buf *) {
    return show_to_terminal(Request(msg), [] { acl_print(); });
}
