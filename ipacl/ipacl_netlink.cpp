// The address listener.
//
// One datagram of address notifications per call. Every message leads to the same question, what
// address and mask the interface has now, and the answer goes into each rule that names it. Where
// the kernel had to drop notifications, every interface that a rule names is asked for again.

#include "ipacl_netlink.h"

#include "acl_log.h"
#include "aclapi.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

uloop_fd ipacl_server;

namespace {

constexpr int kMaxAttribute = 10;
constexpr int kMessageHeader = NLMSG_LENGTH(sizeof(ifaddrmsg));
constexpr int kMaxOverruns = 16;             // in a row, while the socket is read empty
constexpr useconds_t kRemovalPause = 10'000; // the kernel is still taking the address away

struct InterfaceAddress {
    in_addr ip;
    in_addr mask;
};

// What one datagram has changed so far. kept: once set, `need_sync` stays set for the rest of the
// datagram, so every later node announces the last list again.
struct Changes {
    bool need_sync = false;
    ipacl *list = nullptr;
};

// The interface's name, or its label in the message when the interface is gone; may stay empty.
void interface_name(const ifaddrmsg &message, rtattr *const (&tb)[kMaxAttribute + 1],
                    char (&name)[IF_NAMESIZE]) {
    memset(name, 0, sizeof name);
    if (if_indextoname(message.ifa_index, name))
        return;
    memset(name, 0, sizeof name);
    if (rtattr *label = tb[IFA_LABEL]) {
        const auto *text = static_cast<const char *>(RTA_DATA(label));
        const size_t size = static_cast<size_t>(RTA_PAYLOAD(label));
        std::copy_n(text, strnlen(text, std::min<size_t>(size, IF_NAMESIZE - 1)), name);
    }
}

in_addr query(int fd, unsigned long what, const char *name, in_addr_t otherwise) {
    ifreq request{};
    memcpy(request.ifr_name, name, strnlen(name, IFNAMSIZ - 1));
    if (ioctl(fd, what, &request) != 0)
        return in_addr{otherwise};
    sockaddr_in address{};
    memcpy(&address, &request.ifr_addr, sizeof address);
    return address.sin_addr;
}

// Reads what the interface has now: address 0 and a host mask when it has none.
bool read_interface(const char *name, InterfaceAddress &now) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        syslog(kLogError, "ipacl socket error\n");
        return false;
    }
    now.ip = query(fd, SIOCGIFADDR, name, INADDR_ANY);
    now.mask = query(fd, SIOCGIFNETMASK, name, INADDR_BROADCAST);
    close(fd);
    return true;
}

// A node of the index holds its rule and its list as numbers.
ipacl_extended_rule &rule_of(const _ipacl_rule_vlanname &node) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the field is a number by the interface
    return *reinterpret_cast<ipacl_extended_rule *>(node.rule);
}

ipacl *list_of(const _ipacl_rule_vlanname &node) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the field is a number by the interface
    return reinterpret_cast<ipacl *>(node.ipacl);
}

void update_source(const _ipacl_rule_vlanname &node, const InterfaceAddress &now,
                   Changes &changes) {
    auto &rule = rule_of(node);
    changes.list = list_of(node);
    if (rule.srcaddr.s_addr == now.ip.s_addr && rule.srcmsk.s_addr == now.mask.s_addr)
        return;
    rule.srcaddr = now.ip;
    rule.srcmsk = now.mask;
    changes.need_sync = true;
}

void update_destination(const _ipacl_rule_vlanname &node, const InterfaceAddress &now,
                        Changes &changes) {
    auto &rule = rule_of(node);
    changes.list = list_of(node);
    rule.dstaddr = now.ip; // kept: rewritten and announced, changed or not
    rule.dstmsk = now.mask;
    changes.need_sync = true;
}

void update_node(const _ipacl_rule_vlanname &node, const char *name, const InterfaceAddress &now,
                 Changes &changes) {
    // kept: a prefix test, so an interface named vlan1 is also found in a node naming vlan10.
    const size_t length = strlen(name);
    if (length > 0 && strncmp(node.srcvlan_name, name, length) == 0)
        update_source(node, now, changes);
    if (length > 0 && strncmp(node.dstvlan_name, name, length) == 0)
        update_destination(node, now, changes);
    if (changes.need_sync)
        ipacl_synchronize(changes.list);
}

// Asks for the interfaces that one node names, by their own names, and announces its list if that
// changed anything. False when nothing can be asked.
bool resynchronize_node(const _ipacl_rule_vlanname &node) {
    Changes changes;
    InterfaceAddress now{};
    if (*node.srcvlan_name) {
        if (!read_interface(node.srcvlan_name, now))
            return false;
        update_source(node, now, changes);
    }
    if (*node.dstvlan_name) {
        if (!read_interface(node.dstvlan_name, now))
            return false;
        update_destination(node, now, changes);
    }
    if (changes.need_sync)
        ipacl_synchronize(changes.list);
    return true;
}

// After notifications were lost. The kernel drops what comes, without another error, until the
// socket has been read empty: only an interface that is asked for after that is known for sure.
void resynchronize(int fd) {
    char byte;
    iovec room{&byte, sizeof byte}; // without any, an emulator reports an endless queue
    msghdr dropped{};
    dropped.msg_iov = &room;
    dropped.msg_iovlen = 1;
    int overruns = 0;
    while (recvmsg(fd, &dropped, MSG_DONTWAIT) >= 0 ||
           (errno == ENOBUFS && ++overruns < kMaxOverruns)) {
    }
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
        if (node->rule && !resynchronize_node(*node))
            return;
}

// Handles one message. False when the rest of the datagram is to be dropped.
bool handle_message(nlmsghdr *header, Changes &changes) {
    const int attributes = static_cast<int>(header->nlmsg_len) - kMessageHeader;
    if (attributes < 0) {
        syslog(kLogError, "ipacl: Message received from netlink is of a broken size\n");
        return false;
    }
    const auto *message = static_cast<const ifaddrmsg *>(NLMSG_DATA(header));
    rtattr *tb[kMaxAttribute + 1] = {};
    netlink_parse_rtattr(tb, kMaxAttribute, IFA_RTA(NLMSG_DATA(header)), attributes);
    char name[IF_NAMESIZE];
    interface_name(*message, tb, name);
    if (header->nlmsg_type == RTM_DELADDR)
        usleep(kRemovalPause);
    InterfaceAddress now{};
    if (!read_interface(name, now))
        return false;
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
        if (node->rule) // else its record is gone
            update_node(*node, name, now, changes);
    return true;
}

} // namespace

int ipacl_netlink_open(void) {
    ipacl_server.cb = ipacl_cb;
    ipacl_server.fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (ipacl_server.fd < 0) {
        syslog(kLogError, "ipacl socket creating failed(%d).\n", ipacl_server.fd);
        return ipacl_server.fd;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_IFADDR;
    const int result =
        bind(ipacl_server.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (result < 0) {
        syslog(kLogError, "ipacl bind error(%d).\n", result);
        return result;
    }
    uloop_fd_add(&ipacl_server, ULOOP_READ);
    return 0;
}

void ipacl_cb(uloop_fd *u, unsigned int) {
    alignas(nlmsghdr) char buf[2048];
    iovec iov{buf, sizeof buf};
    sockaddr_nl snl{};
    msghdr msg{};
    msg.msg_name = &snl;
    msg.msg_namelen = sizeof snl;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (u->error) // the loop lets go of a descriptor that has an error
        uloop_fd_add(u, ULOOP_READ);
    const ssize_t received = recvmsg(u->fd, &msg, 0);
    if (received < 0) {
        const bool lost = errno == ENOBUFS;
        syslog(kLogError, "ipacl: Message received from netlink error(%d).\n",
               static_cast<int>(received));
        if (lost)
            resynchronize(u->fd);
        return;
    }
    Changes changes;
    auto left = static_cast<size_t>(received);
    for (char *at = buf; left >= sizeof(nlmsghdr);) {
        auto *header = reinterpret_cast<nlmsghdr *>(at);
        if (header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > left ||
            !handle_message(header, changes))
            return;
        const size_t step = std::min<size_t>(NLMSG_ALIGN(header->nlmsg_len), left);
        at += step;
        left -= step;
    }
}

void netlink_parse_rtattr(rtattr **tb, int max, rtattr *rta, int len) {
    for (; RTA_OK(rta, len); rta = RTA_NEXT(rta, len))
        if (rta->rta_type <= max)
            tb[rta->rta_type] = rta;
}
