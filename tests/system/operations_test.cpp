// The tool's answers about packets, its safe change, and lists made from ranges and from the lists
// of other devices.

#include "capture.h"
#include "faulty_daemon.h"
#include "program.h"
#include "terminal.h"

#include "ipacl/aclapi.h"
#include "ipacl/ipaclstd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t kEthernet = 1, kRaw = 101, kCooked = 113, kCooked2 = 276;

constexpr const char *kLists = "ip access-list extended web\n"
                               " permit udp any any eq domain\n"
                               " deny ip any 10.0.0.0 255.0.0.0\n"
                               " permit tcp any 192.0.2.0 255.255.255.0 eq 20\n"
                               " permit tcp any any eq www ttl gt 1 not-fragment\n"
                               "!\n"
                               "ip access-list standard hosts\n"
                               " permit 10.0.0.0 255.255.255.0\n"
                               "!\n";

class Operations : public System {
  protected:
    Outcome explain(const std::string &packet, const std::string &list = "web") {
        return ctl({"explain", list, packet, "--file", file_});
    }
    Outcome replay(const Bytes &capture, std::vector<std::string> more = {}) {
        std::vector<std::string> words{"replay", write_file("test.pcap", capture), "--file", file_};
        if (more.empty())
            more = {"--list", "web"};
        words.insert(words.end(), more.begin(), more.end());
        return ctl(words);
    }
    static std::string line(const std::string &text, size_t number) {
        std::istringstream in(text);
        std::string found;
        for (size_t i = 0; i < number; i++)
            std::getline(in, found);
        return found;
    }

    std::string file_ = write_file("lists.conf", kLists);
};

// --- explain ---

TEST_F(Operations, ExplainTellsTheFirstFailedTestOfEachRuleAndTheRuleThatDecides) {
    const Outcome outcome = explain("tcp 10.0.0.1:1234 > 192.0.2.9:80 ttl 64 ack");
    EXPECT_EQ(outcome.output, "     1  permit udp any any eq domain\n"
                              "        fails at the protocol: the packet has tcp\n"
                              "     2  deny   ip any 10.0.0.0 255.0.0.0\n"
                              "        fails at the destination: the packet has 192.0.2.9\n"
                              "     3  permit tcp any 192.0.2.0 255.255.255.0 eq ftp-data\n"
                              "        fails at the destination port: the packet has 80\n"
                              "     4  permit tcp any any eq www not-fragment ttl gt 1\n"
                              "        decides\n"
                              "web: tcp 10.0.0.1:1234 > 192.0.2.9:80 ack: permit by rule 4\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(Operations, ExplainNamesOptionsAsTheCommandsDo) {
    const Outcome expired = explain("tcp 10.0.0.1:1234 > 192.0.2.9:www ttl 1");
    EXPECT_EQ(line(expired.output, 8), "        fails at the ttl: the packet has 1");
    EXPECT_EQ(line(expired.output, 9),
              "web: tcp 10.0.0.1:1234 > 192.0.2.9:80 ttl 1: no rule matches");
    EXPECT_EQ(expired.status, 1);
    const Outcome fragment = explain("tcp 10.0.0.1:1234 > 198.51.100.9:80 is-fragment");
    EXPECT_EQ(line(fragment.output, 8), "        fails at an option: the packet is is-fragment");
}

TEST_F(Operations, ALaterFragmentHasNoPorts) {
    const Outcome outcome = explain("udp 10.0.0.1:1 > 10.0.0.2:2 fragment");
    EXPECT_EQ(line(outcome.output, 2), "        decides");
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(Operations, ExplainAnswersForStandardListsAndDeniedPackets) {
    EXPECT_EQ(explain("udp 10.0.0.1 > 10.0.0.2", "hosts").status, 0);
    const Outcome outcome = explain("udp 10.0.1.1 > 10.0.0.2", "hosts");
    EXPECT_EQ(line(outcome.output, 2), "        fails at the source: the packet has 10.0.1.1");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(explain("icmp 10.0.1.1 > 10.0.0.2").status, 1);
}

TEST_F(Operations, ExplainReadsAFrame) {
    const Outcome outcome = ctl(
        {"explain", "web", "--hex", "--file", file_,
         "02:02:02:02:02:02 02:02:02:02:02:02 81 00 00 05 08 00\n"
         "45 00 00 1c 00 01 40 00 40 11 00 00 0a 00 00 01 c0 00 02 09 04 d2 00 35 00 08 00 00"});
    EXPECT_EQ(line(outcome.output, 3),
              "web: udp 10.0.0.1:1234 > 192.0.2.9:53 dont-fragment length 28: permit by rule 1")
        << outcome.errors;
    const std::pair<const char *, const char *> wrong[] = {
        {"0", "a frame is written in pairs of hexadecimal digits, and \"0\" is none"},
        {"zz", "a frame is written in pairs of hexadecimal digits, and \"zz\" is none"},
        {"0202", "the frame ends within its headers"},
        {"020202020202 020202020202 0806 00", "the frame carries no IPv4 packet"}};
    for (const auto &[frame, why] : wrong) {
        const Outcome refused = ctl({"explain", "web", "--hex", "--file", file_, frame});
        EXPECT_EQ(refused.status, 2);
        EXPECT_EQ(refused.errors, std::string("ipaclctl: ") + why + "\n");
    }
}

TEST_F(Operations, WhatIsNoPacketIsSaid) {
    const std::pair<const char *, const char *> wrong[] = {
        {"tcp 10.0.0.1 10.0.0.2",
         "expected \"PROTOCOL SOURCE[:PORT] > DESTINATION[:PORT] [FIELD...]\""},
        {"ip 10.0.0.1 > 10.0.0.2", "a packet has one protocol, and ip is none"},
        {"300 10.0.0.1 > 10.0.0.2", "a packet has one protocol, and 300 is none"},
        {"tcp 10.0.0 > 10.0.0.2", "10.0.0 is no address"},
        {"tcp 10.0.0.1:65536 > 10.0.0.2", "65536 is no port"},
        {"tcp 10.0.0.1 > 10.0.0.2 ttl 256", "ttl needs a number from 0 to 255"},
        {"tcp 10.0.0.1 > 10.0.0.2 ttl", "ttl needs a number from 0 to 255"}};
    for (const auto &[packet, why] : wrong) {
        const Outcome outcome = explain(packet);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.errors, std::string("ipaclctl: ") + why + "\n");
    }
    EXPECT_TRUE(explain("tcp 10.0.0.1 > 10.0.0.2 nonsense")
                    .errors.starts_with("ipaclctl: nonsense is no field of a packet; there are "));
}

TEST_F(Operations, ExplainAsksTheServiceToo) {
    ASSERT_EQ(ctl({"load", file_}).status, 0);
    const std::string packet = "tcp 10.0.0.1:1234 > 192.0.2.9:20";
    const Outcome outcome = ctl({"explain", "web", packet});
    EXPECT_EQ(outcome.output, explain(packet).output);
    EXPECT_EQ(line(outcome.output, 6), "        decides");
    EXPECT_EQ(ctl({"explain", "none", packet}).errors, "ipaclctl: there is no list none\n");
}

// --- replay ---

TEST_F(Operations, ReplayCountsVerdictsAndHits) {
    const Outcome outcome = replay(
        capture(kEthernet,
                {
                    ethernet(Ipv4{.payload = tcp(1024, 80)}.bytes()),
                    ethernet(Ipv4{.payload = tcp(1024, 80)}.bytes(), 0x0800, {0x88A8, 0x8100}),
                    ethernet(Ipv4{.ttl = 1, .payload = tcp(1024, 80)}.bytes()),
                    ethernet(Ipv4{.destination = {10, 0, 0, 2}, .payload = tcp(1024, 80)}.bytes()),
                    ethernet(Ipv4{.protocol = 17, .payload = udp(9, 53)}.bytes()),
                    ethernet("an ARP request", 0x0806),
                    ethernet(Ipv4{.payload = "\1"}.bytes()),
                    ethernet("\x45"),
                }));
    EXPECT_EQ(outcome.output,
              "8 frames: 5 IPv4 packets, 1 of other protocols, 2 with headers that are not whole\n"
              "web: 3 permitted, 1 denied, 1 matched by no rule\n"
              "ip access-list extended web\n"
              " permit udp any any eq domain statistics: 1 packets\n"
              " deny   ip any 10.0.0.0 255.0.0.0 statistics: 1 packets\n"
              " permit tcp any 192.0.2.0 255.255.255.0 eq ftp-data statistics: 0 packets\n"
              " permit tcp any any eq www not-fragment ttl gt 1 statistics: 2 packets\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.errors.starts_with("5 packets in ")) << outcome.errors;
}

TEST_F(Operations, ReplayReadsTheOtherLinkTypesAlike) {
    const Bytes packet = Ipv4{.payload = tcp(1024, 80)}.bytes();
    Bytes cooked(14, '\0'), cooked2("\x08\x00", 2), tagged(14, '\0');
    put16(cooked, 0x0800);
    cooked2.append(18, '\0');
    put16(tagged, 0x8100);
    put16(tagged, 5);
    put16(tagged, 0x0800);
    const std::pair<uint32_t, Bytes> captures[] = {{kRaw, packet},
                                                   {kCooked, cooked + packet},
                                                   {kCooked, tagged + packet},
                                                   {kCooked2, cooked2 + packet}};
    for (const auto &[link, frame] : captures) {
        const Outcome outcome = replay(capture(link, {frame}));
        EXPECT_EQ(line(outcome.output, 2), "web: 1 permitted, 0 denied, 0 matched by no rule")
            << link << outcome.errors;
    }
    const Outcome six = replay(capture(kRaw, {Bytes("\x60") + Bytes(39, '\0')}));
    EXPECT_TRUE(
        line(six.output, 1)
            .ends_with("0 IPv4 packets, 1 of other protocols, 0 with headers that are not whole"));
    const Outcome other = replay(capture(105, {packet}));
    EXPECT_EQ(other.status, 2);
    EXPECT_NE(other.errors.find("its link type, IEEE802_11, is neither Ethernet nor Linux cooked"),
              std::string::npos)
        << other.errors;
}

TEST_F(Operations, ReplayTreatsFragmentsAsTheMatcherWants) {
    constexpr unsigned kMore = 0x2000;
    const Outcome outcome =
        replay(capture(kEthernet,
                       {// The first has its ports, and "not-fragment" keeps it out; later ones have
                        // none and are taken by the first rule of their protocol.
                        ethernet(Ipv4{.fragment = kMore, .payload = tcp(1024, 80)}.bytes()),
                        ethernet(Ipv4{.fragment = kMore | 1, .payload = tcp(1024, 80)}.bytes()),
                        ethernet(Ipv4{.protocol = 17, .fragment = 5, .payload = "x"}.bytes())}));
    EXPECT_EQ(line(outcome.output, 2), "web: 2 permitted, 0 denied, 1 matched by no rule");
    EXPECT_EQ(line(outcome.output, 4), " permit udp any any eq domain statistics: 1 packets");
    EXPECT_TRUE(line(outcome.output, 6).ends_with(" statistics: 1 packets"));
}

TEST_F(Operations, ReplayShowsWhatAnotherListDecidesDifferently) {
    const Bytes both = capture(
        kEthernet, {ethernet(Ipv4{.payload = tcp(1024, 80)}.bytes()),
                    ethernet(Ipv4{.destination = {10, 0, 0, 2}, .payload = tcp(7, 80)}.bytes()),
                    ethernet(Ipv4{.destination = {10, 0, 0, 3}, .payload = tcp(7, 80)}.bytes())});
    Outcome outcome = replay(both, {"--list", "web", "--against", "hosts", "--limit", "1"});
    EXPECT_EQ(line(outcome.output, 1), "frame 2: tcp 10.0.0.1:7 > 10.0.0.2:80 length 40: deny by "
                                       "rule 2, then permit by rule 1");
    EXPECT_TRUE(line(outcome.output, 2).starts_with("3 frames: "));
    EXPECT_EQ(line(outcome.output, 4), "hosts: 3 permitted, 0 denied, 0 matched by no rule");
    EXPECT_TRUE(outcome.output.ends_with("web and hosts decide 2 packets differently\n"));
    EXPECT_EQ(outcome.status, 1);
    const std::string other = write_file("other.conf", "ip access-list extended web\n"
                                                       " permit tcp any any eq www\n");
    outcome = replay(both, {"--list", "web", "--against", "web", "--against-file", other});
    EXPECT_TRUE(outcome.output.ends_with("web and web decide 2 packets differently\n"));
    outcome = replay(both, {"--list", "web", "--against", "web"});
    EXPECT_TRUE(outcome.output.ends_with("web and web decide 0 packets differently\n"));
    EXPECT_EQ(outcome.status, 0);
}

// Packets of many batches, the last of them not full, and frames that are no packets between them.
std::vector<Bytes> many_frames() {
    std::vector<Bytes> frames;
    for (int i = 0; i < 2000; i++) {
        const uint8_t first = i % 13 < 6 ? 10 : 192;
        const auto second = static_cast<uint8_t>(i % 7);
        const uint16_t port = i % 3 ? 80 : 20;
        if (i % 5 == 0)
            frames.push_back(ethernet("an ARP request", 0x0806));
        else
            frames.push_back(ethernet(Ipv4{.destination = {first, second, 0, 2},
                                           .ttl = static_cast<uint8_t>(1 + i % 2),
                                           .fragment = i % 11 ? 0U : 7U,
                                           .payload = tcp(1024, port)}
                                          .bytes()));
    }
    return frames;
}

TEST_F(Operations, ReplayAnswersAlikeWhetherItMayCompileTheListOrNot) {
    const Bytes packets = capture(kEthernet, many_frames());
    const std::string other = write_file("other.conf", "ip access-list extended web\n"
                                                       " deny ip any 10.0.0.0 255.254.0.0\n"
                                                       " permit tcp any any eq www\n"
                                                       " permit tcp any any eq 20 ttl gt 1\n"
                                                       "!\n");
    const auto with = [&](const char *memory) {
        return replay(packets, {"--list", "web", "--against", "web", "--against-file", other,
                                "--limit", "1000000", "--memory", memory});
    };
    const Outcome compiled = with("64"), linear = with("0");
    EXPECT_EQ(compiled.output, linear.output);
    EXPECT_EQ(compiled.status, 1);
    EXPECT_EQ(linear.status, 1);
    const size_t shown = compiled.output.find("2000 frames: 1600 IPv4 packets, 400 of other");
    ASSERT_NE(shown, std::string::npos) << compiled.output;
    const auto end = compiled.output.begin() + static_cast<long>(shown);
    const auto lines = std::count(compiled.output.begin(), end, '\n');
    EXPECT_GT(lines, 0);
    EXPECT_TRUE(compiled.output.ends_with("web and web decide " + std::to_string(lines) +
                                          " packets differently\n"))
        << compiled.output;
}

TEST_F(Operations, ATruncatedOrCorruptCaptureGivesTheCountsSoFar) {
    const Bytes whole = capture(kEthernet, {ethernet(Ipv4{.payload = tcp(1024, 80)}.bytes()),
                                            ethernet(Ipv4{.payload = tcp(1024, 80)}.bytes())});
    Bytes corrupt = whole;
    corrupt[24 + 16 + 54 + 11] = '\x7F'; // the captured length of the second frame
    for (const Bytes &broken :
         {whole.substr(0, whole.size() - 10), corrupt, whole.substr(0, 24 + 16 + 54 + 8)}) {
        const Outcome outcome = replay(broken);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(line(outcome.output, 2), "web: 1 permitted, 0 denied, 0 matched by no rule");
        EXPECT_EQ(line(outcome.output, 7),
                  " permit tcp any any eq www not-fragment ttl gt 1 statistics: 1 packets");
        EXPECT_NE(
            outcome.errors.find("ipaclctl: " + directory + "/test.pcap can't be read to its end: "),
            std::string::npos)
            << outcome.errors;
    }
    const Outcome none = replay("this is no capture, but it is long enough to be one");
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.output, "");
    EXPECT_NE(none.errors.find("/test.pcap: unknown file format"), std::string::npos)
        << none.errors;
    for (const size_t length : {size_t{0}, size_t{3}, size_t{23}}) {
        const Outcome cut = replay(whole.substr(0, length));
        EXPECT_EQ(cut.status, 2);
        EXPECT_EQ(cut.output, "");
        EXPECT_NE(cut.errors.find("/test.pcap: truncated dump file"), std::string::npos)
            << cut.errors;
    }
    EXPECT_EQ(ctl({"replay", directory + "/none", "--list", "web", "--file", file_}).status, 2);
}

TEST_F(Operations, ACutFrameIsJudgedWhenItsHeadersAreWhole) {
    const std::vector<Bytes> frames(2, ethernet(Ipv4{.payload = tcp(1024, 80)}.bytes()));
    EXPECT_EQ(line(replay(capture(kEthernet, frames, 48)).output, 2),
              "web: 2 permitted, 0 denied, 0 matched by no rule");
    EXPECT_TRUE(line(replay(capture(kEthernet, frames, 47)).output, 1)
                    .ends_with("2 with headers that are not whole"));
}

// --- apply ---

constexpr const char *kNewLists = "no ip access-list standard hosts\n"
                                  "ip access-list extended web\n"
                                  " permit udp any any eq domain\n"
                                  " deny ip any 10.0.0.0 255.255.0.0\n"
                                  " permit tcp any 192.0.2.0 255.255.255.0 eq 20\n"
                                  " permit tcp any any eq www ttl gt 1 not-fragment\n"
                                  "!\n"
                                  "ip access-list standard more\n"
                                  " permit 10.0.0.1\n"
                                  "!\n";

class ApplyTool : public FaultyDaemon {
  protected:
    ApplyTool() {
        load();
        old_ = running();
    }
    void load() { ASSERT_EQ(ctl({"load", write_file("old.conf", kLists)}).status, 0); }
    Outcome apply(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"apply", new_file_});
        return ctl(more);
    }

    std::string new_file_ = write_file("new.conf", kNewLists), old_;
    const std::string new_ = "ip access-list standard more\n"
                             " permit  10.0.0.1 255.255.255.255\n"
                             "!\n"
                             "ip access-list extended web\n"
                             " permit udp any any eq domain\n"
                             " deny   ip any 10.0.0.0 255.255.0.0\n"
                             " permit tcp any 192.0.2.0 255.255.255.0 eq ftp-data\n"
                             " permit tcp any any eq www not-fragment ttl gt 1\n"
                             "!\n";
};

TEST_F(ApplyTool, ShowsWhatDiffersAndMakesItSo) {
    const Outcome dry = apply({"--dry-run"});
    EXPECT_EQ(dry.status, 0);
    EXPECT_TRUE(dry.output.starts_with("-ip access-list standard hosts\n"
                                       "- permit  10.0.0.0 255.255.255.0\n"
                                       "+ip access-list standard more\n"
                                       "+ permit  10.0.0.1 255.255.255.255\n"
                                       " ip access-list extended web\n"
                                       "  permit udp any any eq domain\n"
                                       "- deny   ip any 10.0.0.0 255.0.0.0\n"
                                       "+ deny   ip any 10.0.0.0 255.255.0.0\n"
                                       "  permit tcp any 192.0.2.0 255.255.255.0 eq ftp-data\n"
                                       "  permit tcp any any eq www not-fragment ttl gt 1\n"
                                       "dst 10.1.0.0-10.255.255.255 "))
        << dry.output;
    EXPECT_NE(dry.output.find("web as it runs to the new one: the verdict of 0.388% of all"),
              std::string::npos)
        << dry.output;
    EXPECT_TRUE(dry.output.ends_with("3 of 3 lists differ\n"));
    EXPECT_EQ(running(), old_) << "a dry run has changed something";
    const Outcome outcome = apply();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, dry.output);
    EXPECT_EQ(running(), new_);
    EXPECT_EQ(apply().output, "0 of 3 lists differ\n");
}

TEST_F(ApplyTool, SendsOnlyWhatDiffers) {
    ASSERT_EQ(ctl({"load", "-"}, "ip access-list extended alone\n permit ip any any\n").status, 0);
    Terminal watcher({"watch", "--count", "4"});
    ASSERT_TRUE(watcher.shows("watching\r\n"));
    ASSERT_EQ(apply().status, 0);
    EXPECT_EQ(apply().status, 0); // announces nothing
    ctl({"destroy", "alone"});
    EXPECT_TRUE(watcher.shows("hosts removed\r\nmore changed\r\nweb changed\r\nalone removed\r\n"));
    EXPECT_EQ(watcher.passed(), "") << "more was announced";
}

TEST_F(ApplyTool, AConfigurationThatWouldNotBeTakenWholeChangesNothing) {
    const std::pair<const char *, const char *> wrong[] = {
        {"ip access-list standard web\n permit 10.0.0.1\n permit 10.0.0.1\n",
         ":3: The rule has existed in the access list.\n"},
        {"permit any\n",
         ":1: a rule needs a list: put \"ip access-list standard|extended NAME\" first\n"},
        {"ip access-list standard one two\n",
         ":1:16: expected \"ip access-list standard|extended NAME\"\n"},
        {"ip access-list standard web\n merge-enable\n",
         ":2:1: merge-enable can't be switched on through the bus\n"},
        {"ip access-list extended web\n remark hello\n permit ip any any\n",
         ":2:1: remark is not known here: expected permit, deny or no\n"}};
    for (const auto &[text, why] : wrong) {
        new_file_ = write_file("new.conf", text);
        const Outcome outcome = apply();
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.errors, new_file_ + why + "ipaclctl: " + new_file_ +
                                      " would not be taken whole; nothing was changed\n");
        EXPECT_EQ(running(), old_);
    }
}

TEST_F(ApplyTool, AListMayChangeItsKind) {
    new_file_ = write_file("new.conf", "ip access-list extended hosts\n permit ip any any\n");
    const Outcome outcome = apply();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_TRUE(outcome.output.starts_with("-ip access-list standard hosts\n"
                                           "+ip access-list extended hosts\n"))
        << outcome.output;
    EXPECT_NE(running().find("ip access-list extended hosts\n permit ip any any\n!\n"),
              std::string::npos);
}

TEST_F(ApplyTool, WhateverFailsTheListsAreTheNewOnesOrTheOldOnes) {
    auto &memory = block_->calls[faults::kMemory];
    int put_back = 0, rounds = 0;
    for (uint64_t nth = 1; !HasFailure(); nth++, rounds++) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        memory.arm(nth, 1, ENOMEM);
        const Outcome outcome = apply();
        memory.disarm();
        const std::string now = running();
        EXPECT_EQ(now, outcome.status == 0 ? new_ : old_) << outcome.status << outcome.errors;
        if (outcome.errors.find("the old lists are back") != std::string::npos)
            put_back++;
        if (memory.failed == 0)
            break;
        for (const char *list : {"web", "hosts", "more"})
            ctl({"destroy", list});
        load();
        ASSERT_EQ(running(), old_);
    }
    EXPECT_GT(rounds, 20);
    EXPECT_GT(put_back, 3);
}

TEST_F(ApplyTool, WithoutAWordInTimeTheOldListsComeBack) {
    const Outcome outcome = apply({"--confirm", "1"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "applied; the old lists come back in 1 second unless \"ipaclctl confirm\" is given, "
              "or Enter pressed here\nipaclctl: not confirmed in time; the old lists are back\n");
    EXPECT_EQ(running(), old_);
    const Outcome late = ctl({"confirm"});
    EXPECT_EQ(late.status, 1);
    EXPECT_EQ(late.errors, "ipaclctl: nothing waits to be confirmed\n");
}

// Runs "apply --confirm 60" beside the test; what it said is in a file.
class Confirming : public ApplyTool {
  protected:
    Confirming() {
        pid_ = fork();
        if (pid_ == 0) {
            setsid();
            const int out = open((directory + "/said").c_str(), O_CREAT | O_WRONLY, 0600);
            dup2(out, 1);
            dup2(out, 2);
            dup2(open("/dev/null", O_RDONLY), 0);
            execute(program(TOOL, {"apply", new_file_, "--confirm", "60"}));
            _exit(127);
        }
        await("applied; ");
    }
    void await(const std::string &text) {
        for (int i = 0; i < 1000 && said().find(text) == std::string::npos; i++)
            usleep(10000);
        ASSERT_NE(said().find(text), std::string::npos) << said();
    }
    std::string said() { return read_file("said"); }
    int status() {
        int status;
        waitpid(pid_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    pid_t pid_;
};

TEST_F(Confirming, TheCommandKeepsTheNewLists) {
    EXPECT_EQ(running(), new_);
    EXPECT_EQ(apply({"--confirm", "60"}).errors, "") << "there was nothing to change";
    EXPECT_EQ(ctl({"confirm"}).status, 0);
    EXPECT_EQ(status(), 0);
    EXPECT_TRUE(said().ends_with("confirmed\n"));
    EXPECT_EQ(running(), new_);
    EXPECT_EQ(ctl({"confirm"}).status, 1);
}

TEST_F(Confirming, AnotherOneMustWait) {
    new_file_ = write_file("other.conf", "ip access-list standard more\n");
    const Outcome outcome = apply({"--confirm", "60"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "ipaclctl: another \"apply\" waits to be confirmed\n");
    EXPECT_EQ(running(), new_);
    EXPECT_EQ(ctl({"confirm"}).status, 0);
    EXPECT_EQ(status(), 0);
}

TEST_F(Confirming, AHangupDoesNotEndTheWaitAndAnInterruptGivesUp) {
    kill(pid_, SIGHUP);
    usleep(200000);
    EXPECT_EQ(waitpid(pid_, nullptr, WNOHANG), 0);
    kill(pid_, SIGINT);
    EXPECT_EQ(status(), 1);
    EXPECT_TRUE(said().ends_with("ipaclctl: interrupted; the old lists are back\n")) << said();
    EXPECT_EQ(running(), old_);
}

TEST_F(Confirming, WithoutTheBusTheOldListsComeBack) {
    end_broker(SIGKILL);
    start_broker();
    EXPECT_EQ(status(), 1);
    EXPECT_TRUE(said().ends_with("the message bus went away before this was confirmed; the old "
                                 "lists are back\n"))
        << said();
    await_service();
    EXPECT_EQ(running(), old_);
}

TEST_F(ApplyTool, EnterOnATerminalConfirms) {
    Terminal terminal({"apply", new_file_, "--confirm", "60"});
    ASSERT_TRUE(terminal.shows("or Enter pressed here"));
    terminal.type("\n");
    EXPECT_TRUE(terminal.shows("confirmed"));
    EXPECT_EQ(terminal.status(), 0);
    EXPECT_EQ(running(), new_);
}

// --- ranges ---

class Ranges : public Operations {
  protected:
    Outcome ranges(const std::string &lines, const std::vector<std::string> &more = {}) {
        std::vector<std::string> words{"ranges", "-", "--name", "made"};
        words.insert(words.end(), more.begin(), more.end());
        return ctl(words, lines);
    }
    static std::string list(const std::string &rules) {
        return "ip access-list standard made\n" + rules + "!\n";
    }
};

TEST_F(Ranges, BecomeTheFewestPrefixes) {
    EXPECT_EQ(ranges("10.0.0.1,10.0.0.4\n").output, list(" permit 10.0.0.1 255.255.255.255\n"
                                                         " permit 10.0.0.2 255.255.255.254\n"
                                                         " permit 10.0.0.4 255.255.255.255\n"));
    // What overlaps or touches becomes one.
    EXPECT_EQ(
        ranges("10.0.0.128/25\n10.0.0.0,10.0.0.127 # a comment\n\n10.0.0.7\n", {"--deny"}).output,
        list(" deny 10.0.0.0 255.255.255.0\n"));
    EXPECT_EQ(ranges("0.0.0.0/0\n").output, list(" permit any\n"));
    EXPECT_EQ(ranges("255.255.255.255\n").output,
              list(" permit 255.255.255.255 255.255.255.255\n"));
    EXPECT_EQ(ranges("255.255.255.252,255.255.255.255\n").output,
              list(" permit 255.255.255.252 255.255.255.252\n"));
    EXPECT_EQ(ranges("").output, list(""));
}

TEST_F(Ranges, OtherMasksMakeFewerRules) {
    const std::string two = "10.0.0.0/24\n10.0.2.0/24\n";
    EXPECT_EQ(ranges(two).output, list(" permit 10.0.0.0 255.255.255.0\n"
                                       " permit 10.0.2.0 255.255.255.0\n"));
    EXPECT_EQ(ranges(two, {"--any-mask"}).output, list(" permit 10.0.0.0 255.255.253.0\n"));
}

TEST_F(Ranges, AWrongLineIsNamed) {
    const std::pair<const char *, const char *> wrong[] = {
        {"10.0.0.2,10.0.0.1", "the range ends before it begins"},
        {"10.0.0,10.0.0.1", "\"10.0.0\" is no address"},
        {"10.0.0.0/33", "\"/33\" is no prefix length"},
        {"10.0.0.1/24", "10.0.0.1 is not the first address of a /24"}};
    for (const auto &[text, why] : wrong) {
        const Outcome outcome = ranges(std::string("10.0.0.1\n") + text + "\n");
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.errors, std::string("ipaclctl: stdin:2: ") + why + "\n");
        EXPECT_EQ(outcome.output, "");
    }
    EXPECT_EQ(ctl({"ranges", "-", "--name", "abcdefghijklmnopqrstu"}).status, 2);
}

// Real input: at both ends of every range the list and the range agree.
TEST_F(Ranges, ARealTableIsHeldExactly) {
    ipacl_init();
    const std::string file = TEST_DATA "/nz-ranges.csv";
    for (const std::vector<std::string> &more :
         {std::vector<std::string>{}, std::vector<std::string>{"--any-mask"}}) {
        std::vector<std::string> words{"ranges", file, "--name", "nz"};
        words.insert(words.end(), more.begin(), more.end());
        const Outcome outcome = ctl(words);
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
        const std::string name = more.empty() ? "prefixes" : "masks";
        ASSERT_NE(get_ipacl_byname(name.c_str(), 1), nullptr);
        std::istringstream rules(outcome.output);
        for (std::string line; std::getline(rules, line);)
            if (line.starts_with(" permit"))
                do_standard_end(name.c_str(), line.c_str());
        const auto held = [&](uint32_t address) {
            acl_info packet{};
            packet.src_ip = htonl(address);
            return ipacl_check(&packet, name.c_str()) == 1;
        };
        std::vector<std::pair<uint32_t, uint32_t>> given;
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            const size_t comma = line.find(',');
            given.emplace_back(ntohl(inet_addr(line.substr(0, comma).c_str())),
                               ntohl(inet_addr(line.substr(comma + 1).c_str())));
        }
        ASSERT_GT(given.size(), 1000U);
        const auto within = [&](uint32_t address) {
            return std::any_of(given.begin(), given.end(), [&](const auto &range) {
                return range.first <= address && address <= range.second;
            });
        };
        for (const auto &[first, last] : given)
            for (const uint32_t address : {first - 1, first, last, last + 1})
                ASSERT_EQ(held(address), within(address)) << address;
    }
}

// --- import ---

TEST_F(Operations, ImportConvertsAndProves) {
    const std::string file =
        write_file("foreign.txt", "hostname edge\n"
                                  "access-list 10 remark who may\n"
                                  "access-list 10 permit 10.20.0.0 0.0.0.255\n"
                                  "access-list 10 permit host 10.1.1.1\n"
                                  "access-list 10 deny any\n"
                                  "!\n"
                                  "ip access-list extended web\n"
                                  " 10 permit tcp any host 192.0.2.10 eq www 443\n"
                                  " 30 permit ip 10.0.0.0 0.0.3.1 any dscp af21\n"
                                  " 20 permit udp any range 1000 2000 any eq ntp\n"
                                  " 40 permit tcp any eq ftp-data any gt 1023\n"
                                  " 50 permit esp any host 192.0.2.1 precedence critical\n"
                                  " 60 deny ip any any fragments\n"
                                  " 70 permit ip any any ttl gt 5 tos min-delay\n");
    const Outcome outcome = ctl({"import", file});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "ip access-list standard 10\n"
                              "# access-list 10 remark who may\n"
                              " permit  10.20.0.0 255.255.255.0\n"
                              " permit  10.1.1.1 255.255.255.255\n"
                              " deny  any\n"
                              "!\n"
                              "ip access-list extended web\n"
                              " permit tcp any 192.0.2.10 255.255.255.255 eq www\n"
                              " permit tcp any 192.0.2.10 255.255.255.255 eq 443\n"
                              " permit udp any src-portrange 1000 2000 any eq 123\n"
                              " permit ip 10.0.0.0 255.255.252.254 any tos 4 precedence 2\n"
                              " permit ip 10.0.0.0 255.255.252.254 any tos 5 precedence 2\n"
                              " permit tcp any eq 20 any gt 1023\n"
                              " permit 50 any 192.0.2.1 255.255.255.255 precedence 5\n"
                              " deny   ip any any offset-not-zero\n"
                              " permit ip any any tos 8 ttl gt 5\n"
                              "!\n");
    EXPECT_EQ(outcome.errors, "10: proved, it decides every packet as it was meant to\n"
                              "web: proved, it decides every packet as it was meant to\n"
                              "10 rules: 10 converted, 0 of them with a note, 0 lost; 1 other "
                              "lines passed over\n");
    // What is written is what the service takes.
    EXPECT_EQ(ctl({"load", "-"}, outcome.output).status, 0);
}

TEST_F(Operations, ImportSaysOfEveryLostRuleWhy) {
    const std::pair<const char *, const char *> lost[] = {
        {"permit tcp any any established", "no rule command asks for \"established\""},
        {"permit icmp any any echo", "no rule command asks for the ICMP message \"echo\""},
        {"permit icmp any any 3 4", "no rule command asks for the ICMP message \"3\""},
        {"permit tcp any any eq nosuch", "the port \"nosuch\" is not known"},
        {"permit tcp any any neq 80 443", "\"neq\" takes one port here"},
        {"permit tcp any any range 90 80", "its range of ports ends before it begins"},
        {"permit tcp any any eq", "it ends where a port is needed"},
        {"permit nosuch any any", "the protocol \"nosuch\" is not known"},
        {"permit ip any", "it ends where an address is needed"},
        {"permit ip any server.example 0.0.0.0", "\"server.example\" is no address"},
        {"permit ip any 10.0.0.1", "it ends where a wildcard mask is needed"},
        {"permit ip any 10.0.0.1 nosuch", "\"nosuch\" is no wildcard mask"},
        {"permit ip any any time-range night",
         "names of time ranges are not kept, and it would hold at all times"},
        {"permit ip any any ttl neq 5", "no rule command compares the TTL with \"neq\""},
        {"permit ip any any ttl eq 256", "\"256\" is no TTL"},
        {"permit ip any any dscp 64", "\"64\" is no value of dscp"},
        {"permit tcp any any syn", "\"syn\" is not known"},
        {"evaluate mirror", "\"evaluate\" is neither permit nor deny"}};
    std::string text = "ip access-list extended web\n", errors, comments;
    for (const auto &[rule, why] : lost) {
        const size_t line = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
        text.append(" ").append(rule).append("\n");
        errors.append("stdin:").append(std::to_string(line)).append(": lost, ");
        errors.append(why).append(": ").append(rule).append("\n");
        comments.append("# lost: ").append(rule).append("\n");
    }
    const Outcome outcome = ctl({"import", "-"}, text);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "ip access-list extended web\n" + comments + "!\n");
    EXPECT_TRUE(outcome.errors.starts_with(errors)) << outcome.errors;
    EXPECT_TRUE(outcome.errors.ends_with(
        "web: a rule was lost that can't be said in our terms; nothing is proved\n"
        "18 rules: 0 converted, 0 of them with a note, 18 lost; 0 other lines passed over\n"))
        << outcome.errors;
}

TEST_F(Operations, ImportShowsWhatALostRuleChanges) {
    const Outcome outcome = ctl({"import", "-"}, "ip access-list extended web\n"
                                                 " permit tcp any any established\n"
                                                 " deny tcp any any\n");
    EXPECT_NE(outcome.errors.find("web: not as it was: tcp "), std::string::npos) << outcome.errors;
    EXPECT_NE(outcome.errors.find(" ack: permit by rule 1, now deny by rule 1\n"),
              std::string::npos)
        << outcome.errors;
}

TEST_F(Operations, ImportNotesWhatIsNotKept) {
    const Outcome outcome = ctl({"import", "-"}, "access-list 10 permit any log\n"
                                                 "access-list 10 permit 10.0.0.1 255.255.255.0\n"
                                                 "access-list 100 deny tcp any any eq 80\n"
                                                 "access-list 100 deny tcp any any eq www\n"
                                                 "ip access-list extended 10\n"
                                                 " permit ip any any\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "ip access-list standard 10\n permit  any\n"
                              " permit  0.0.0.1 0.0.0.255\n!\n"
                              "ip access-list extended 100\n deny   tcp any any eq www\n!\n");
    EXPECT_EQ(
        outcome.errors,
        "stdin:1: \"log\" is dropped: what it takes is not logged: access-list 10 permit any log\n"
        "stdin:2: the wildcard 255.255.255.0 leaves the upper bits open; was it meant as a mask?: "
        "access-list 10 permit 10.0.0.1 255.255.255.0\n"
        "10: proved, it decides every packet as it was meant to\n"
        "stdin:4: left out, an equal rule stands before it: access-list 100 deny tcp any any eq "
        "www\n"
        "100: 2 rules deny by port and so take every later fragment, which shows none; most "
        "devices let such a rule pass them\n"
        "100: proved, it decides every packet as it was meant to\n"
        "stdin:6: lost, there is a list 10 of the other kind: permit ip any any\n"
        "5 rules: 4 converted, 2 of them with a note, 1 lost; 0 other lines passed over\n");
}

} // namespace
