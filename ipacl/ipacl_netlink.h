/* The address listener: keeps rules that name a VLAN interface at the address and mask that the
 * interface has now, and announces the lists that they are in. Event-loop thread only. */
#ifndef IPACL_IPACL_NETLINK_H
#define IPACL_IPACL_NETLINK_H

#include <libubox/uloop.h>
#include <linux/rtnetlink.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The routing-netlink socket in the event loop. */
extern struct uloop_fd ipacl_server;

/* Opens the socket, bound to the notifications of IPv4 addresses, and adds it to the loop. 0, or
 * the negative result of the call that failed, which is logged. */
int ipacl_netlink_open(void);

/* The loop's read handler: receives one datagram and handles every message in it. When the kernel
 * reports that notifications were lost, it drops those that are left and brings every rule that
 * names an interface up to date. */
void ipacl_cb(struct uloop_fd *u, unsigned int events);

/* Stores the address of each attribute of type at most `max` among the `len` bytes at `rta` in
 * `tb`, which has max + 1 entries and is not cleared; a later attribute of a type replaces an
 * earlier one. */
void netlink_parse_rtattr(struct rtattr **tb, int max, struct rtattr *rta, int len);

#ifdef __cplusplus
}
#endif

#endif
