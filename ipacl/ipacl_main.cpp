// The daemon: start, run, stop.

#include "acl_log.h"
#include "ipacl_netlink.h"
#include "obj_ipacl.h"
#include "platform/syncinit.h"

#include <cstdio>

namespace {

// Connects, publishes the object, listens for addresses and runs the loop until it is ended.
// Returns the exit status.
int run() {
    if (ebus_connect() != 0) {
        syslog(kLogError, "ipacl ebus_context failed\n");
        return -1;
    }
    uloop_init();
    if (const int refused = ebus_add_object(&ipacl_object)) {
        syslog(kLogError, "ipacl Failed to add qboard object: %d\n", refused);
        return -1;
    }
    ebus_add_uloop();
    if (const int failed = ipacl_netlink_open())
        return failed;
    syncinit_finish();
    uloop_run_timeout(-1);
    uloop_done();
    return 0;
}

} // namespace

int main() {
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // messages are to be seen when they are said
    const int status = run();
    ebus_disconnect();
    return status;
}
