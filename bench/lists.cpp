#include "lists.h"

#include "ipaclext.h"
#include "ipaclstd.h"

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

// An address of its own in 10.0.0.0/8 for every number below 2^23. Any two differ in more than one
// bit, so that no merger fuses them.
std::string address(uint32_t i) {
    const uint32_t host = (i * 2 + static_cast<uint32_t>(std::popcount(i)) % 2) & 0xFFFFFF;
    char text[16];
    snprintf(text, sizeof text, "10.%u.%u.%u", host >> 16, host >> 8 & 0xFF, host & 0xFF);
    return text;
}

} // namespace

std::string standard_command(uint32_t i) { return "permit " + address(i); }

std::string extended_command(uint32_t i) {
    return "permit tcp " + address(i) + " 255.255.255.255 192.0.2.0 255.255.255.0 eq www";
}

namespace {

ipacl &registered(const char *name, bool is_standard) {
    ipacl *list = get_ipacl_byname(name, is_standard);
    if (!list)
        abort();
    return *list;
}

// Takes the only rule of a list out and puts it in front of another one's.
template <class Rule>
void move_rule(Rule *&from, Rule *&to) {
    from->ipacl_next = to;
    to = std::exchange(from, nullptr);
}

} // namespace

// Each rule is made in a list of its own, so that no command has to look through the others.
ipacl &list_of(const char *name, bool is_standard, uint32_t count) {
    const char *one = is_standard ? "one-s" : "one-e";
    ipacl &list = registered(name, is_standard), &scratch = registered(one, is_standard);
    for (uint32_t i = count; list.rule_count < count; list.rule_count++) {
        i--;
        if (is_standard) {
            do_standard_end(one, standard_command(i).c_str());
            move_rule(scratch.ipacl_s, list.ipacl_s);
        } else {
            do_extended_end(one, extended_command(i).c_str());
            move_rule(scratch.ipacl_e, list.ipacl_e);
        }
    }
    return list;
}
