// The tool's answers about lists: from a file, from the running service, in words and as JSON.

#include "daemon.h"

#include <cjson/cJSON.h>

#include <csignal>
#include <memory>

namespace {

constexpr const char *kLists = "ip access-list extended web\n"
                               " permit tcp any 10.0.0.0 255.255.255.0 eq www\n"
                               " deny tcp any 10.0.0.0 255.0.0.0\n"
                               " permit tcp any 10.0.0.7 255.255.255.255 eq www\n"
                               " permit udp any any lt 1024\n"
                               " permit udp any any gt 1023\n"
                               " deny udp any any eq 53\n"
                               " deny udp any any\n"
                               "!\n"
                               "ip access-list extended web2\n"
                               " permit tcp any 10.0.0.0 255.255.255.0 eq www\n"
                               " deny tcp any 10.0.0.0 255.0.0.0\n"
                               " permit udp any any\n"
                               "!\n"
                               "ip access-list extended web3\n"
                               " permit tcp any 10.0.0.0 255.255.255.0 eq www\n"
                               " deny tcp any 10.0.0.0 255.255.0.0\n"
                               " permit udp any any\n"
                               "!\n"
                               "ip access-list standard hosts\n"
                               " permit 192.0.2.0 255.255.255.0\n"
                               " deny 192.0.0.0 255.255.0.0\n"
                               " permit 192.0.3.0 255.255.255.0\n"
                               " permit src-range 0.0.0.0 0.0.0.127\n"
                               "!\n"
                               "ip access-list extended single\n"
                               " permit udp any any eq domain ttl gt 1\n"
                               "!\n";

class AnalysisTool : public System {
  protected:
    Outcome of_file(std::vector<std::string> words) {
        words.insert(words.end(), {"--file", file_});
        return ctl(words);
    }
    using Json = std::unique_ptr<cJSON, void (*)(cJSON *)>;
    static Json json(const Outcome &outcome) {
        return {cJSON_Parse(outcome.output.c_str()), cJSON_Delete};
    }
    static std::string text(const cJSON *object, const char *key) {
        const char *value = cJSON_GetStringValue(cJSON_GetObjectItem(object, key));
        return value ? value : "(none)";
    }
    static double number(const cJSON *object, const char *key) {
        return cJSON_GetNumberValue(cJSON_GetObjectItem(object, key));
    }

    std::string file_ = write_file("lists.conf", kLists);
};

TEST_F(AnalysisTool, NamesUnreachableRulesAndWhatCoversThem) {
    const Outcome outcome = of_file({"unreachable", "web"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output,
              "rule 3 can never match: permit tcp any 10.0.0.7 255.255.255.255 eq www\n"
              "    covered by rule 1: permit tcp any 10.0.0.0 255.255.255.0 eq www\n"
              "rule 6 can never match: deny   udp any any eq domain\n"
              "    covered by rule 4: permit udp any any lt 1024\n"
              "rule 7 can never match: deny   udp any any\n"
              "    covered by rule 4: permit udp any any lt 1024\n"
              "    covered by rule 5: permit udp any any gt 1023\n"
              "web: 3 of 7 rules can never match\n");
    const Outcome clean = of_file({"unreachable", "web2"});
    EXPECT_EQ(clean.status, 0);
    EXPECT_EQ(clean.output, "web2: 0 of 3 rules can never match\n");
}

TEST_F(AnalysisTool, TellsWhatChanges) {
    const Outcome outcome = of_file({"diff", "web2", "web3"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output,
              "dst 10.1.0.0-10.255.255.255 proto tcp\n"
              "    for one, tcp 0.0.0.0:1024 > 10.1.0.0:80: deny by rule 2, then no rule matches\n"
              "web2 to web3: the verdict of 0.00152% of all packets changes\n");
    const Outcome same = of_file({"diff", "web", "web2"});
    EXPECT_EQ(same.status, 0);
    EXPECT_EQ(same.output, "web and web2 decide every packet alike\n");
}

TEST_F(AnalysisTool, TellsWhetherListsAreEqual) {
    const Outcome same = of_file({"equal", "web", "web2"});
    EXPECT_EQ(same.status, 0);
    EXPECT_EQ(same.output, "web and web2 decide every packet alike\n");
    const Outcome other = of_file({"equal", "web2", "web3"});
    EXPECT_EQ(other.status, 1);
    EXPECT_TRUE(other.output.starts_with("web2 and web3 differ: tcp ")) << other.output;
    EXPECT_TRUE(other.output.ends_with(": deny by rule 2 of web2, no rule matches of web3\n"))
        << other.output;
}

TEST_F(AnalysisTool, ShowsWhatMergingSavesAndWhatItBreaks) {
    const Outcome broken = of_file({"merge", "hosts"});
    EXPECT_EQ(broken.status, 1);
    EXPECT_NE(broken.output.find("\nthe merged copy decides otherwise: tcp 192.0.3."),
              std::string::npos)
        << broken.output;
    EXPECT_TRUE(broken.output.ends_with(": deny by rule 2 of the list, permit by rule 1 of the "
                                        "copy\n"))
        << broken.output;
    const Outcome proved = of_file({"merge", "web"});
    EXPECT_EQ(proved.status, 0);
    EXPECT_TRUE(
        proved.output.ends_with("proved: the merged copy decides every packet as the list does\n"))
        << proved.output;
}

TEST_F(AnalysisTool, TellsWhatAListCosts) {
    const Outcome outcome = of_file({"plan", "hosts", "--top", "1"});
    EXPECT_EQ(outcome.status, 0);
    // On this target a range has its last octet on top.
    EXPECT_EQ(outcome.output,
              "hosts: 4 rules take 11 table entries; merged, 3 take 10\n\n"
              "  entries = src x dst x sport x dport x other\n"
              "        8 = 8 x 1 x 1 x 1 x 1  rule 4: permit  src-range 0.0.0.0  0.0.0.127\n");
    EXPECT_EQ(of_file({"plan", "single", "--top", "0"}).output,
              "single: 1 rule takes 7 table entries; merged, 1 takes 7\n\n"
              "  entries = src x dst x sport x dport x other\n");
}

TEST_F(AnalysisTool, AnswersAsJson) {
    const Json dead = json(of_file({"unreachable", "web", "--json"}));
    const cJSON *rules = cJSON_GetObjectItem(dead.get(), "unreachable");
    ASSERT_EQ(cJSON_GetArraySize(rules), 3);
    const cJSON *last = cJSON_GetArrayItem(rules, 2);
    EXPECT_EQ(number(last, "rule"), 7);
    EXPECT_EQ(text(last, "reason"), "covered");
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(last, "covering")), 2);

    const Json changes = json(of_file({"diff", "web2", "web3", "--json"}));
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(changes.get(), "equal")));
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(changes.get(), "complete")));
    const cJSON *change = cJSON_GetArrayItem(cJSON_GetObjectItem(changes.get(), "changes"), 0);
    const cJSON *region = cJSON_GetObjectItem(change, "region");
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetArrayItem(cJSON_GetObjectItem(region, "dst"), 0)),
                 "10.1.0.0-10.255.255.255");
    EXPECT_EQ(text(cJSON_GetObjectItem(change, "before"), "result"), "deny");
    EXPECT_EQ(text(cJSON_GetObjectItem(change, "packet"), "dst"), "10.1.0.0");

    const Json equal = json(of_file({"equal", "web", "web2", "--json"}));
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(equal.get(), "equal")));
    const Json merged = json(of_file({"merge", "hosts", "--json"}));
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItem(merged.get(), "equal")));
    EXPECT_EQ(number(merged.get(), "merged-rules"), 3);
    const Json plan = json(of_file({"plan", "hosts", "--json"}));
    EXPECT_EQ(number(plan.get(), "entries"), 11);
}

TEST_F(AnalysisTool, AsksTheServiceForListsThatRun) {
    ASSERT_EQ(ctl({"load", file_}).status, 0);
    ASSERT_EQ(ctl({"load", std::string(EXAMPLES) + "/branch-office.conf"}).status, 0);
    EXPECT_EQ(ctl({"unreachable", "web"}).output, of_file({"unreachable", "web"}).output);
    EXPECT_EQ(ctl({"equal", "web", "web2"}).status, 0);
    for (const char *list : {"mgmt-hosts", "bogons", "guest-in", "core-transit"})
        EXPECT_EQ(
            ctl({"equal", list, list, "--against", std::string(EXAMPLES) + "/branch-office.conf"})
                .output,
            std::string(list) + " and " + list + " decide every packet alike\n");
    const Outcome changed = ctl({"diff", "web2", "web3", "--against", file_});
    EXPECT_EQ(changed.status, 1);
    EXPECT_EQ(changed.output, of_file({"diff", "web2", "web3"}).output);
}

TEST_F(AnalysisTool, WithoutAnAnswerTheStatusIsTwo) {
    Outcome outcome = of_file({"unreachable", "none"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "ipaclctl: there is no list none in " + file_ + "\n");
    outcome = ctl({"plan", "none"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "ipaclctl: there is no list none\n");
    outcome = ctl({"merge", "web", "--file", directory + "/none"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors,
              "ipaclctl: can't read " + directory + "/none: No such file or directory\n");
    EXPECT_EQ(ctl({"diff", "web"}).status, 2);
    EXPECT_EQ(of_file({"diff", "web", "web2", "--limit", "0"}).status, 2);
}

TEST_F(AnalysisTool, AFileNeedsNoService) {
    end_daemon(SIGTERM);
    end_broker(SIGTERM);
    EXPECT_EQ(of_file({"equal", "web", "web2"}).status, 0);
    EXPECT_EQ(ctl({"equal", "web", "web2"}).status, 2);
}

TEST_F(AnalysisTool, WhatTheServiceWouldRefuseIsSaidAndLeftOut) {
    const std::string file = write_file("bad.conf", "ip access-list standard a\n"
                                                    " permit 10.0.0.1\n"
                                                    " permit 10.0.0.1\n"
                                                    " permit\n"
                                                    " permit src-range 10.0.0.200 10.0.1.1\n"
                                                    "!\n"
                                                    "ip access-list extended a\n"
                                                    " permit ip any any\n");
    const Outcome outcome = ctl({"unreachable", "a", "--file", file});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "a: 0 of 1 rule can never match\n");
    EXPECT_EQ(outcome.errors,
              file + ":3: The rule has existed in the access list.\n" + file +
                  ":4:7: the line ends too early: expected any, src-range or ADDRESS\n" + file +
                  ":5:29: the range 10.0.0.200 to 10.0.1.1 is refused: its last address must not "
                  "come before its first, and this device orders the addresses of a range by "
                  "their last octet first\n" +
                  file + ":7: there is a list of this name of the other kind\n");
}

} // namespace
