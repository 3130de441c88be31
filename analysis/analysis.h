// Exact answers about access lists, over every packet that a matcher can be asked about.
//
// A packet here is a packet descriptor and the matcher's `frag` argument. Rules are taken as the
// matcher takes them: masks and range addresses as stored words, every operator that is set, no
// address test for compare flags other than 1 and 2, inactive rules skipped, time ranges and
// interface names not looked at. Every packet that is returned was put to the real matcher first;
// that matcher and this analysis disagreeing is a std::logic_error.
//
// Rules are numbered from 1 by their place in the list, inactive ones included. Lists are only
// read. The decision diagrams behind this are one for the process: one thread at a time. A question
// that would take more than kMaxNodes nodes of them at once, or more than kMaxSeconds, is given up
// with TooComplex; diff then still tells regions that it finds by trying packets, if any.
#pragma once

#include "ipacl.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace analysis {

inline constexpr int kMaxNodes = 8'000'000; // 20 bytes each, and half as much for caches
inline constexpr double kMaxSeconds = 8;    // of processor time

// The nodes made since the process began: what questions cost, whatever machine they run on.
long work();

struct TooComplex : std::runtime_error {
    using runtime_error::runtime_error;
};

struct Packet {
    acl_info info{};
    bool frag = false;
};

// What the matcher says: its result, and the rule that decided (0: none).
struct Verdict {
    uint32_t result;
    size_t rule;
};
Verdict decide(const ipacl &list, const Packet &packet);

// The rules as the running configuration has them, without indentation.
std::vector<std::string> rule_texts(const ipacl &list);

// A result in words: "permit", "deny and log", "no rule matches", ...
std::string result_text(uint32_t result);

// "deny by rule 2", or "no rule matches".
std::string verdict_text(const Verdict &verdict);

// One line, only with what is not usual: "tcp 10.0.0.1:1024 > 192.0.2.9:80 ttl 1 ack".
std::string packet_text(const Packet &packet);

// --- Rules that can never match ---

struct Unreachable {
    enum Reason {
        kInactive, // its status keeps it out
        kEmpty,    // its conditions contradict each other
        kCovered   // earlier rules take every packet of it
    };
    size_t rule;
    Reason reason;
    std::vector<size_t> covering; // ascending; without any one of them the rest does not cover
};
std::vector<Unreachable> unreachable(const ipacl &list);

// --- What changes between two lists, of any kinds ---

// The values of one field that a region takes. Addresses are in host byte order.
struct Values {
    enum Form {
        kRanges, // first and last, by number
        kStored, // first and last of a range as rules have it: ordered by the stored word
        kMasked  // address and compare mask
    };
    struct Piece {
        uint32_t first, second;
    };
    const char *field; // "src", "dst", "sport", "dport", "proto", ...
    bool is_address;
    Form form;
    std::vector<Piece> pieces;
};

// The packets that satisfy every condition; fields without one take any value.
using Region = std::vector<Values>;

// A field's values: "10.0.0.0/24", "80-90", "range 10.0.0.1 10.0.0.9", ...
std::vector<std::string> values_text(const Values &values);
// "src 10.0.0.0/24 proto tcp dport 80-90", or "every packet".
std::string region_text(const Region &region);

struct Change {
    Region region;  // every packet of it changes its verdict
    Packet witness; // one of them that no region before this one has
    Verdict before, after;
};

struct Difference {
    std::vector<Change> changes; // regions may overlap
    bool complete;               // the regions hold every packet that changes
    std::optional<double> share; // of all packets, from 0 to 1; none when that is too complex
};
Difference diff(const ipacl &before, const ipacl &after, size_t max_regions);

// A packet that the lists decide differently, or none: the lists are equal.
std::optional<Packet> first_difference(const ipacl &a, const ipacl &b);

// --- Merging ---

struct Merge {
    size_t rules, merged_rules;
    uint64_t entries, merged_entries; // as a Plan counts them
    std::optional<Packet> witness;    // a packet that the merged copy decides otherwise
    Verdict before, after;            // of the witness
    std::vector<std::string> lines;   // of the merged copy
};
// Runs the merger on a copy. Throws std::bad_alloc when memory is short.
Merge merge(const ipacl &list);

// --- The cost of a hardware table ---

// Entries of value and mask that one rule takes: every combination of the prefixes that its ranges
// of addresses and ports decompose to, of those of its length and TTL comparisons (the length has
// 16 bits there), and of the two flags that "established" asks for. Ranges of addresses have the
// order of stored words, so their "prefixes" run from the last bit of the word on. Entries for
// later fragments are not counted. Rules that are inactive or match nothing take none.
struct RuleCost {
    size_t rule;
    uint64_t entries;
    uint64_t src, dst, sport, dport, other; // the factors
};
struct Plan {
    std::vector<RuleCost> rules; // in list order
    uint64_t entries;            // in total
    size_t merged_rules;
    uint64_t merged_entries;
};
Plan plan(const ipacl &list);

} // namespace analysis
