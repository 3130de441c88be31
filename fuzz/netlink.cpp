// Datagrams into the address listener, while interfaces come, change and go. An input is a
// configuration up to a NUL, then steps.
//
// After a sound notification about an interface, every indexed rule that names it has the address
// and mask that the interface has now.

#include "lists.h"

#include "ipacl_netlink.h"
#include "netlink_message.h"

#include <cstring>

namespace {

using namespace netlink;

struct Interface {
    const char *name;
    unsigned index;
};
constexpr Interface kInterfaces[] = {{"vlan1", 1}, {"vlan10", 10}, {"eth0", 2}};

Bytes attributes(fuzz::Input &in) {
    Bytes all;
    for (uint8_t count = in.below(4); count > 0; count--) {
        const uint16_t type = in.below(12);
        all = all + attribute(type, in.bytes(in.below(40)));
    }
    return all;
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
        const uint16_t type = in.byte();
        const uint32_t index = in.below(12);
        Bytes next = notification(type, index, attributes(in));
        next[0] = static_cast<unsigned char>(next[0] - in.below(32)); // a length that is not so
        datagram = datagram + next;
    }
    const std::string_view tail = in.bytes(in.byte());
    receive(datagram + Bytes(tail.begin(), tail.end()));
}

bool names(const char *name, const char *interface) {
    return strncmp(name, interface, strlen(interface)) == 0;
}

void receive_about(const Interface &interface, fuzz::Input &in) {
    // Under its own name alone: a label counts only for an interface that is gone.
    fake::set_interface(interface.name, interface.index, fuzz::Service::kAddress,
                        fuzz::Service::kMask);
    receive(notification(RTM_NEWADDR, interface.index, attributes(in)));
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

void change(const Interface &interface, uint8_t has) {
    fake::set_interface(interface.name, interface.index, has & 1 ? "10.9.0.1" : "",
                        has & 2 ? "255.0.0.0" : "");
}

void step(fuzz::Input &in) {
    const Interface &interface = kInterfaces[in.below(std::size(kInterfaces))];
    switch (in.below(8)) {
    case 0:
        change(interface, in.below(4));
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

void fuzz::play(Input &in) {
    fuzz::Service::run([&] {
        fuzz::Loader(false).load(in.until('\0'));
        while (!in.empty())
            step(in);
        const fake::Sockets sockets = fake::sockets();
        fuzz::require(sockets.opened <= sockets.closed + 1, "sockets are closed again");
    });
}
