// Rules as conditions on the fields of a packet: what the matcher tests, as data.
#pragma once

#include "analysis.h"

namespace analysis {

enum Field : uint8_t {
    kSrc,
    kDst,
    kSrcPort,
    kDstPort,
    kProto,
    kTos,
    kPrecedence,
    kEstablished, // ACK or RST is set
    kIcmpType,
    kIgmpType,
    kTtl,
    kDontFragment,
    kIsFragment,
    kOffset,
    kLength,
    kFrag, // the matcher's argument
    kFieldCount
};

struct FieldInfo {
    const char *name;
    int bits;
    uint32_t (*get)(const Packet &); // addresses in host byte order
    void (*set)(Packet &, uint32_t);
    std::vector<uint32_t> usual; // values to prefer in a witness, best first

    uint32_t max() const { return UINT32_MAX >> (32 - bits); }
};
const FieldInfo &info(Field field);
constexpr bool is_address(Field field) { return field == kSrc || field == kDst; }

struct Span {
    uint32_t first, last;
    bool operator==(const Span &) const = default;
};

// One condition on one field.
struct Test {
    enum Kind {
        kSpans,  // one of the spans, which are disjoint and ascending
        kMasked, // (value ^ address) & mask is 0, in host byte order
        kStored  // the one span, of stored words
    };
    Field field;
    Kind kind;
    std::vector<Span> spans;
    uint32_t address = 0, mask = 0;

    bool never() const { return kind != kMasked && spans.empty(); }
    bool always() const;
    bool holds(const Packet &packet) const;
    bool operator==(const Test &) const = default;
};

struct Rule {
    size_t number = 0;
    bool active = false;
    uint32_t result = 0;
    std::vector<Test> always;
    std::vector<Test> whole; // tested only when the packet is no later fragment

    bool never() const;
    bool same_packets(const Rule &other) const {
        return always == other.always && whole == other.whole;
    }
};

// True when it is plain that no packet is taken by both rules; false says nothing.
bool plainly_disjoint(const Rule &a, const Rule &b);

std::vector<Rule> rules_of(const ipacl &list);

// The word that the matcher compares, of an address in host byte order, and back.
uint32_t stored(uint32_t address);

} // namespace analysis
