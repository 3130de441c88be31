// ubus call OBJECT METHOD [MESSAGE], for the README's examples on hosts without the bus's own
// command line: numbers go out in 32 bits, as there, and the reply's text comes back.

#include <cjson/cJSON.h>
#include <libubus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// Turns an object of strings and integers into attributes. False for anything else.
bool add_attributes(blob_buf &message, const char *text) {
    const std::unique_ptr<cJSON, void (*)(cJSON *)> json(cJSON_Parse(text), cJSON_Delete);
    if (!cJSON_IsObject(json.get()))
        return false;
    const cJSON *entry;
    cJSON_ArrayForEach(entry, json.get()) {
        if (cJSON_IsString(entry))
            blobmsg_add_string(&message, entry->string, entry->valuestring);
        else if (cJSON_IsNumber(entry))
            blobmsg_add_u32(&message, entry->string, static_cast<uint32_t>(entry->valueint));
        else
            return false;
    }
    return true;
}

void print_output(ubus_request *, int, blob_attr *msg) {
    static const blobmsg_policy policy[] = {{.name = "output", .type = BLOBMSG_TYPE_STRING}};
    blob_attr *tb[1];
    blobmsg_parse(policy, 1, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (tb[0])
        fputs(blobmsg_get_string(tb[0]), stdout);
}

int call(ubus_context *ctx, const char *object, const char *method, const char *text) {
    uint32_t id;
    if (const int status = ubus_lookup_id(ctx, object, &id))
        return status;
    blob_buf message{};
    blobmsg_buf_init(&message);
    const int status = add_attributes(message, text) ? ubus_invoke(ctx, id, method, message.head,
                                                                   print_output, nullptr, 30000)
                                                     : UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_free(&message);
    return status;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 4 || argc > 5 || strcmp(argv[1], "call") != 0) {
        fputs("Usage: ubus call OBJECT METHOD [MESSAGE]\n", stderr);
        return 2;
    }
    ubus_context *ctx = ubus_connect(getenv("UBUS_SOCKET"));
    if (!ctx) {
        fputs("no message bus\n", stderr);
        return 1;
    }
    const int status = call(ctx, argv[2], argv[3], argc == 5 ? argv[4] : "{}");
    if (status)
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
    ubus_free(ctx);
    return status ? 1 : 0;
}
