// Rules and packets as tests make them: by hand, by command, and at random near each other.
#pragma once

#include "fixture.h"

#include "ipaclext.h"
#include "ipaclstd.h"
#include "platform/sys.h"

#include <initializer_list>
#include <random>
#include <string>
#include <vector>

// A service with a standard list "s" and an extended list "e", both ready, and the lock made.
class TwoLists : public ServiceTest {
  protected:
    TwoLists() {
        ipacl_init();
        s = get_ipacl_byname("s", 1);
        e = get_ipacl_byname("e", 0);
    }

    // Add one rule by command and return it.
    ipacl_standard_rule &standard(const char *command) {
        EXPECT_EQ(do_standard_end("s", command), 0) << command;
        return *last(s->ipacl_s);
    }
    ipacl_extended_rule &extended(const char *command) {
        EXPECT_EQ(do_extended_end("e", command), 0) << command;
        return *last(e->ipacl_e);
    }

    template <class Rule>
    static Rule *last(Rule *rule) {
        while (rule && rule->ipacl_next)
            rule = rule->ipacl_next;
        return rule;
    }

    ipacl *s, *e;
};

// Appends a record to a list of its kind, without a test for duplicates.
template <class Rule>
Rule &append(ipacl &list, const Rule &content) {
    auto *rule = static_cast<Rule *>(sys_mem_malloc(sizeof(Rule)));
    *rule = content;
    EXPECT_NE(add_acl_rule_location(&list, rule, 0, 0), 0U);
    return *rule;
}

inline std::string dotted(in_addr address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

// The rules of a list in their one-line form.
inline std::vector<std::string> lines(const ipacl &list) {
    std::vector<std::string> all;
    char line[IPACL_TRACE_RULE_SIZE];
    auto gather = [&](auto *rule) {
        for (; rule; rule = rule->ipacl_next) {
            ipacl_trace_rule_to_buf(line, rule, list.is_standard);
            all.emplace_back(line);
        }
    };
    if (list.is_standard == 1)
        gather(list.ipacl_s);
    else
        gather(list.ipacl_e);
    return all;
}

// What the system log held since the last look, one "PRIORITY TEXT" each, line numbers included.
inline std::vector<std::string> logged() {
    std::vector<std::string> all;
    for (const auto &line : fake::take_log())
        all.push_back(std::to_string(line.priority) + " " + line.text);
    return all;
}

using Lines = std::vector<std::string>;

// Random rules and packets. The same seed gives the same sequence.
class Dice {
  public:
    explicit Dice(uint32_t seed) : engine_(seed) {}

    uint32_t word() { return static_cast<uint32_t>(engine_()); }
    uint32_t below(uint32_t n) { return word() % n; }
    bool one_in(uint32_t n) { return below(n) == 0; }
    template <class T>
    T of(std::initializer_list<T> values) {
        return values.begin()[below(static_cast<uint32_t>(values.size()))];
    }
    uint16_t half() { return static_cast<uint16_t>(word()); }
    uint8_t byte() { return static_cast<uint8_t>(word()); }

    // A value at or next to `value`.
    template <class T>
    T near(T value) {
        return static_cast<T>(value + static_cast<T>(of<int>({-1, 0, 0, 0, 1})));
    }

    // A mask in network byte order: mostly prefixes, sometimes odd, sometimes none or all.
    in_addr mask() {
        switch (below(8)) {
        case 0:
            return {0};
        case 1:
            return {UINT32_MAX};
        case 2:
            return {word() & word()};
        case 3:
            return {word() | word()};
        default:
            return {htonl(~(UINT32_MAX >> below(32)))};
        }
    }

    ipacl_standard_rule standard_rule();
    ipacl_extended_rule extended_rule();

    // Packets near a rule: most satisfy it, or all of it but one condition.
    acl_info packet_near(const ipacl_standard_rule &rule);
    acl_info packet_near(const ipacl_extended_rule &rule);

  private:
    uint32_t address_near(bool by_mask, in_addr addr, in_addr mask, in_addr begin, in_addr end);
    uint16_t port_near(uint16_t bits, uint16_t port, uint16_t begin, uint16_t end);
    void range(in_addr &begin, in_addr &end);
    void mutate(acl_info &packet);

    std::mt19937 engine_;
};
