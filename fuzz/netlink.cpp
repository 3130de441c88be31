// Datagrams into the address listener, while interfaces come, change and go. An input is a
// configuration up to a NUL, then steps.
//
// After a sound notification about an interface, every indexed rule that names it has the address
// and mask that the interface has now.

#include "lists.h"

#include "ipacl_netlink.h"

#include <cstring>

namespace {

using Bytes = std::vector<unsigned char>;

struct Interface {
    const char *name;
    unsigned index;
};
constexpr Interface kInterfaces[] = {{"vlan1", 1}, {"vlan10", 10}, {"eth0", 2}};

template <class T>
void append(Bytes &bytes, const T &value) {
    const auto *raw = reinterpret_cast<const unsigned char *>(&value);
    bytes.insert(bytes.end(), raw, raw + sizeof value);
}

void append(Bytes &bytes, std::string_view text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void pad(Bytes &bytes) { bytes.resize((bytes.size() + 3) & ~size_t{3}); }

// A message whose lengths are right, unless `broken`.
Bytes message(uint16_t type, unsigned index, fuzz::Input &in, uint8_t broken) {
    Bytes attributes;
    for (uint8_t count = in.below(4); count > 0; count--) {
        const uint16_t kind = in.below(12);
        const std::string_view value = in.bytes(in.below(40));
        append(attributes, static_cast<uint16_t>(sizeof(rtattr) + value.size()));
        append(attributes, kind);
        append(attributes, value);
        pad(attributes);
    }
    nlmsghdr header{};
    header.nlmsg_len =
        static_cast<uint32_t>(NLMSG_LENGTH(sizeof(ifaddrmsg)) + attributes.size()) - broken;
    header.nlmsg_type = type;
    ifaddrmsg body{};
    body.ifa_index = index;
    Bytes bytes;
    append(bytes, header);
    append(bytes, body);
    bytes.insert(bytes.end(), attributes.begin(), attributes.end());
    return bytes;
}

void receive(const Bytes &datagram) {
    fake::queue_datagram(datagram);
    uloop_fd u{};
    ipacl_cb(&u, ULOOP_READ);
    fake::take_syncs();
    fake::take_log();
}

void receive_several(fuzz::Input &in) {
    Bytes datagram;
    for (uint8_t count = in.below(6); count > 0; count--) {
        const Bytes next = message(in.byte(), in.below(12), in, in.below(32));
        datagram.insert(datagram.end(), next.begin(), next.end());
    }
    append(datagram, in.bytes(in.byte()));
    receive(datagram);
}

bool names(const char *name, const char *interface) {
    return strncmp(name, interface, strlen(interface)) == 0;
}

void receive_about(const Interface &interface, fuzz::Input &in) {
    // Under its own name alone: a label counts only for an interface that is gone.
    fake::set_interface(interface.name, interface.index, fuzz::Service::kAddress,
                        fuzz::Service::kMask);
    receive(message(RTM_NEWADDR, interface.index, in, 0));
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next) {
        if (!node->rule)
            continue;
        const auto &rule = *reinterpret_cast<const ipacl_extended_rule *>(node->rule);
        const auto has = [](in_addr address, in_addr mask) {
            return address.s_addr == ip(fuzz::Service::kAddress).s_addr &&
                   mask.s_addr == ip(fuzz::Service::kMask).s_addr;
        };
        fuzz::require(
            (!names(node->srcvlan_name, interface.name) || has(rule.srcaddr, rule.srcmsk)) &&
                (!names(node->dstvlan_name, interface.name) || has(rule.dstaddr, rule.dstmsk)),
            "a rule has the address of its interface");
    }
}

void step(fuzz::Input &in) {
    const Interface &interface = kInterfaces[in.below(std::size(kInterfaces))];
    switch (in.below(8)) {
    case 0:
        fake::set_interface(interface.name, interface.index, in.below(2) ? "10.9.0.1" : "",
                            in.below(2) ? "255.0.0.0" : "");
        break;
    case 1:
        fake::remove_interface(interface.name);
        break;
    case 2:
        receive({});
        break;
    case 3: {
        const std::string_view bytes = in.bytes(in.half());
        receive(Bytes(bytes.begin(), bytes.end()));
        break;
    }
    case 4:
        fake::fail_socket(in.below(2));
        receive_several(in);
        fake::fail_socket(false);
        break;
    case 5:
        acl::for_each_list([&](ipacl &list) { // removed by position: its node stays
            if (list.ipacl_e)
                delete_acl_rule_location(&list, nullptr, 1);
        });
        break;
    case 6:
        receive_several(in);
        break;
    default:
        receive_about(interface, in);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::silence();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    fuzz::Service::run([&] {
        fuzz::Loader(false).load(in.until('\0'));
        while (!in.empty())
            step(in);
        const fake::Sockets sockets = fake::sockets();
        fuzz::require(sockets.opened <= sockets.closed + 1, "sockets are closed again");
    });
    return 0;
}
