// The command that makes a list of address/mask rules from ranges and prefixes.
#pragma once

#include "analysis_commands.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ipaclctl {

// Addresses from the first to the last, by number: host byte order.
struct AddressRange {
    uint32_t first, last;
};

// An address and its compare mask, in host byte order.
struct Block {
    uint32_t address, mask;
    auto operator<=>(const Block &) const = default;
};

// Reads a line: "FIRST,LAST", "ADDRESS/LENGTH", or "ADDRESS". Throws Trouble.
AddressRange range_of_line(const std::string &line);

// The fewest blocks that hold just the addresses of the ranges, ascending: prefixes, or with
// `any_mask` also blocks with masks of other forms, which are fewer still but not always the
// fewest.
std::vector<Block> blocks_of(std::vector<AddressRange> ranges, bool any_mask);

// Adds the command; see add_analysis_commands.
void add_ranges_command(CLI::App &app, LocalCommand &chosen);

} // namespace ipaclctl
