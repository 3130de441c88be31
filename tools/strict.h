// Strict reading of rules and configuration lines, by the tables that the service reads them with.
//
// The service takes nearly everything: it skips what it does not know, cuts what does not fit, and
// reads a word by how it begins. Here a line that would not be kept as it was typed has an error,
// and a line that is kept but hardly means what it seems to say has a warning. What the running
// configuration holds after typed rules has warnings at most.
#pragma once

#include "kind.h"
#include "walk.h"

#include <string>

namespace ipaclctl {

// Reads a whole rule command.
void read_rule(Walk &walk, Kind kind);
// Reads what follows "permit" or "deny".
void read_rule_behind_action(Walk &walk, Kind kind, bool negated);

// The ways to begin a rule command.
const Choices &rule_actions();
const Choices &list_kinds();

// What is wrong with a rule command.
Findings check_rule(Kind kind, const std::string &rule);

// What holds a rule back: typed, any finding does; in a file errors do, for the running
// configuration may hold what has warnings; forced, only what the service would refuse.
enum class Strictness { kTyped, kFile, kForced };
bool is_held(const Findings &findings, Strictness strictness);

// A line of a configuration, without what it means for the lines behind it.
struct ConfigLine {
    enum What { kNothing, kEnd, kHeader, kRemoval, kBadHeader, kMergeEnable, kRule };
    What what = kNothing;
    Findings findings; // of kBadHeader and kMergeEnable
    // Of kHeader and kRemoval.
    std::string name;
    Kind kind = Kind::kExtended;
};

ConfigLine read_config_line(const std::string &line);

// Messages that reading a line and playing it have in common.
extern const char *const kNeedsList;
extern const char *const kListNotOpened;

// "" when a list may be called so, else what is wrong.
std::string bad_name(const std::string &name);

} // namespace ipaclctl
