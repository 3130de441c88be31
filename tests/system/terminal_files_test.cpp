// The terminal files where something is in their way: a full or read-only disk, planted names.

#include "daemon.h"
#include "private_mounts.h"

#include <csignal>
#include <filesystem>
#include <sys/stat.h>

namespace {

constexpr int kTerminal = 7;

// A request for the running configuration through the files of a terminal.
Client::Reply show(Client &client) {
    blobmsg_add_u32(&client.message, "cmd_handler", kTerminal);
    return client.call("showrunning");
}

std::string many_rules() {
    std::string config = "ip access-list standard web\n";
    for (int i = 0; i < 4000; i++)
        config += " permit 10.0." + std::to_string(i / 200) + "." + std::to_string(i % 200) + "\n";
    return config;
}

class TerminalFiles : private PrivateMounts, public System {
  protected:
    ~TerminalFiles() override { unmount(); }
    void SetUp() override {
        ASSERT_EQ(ctl({"load", "-"}, many_rules()).status, 0);
        whole = running();
        ASSERT_GT(whole.size(), 100000U);
    }
    const char *unmountable() const { return reason; }
    bool fill_disk() { return mount_small(terminal_directory, 16384); }
    bool protect_disk() { return mount_small(terminal_directory, 1 << 20) && make_read_only(); }

    std::string file(int number) const {
        return "terminals/vty_" + std::to_string(kTerminal) + "_" + std::to_string(number);
    }
    std::string whole;
};

TEST_F(TerminalFiles, AFullDiskIsToldAndTheTextIsHadAnotherWay) {
    if (unmountable())
        GTEST_SKIP() << unmountable();
    ASSERT_TRUE(fill_disk());
    Client client(socket_path);
    const auto reply = show(client);
    EXPECT_EQ(reply.status, 0);
    EXPECT_TRUE(reply.truncated);
    EXPECT_LT(read_file(file(0)).size(), whole.size());
    EXPECT_EQ(running(), whole) << "the tool must not take half a text for all of it";
    for (int i = 0; i < 100; i++) // nothing stays open or is left behind in memory
        show(client);
    EXPECT_EQ(client.call("showrunning").output, whole);
}

TEST_F(TerminalFiles, AReadOnlyDiskIsToldAndTheTextIsHadAnotherWay) {
    if (unmountable())
        GTEST_SKIP() << unmountable();
    ASSERT_TRUE(protect_disk());
    Client client(socket_path);
    EXPECT_EQ(show(client).status, 0);
    const std::string prefix = "%VTY-HANDLER: open " + terminal_directory + "/vty_7_";
    EXPECT_EQ(read_file("daemon.out"), prefix + "0 error\n" + prefix + "1 error\n");
    EXPECT_EQ(running(), whole);
}

TEST_F(TerminalFiles, APlantedLinkIsNotFollowed) {
    const std::string victim = write_file("victim", "precious\n");
    chmod(victim.c_str(), 0600);
    ASSERT_EQ(symlink(victim.c_str(), (directory + "/" + file(0)).c_str()), 0);
    Client client(socket_path);
    EXPECT_EQ(show(client).status, 0);
    EXPECT_EQ(read_file("victim"), "precious\n");
    struct stat info;
    ASSERT_EQ(stat(victim.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U) << "its mode was changed";
    EXPECT_EQ(read_file("daemon.out"),
              "%VTY-HANDLER: open _7_0 error\n%VTY-HANDLER: open _7_1 error\n");
    // A link to nothing must not make a file where it points either.
    unlink((directory + "/" + file(0)).c_str());
    ASSERT_EQ(symlink((directory + "/made").c_str(), (directory + "/" + file(1)).c_str()), 0);
    EXPECT_EQ(show(client).status, 0);
    EXPECT_NE(stat((directory + "/made").c_str(), &info), 0);
    unlink((directory + "/" + file(1)).c_str());
    EXPECT_EQ(show(client).status, 0);
    EXPECT_EQ(read_file(file(0)), whole) << "once nothing is in the way";
}

TEST_F(TerminalFiles, ADirectoryInTheirPlaceIsLeftAlone) {
    ASSERT_EQ(mkdir((directory + "/" + file(1)).c_str(), 0700), 0);
    Client client(socket_path);
    EXPECT_EQ(show(client).status, 0);
    struct stat info;
    ASSERT_EQ(stat((directory + "/" + file(1)).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700U) << "its mode was changed";
    EXPECT_EQ(running(), whole);
}

TEST_F(TerminalFiles, ADirectoryThatOthersMayWriteIsNotUsed) {
    chmod(terminal_directory.c_str(), 0777);
    Client client(socket_path);
    EXPECT_EQ(show(client).status, 0);
    EXPECT_EQ(read_file(file(0)), "");
    EXPECT_EQ(running(), whole);
}

// A rule that the service refuses on its standard output; the tool would not send it.
void send_turned_range(Client &client) {
    blobmsg_add_string(&client.message, "name", "web");
    blobmsg_add_u8(&client.message, "action", 1);
    blobmsg_add_u8(&client.message, "moudle", 0);
    blobmsg_add_u8(&client.message, "type", 1);
    blobmsg_add_string(&client.message, "rule", "permit src-range 10.0.0.9 10.0.0.1");
    client.call("action");
}

TEST_F(TerminalFiles, AFullStandardOutputDoesNoHarm) {
    Client before(socket_path);
    send_turned_range(before);
    ASSERT_NE(read_file("daemon.out"), "");
    end_daemon(SIGTERM);
    std::filesystem::remove(directory + "/daemon.out");
    ASSERT_EQ(symlink("/dev/full", (directory + "/daemon.out").c_str()), 0);
    start_daemon();
    ASSERT_EQ(ctl({"load", "-"}, many_rules()).status, 0);
    Client client(socket_path);
    for (int i = 0; i < 100; i++)
        send_turned_range(client);
    EXPECT_EQ(running(), whole);
}

} // namespace
