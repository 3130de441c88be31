// The registry: buckets, creation, look-up, deletion, synchronisation, dynamic lists.

#include "fixture.h"

#include "platform/resource.h"
#include "platform/sys.h"

#include <string>

extern "C" int c_program_lists(void);

namespace {

using Registry = ServiceTest;

TEST_F(Registry, ABucketIsTheByteSumOverAtMost21Bytes) {
    EXPECT_EQ(hash_char(""), 0U);
    EXPECT_EQ(hash_char("a"), 1U);
    EXPECT_EQ(hash_char("abc"), (97U + 98 + 99) % 16);
    EXPECT_EQ(hash_char("abc"), hash_char("cab"));
    EXPECT_EQ(hash_char("\xff"), 0xFU);
    const std::string twenty(20, 'a');
    EXPECT_EQ(hash_char((twenty + "b").c_str()), (20 * 97U + 98) % 16);
    EXPECT_EQ(hash_char((twenty + "bz").c_str()), hash_char((twenty + "b").c_str()));
}

TEST_F(Registry, ANullNameHasNoBucket) {
    EXPECT_EQ(hash_char(nullptr), 16U);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-hash_char(*): catch a null pointer!\n");
}

TEST_F(Registry, ABucketBeyondTheTableIsRefused) {
    ipacl list{};
    EXPECT_EQ(insert_hash_table(16, &list), 0);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-insert_hash_table(*): index error!(errno = 16)\n");
}

TEST_F(Registry, ANewListIsZeroedAndRegistered) {
    ASSERT_EQ(ipacl_insert("web", 1, 0, IPACL_STATUS_READY), 1);
    const ipacl *list = ipacl_config_find("web");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->p_mergeacl, list);
    EXPECT_EQ(list->p_cleanacl, nullptr);
    EXPECT_EQ(list->id + list->rule_count + list->flag, 0U);
    EXPECT_EQ(list->is_change + list->merge_enable + list->refcnt + list->is_dynamic, 0);
    const auto owners = fake::take_owners();
    ASSERT_EQ(owners.size(), 1U);
    EXPECT_EQ(owners[0].owner, list);
    EXPECT_EQ(owners[0].type, 3U);
    EXPECT_EQ(owners[0].index_type, 1U);
    EXPECT_EQ(owners[0].index, "web");
    EXPECT_EQ(owners[0].index_address, list->name);
    EXPECT_FALSE(owners[0].has_write);
    EXPECT_EQ(owners[0].read, reinterpret_cast<const void *>(acl_read));
    EXPECT_TRUE(owners[0].codecs_are_the_platforms);
    ipacl_insert("ext", 0, 1, IPACL_STATUS_NOTREADY);
    EXPECT_EQ(ipacl_config_find("ext")->p_mergeacl, nullptr);
    EXPECT_EQ(ipacl_config_find("ext")->is_dynamic, 1);
}

TEST_F(Registry, ShortMemoryLooksLikeSuccess) {
    fake::fail_allocation(1);
    EXPECT_EQ(ipacl_insert("web", 1, 0, 1), 1);
    EXPECT_EQ(ipacl_config_find("web"), nullptr);
    EXPECT_EQ(fake::take_log_text(), "");
    fake::fail_allocation(1);
    EXPECT_EQ(get_ipacl_byname("web", 1), nullptr);
}

TEST_F(Registry, AListWithoutANameIsLostAndLogged) {
    const size_t mark = fake::mark();
    EXPECT_EQ(get_ipacl_byname(nullptr, 1), nullptr);
    EXPECT_EQ(fake::free_lost(mark), 1U);
    fake::take_log();
    EXPECT_EQ(ipacl_insert(nullptr, 1, 0, 1), 0);
    EXPECT_EQ(fake::free_lost(mark), 1U);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-hash_char(*): catch a null pointer!\n"
                                     "3 %IPACL-3-insert_hash_table(*): index error!(errno = 16)\n"
                                     "3 %IPACL-3-ipacl_insert(*): insert hash table error!\n");
}

TEST_F(Registry, RegistrationIsTracedWithItsBit) {
    ipacl_insert("a", 1, 0, 1);
    EXPECT_TRUE(fake::take_debug().empty());
    ipacl_debug_flag = 0x8;
    ipacl_insert("b", 1, 0, 1);
    const auto lines = fake::take_debug();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].module, 83);
    EXPECT_EQ(lines[0].level, 8);
    char expected[400];
    const ipacl *list = ipacl_config_find("b");
    snprintf(expected, sizeof expected,
             "\n[%s: REG_OWNER (FUNC: ipacl_insert)] OWNER_ID: 0x%08x, RESOURCE_TYPE: 3, "
             "RESOURCE_INDEX_TYPE: 1, INDEX_ADDR: 0x%08x, WRITE_FUNC: 0x00000000, READ_FUNC: "
             "0x%08x\n",
             g_ipacl_card_name, static_cast<unsigned>(reinterpret_cast<uintptr_t>(list)),
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(list->name)),
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(acl_read)));
    EXPECT_EQ(lines[0].text, expected);
}

TEST_F(Registry, ListsOfOneBucketKeepCreationOrderAndAreBothFound) {
    ipacl_insert("abc", 1, 0, 1);
    ipacl_insert("cab", 0, 0, 1);
    const ipacl *head = hash_table[hash_char("abc")];
    EXPECT_STREQ(head->name, "abc");
    EXPECT_STREQ(head->next->name, "cab");
    EXPECT_EQ(ipacl_find("cab"), head->next);
}

TEST_F(Registry, PrintableNames) {
    EXPECT_EQ(common_is_print_string("web 1"), 0);
    EXPECT_EQ(common_is_print_string(""), 1);
    EXPECT_EQ(common_is_print_string("a\tb"), 1);
    EXPECT_EQ(common_is_print_string("\xe4"), 1);
}

TEST_F(Registry, MatchingFindsReadyListsOnly) {
    ipacl_insert("web", 1, 0, IPACL_STATUS_NOTREADY);
    EXPECT_EQ(ipacl_find("web"), nullptr);
    EXPECT_NE(ipacl_config_find("web"), nullptr);
    fake::take_debug();
    EXPECT_EQ(ipacl_find("none"), nullptr);
    const auto lines = fake::take_debug();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, 255);
    EXPECT_EQ(lines[0].text, "[ipacl_find] not find ipacl none, will return NULL POINTER!\n");
}

TEST_F(Registry, MatchingPassesOverANamesakeThatIsNotReady) {
    ipacl_insert("web", 1, 0, IPACL_STATUS_NOTREADY);
    ipacl_insert("web", 0, 0, IPACL_STATUS_READY);
    EXPECT_EQ(ipacl_find("web"), ipacl_config_find("web")->next);
}

TEST_F(Registry, BadNamesAreLogged) {
    EXPECT_EQ(ipacl_find(nullptr), nullptr);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-ipacl_find-catched a NULL pointer\n");
    EXPECT_EQ(ipacl_find(""), nullptr);
    EXPECT_EQ(fake::take_log_text(), "");
    EXPECT_EQ(ipacl_find("a\x01"), nullptr);
    EXPECT_EQ(fake::take_log_text(),
              "3 %IPACL-3-IPACL_FIND: there are some charaters in ipacl name which can't be "
              "printed!\n");
    EXPECT_EQ(ipacl_config_find(nullptr), nullptr);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-ipacl_config_find(*): catch a null pointer!\n");
}

TEST_F(Registry, ANameOf25CharactersIsFoundByNeitherForm) {
    const char *name = "abcdefghijklmnopqrstuvwxy";
    ipacl_insert(name, 1, 0, 1);
    EXPECT_EQ(ipacl_config_find(name), nullptr);
    EXPECT_EQ(ipacl_config_find("abcdefghijklmnopqrst"), nullptr);
    EXPECT_STREQ(hash_table[hash_char(name)]->name, "abcdefghijklmnopqrst");
    ipacl_insert("abcdefghijklmnopqrstPxyz", 1, 0, 1); // the 21st byte is a multiple of 16
    EXPECT_NE(ipacl_config_find("abcdefghijklmnopqrst"), nullptr);
}

TEST_F(Registry, ByNameFindsMakesOrRefuses) {
    ipacl *list = get_ipacl_byname("web", 1);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->status, IPACL_STATUS_READY);
    EXPECT_EQ(get_ipacl_byname("web", 1), list);
    EXPECT_EQ(get_ipacl_byname("web", 0), nullptr);
    EXPECT_EQ(list->next, nullptr);
}

TEST_F(Registry, DeletingTheOtherKindAnswersOnTheTerminal) {
    ipacl_insert("ext", 0, 0, 1);
    EXPECT_EQ(ipacl_delete("ext", 1), 0);
    EXPECT_EQ(fake::take_answers(), "Can not find access-list ext\n");
    EXPECT_NE(ipacl_config_find("ext"), nullptr);
    EXPECT_EQ(ipacl_delete(nullptr, 1), 0);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-hash_char(*): catch a null pointer!\n"
                                     "3 %IPACL-3-ipacl_delete(*): hash_char index error(errno = "
                                     "16)!\n");
}

// A list with two rules and a separate copy of each kind; a remark is shared by all.
void make_list_with_copies(const char *name) {
    ipacl *list = get_ipacl_byname(name, 0);
    auto *remark = static_cast<char *>(sys_mem_malloc(4));
    strcpy(remark, "who");
    for (ipacl **owner : {static_cast<ipacl **>(nullptr), &list->p_mergeacl, &list->p_cleanacl}) {
        ipacl *target = list;
        if (owner) {
            target = *owner = static_cast<ipacl *>(sys_mem_malloc(sizeof(ipacl)));
            *target = ipacl{};
        }
        auto *rule =
            static_cast<ipacl_extended_rule *>(sys_mem_malloc(sizeof(ipacl_extended_rule)));
        *rule = ipacl_extended_rule{};
        rule->remark = remark;
        add_acl_rule_location(target, rule, 0, 0);
    }
}

TEST_F(Registry, DeletingReleasesRulesAndCopiesAndASharedRemarkOnce) {
    const size_t before = fake::live_blocks();
    make_list_with_copies("web");
    EXPECT_EQ(ipacl_delete("web", 0), 1);
    EXPECT_EQ(fake::live_blocks(), before);
    make_list_with_copies("web");
    EXPECT_EQ(delete_dynamic_ipacl("web"), 1);
    EXPECT_EQ(fake::live_blocks(), before);
}

TEST_F(Registry, DeletingUnlinksTheRightList) {
    for (const char *name : {"abc", "bca", "cab"})
        ipacl_insert(name, 1, 0, 1);
    EXPECT_EQ(ipacl_delete("bca", 1), 1);
    EXPECT_EQ(ipacl_config_find("bca"), nullptr);
    EXPECT_EQ(ipacl_delete("abc", 1), 1);
    EXPECT_NE(ipacl_config_find("cab"), nullptr);
}

TEST_F(Registry, ADynamicListIsDeletedByNameAlone) {
    ipacl_init();
    ipacl_insert("web", 0, 0, IPACL_STATUS_NOTREADY);
    EXPECT_EQ(delete_dynamic_ipacl("none"), 0);
    EXPECT_EQ(delete_dynamic_ipacl("ewb"), 0); // of the same bucket
    EXPECT_EQ(delete_dynamic_ipacl(nullptr), 0);
    EXPECT_EQ(delete_dynamic_ipacl("web"), 1);
    EXPECT_EQ(fake::take_log_text(),
              "3 %IPACL-3-delete_dynamic_ipacl(*): hash_table index null(null = " +
                  std::to_string(hash_char("none")) +
                  ")!\n"
                  "3 %IPACL-3-delete_dynamic_ipacl(*): ACL:ewb not exist!\n"
                  "3 %IPACL-3-hash_char(*): catch a null pointer!\n"
                  "3 %IPACL-3-delete_dynamic_ipacl(*): hash_char index error(errno = 16)!\n");
    const auto m = fake::mutexes();
    EXPECT_EQ(m.locks, 4);
    EXPECT_EQ(m.unlocks, 4);
    EXPECT_EQ(m.errors, 0);
}

TEST_F(Registry, AddingADynamicListMakesNothing) {
    ipacl_init();
    const std::string head = "ip access-list extended";
    ASSERT_EQ(head.size(), 23U);
    const std::string long_line(300, 'x');
    EXPECT_EQ(add_dynamic_ipacl((head + "web\npermit any\n" + long_line + "\nend").c_str()), 0);
    EXPECT_EQ(fake::yields(), 3);
    EXPECT_EQ(fake::mutexes().locks, 2);
    EXPECT_EQ(ipacl_config_find("web"), nullptr);
    ipacl_insert("web", 0, 0, 1);
    EXPECT_EQ(add_dynamic_ipacl((head + "web\npermit any\n").c_str()), 0);
    EXPECT_EQ(fake::yields(), 3); // known: not read on
    EXPECT_EQ(fake::mutexes().locks, 3);
    EXPECT_EQ(add_dynamic_ipacl((head + std::string(20, 'n') + "\n").c_str()), 0);
    EXPECT_EQ(fake::mutexes().locks, 5);
    for (const std::string &text : {head + std::string(21, 'n') + "\n", head + "web", head,
                                    std::string("short\n"), std::string()})
        EXPECT_EQ(add_dynamic_ipacl(text.c_str()), 0);
    EXPECT_EQ(add_dynamic_ipacl(nullptr), 0);
    EXPECT_EQ(fake::mutexes().locks, 5);
    EXPECT_EQ(fake::mutexes().errors, 0);
}

TEST_F(Registry, SynchronisingTellsTheResourceService) {
    EXPECT_EQ(ipacl_synchronize(nullptr), -2);
    ipacl_insert("web", 1, 0, 1);
    ipacl *list = ipacl_config_find("web");
    EXPECT_EQ(ipacl_synchronize(list), 0);
    const auto syncs = fake::take_syncs();
    ASSERT_EQ(syncs.size(), 1U);
    EXPECT_EQ(syncs[0].resource, list);
    EXPECT_EQ(syncs[0].name, "web");
    fake::set_sync_result(-7);
    EXPECT_EQ(ipacl_synchronize(list), -7);
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-RES_SYN:ipacl_synchronize,*,errno = -7\n");
}

TEST_F(Registry, TheReadFunctionHandsOutReadyLists) {
    ipacl_insert("web", 1, 0, 1);
    ipacl *read = nullptr;
    EXPECT_EQ(acl_read(3, 1, "web", &read, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(read, ipacl_config_find("web"));
    EXPECT_EQ(acl_read(3, 1, "none", &read, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(read, nullptr);
    read = reinterpret_cast<ipacl *>(1);
    EXPECT_EQ(acl_read(3, 4, "web", &read, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(acl_read(2, 1, "web", &read, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(acl_read(3, 1, nullptr, &read, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(acl_read(3, 1, "", &read, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(read, reinterpret_cast<ipacl *>(1));
}

TEST_F(Registry, FormerCommandsDoNothingOrRefuse) {
    EXPECT_EQ(do_ip_acl_remove(0, nullptr, nullptr), 0);
    EXPECT_EQ(do_ip_acl_merge_enable(0, nullptr, nullptr), -1);
    EXPECT_EQ(fake::take_answers(), "This ipacl has not been created.\n");
}

TEST_F(Registry, InitMakesTheLockAndEmptiesTheTable) {
    ipacl list{};
    insert_hash_table(3, &list);
    ipacl_init();
    EXPECT_EQ(hash_table[3], nullptr);
    EXPECT_EQ(fake::mutexes().created, 1);
    EXPECT_EQ(fake::mutexes().last_name, "muid");
    EXPECT_EQ(ipacl_debug_flag, 0);
}

TEST_F(Registry, ACProgramUsesTheHeaders) { EXPECT_EQ(c_program_lists(), 1); }

} // namespace
