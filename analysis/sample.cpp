#include "sample.h"

#include <algorithm>

namespace analysis {
namespace {

uint32_t below(Random &random, size_t n) { return static_cast<uint32_t>(random() % n); }

// The ends of a span are where rules meet.
uint32_t value_of(const Span &span, Random &random) {
    switch (below(random, 4)) {
    case 0:
        return span.first;
    case 1:
        return span.last;
    default:
        return std::uniform_int_distribution<uint32_t>(span.first, span.last)(random);
    }
}

uint32_t value_of(const Test &test, Random &random) {
    if (test.kind == Test::kMasked)
        return test.address | (static_cast<uint32_t>(random()) & ~test.mask);
    const uint32_t value = value_of(test.spans[below(random, test.spans.size())], random);
    return test.kind == Test::kStored ? stored(value) : value;
}

} // namespace

Packet sample(const Rule &rule, Random &random) {
    Packet packet;
    const bool usual = below(random, 2);
    for (int f = 0; f < kFieldCount; f++) {
        const FieldInfo &field = info(static_cast<Field>(f));
        field.set(packet, usual && !field.usual.empty()
                              ? field.usual[below(random, field.usual.size())]
                              : static_cast<uint32_t>(random()) & field.max());
    }
    for (const Test &test : rule.always)
        info(test.field).set(packet, value_of(test, random));
    const bool whole_can_be =
        std::none_of(rule.whole.begin(), rule.whole.end(), [](const Test &t) { return t.never(); });
    packet.frag = packet.frag || !whole_can_be;
    if (!packet.frag)
        for (const Test &test : rule.whole)
            info(test.field).set(packet, value_of(test, random));
    return packet;
}

} // namespace analysis
