#include "lists.h"

#include "ipaclext.h"
#include "ipaclstd.h"

#include <bit>
#include <cstdio>
#include <cstdlib>

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

ipacl &list_of(const char *name, bool is_standard, uint32_t count) {
    ipacl *list = get_ipacl_byname(name, is_standard);
    if (!list)
        abort();
    for (uint32_t i = list->rule_count; i < count; i++)
        if (is_standard)
            do_standard_end(name, standard_command(i).c_str());
        else
            do_extended_end(name, extended_command(i).c_str());
    return *list;
}
