// One address notification with 1,000 rules that name its interface, against the system calls
// that answer it and one walk over the index.

#include "acl_kind.h"
#include "ipacl_netlink.h"
#include "service_rows.h"

#include "ipaclext.h"
#include "lists.h"

#include <cstring>
#include <memory>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Notification {
    nlmsghdr header;
    ifaddrmsg body;
};

Notification notification() {
    Notification n{};
    n.header.nlmsg_len = sizeof n;
    n.header.nlmsg_type = RTM_NEWADDR;
    n.body.ifa_index = if_nametoindex("lo");
    return n;
}

// The two ends of a socket that stands for the routing netlink's.
struct Ends {
    Ends() { socketpair(AF_UNIX, SOCK_DGRAM, 0, fd); }
    ~Ends() {
        close(fd[0]);
        close(fd[1]);
    }
    int fd[2];
};

void bare_event(int fd) {
    Notification received;
    recv(fd, &received, sizeof received, 0);
    ifreq request{};
    if_indextoname(received.body.ifa_index, request.ifr_name);
    const int question = socket(AF_INET, SOCK_DGRAM, 0);
    ioctl(question, SIOCGIFADDR, &request);
    ioctl(question, SIOCGIFNETMASK, &request);
    close(question);
    uint32_t sum = 0;
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
        sum += static_cast<unsigned char>(*node->srcvlan_name);
    benchmark::DoNotOptimize(sum);
}

} // namespace

void add_netlink_row(Table &table) {
    constexpr uint32_t kRules = 1000;
    list_of("vlans", false, 0);
    for (uint32_t i = 0; i < kRules; i++)
        do_extended_end("vlans", ("permit tcp interface lo any eq " + std::to_string(i)).c_str());
    const auto ends = std::make_shared<Ends>();
    const auto message = notification();
    const auto post = [=] { send(ends->fd[1], &message, sizeof message, 0); };
    table.add("netlink event, 1000 rules name the interface", 0,
              repeat(1,
                     [=] {
                         post();
                         uloop_fd reader{};
                         reader.fd = ends->fd[0];
                         ipacl_cb(&reader, ULOOP_READ);
                     }),
              repeat(1, [=] {
                  post();
                  bare_event(ends->fd[0]);
              }));
}
