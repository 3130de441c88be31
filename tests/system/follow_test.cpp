// Rules follow the addresses of a real interface, in a network namespace of the test's own.

#include "daemon.h"

#include <cstdlib>
#include <net/if.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool ip(const std::string &arguments) {
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

class Follow : private Namespace, public System {
  protected:
    void SetUp() override {
        if (reason)
            GTEST_SKIP() << reason;
        ctl({"create", "web", "--type", "extended"});
    }
    // True once adding `rule` is refused because the list's rule has the interface's address of
    // now; a rule that was left behind would let it in, so it is asked through a removal: the
    // removal takes the equal rule only.
    bool holds(const std::string &rule) {
        for (int i = 0; i < 500; i++) {
            ctl({"rule", "web", "no " + rule});
            const bool gone = running().find(" permit ") == std::string::npos;
            ctl({"rule", "web", rule});
            if (gone)
                return true;
            // It was left behind, for now: take the added one away again.
            ctl({"rule", "web", "no " + rule});
            usleep(10000);
        }
        return false;
    }
};

constexpr const char *kSource = "permit ip interface vlan10 any";
constexpr const char *kDestination = "permit ip any interface vlan10";

TEST_F(Follow, AnAddressThatIsAddedChangedAndRemoved) {
    for (const char *rule : {kSource, kDestination}) {
        ASSERT_EQ(ctl({"rule", "web", rule}).status, 0);
        ASSERT_TRUE(ip("address add 10.9.1.1/24 dev vlan10"));
        EXPECT_TRUE(holds(rule)) << "added";
        ASSERT_TRUE(ip("address add 10.9.2.1/16 dev vlan10"));
        ASSERT_TRUE(ip("address del 10.9.1.1/24 dev vlan10"));
        EXPECT_TRUE(holds(rule)) << "changed";
        ASSERT_TRUE(ip("address flush dev vlan10"));
        EXPECT_TRUE(holds(rule)) << "removed";
        ctl({"rule", "web", std::string("no ") + rule});
    }
}

TEST_F(Follow, AnInterfaceThatIsDeletedLeavesZeroAndAHostMask) {
    ASSERT_TRUE(ip("address add 10.9.1.1/24 dev vlan10"));
    ASSERT_EQ(ctl({"rule", "web", kSource}).status, 0);
    ASSERT_TRUE(ip("link del vlan10"));
    EXPECT_TRUE(holds(kSource)); // which now reads as 0.0.0.0 with a host mask
}

} // namespace
