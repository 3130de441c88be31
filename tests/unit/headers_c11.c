/* The public headers in C: they compile, and their constants and calls can be used. */
#include "aclapi.h"
#include "aclrule.h"
#include "ipacl.h"
#include "ipacl_netlink.h"
#include "ipaclext.h"
#include "ipaclstd.h"
#include "obj_ipacl.h"
#include "platform/ebus.h"
#include "platform/intf.h"
#include "platform/message.h"
#include "platform/resource.h"
#include "platform/syncinit.h"
#include "platform/sys.h"
#include "platform/vty.h"

int c_program_lists(void);

int c_program_lists(void) {
    struct ipacl_standard_rule rule = {0};
    rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_LOG;
    rule.compare_flag = IPACL_COMPARE_MASK;
    rule.status = IPACL_RULE_ACTIVE;
    if (!ipacl_insert("from-c", 1, 0, IPACL_STATUS_READY))
        return -1;
    do_standard_end("from-c", "permit any");
    if (do_standard_change_precedence("from-c", &rule) != 0)
        return -1;
    return (int)ipacl_config_find("from-c")->rule_count;
}
