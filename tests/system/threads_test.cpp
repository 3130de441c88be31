// Linked components on many threads beside one that edits the lists, on the real platform. Built
// with ThreadSanitizer this proves that they share nothing without the lock.

#include "aclapi.h"
#include "ipaclext.h"
#include "ipaclstd.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

namespace {

constexpr int kRounds = 2'000; // of every component

class Threads : public testing::Test {
  protected:
    Threads() {
        ipacl_init();
        get_ipacl_byname("s", 1);
        get_ipacl_byname("e", 0);
    }
    ~Threads() override {
        for (ipacl *list : hash_table)
            while (list) {
                ipacl *next = list->next;
                ipacl_delete(list->name, list->is_standard);
                list = next;
            }
    }
};

// Adds, removes and moves rules and lists, each under the lock as configuration holds it, until all
// components are done. Returns how often.
int edit(const std::atomic<int> &busy) {
    int i = 0;
    for (; busy > 0; i++) {
        char rule[64];
        snprintf(rule, sizeof rule, "permit 10.0.0.%d", i % 8);
        mu_lock(mutex_id, 0, 0);
        do_standard_end("s", rule);
        do_extended_end("e", i % 2 ? "permit tcp any any eq www" : "no permit tcp any any eq www");
        if (i % 8 == 7)
            delete_acl_rule_location(ipacl_config_find("s"), nullptr, 0);
        if (i % 16 == 0)
            get_ipacl_byname("comes-and-goes", 1);
        exchange_acls_rule("s", 2, 1);
        mu_unlock(mutex_id);
        tm_wkafter(0);
    }
    return i;
}

acl_info packet() {
    acl_info info{};
    info.src_ip = inet_addr("10.0.0.7");
    info.proto = 6;
    info.dst_port = 80;
    return info;
}

// What one component does over and over. Each returns false when an answer can't be right.
bool match_standard() {
    const acl_info info = packet();
    const uint32_t result = ipacl_check(&info, "s");
    return result == 1 || result == 17 || result == 34;
}

bool match_extended() {
    const acl_info info = packet();
    const uint32_t result = ipacl_check_frag(&info, "e");
    return result == 1 || result == 17;
}

bool match_by_pointer() {
    const acl_info info = packet();
    return ipacl_check_by_ptr(&info, nullptr) == 9 && ipacl_check_log(&info, "e", 7, nullptr) != 9;
}

bool match_network() {
    const uint32_t result = ipacl_check_network(inet_addr("10.0.0.7"), UINT32_MAX, "s");
    return result == 1 || result == 17 || result == 34;
}

bool snapshot() {
    ipacl_configure *nodes = nullptr;
    const int32_t blocks = get_ipacl_config_info(&nodes);
    int32_t counted = 0;
    for (const ipacl_configure *node = nodes; node; node = node->next)
        counted += 1 + node->count;
    return free_ipacl_config_info(&nodes) == blocks && counted == blocks;
}

bool add_dynamic() {
    return add_dynamic_ipacl("ip access-list dynamic dyn-list\n permit any\n permit any\n") == 0;
}

bool delete_dynamic() {
    delete_dynamic_ipacl("comes-and-goes");
    return true;
}

bool list_by_name() {
    thread_local FILE *sink = fopen("/dev/null", "w");
    log_print_handler = 1;
    log_print_fp_0 = log_print_fp_1 = sink;
    print_ipaclrule_byname("s");
    return true;
}

TEST_F(Threads, ComponentsOnEightThreadsBesideAnEditor) {
    const std::vector<std::function<bool()>> components = {
        match_standard, match_extended, match_by_pointer, match_network,
        snapshot,       add_dynamic,    delete_dynamic,   list_by_name};
    std::atomic<int> busy = static_cast<int>(components.size());
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (const auto &component : components)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; round++) {
                wrong += !component();
                tm_wkafter(0);
            }
            busy--;
        });
    const int edits = edit(busy);
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(edits, 100) << "hardly anything was edited";
}

} // namespace
