// Every command of ipaclctl and what it says when it can't.

#include "daemon.h"
#include "terminal.h"

#include <cjson/cJSON.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Tool : public System {
  protected:
    // The outcome of a load from standard input.
    Outcome load(const std::string &text) { return ctl({"load", "-"}, text); }
};

TEST_F(Tool, LoadsFromAFileAndFromStandardInput) {
    const Outcome loaded = ctl({"load", std::string(EXAMPLES) + "/branch-office.conf", "-v"});
    EXPECT_EQ(loaded.status, 0);
    EXPECT_TRUE(loaded.errors.ends_with("\n4 lists, 49 rules, 0 errors, 3 warnings\n"))
        << loaded.errors;
    EXPECT_EQ(load("ip access-list standard extra\n permit any\n").status, 0);
    EXPECT_NE(running().find("ip access-list standard extra\n permit  any \n!\n"),
              std::string::npos);
}

TEST_F(Tool, NamesFileAndLineOfWhatIsWrongAndGoesOn) {
    const std::string file =
        write_file("bad.conf", "permit any\n"
                               "ip access-list standard web\n"
                               " permit 10.0.0.1\n"
                               " permit 10.0.0.1\n"
                               " permit\n"
                               " merge-enable\n"
                               " permit src-range 10.0.0.200 10.0.1.1\n"
                               "# a comment\n"
                               "\n"
                               "!\n"
                               "ip access-list extended web\n"
                               " permit ip any any\n"
                               "ip access-list standard abcdefghijklmnopqrstu\n"
                               "ip access-list other web\n"
                               "no ip access-list standard nowhere\n"
                               "ip access-list extended app\n"
                               " permit ip 10.0.0.0\n"
                               " permit ip any any\n"
                               " permit ip any any\n");
    const Outcome loaded = ctl({"load", file});
    EXPECT_EQ(loaded.status, 1);
    const std::string at = file + ":";
    EXPECT_EQ(
        loaded.errors,
        at + "1: a rule needs a list: put \"ip access-list standard|extended NAME\" first\n" + at +
            "4: The rule has existed in the access list.\n" + at +
            "5:8: the line ends too early: expected any, src-range or ADDRESS\n" + at +
            "6:2: merge-enable can't be switched on through the bus\n" + at +
            "7:30: the range 10.0.0.200 to 10.0.1.1 is refused: its last address must not come "
            "before "
            "its first, and this device orders the addresses of a range by their last octet "
            "first\n" +
            at +
            "11: there is a standard list of this name; destroy it first, or choose another "
            "name\n" +
            at + "12: this line belongs to a list that could not be opened\n" + at +
            "13:25: the name abcdefghijklmnopqrstu is too long: at most 20 characters are kept\n" +
            at + "14:16: expected \"ip access-list standard|extended NAME\"\n" + at +
            "15: there is no list nowhere\n" + at +
            "17:20: the line ends too early: expected MASK\n" + at +
            "19: The rule has existed in the access list. The rule add fail.\n");
    EXPECT_EQ(running(), "ip access-list extended app\n permit ip any any\n!\n"
                         "ip access-list standard web\n permit  10.0.0.1 255.255.255.255\n!\n");
}

TEST_F(Tool, AMissingFileIsSaid) {
    const Outcome loaded = ctl({"load", directory + "/none"});
    EXPECT_EQ(loaded.status, 1);
    EXPECT_EQ(loaded.errors,
              "ipaclctl: can't read " + directory + "/none: No such file or directory\n");
}

TEST_F(Tool, ANoLineDestroysAList) {
    load("ip access-list standard web\n permit any\n");
    EXPECT_EQ(load("no ip access-list extended web\n").errors,
              "stdin:1: the list web is standard\n");
    EXPECT_EQ(load("no ip access-list standard web\n").status, 0);
    EXPECT_EQ(running(), "");
}

TEST_F(Tool, CreateRuleShowJsonAndDestroy) {
    EXPECT_EQ(ctl({"create", "web", "--type", "standard"}).status, 0);
    EXPECT_EQ(ctl({"create", "web", "--type", "extended"}).status, 1);
    EXPECT_EQ(ctl({"rule", "web", "permit 10.0.0.1"}).status, 0);
    const Outcome twice = ctl({"rule", "web", "permit 10.0.0.1"});
    EXPECT_EQ(twice.status, 1);
    EXPECT_EQ(twice.errors, "ipaclctl: The rule has existed in the access list.\n");
    const std::string listing =
        "Standard IP access list web\n Index          Rule content\n"
        " --------------------------------------------------------------------\n"
        "     1          permit 10.0.0.1 255.255.255.255\n";
    EXPECT_EQ(ctl({"show", "web"}).output, listing);
    EXPECT_EQ(ctl({"show"}).output, listing);
    EXPECT_EQ(ctl({"json", "web"}).output, ctl({"json", "web", "--type", "standard"}).output);
    cJSON *json = cJSON_Parse(ctl({"json"}).output.c_str());
    ASSERT_EQ(cJSON_GetArraySize(json), 1);
    EXPECT_STREQ(
        cJSON_GetStringValue(cJSON_GetObjectItem(cJSON_GetArrayItem(json, 0), "IpAccessListName")),
        "web");
    cJSON_Delete(json);
    EXPECT_EQ(ctl({"rule", "web", "no permit 10.0.0.1"}).status, 0);
    EXPECT_EQ(ctl({"destroy", "web", "--type", "extended"}).status, 1);
    EXPECT_EQ(ctl({"destroy", "web"}).status, 0);
    EXPECT_EQ(ctl({"json"}).output, "[]\n");
}

TEST_F(Tool, AListThatIsNotThereIsSaid) {
    for (const std::vector<std::string> &command : {std::vector<std::string>{"show", "web"},
                                                    {"json", "web"},
                                                    {"destroy", "web"},
                                                    {"rule", "web", "permit any"}}) {
        const Outcome outcome = ctl(command);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.errors, "ipaclctl: there is no list web\n");
    }
}

TEST_F(Tool, WrongUsageIsTwo) {
    EXPECT_EQ(ctl({"nonsense"}).status, 2);
    EXPECT_EQ(ctl({"create", "web"}).status, 2);
    EXPECT_EQ(ctl({"create", "web", "--type", "other"}).status, 2);
    EXPECT_EQ(ctl({"--help"}).status, 0);
    EXPECT_EQ(ctl({"--version"}).status, 0);
}

TEST_F(Tool, NobodyToAskIsTwo) {
    end_daemon(SIGTERM);
    Outcome outcome = ctl({"running-config"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "ipaclctl: the access-list service is not on the bus; is ipacl running?\n");
    outcome = ctl({"-s", directory + "/none", "running-config"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "ipaclctl: no message bus at " + directory + "/none: No such file or directory\n");
}

TEST_F(Tool, TextLongerThanAMessageArrivesWhole) {
    std::string lists;
    for (int part = 0; part < 20; part++) {
        lists += "ip access-list extended part" + std::to_string(part) + "\n";
        for (int i = 0; i < 700; i++)
            lists += " permit tcp 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                     ".0 255.255.255.0 any eq www precedence 6 totallen lt 1500 ttl gt 1\n";
        lists += "!\n";
    }
    ASSERT_EQ(load(lists).status, 0);
    const std::string text = running();
    EXPECT_GT(text.size(), 1024U * 1024);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 20 * 702);
    EXPECT_TRUE(text.ends_with("!\n"));
    // The same through a plain reply is cut at a line end, and says so.
    Client client(socket_path);
    const auto reply = client.call("showrunning");
    EXPECT_TRUE(reply.truncated);
    EXPECT_TRUE(text.starts_with(reply.output));
    EXPECT_TRUE(reply.output.ends_with("\n"));
    EXPECT_GT(reply.output.size(), 900U * 1024);
    EXPECT_EQ(run({"/bin/ls", terminal_directory}, "", directory).output, "") << "files are left";
}

TEST_F(Tool, TwoAtATimeDoNotDisturbEachOther) {
    std::string config = "ip access-list standard web\n";
    for (int i = 0; i < 2000; i++)
        config += " permit 10.0." + std::to_string(i / 200) + "." + std::to_string(i % 200) + "\n";
    const std::string file = write_file("one.conf", config);
    const pid_t other = fork();
    if (other == 0) {
        for (int i = 0; i < 20; i++)
            if (ctl({"running-config"}).status != 0)
                _exit(1);
        _exit(0);
    }
    EXPECT_EQ(ctl({"load", file}).status, 0);
    int status;
    waitpid(other, &status, 0);
    EXPECT_EQ(status, 0);
    const std::string text = running();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2002);
}

TEST_F(Tool, WatchTellsWhatChangesAndGoes) {
    Terminal watcher({"watch", "--count", "2"});
    ASSERT_TRUE(watcher.shows("watching\r\n"));
    ctl({"create", "web", "--type", "standard"});
    ctl({"destroy", "web"});
    EXPECT_TRUE(watcher.shows("web changed\r\nweb removed\r\n"));
    EXPECT_EQ(watcher.status(), 0);
}

TEST_F(Tool, ALongLoadShowsItsProgressOnATerminal) {
    std::string config = "ip access-list standard long\n";
    for (int i = 0; i < 1000; i++)
        config += " permit 10.0." + std::to_string(i / 200) + "." + std::to_string(i % 200) + "\n";
    const std::string file = write_file("long.conf", config);
    kill(daemon, SIGSTOP); // what would take long otherwise
    Terminal loading({"load", file});
    sleep(2);
    kill(daemon, SIGCONT);
    EXPECT_TRUE(loading.shows(" of 1001 lines"));
    EXPECT_TRUE(loading.shows("\r\033[K")) << "the bar is not erased";
    EXPECT_EQ(loading.status(), 0);
}

} // namespace
