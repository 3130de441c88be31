// Access lists in the form that most network devices use: wildcard masks, "host", numbered or named
// lists, sequence numbers.
#pragma once

#include "ipacl/ipacl.h"

#include <string>
#include <variant>
#include <vector>

namespace ipaclctl {

using Record = std::variant<ipacl_standard_rule, ipacl_extended_rule>;

struct ForeignRule {
    size_t line = 0;
    std::string text;
    bool remark = false;
    bool denies_by_port = false;
    std::vector<Record> meant;      // what it takes, in our terms; empty: that can't be said
    std::string lost;               // why no rule command says it; "": one does
    std::vector<std::string> notes; // what is not kept although the rule is
};

struct ForeignList {
    std::string name;
    bool standard;
    std::vector<ForeignRule> rules; // by sequence number
};

// Every list of a configuration, in order of appearance; lines that belong to no list are passed
// over and counted.
struct Foreign {
    std::vector<ForeignList> lists;
    size_t others = 0;
};
Foreign read_foreign(const std::string &text);

} // namespace ipaclctl
