// The Linux platform: terminal files, memory, mutex, notification, resources.

#include "daemon.h"

#include "aclapi.h"
#include "platform/intf.h"
#include "platform/resource.h"
#include "platform/syncinit.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <cstring>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

class Terminal : public testing::Test {
  protected:
    Terminal() {
        char name[] = "/tmp/ipacl-terminal-XXXXXX";
        directory = mkdtemp(name);
        vty_file_pre = nullptr;
    }
    ~Terminal() override {
        vty_set_handler(0);
        vty_file_pre = nullptr;
        run({"/bin/rm", "-r", directory}, "", "/tmp");
    }
    void use(const std::string &path) {
        setenv("IPACL_VTY_DIR", path.c_str(), 1);
        vty_set_handler(1);
        vty_set_handler(0);
    }
    std::string directory;
};

TEST_F(Terminal, APrefixIsFilledWhenAHandlerIsSet) {
    use(directory);
    EXPECT_EQ(std::string(vty_file_pre), directory + "/vty");
}

TEST_F(Terminal, AMissingDirectoryIsMadeForItsUserAlone) {
    use(directory + "/made");
    ASSERT_NE(vty_file_pre, nullptr);
    struct stat info;
    ASSERT_EQ(stat((directory + "/made").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 022, 0U);
}

TEST_F(Terminal, ADirectoryThatOthersMayWriteIsNotUsed) {
    chmod(directory.c_str(), 0777);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr);
    chmod(directory.c_str(), 0775);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr);
}

TEST_F(Terminal, ALinkOrAFileIsNotUsed) {
    ASSERT_EQ(symlink(directory.c_str(), (directory + "/link").c_str()), 0);
    use(directory + "/link");
    EXPECT_EQ(vty_file_pre, nullptr);
    fclose(fopen((directory + "/file").c_str(), "w"));
    use(directory + "/file");
    EXPECT_EQ(vty_file_pre, nullptr);
}

TEST_F(Terminal, WhatIsNoFileOfItsOwnIsNotWrittenTo) {
    const std::string first = directory + "/vty_1_0", second = directory + "/vty_1_1";
    const std::string victim = directory + "/victim";
    fclose(fopen(victim.c_str(), "w"));
    use(directory);
    ASSERT_NE(vty_file_pre, nullptr);
    ASSERT_EQ(symlink(victim.c_str(), first.c_str()), 0);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr) << "a link";
    unlink(first.c_str());
    ASSERT_EQ(mkdir(second.c_str(), 0755), 0);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr) << "a directory";
    rmdir(second.c_str());
    ASSERT_EQ(mkfifo(second.c_str(), 0600), 0);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr) << "a pipe";
    unlink(second.c_str());
    ASSERT_EQ(link(victim.c_str(), second.c_str()), 0);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr) << "another file";
    unlink(second.c_str());
    fclose(fopen(second.c_str(), "w"));
    use(directory);
    EXPECT_NE(vty_file_pre, nullptr) << "left from an earlier request";
}

TEST_F(Terminal, ADirectoryThatIsOpenedToOthersLaterIsNotUsedAnyMore) {
    use(directory);
    ASSERT_NE(vty_file_pre, nullptr);
    chmod(directory.c_str(), 0777);
    use(directory);
    EXPECT_EQ(vty_file_pre, nullptr);
}

TEST_F(Terminal, ListingsGoToTheFirstStreamAndAnswersToTheSecond) {
    use(directory);
    char *listing, *answers;
    size_t sizes[2];
    log_print_fp_0 = open_memstream(&listing, &sizes[0]);
    log_print_fp_1 = open_memstream(&answers, &sizes[1]);
    vty_set_handler(4);
    EXPECT_EQ(log_print_handler, 4);
    vty_printf("%s", std::string(100000, 'l').c_str());
    vty_printf_end(1);
    vty_output("%d\n", 5);
    vty_set_handler(0);
    fclose(log_print_fp_0);
    fclose(log_print_fp_1);
    log_print_fp_0 = log_print_fp_1 = nullptr;
    EXPECT_EQ(std::string(listing), std::string(100000, 'l'));
    EXPECT_STREQ(answers, "5\n");
    free(listing);
    free(answers);
}

TEST_F(Terminal, AHandlerWithoutStreamsSwallowsTheText) {
    use(directory);
    vty_set_handler(4);
    testing::internal::CaptureStdout();
    vty_printf("text");
    vty_output("text");
    vty_set_handler(0);
    vty_printf("plain");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "plain");
}

TEST(Memory, IsCountedInBlocksBytesAndItsMost) {
    sys_mem_usage before, during, after;
    sys_mem_get_usage(&before);
    void *block = sys_mem_malloc(100000);
    sys_mem_get_usage(&during);
    sys_mem_free(block);
    sys_mem_free(nullptr);
    sys_mem_get_usage(&after);
    EXPECT_EQ(during.blocks, before.blocks + 1);
    EXPECT_GE(during.bytes, before.bytes + 100000);
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
    EXPECT_GE(after.high_water, during.bytes);
}

TEST(Memory, IsCountedRightFromManyThreads) {
    sys_mem_usage before, after;
    sys_mem_get_usage(&before);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([] {
            for (int n = 0; n < 10000; n++)
                sys_mem_free(sys_mem_malloc(static_cast<size_t>(n)));
        });
    for (auto &thread : threads)
        thread.join();
    sys_mem_get_usage(&after);
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
}

TEST(Mutex, ExcludesAndRefusesUnknownHandles) {
    uint32_t id = 0;
    ASSERT_EQ(mu_create("test", 1, 0, &id), 0);
    EXPECT_NE(id, 0U);
    for (uint32_t bad : {0U, id + 1, 1000U, UINT32_MAX}) {
        EXPECT_NE(mu_lock(bad, 0, 0), 0);
        EXPECT_NE(mu_unlock(bad), 0);
    }
    EXPECT_NE(mu_unlock(id), 0) << "not locked";
    int sum = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            for (int n = 0; n < 10000; n++) {
                mu_lock(id, 0, 0);
                sum++;
                mu_unlock(id);
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(sum, 40000);
    EXPECT_EQ(mu_lock(id, 0, 0), 0);
    EXPECT_NE(mu_lock(id, 0, 0), 0) << "not recursive";
    EXPECT_EQ(mu_unlock(id), 0);
}

TEST(System_library, BitsAndNumbers) {
    EXPECT_EQ(ffb(0x80000000U), 0U);
    EXPECT_EQ(ffb(1), 31U);
    EXPECT_EQ(ffb(0x00FF0000U), 8U);
    char text[21];
    lltostr(UINT64_MAX, text);
    EXPECT_STREQ(text, "18446744073709551615");
    lltostr(0, text);
    EXPECT_STREQ(text, "0");
    char buffer[20];
    char *name = buffer;
    EXPECT_EQ(interface_omnivorous_callback_getname(1, &name), 0);
    EXPECT_STREQ(name, "lo");
    EXPECT_NE(interface_omnivorous_callback_getname(999999, &name), 0);
}

TEST(Resources, AreReadThroughTheirOwnerUntilTheyAreRemoved) {
    ipacl_insert("resource", 1, 0, IPACL_STATUS_READY);
    ipacl *list = nullptr;
    EXPECT_EQ(resource_read(3, 1, "resource", &list, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(list, ipacl_find("resource"));
    EXPECT_EQ(resource_read(3, 1, "other", &list, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(resource_read(3, 1, nullptr, &list, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(resource_synchronize(0, list, "resource"), 0); // no bus: no error
    EXPECT_EQ(resource_synchronize(0, nullptr, "resource"), 0);
    EXPECT_EQ(resource_read(3, 1, "resource", &list, nullptr, nullptr, nullptr), -1);
    ipacl_delete("resource", 1);
}

TEST(Resources, NamesTravelAsBytes) {
    char bytes[8], name[8];
    EXPECT_EQ(__RESOURCE_TYPE_ACCESSLIST_encode("web", bytes, sizeof bytes), 4);
    EXPECT_EQ(__RESOURCE_TYPE_ACCESSLIST_decode(bytes, 4, name, sizeof name), 4);
    EXPECT_STREQ(name, "web");
    EXPECT_EQ(__RESOURCE_TYPE_ACCESSLIST_encode("web", bytes, 3), -1);
    EXPECT_EQ(__RESOURCE_TYPE_ACCESSLIST_decode("abc", 3, name, sizeof name), -1);
}

TEST(Notification, SaysThatTheServiceIsReadyAndAlive) {
    const std::string path = "/tmp/ipacl-notify-" + std::to_string(getpid());
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "20000", 1);
    unsetenv("WATCHDOG_PID");
    uloop_init();
    syncinit_finish();
    char text[64] = {};
    EXPECT_EQ(recv(fd, text, sizeof text - 1, MSG_DONTWAIT), 7);
    EXPECT_STREQ(text, "READY=1");
    for (int i = 0; i < 10 && recv(fd, text, sizeof text - 1, MSG_DONTWAIT) < 0; i++)
        uloop_run_timeout(1000);
    EXPECT_STREQ(text, "WATCHDOG=1");
    uloop_done();
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    close(fd);
    unlink(path.c_str());
}

} // namespace
