// Strict reading, row by row: a line, and what is found in it as "COLUMN CHECK" with a "!" behind
// an error. A second part holds it against the commands themselves: what has no finding is kept as
// it was typed.

#include "acl_words.h"
#include "aclrule.h"
#include "rules.h"
#include "tools/strict.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace {

using namespace ipaclctl;

struct Row {
    const char *line;
    const char *found;
};

std::string summary(const Findings &findings) {
    std::string text;
    for (const Finding &finding : findings) {
        if (!text.empty())
            text += ", ";
        text += std::to_string(finding.column) + " " + id_of(finding.check);
        if (finding.is_error())
            text += "!";
    }
    return text;
}

// clang-format off
constexpr Row kStandard[] = {
    {"permit any", ""},
    {"deny 10.0.0.1", ""},
    {"  deny 10.0.0.0,255.255.255.0\t", ""},
    {"no permit 10.0.0.0 255.255.255.0", ""},
    {"permit src-range 10.0.0.7 10.0.0.7", ""},
    {"permit src-range 0.0.0.0 255.255.255.255", ""},
    {"permit 0.0.0.0 0.0.0.0", ""},
    {"", "1 incomplete!"},
    {"permit", "7 incomplete!"},
    {"no", "3 incomplete!"},
    {"permit src-range 10.0.0.1 ", "26 incomplete!"},
    {"allow any", "1 unknown-word!"},
    {"Permit any", "1 unknown-word!"},
    {"per any", "1 unknown-word!"},
    {"permitted any", "1 loose-word!"},
    {"not permit any", "1 loose-word!"},
    {"permit anything", "8 loose-word!"},
    {"permit any log", "12 skipped-word!"},
    {"permit 10.0.0.1 255.0.0.0 log", "27 skipped-word!"},
    {"permit 10.0.0.0/8", "8 address!"},
    {"permit host 10.0.0.1", "8 address!"},
    {"permit 10.1", "8 address!"},
    {"permit 10.0.0.010", "8 address!"},
    {"permit 10.0.0.1 any", "17 address!"},
    {"permit 10.0.0.0 0.0.0.255", "17 wildcard-mask"},
    {"permit 10.0.0.1 0.0.0.0", "17 wildcard-mask"},
    {"permit 0.0.0.0 255.255.255.255", "16 wildcard-mask"},
    {"permit 10.0.0.0 0.255.0.255", "17 wildcard-mask"},
    {"permit 10.0.0.0 255.0.255.0", ""},
    {"no permit 10.0.0.0 0.0.0.255", ""},
    {"permit src-range 10.0.0.1 10.0.0.9", "27 range-order"},
    {"permit src-range 10.0.0.200 10.0.1.1", "29 range-turned!"},
    {"no permit src-range 10.0.0.200 10.0.1.1", "32 range-turned!"},
    {"permit src-range 10.0.0.9 10.0.0.1", "27 range-turned!"},
};

constexpr Row kExtended[] = {
    {"permit ip any any", ""},
    {"permit 50 any any", ""},
    {"deny tcp 10.0.0.0 255.0.0.0 eq 80 any gt 1023 tos 15 precedence 7 cos 7 ttl gt 255", ""},
    {"permit udp any src-portrange 1 2 any dst-portrange 0 65535 totallen lt 65535", ""},
    {"permit tcp interface vlan10 any eq www is-fragment offset-zero donotfragment-notset", ""},
    {"permit 6 any eq 5 any", ""},
    {"no permit tcp any any eq www", ""},
    {"permit ip", "10 incomplete!"},
    {"permit", "7 incomplete!"},
    {"permit ip any", "14 incomplete!"},
    {"permit ip any 10.0.0.0", "23 incomplete!"},
    {"permit tcp any any eq", "22 incomplete!"},
    {"permit ip any any ttl", "22 incomplete!"},
    {"permit ip any any ttl gt", "25 incomplete!"},
    {"permit ipv6 any any", "8 loose-word!"},
    {"permit tcp any any eq wwww", "23 loose-word!"},
    {"permit tcp any any equal 80", "20 loose-word!"},
    {"permit ip any any tosser 3", "19 loose-word!"},
    {"permit ip anyone interfaces vlan1", "11 loose-word!, 18 loose-word!"},
    {"permit 10.0.0.1 any any", "8 number!"},
    {"permit 256 any any", "8 impossible-value"},
    {"permit 65535 any any", "8 impossible-value"},
    {"permit 65542 any any", "8 number!"},
    {"permit tcp any any eq 65616", "23 number!"},
    {"permit tcp any any eq http", "23 number!"},
    {"permit tcp any any eq 80x", "23 number!"},
    {"permit tcp any any eq -1", "23 number!"},
    {"permit tcp any any eq 99999999999999999999", "23 number!"},
    {"permit tcp any any eq ftp-data", "23 ftp-data"},
    {"no permit tcp any any eq ftp-data", "26 ftp-data"},
    {"permit tcp any any eq ftp", ""},
    {"permit tcp any any dst-portrange 9 5", "36 range-turned"},
    {"no permit tcp any any dst-portrange 9 5", ""},
    {"permit tcp any any dst-portrange 5 www", "36 number!"},
    {"permit icmp any eq 80 any", "17 address!"},
    {"permit icmp any any eq 80", "21 skipped-word!"},
    {"permit tcp any any ttl gt 1 eq 80", "29 skipped-word!"},
    {"permit icmp any any 8", "21 skipped-word!"},
    {"permit tcp any any established", "20 skipped-word!"},
    {"permit ip any any log tos 99", "19 skipped-word!, 27 impossible-value"},
    {"permit ip any any time-range night", "19 skipped-word!"},
    {"permit ip any any time-range", "19 skipped-word!"},
    {"permit ip any any ttl neq 1 tos 16", "23 skipped-word!, 33 impossible-value"},
    {"permit ip any any tos 16", "23 impossible-value"},
    {"permit ip any any tos 256", "23 number!"},
    {"permit ip any any precedence 8", "30 impossible-value"},
    {"permit ip any any cos 8", "23 impossible-value"},
    {"permit ip any any cos 65536", "23 number!"},
    {"permit ip any any ttl lt 256", "26 impossible-value"},
    {"permit ip any any totallen eq 65536", "31 number!"},
    {"permit ip any any tos 1 tos 2", "25 option-twice!"},
    {"permit ip any any is-fragment not-fragment", "31 option-twice!"},
    {"permit ip any any is", "19 unknown-word!"},
    {"permit ip interface vlan12345678901 any", ""},
    {"permit ip interface vlan123456789012 any", "21 name"},
    {"permit ip any interface vlan12345678901234567", "25 name!"},
    {"permit ip src-range 10.0.0.0 10.0.0.255 any", "30 range-order"},
    {"permit ip any dst-range 10.0.0.200 10.0.1.1", "36 range-turned"},
    {"permit ip any src-range 10.0.0.1 10.0.0.1", "15 address!"},
    {"permit ip 10.0.0.0 0.0.0.255 10.0.0.0 0.0.0.255", "20 wildcard-mask, 39 wildcard-mask"},
    {"permit ip 010.0.0.1 255.255.255.255 any", "11 address!"},
};
// clang-format on

TEST(Strict, FindsInStandardRulesWhatEachRowSays) {
    for (const auto &[line, found] : kStandard)
        EXPECT_EQ(summary(check_rule(Kind::kStandard, line)), found) << line;
}

TEST(Strict, FindsInExtendedRulesWhatEachRowSays) {
    for (const auto &[line, found] : kExtended)
        EXPECT_EQ(summary(check_rule(Kind::kExtended, line)), found) << line;
}

std::string text_of(Kind kind, const char *line) {
    const Findings findings = check_rule(kind, line);
    return findings.empty() ? "" : findings[0].text;
}

TEST(Strict, SaysWhatWouldBeRight) {
    const Kind extended = Kind::kExtended;
    EXPECT_TRUE(
        text_of(extended, "permit ip 10.0.0.0 0.0.3.255 any").ends_with(": write 255.255.252.0"));
    EXPECT_EQ(text_of(extended, "permit ip 10.0.0.0/20 any"),
              "prefix lengths are not known: write 10.0.0.0 255.255.240.0");
    EXPECT_EQ(text_of(extended, "permit ip 010.0.0.1 255.255.255.255 any"),
              "010.0.0.1 is read as the address 8.0.0.1: write 8.0.0.1");
    EXPECT_EQ(text_of(extended, "permit tcp any any eq ftp-data"),
              "ftp-data is read as port 21: write 21, or 20 for ftp-data");
    EXPECT_EQ(text_of(extended, "permit tcp any any eq 65616"),
              "65616 would be cut to 80: write 0 to 65535");
    EXPECT_EQ(text_of(extended, "permit ip any any ttl neq 1"),
              "ttl neq is skipped by the service: write eq, gt or lt");
    EXPECT_TRUE(text_of(extended, "permit ip src-range 10.0.0.0 10.0.0.255 any")
                    .ends_with(": write 10.0.0.0 255.255.255.0"));
    EXPECT_TRUE(text_of(extended, "permit ip src-range 10.0.0.1 10.0.0.9 any")
                    .ends_with(": write addresses and masks"));
    EXPECT_EQ(text_of(extended, "permit tcp any src-portrange 9 5 any"),
              "this range holds no port: write 5 9");
    EXPECT_EQ(text_of(Kind::kStandard, "permitted any"),
              "permitted is read as permit: write permit");
}

TEST(Strict, OnlyWhatTheServiceRefusesIsHopeless) {
    const Findings turned = check_rule(Kind::kStandard, "permit src-range 10.0.0.9 10.0.0.1");
    EXPECT_TRUE(is_held(turned, Strictness::kForced));
    const Findings lost = check_rule(Kind::kStandard, "permit any log");
    EXPECT_FALSE(is_held(lost, Strictness::kForced));
    EXPECT_TRUE(is_held(lost, Strictness::kFile));
    const Findings doubtful = check_rule(Kind::kStandard, "permit 10.0.0.0 0.0.0.255");
    EXPECT_FALSE(is_held(doubtful, Strictness::kFile));
    EXPECT_TRUE(is_held(doubtful, Strictness::kTyped));
    EXPECT_FALSE(is_held({}, Strictness::kTyped));
}

TEST(Strict, ConfigurationLinesAreToldApart) {
    EXPECT_EQ(read_config_line("").what, ConfigLine::kNothing);
    EXPECT_EQ(read_config_line("  # permit any").what, ConfigLine::kNothing);
    EXPECT_EQ(read_config_line("!").what, ConfigLine::kEnd);
    EXPECT_EQ(read_config_line(" permit any").what, ConfigLine::kRule);
    EXPECT_EQ(read_config_line(" no permit any").what, ConfigLine::kRule);
    EXPECT_EQ(read_config_line(" merge-enable").what, ConfigLine::kMergeEnable);
    const ConfigLine header = read_config_line("ip access-list standard web");
    EXPECT_EQ(header.what, ConfigLine::kHeader);
    EXPECT_EQ(header.name, "web");
    EXPECT_EQ(header.kind, Kind::kStandard);
    EXPECT_EQ(read_config_line("no ip access-list extended web").what, ConfigLine::kRemoval);
    for (const char *bad :
         {"ip access-list", "ip access-list other web", "ip access-list standard",
          "ip access-list standard web now", "no ip access-list standard abcdefghijklmnopqrstu"}) {
        const ConfigLine read = read_config_line(bad);
        EXPECT_EQ(read.what, ConfigLine::kBadHeader) << bad;
        EXPECT_EQ(read.findings.size(), 1U) << bad;
    }
}

TEST(Strict, AbbreviationsAreSpelledOut) {
    Walk whole("p u a eq sn a gt sy pr 3 is d 7", Walk::Reading::kAbbreviated);
    read_rule(whole, Kind::kExtended);
    EXPECT_EQ(whole.text_from(0),
              "permit udp any eq snmp any gt syslog precedence 3 is-fragment d 7");
    Walk several("permit i any any", Walk::Reading::kAbbreviated);
    read_rule(several, Kind::kExtended);
    EXPECT_EQ(summary(several.findings()), "8 ambiguous-word!");
}

TEST(Strict, WhatMayFollowComesFromTheSameWalk) {
    const auto expected = [](const char *line) {
        Walk walk(line, Walk::Reading::kAbbreviated);
        read_rule(walk, Kind::kExtended);
        std::string words;
        for (const auto &choice : walk.expected())
            words += choice.word + " ";
        return words + (walk.may_end() ? "<cr>" : "");
    };
    EXPECT_EQ(expected(""), "permit deny no ");
    EXPECT_EQ(expected("no"), "permit deny ");
    EXPECT_EQ(expected("permit ip 10.0.0.0"), "MASK ");
    EXPECT_EQ(expected("permit ip any"), "any dst-range interface ADDRESS ");
    EXPECT_EQ(expected("permit ip any any ttl"), "eq gt lt ");
    EXPECT_EQ(expected("permit tcp any any neq 5"),
              "cos tos precedence donotfragment-set donotfragment-notset is-fragment not-fragment "
              "offset-not-zero offset-zero totallen ttl <cr>");
    EXPECT_EQ(expected("nonsense"), "");
}

// Lines that are made of nothing but what strict reading says may follow.
class Composer {
  public:
    std::string line(Kind kind) {
        std::string text;
        for (;;) {
            Walk walk(text, Walk::Reading::kExact);
            read_rule(walk, kind);
            Choices choices;
            for (const auto &choice : walk.expected())
                if (choice.word != "no" && choice.word != "ftp-data")
                    choices.push_back(choice);
            if (choices.empty() || (walk.may_end() && random_() % 3 == 0))
                return text;
            const Choice &choice = choices[random_() % choices.size()];
            const bool of_ports = walk.took("src-portrange") || walk.took("dst-portrange") ||
                                  (walk.took_value() && last_ == "5");
            last_ = choice.what == Choice::kWord ? choice.word : value(choice.word, of_ports);
            text += (text.empty() ? "" : " ") + last_;
        }
    }

  private:
    static std::string value(const std::string &placeholder, bool of_ports) {
        if (placeholder == "ADDRESS")
            return "10.0.0.0";
        if (placeholder == "MASK")
            return "255.0.0.0";
        if (placeholder == "INTERFACE")
            return "vlan10";
        if (placeholder == "FIRST")
            return of_ports ? "5" : "10.0.0.7";
        if (placeholder == "LAST")
            return of_ports ? "9" : "10.0.0.7";
        return "7";
    }
    std::mt19937 random_{7};
    std::string last_;
};

// The words of a rule, sorted, with port names as numbers: options may be written in another order.
std::string essence(const std::string &rule) {
    std::istringstream in(rule);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        for (const auto &port : acl_words::kPorts)
            if (word == port.word)
                word = std::to_string(port.number);
        words.push_back(word);
    }
    std::sort(words.begin(), words.end());
    std::string text;
    for (const auto &word : words)
        text += word + " ";
    return text;
}

using StrictAndCommands = TwoLists;

TEST_F(StrictAndCommands, WhatMayFollowIsKeptAsItWasTyped) {
    Composer composer;
    int kept = 0;
    for (int i = 0; i < 4000; i++) {
        const Kind kind = i % 8 ? Kind::kExtended : Kind::kStandard;
        const std::string line = composer.line(kind);
        if (!check_rule(kind, line).empty())
            continue; // an option twice
        delete_acl_rule_location(e, nullptr, 0);
        delete_acl_rule_location(s, nullptr, 0);
        fake::reset();
        if (kind == Kind::kExtended)
            extended(line.c_str());
        else
            standard(line.c_str());
        acl_print();
        std::istringstream shown(fake::take_terminal());
        std::string rule;
        while (std::getline(shown, rule) && rule[0] != ' ') {
        }
        const bool host = kind == Kind::kStandard && line.ends_with(" 10.0.0.0");
        ASSERT_EQ(essence(rule), essence(line + (host ? " 255.255.255.255" : "")));
        kept++;
    }
    EXPECT_GT(kept, 2000);
}

} // namespace
