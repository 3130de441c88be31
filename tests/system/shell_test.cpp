// The shell of ipaclctl: on a terminal as an operator has it, and through a pipe.

#include "daemon.h"
#include "terminal.h"

#include <csignal>
#include <unistd.h>

namespace {

class Shell : public System {
  protected:
    Outcome pipe(const std::string &lines, const std::vector<std::string> &arguments = {}) {
        return ctl(arguments, lines);
    }
    static constexpr const char *kUp = "\033[A";
};

TEST_F(Shell, PromptsFollowTheModesAndWordsMayBeAbbreviated) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("conf\r");
    ASSERT_TRUE(terminal.shows("ipacl(config)# "));
    terminal.type("ip acc ext web\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("perm tcp a a e w\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    EXPECT_EQ(running(), "ip access-list extended web\n permit tcp any any eq www\n!\n");
    terminal.type("no p tcp any any eq www\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    EXPECT_EQ(running(), "ip access-list extended web\n!\n");
    terminal.type("exit\r");
    ASSERT_TRUE(terminal.shows("ipacl(config)# "));
    terminal.type("no ip access-list extended web\r");
    ASSERT_TRUE(terminal.shows("ipacl(config)# "));
    EXPECT_EQ(running(), "");
    terminal.type("end\r");
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("exit\r");
    EXPECT_EQ(terminal.status(), 0);
}

TEST_F(Shell, TabCompletesWordsListsAndInterfaces) {
    ctl({"load", "-"}, "ip access-list standard mgmt-hosts\n permit 10.0.0.1\n");
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("sho\tip\tacc\tmg\t\r");
    ASSERT_TRUE(terminal.shows("Standard IP access list mgmt-hosts"));
    terminal.type("configure\rip access-list extended web\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("permit ip any any t\t");
    ASSERT_TRUE(terminal.shows("  tos  totallen  ttl\r\n"));
    terminal.type("tl gt 1\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("permit ip int\tlo\tan\t\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("end\r");
    ASSERT_TRUE(terminal.shows("ipacl# "));
    const std::string text = running();
    EXPECT_NE(text.find(" permit ip any any ttl gt 1\n"), std::string::npos) << text;
}

TEST_F(Shell, AQuestionMarkShowsWhatMayStandAndKeepsTheLine) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("configure\rip access-list extended web\rpermit tcp any any ?");
    ASSERT_TRUE(terminal.shows("  neq                 Not equal\r\n"));
    ASSERT_TRUE(terminal.shows("  dst-portrange       First and last port\r\n"));
    ASSERT_TRUE(terminal.shows("  <cr>                The line is complete\r\n"));
    ASSERT_TRUE(terminal.shows("ipacl(web)# permit tcp any any "));
    terminal.type("eq w?");
    ASSERT_TRUE(terminal.shows("  www                 Port 80\r\n"));
    ASSERT_TRUE(terminal.shows("ipacl(web)# permit tcp any any eq w"));
    terminal.type("ww\rend\r");
    ASSERT_TRUE(terminal.shows("ipacl# "));
    EXPECT_EQ(running(), "ip access-list extended web\n permit tcp any any eq www\n!\n");
}

TEST_F(Shell, LinesComeBackFromTheHistoryAndCanBeEdited) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("configure\rip access-list standard web\rpermit 10.0.0.1\r");
    terminal.type(std::string(kUp) + "\0102\r"); // the last character is rubbed out
    terminal.type("show history\r");
    ASSERT_TRUE(terminal.shows("permit 10.0.0.1\r\npermit 10.0.0.2\r\nshow history\r\n"));
    terminal.type("\004");
    EXPECT_EQ(terminal.status(), 0);
    EXPECT_EQ(running(), "ip access-list standard web\n permit  10.0.0.1 255.255.255.255\n"
                         " permit  10.0.0.2 255.255.255.255\n!\n");
}

TEST_F(Shell, AWrongWordIsSaidWithItsColumnAndNothingIsSent) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("shw\r");
    ASSERT_TRUE(terminal.shows("% column 1: shw is not known here: expected configure, show, "));
    terminal.type("configure\rip access-list extended web\rpermit ip any nay\r");
    ASSERT_TRUE(terminal.shows("% column 15: nay is no address: expected four numbers"));
    terminal.type("permit i any any\r");
    ASSERT_TRUE(terminal.shows("% column 8: i can be ip, icmp or igmp\r\n"));
    terminal.type("permit ip 10.0.0.0 0.0.0.255 any\r");
    ASSERT_TRUE(terminal.shows("write 255.255.255.0\r\n"));
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    EXPECT_EQ(running(), "ip access-list extended web\n!\n");
    terminal.type("force permit ip 10.0.0.0 0.0.0.255 any\r");
    ASSERT_TRUE(terminal.shows("% column 26: warning: the mask"));
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    EXPECT_EQ(running(), "ip access-list extended web\n permit ip 10.0.0.0 0.0.0.255 any\n!\n");
}

TEST_F(Shell, ARestartInTheMiddleIsSaidInOneLineAndCostsNothing) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("configure\rip access-list standard web\rpermit 10.0.0.1\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    end_daemon(SIGKILL);
    start_daemon();
    terminal.type("permit 10.0.0.2\r");
    ASSERT_TRUE(terminal.shows("% the access-list service was away and is back; what was typed "
                               "into web was sent again, lines: 1\r\n"));
    EXPECT_EQ(terminal.passed().find('%'), std::string::npos) << terminal.passed();
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("end\r");
    ASSERT_TRUE(terminal.shows("ipacl# "));
    EXPECT_EQ(running(), "ip access-list standard web\n permit  10.0.0.1 255.255.255.255\n"
                         " permit  10.0.0.2 255.255.255.255\n!\n");
}

TEST_F(Shell, ALineThatCouldNotBeSentIsThereToBeSentAgain) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("configure\rip access-list standard web\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    end_daemon(SIGKILL);
    terminal.type("permit 10.0.0.1\r");
    ASSERT_TRUE(terminal.shows("% the access-list service went away; waiting for it to come back"));
    ASSERT_TRUE(terminal.shows("% the access-list service does not answer: "));
    ASSERT_TRUE(terminal.shows("ipacl(web)# permit 10.0.0.1"));
    start_daemon();
    terminal.type("\r");
    ASSERT_TRUE(terminal.shows("was away and is back"));
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    EXPECT_EQ(running(), "ip access-list standard web\n permit  10.0.0.1 255.255.255.255\n!\n");
}

TEST_F(Shell, ControlCGivesALineUpAndControlZLeavesTheConfiguration) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("configure\rip access-list standard web\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("permit 10.0.0.1\003");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.type("permit 10.0.0.2\r\032");
    ASSERT_TRUE(terminal.shows("ipacl# "));
    EXPECT_EQ(running(), "ip access-list standard web\n permit  10.0.0.2 255.255.255.255\n!\n");
}

TEST_F(Shell, WhatIsTypedWhileACommandRunsWaitsAsItIs) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    kill(daemon, SIGSTOP);
    terminal.type("show ip access-lists\r");
    ASSERT_TRUE(terminal.shows("show ip access-lists\r\n"));
    usleep(200000); // the line has been read
    terminal.type("show histor\003\004");
    usleep(200000);
    kill(daemon, SIGCONT);
    EXPECT_EQ(terminal.status(), 0);
    EXPECT_TRUE(terminal.shows("show histor^C"));
}

TEST_F(Shell, AListIsLeftWhenTheTerminalGoes) {
    Terminal terminal;
    ASSERT_TRUE(terminal.shows("ipacl# "));
    terminal.type("configure\rip access-list standard web\r");
    ASSERT_TRUE(terminal.shows("ipacl(web)# "));
    terminal.hang_up();
    EXPECT_EQ(terminal.status(), 0);
    // Leaving it once more is what the service says it can't.
    Client client(socket_path);
    blobmsg_add_string(&client.message, "name", "web");
    blobmsg_add_u8(&client.message, "action", 2);
    blobmsg_add_u8(&client.message, "moudle", 0);
    blobmsg_add_u8(&client.message, "type", 1);
    client.call("action");
    end_daemon(SIGTERM);
    EXPECT_EQ(read_file("daemon.out"), "ipacl->status!=NOTREADY\n");
}

TEST_F(Shell, APipeHasNoPromptsAndNamesLineAndColumn) {
    const Outcome outcome = pipe("configure\n"
                                 "! a comment\n"
                                 "ip access-list extended web\n"
                                 " permit tcp any any eq www established\n"
                                 " permit udp any any eq domain\n"
                                 " permit tcp any any eq w?\n"
                                 "end\n"
                                 "show running-config | include udp any\n"
                                 "show ip access-lists web | exclude udp\n"
                                 "show ip access-lists web json | begin TimeRange\n"
                                 "show ip access-lists none\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "stdin:4:28: established is skipped by the service, and the rule would match more: "
              "leave it out\nstdin:11: there is no list none\n");
    EXPECT_EQ(outcome.output,
              "  www                 Port 80\n"
              " permit udp any any eq domain\n"
              "Extended IP access list web\n Index          Rule content\n"
              " --------------------------------------------------------------------\n"
              "\t\t\"TimeRange\":\t\"\",\n\t\t\"Tos\":\t\"\",\n\t\t\"Precedence\":\t\"\",\n"
              "\t\t\"NotFragmentFlag\":\t\"\",\n\t\t\"FragmentPacket\":\t\"\",\n"
              "\t\t\"Offset\":\t\"\",\n\t\t\"LengthIpPacket\":\t\"\",\n\t\t\"LiveTime\":\t\"\",\n"
              "\t\t\"RecordLog\":\t\"\"\n\t}]\n");
}

TEST_F(Shell, APipeMayHoldTheRunningConfiguration) {
    ASSERT_EQ(ctl({"load", std::string(EXAMPLES) + "/branch-office.conf"}).status, 0);
    const std::string config = running();
    end_daemon(SIGTERM);
    start_daemon();
    const Outcome outcome = pipe("configure\n" + config, {"--force"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(running(), config);
}

TEST_F(Shell, AnEmptyPipeIsNoMistakeAndAGoneServiceEndsIt) {
    EXPECT_EQ(pipe("").status, 0);
    end_daemon(SIGTERM);
    EXPECT_EQ(pipe("show running-config\n").status, 2);
}

TEST_F(Shell, WritingSavesTheRunningConfiguration) {
    const std::string file = directory + "/startup";
    EXPECT_EQ(pipe("configure\nip access-list standard web\npermit any\nend\nwrite " + file).status,
              0);
    EXPECT_EQ(read_file("startup"), running());
}

} // namespace
