// What unit tests of the service start from: a fake platform with nothing recorded, and no lists.
#pragma once

#include "aclapi.h"
#include "fake_platform.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

class ServiceTest : public testing::Test {
  protected:
    ServiceTest() { clear(); }
    ~ServiceTest() override { clear(); }

    // Deletes every list, with its derived copies, and every index node, then forgets what the fake
    // has recorded.
    static void clear() {
        for (auto &head : hash_table) {
            while (head) {
                ipacl *list = head;
                head = list->next;
                for (ipacl *copy : {list->p_mergeacl, list->p_cleanacl})
                    if (copy && copy != list)
                        acl_rule_IPrange_delete(copy);
                delete_acl_rule_location(list, nullptr, 0);
                sys_free(list);
            }
        }
        while (auto *node = ipacl_vlanname_list_head) {
            ipacl_vlanname_list_head = node->next;
            sys_free(node);
        }
        ipacl_debug_flag = 0;
        fake::reset();
    }

    static void sys_free(void *block);
};

inline in_addr ip(const char *text) { return in_addr{inet_addr(text)}; }
