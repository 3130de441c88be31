// The walkers over the whole registry that write every list.

#include "aclapi_kind.h"
#include "platform/sys.h"

int acl_print(void) {
    int printed = 0;
    acl::for_each_list([&](const ipacl &list) {
        if (!acl::configured(list))
            return;
        print_rule(&list);
        printed = 1;
    });
    return printed;
}

void show_acl(int space) {
    acl::for_each_list([&](const ipacl &list) {
        if (!acl::hidden(list))
            show_rule(&list, space);
        reset_watch_dog();
    });
}
