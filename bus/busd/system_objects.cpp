// The broker's own objects: events, access control, monitoring.

#include "broker.h"

#include <cstring>

namespace busd {
namespace {

// A named attribute as bytes.
std::string named(unsigned type, std::string_view name, std::string_view value) {
    std::string header;
    header.push_back(static_cast<char>(name.size() >> 8));
    header.push_back(static_cast<char>(name.size() & 0xFF));
    header.append(name);
    header.push_back('\0');
    header.append((4 - header.size() % 4) % 4, '\0');
    header.append(value);
    std::string bytes = Body().put(type, std::string_view(header)).bytes();
    bytes[0] = static_cast<char>(bytes[0] | 0x80);
    return bytes;
}

std::string number_bytes(uint32_t number) {
    const uint32_t word = cpu_to_be32(number);
    return std::string(reinterpret_cast<const char *>(&word), sizeof word);
}

// The arguments of a method, copied to where they are aligned.
class Arguments {
  public:
    template <size_t N>
    Arguments(std::string_view data, const blobmsg_policy (&policy)[N]) : bytes_(data) {
        blobmsg_parse(policy, static_cast<int>(N), tb_, bytes_.data(),
                      static_cast<unsigned>(bytes_.size()));
    }
    blob_attr *operator[](size_t i) const { return tb_[i]; }
    std::string_view content(size_t i) const {
        return {static_cast<const char *>(blobmsg_data(tb_[i])),
                static_cast<size_t>(blobmsg_len(tb_[i]))};
    }

  private:
    std::string bytes_;
    blob_attr *tb_[2] = {};
};

bool takes(const std::string &pattern, std::string_view name) {
    if (pattern.back() == '*')
        return name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1));
    return name == pattern;
}

bool wants(const Object &object, std::string_view name) {
    for (const auto &pattern : object.patterns)
        if (takes(pattern, name))
            return true;
    return false;
}

} // namespace

int Broker::system_object(Client &client, const Message &message, uint32_t id,
                          std::string_view method, std::string_view data) {
    switch (id) {
    case UBUS_SYSTEM_OBJECT_EVENT:
        if (method == "register")
            return event_register(client, data);
        return method == "send" ? event_send(client, data) : UBUS_STATUS_INVALID_COMMAND;
    case UBUS_SYSTEM_OBJECT_ACL:
        return method == "query" ? acl_query(client, message) : UBUS_STATUS_INVALID_COMMAND;
    default:
        return monitor(client, method);
    }
}

int Broker::event_register(Client &client, std::string_view data) {
    static const blobmsg_policy policy[] = {
        {.name = "object", .type = BLOBMSG_TYPE_INT32},
        {.name = "pattern", .type = BLOBMSG_TYPE_STRING},
    };
    const Arguments arguments(data, policy);
    if (!arguments[0] || !arguments[1])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = blobmsg_get_u32(arguments[0]);
    const std::string pattern = blobmsg_get_string(arguments[1]);
    if (id < UBUS_SYSTEM_OBJECT_MAX || pattern.empty())
        return UBUS_STATUS_PERMISSION_DENIED;
    Object *object = find(id);
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->owner != &client)
        return UBUS_STATUS_PERMISSION_DENIED;
    object->patterns.push_back(pattern);
    return UBUS_STATUS_OK;
}

int Broker::event_send(Client &client, std::string_view data) {
    static const blobmsg_policy policy[] = {
        {.name = "id", .type = BLOBMSG_TYPE_STRING},
        {.name = "data", .type = BLOBMSG_TYPE_TABLE},
    };
    const Arguments arguments(data, policy);
    if (!arguments[0] || !arguments[1])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const std::string_view name = blobmsg_get_string(arguments[0]);
    if (name.starts_with("ubus."))
        return UBUS_STATUS_PERMISSION_DENIED;
    send_event(&client, name, arguments.content(1));
    return UBUS_STATUS_OK;
}

// Tells an event to every listener, once each; `sender` hears nothing of its own.
void Broker::send_event(const Client *sender, std::string_view name, std::string_view data) {
    for (Object *object : order_) {
        if (object->owner == sender || object->owner->gone || !wants(*object, name))
            continue;
        send(*object->owner, UBUS_MSG_INVOKE, ++event_seq_, 0,
             Body()
                 .put(UBUS_ATTR_OBJID, object->id)
                 .put_text(UBUS_ATTR_METHOD, name)
                 .put(UBUS_ATTR_DATA, data));
    }
}

void Broker::announce(const Object &object, const char *event) {
    std::string path = *object.path;
    path.push_back('\0');
    send_event(nullptr, event,
               named(BLOBMSG_TYPE_INT32, "id", number_bytes(object.id)) +
                   named(BLOBMSG_TYPE_STRING, "path", path));
}

// There are no access-control files: who may connect may do everything.
int Broker::acl_query(Client &client, const Message &message) {
    const std::string rules =
        named(BLOBMSG_TYPE_INT32, "seq", number_bytes(0)) + named(BLOBMSG_TYPE_ARRAY, "acl", "");
    reply(client, message, UBUS_MSG_DATA,
          Body()
              .put(UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_ACL)
              .put(UBUS_ATTR_DATA, std::string_view(rules)));
    return UBUS_STATUS_OK;
}

int Broker::monitor(Client &client, std::string_view method) {
    if (method != "add" && method != "remove")
        return UBUS_STATUS_METHOD_NOT_FOUND;
    if (client.uid != 0 || client.gid != 0)
        return UBUS_STATUS_PERMISSION_DENIED;
    const bool on = method == "add";
    if (client.monitors != on)
        monitors_ += on ? 1U : ~0U;
    client.monitors = on;
    return UBUS_STATUS_OK;
}

// Shows a message of `client` to every monitor, before it is sent where it was to be sent.
void Broker::report(const Client &client, const Message &message, bool sent) {
    if (monitors_ == 0)
        return;
    const Body body = Body()
                          .put(UBUS_MONITOR_CLIENT, client.id)
                          .put(UBUS_MONITOR_PEER, message.peer)
                          .put(UBUS_MONITOR_SEQ, message.seq)
                          .put(UBUS_MONITOR_TYPE, message.type)
                          .put_flag(UBUS_MONITOR_SEND, sent)
                          .put(UBUS_MONITOR_DATA, message.body);
    for (auto &[id, monitor] : clients_) {
        if (!monitor->monitors || monitor->gone)
            continue;
        monitor->send({UBUS_MSG_MONITOR, ++monitor->monitor_seq, 0, body.bytes()});
        watch(*monitor);
    }
}

} // namespace busd
