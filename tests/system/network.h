// A network namespace of a test's own, and address changes in it.
#pragma once

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

inline bool ip(const std::string &arguments) {
    return system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
}

// The fixture's processes must be started inside the namespace, so it is entered before them.
class Namespace {
  protected:
    Namespace() {
        if (geteuid() != 0)
            reason = "needs root, for a network namespace";
        else if (unshare(CLONE_NEWNET) != 0)
            reason = "this host allows no network namespaces";
        else if (!ip("link add vlan10 type dummy") && !ip("link add vlan10 type bridge"))
            reason = "this kernel makes neither dummy nor bridge interfaces";
        else
            ip("link set vlan10 up");
    }
    const char *reason = nullptr;
};

// A second address of an interface.
class SecondAddress {
  public:
    explicit SecondAddress(const char *interface) : index_(if_nametoindex(interface)) {}
    ~SecondAddress() { close(fd_); }
    SecondAddress(const SecondAddress &) = delete;
    SecondAddress &operator=(const SecondAddress &) = delete;

    // The kernel's consent.
    bool add() { return change(RTM_NEWADDR); }
    bool remove() { return change(RTM_DELADDR); }
    // Adds and removes it, `changes` times in all.
    bool storm(int changes) {
        for (int i = 0; i < changes; i++)
            if (!(i % 2 == 0 ? add() : remove()))
                return false;
        return true;
    }

  private:
    struct Request {
        nlmsghdr header;
        ifaddrmsg body;
        rtattr attribute;
        in_addr address;
    };

    bool change(uint16_t type) {
        Request request{};
        request.header = {sizeof request, type, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
        if (type == RTM_NEWADDR)
            request.header.nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
        request.body = {AF_INET, 32, 0, 0, index_};
        request.attribute = {sizeof(rtattr) + sizeof(in_addr), IFA_LOCAL};
        request.address.s_addr = inet_addr("10.66.6.6");
        char answer[256];
        if (send(fd_, &request, sizeof request, 0) < 0 || recv(fd_, answer, sizeof answer, 0) < 0)
            return false;
        int error;
        memcpy(&error, answer + sizeof(nlmsghdr), sizeof error);
        return error == 0;
    }

    const unsigned index_;
    const int fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
};
