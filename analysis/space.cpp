#include "space.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <ctime>
#include <iterator>
#include <new>

namespace analysis {
namespace {

constexpr int kFirstNodes = 1 << 20;
constexpr int kCacheRatio = 8; // nodes for one place of each cache
bool out_of_nodes;
double deadline; // on the processor's clock

double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Asks the clock, which is slow, now and then.
bool late() {
    constexpr unsigned kOperations = 16;
    static unsigned operations;
    return ++operations % kOperations == 0 && processor_seconds() > deadline;
}

// The pool of nodes, made once.
void start_pool(int variables) {
    if (bdd_isrunning())
        return;
    if (bdd_init(kFirstNodes, kFirstNodes / kCacheRatio) < 0)
        throw std::bad_alloc();
    bdd_error_hook([](int) { out_of_nodes = true; });
    bdd_gbc_hook(nullptr);
    bdd_resize_hook(nullptr);
    bdd_setmaxnodenum(kMaxNodes);
    bdd_setmaxincrease(kMaxNodes / 4);
    bdd_setcacheratio(kCacheRatio);
    bdd_setminfreenodes(40);
    bdd_setvarnum(variables);
}

// Bit `significance` of a field in an order, as a bit of its value.
int bit_of(Field field, Order order, int significance) {
    if (order == Order::kNumber || !is_address(field))
        return significance;
    return std::countr_zero(stored(1U << significance)); // its own inverse
}

} // namespace

Set::Set(const bdd &nodes) : nodes_(nodes) {
    if (!out_of_nodes && !late())
        return;
    out_of_nodes = false;
    bdd_clear_error();
    throw TooComplex("these lists are too complex to be analysed exactly");
}

long work() {
    if (!bdd_isrunning())
        return 0;
    bddStat status;
    bdd_stats(&status);
    return status.produced;
}

void allow(double seconds) { deadline = processor_seconds() + seconds; }

Space::Space(const Layout &layout) : layout_(layout) {
    int count = 0;
    for (const Field field : layout_.fields) {
        first_[field] = count;
        count += info(field).bits;
    }
    start_pool(count);
    allow(kMaxSeconds);
}

Layout Space::layout_for(const std::vector<Rule> &rules) {
    int excess[kFieldCount] = {}; // of ranges over masks
    int tested[kFieldCount] = {};
    for (const Rule &rule : rules)
        for (const Test &test : rule.always) {
            tested[test.field]++;
            excess[test.field] += test.kind == Test::kStored ? 1 : -1;
        }
    const auto order = [&](Field side) {
        return excess[side] > 0 ? Order::kStored : Order::kNumber;
    };
    const bool src_first = tested[kSrc] > tested[kDst];
    return {{kFrag, kProto, kIcmpType, kIgmpType, kEstablished, kTos, kPrecedence, kDontFragment,
             kIsFragment, kOffset, src_first ? kSrc : kDst, src_first ? kDst : kSrc, kDstPort,
             kSrcPort, kTtl, kLength},
            order(kSrc),
            order(kDst)};
}

// Where a bit stands among the variables of its field, from the top.
int Space::place(Field field, int bit) const {
    return info(field).bits - 1 - bit_of(field, layout_.octets(field), bit);
}

Set Space::literal(Field field, int bit, bool value) const {
    const int v = variable(field, bit);
    return Set(value ? bdd_ithvar(v) : bdd_nithvar(v));
}

Set Space::equal(Field field, uint32_t value) const {
    Set set = all();
    for (int bit = 0; bit < info(field).bits; bit++)
        set = literal(field, bit, value >> bit & 1) & set;
    return set;
}

// The values up to `value`, or from it on.
Set Space::bound(Field field, Order order, uint32_t value, bool upper) const {
    Set set = all();
    for (int i = 0; i < info(field).bits; i++) {
        const bool one = value >> i & 1;
        const Set beyond = literal(field, bit_of(field, order, i), !upper);
        set = one == upper ? beyond | set : beyond & set;
    }
    return set;
}

Set Space::between(Field field, Order order, Span span) const {
    return bound(field, order, span.first, false) & bound(field, order, span.last, true);
}

Set Space::of(const Test &test) const {
    if (test.kind == Test::kMasked) {
        Set set = all();
        for (int bit = 0; bit < info(test.field).bits; bit++)
            if (test.mask >> bit & 1)
                set = literal(test.field, bit, test.address >> bit & 1) & set;
        return set;
    }
    Set set;
    for (const Span &span : test.spans)
        set = set | between(test.field,
                            test.kind == Test::kStored ? Order::kStored : Order::kNumber, span);
    return set;
}

Set Space::of(const Rule &rule) const {
    const auto conjunction = [&](std::vector<Test> tests) {
        // The lowest variables first: each step then only adds on top.
        std::sort(tests.begin(), tests.end(),
                  [&](const Test &a, const Test &b) { return first_[a.field] > first_[b.field]; });
        Set set = all();
        for (const Test &test : tests)
            set = of(test) & set;
        return set;
    };
    return conjunction(rule.always) & (equal(kFrag, 1) | conjunction(rule.whole));
}

Set Space::values_in_both(Field field, const Set &a, const Set &b) const {
    auto &others = others_[field];
    if (!others) {
        others = bddtrue;
        for (int v = bdd_varnum(); v-- > 0;)
            if (v < first_[field] || v >= first_[field] + info(field).bits)
                *others = bdd_ithvar(v) & *others;
    }
    return Set(bdd_appex(a.nodes(), b.nodes(), bddop_and, *others));
}

std::optional<uint32_t> Space::extreme(Set set, Field field, Order order, bool greatest) const {
    if (set.empty())
        return std::nullopt;
    uint32_t value = 0;
    for (int i = info(field).bits; i-- > 0;) {
        const int bit = bit_of(field, order, i);
        const Set wanted = set & literal(field, bit, greatest);
        const bool one = wanted.empty() != greatest;
        set = wanted.empty() ? set & literal(field, bit, !greatest) : wanted;
        value |= uint32_t{one} << i;
    }
    return value;
}

std::optional<uint32_t> Space::at_least(const Set &set, Field field, Order order,
                                        uint32_t from) const {
    return extreme(set & bound(field, order, from, false), field, order, false);
}

std::optional<uint32_t> Space::at_most(const Set &set, Field field, Order order,
                                       uint32_t from) const {
    return extreme(set & bound(field, order, from, true), field, order, true);
}

std::optional<std::vector<Values::Piece>> Space::cubes(const Set &set, Field field,
                                                       size_t limit) const {
    std::vector<Values::Piece> found;
    // Walks every path of the diagram that ends in the set.
    const auto walk = [&](auto &self, const bdd &node, uint32_t value, uint32_t mask) -> bool {
        if (node == bddfalse)
            return true;
        if (node == bddtrue) {
            found.push_back({value, mask});
            return found.size() <= limit;
        }
        const int row = info(field).bits - 1 - (bdd_var(node) - first_[field]);
        const uint32_t bit = 1U << bit_of(field, layout_.octets(field), row);
        return self(self, bdd_low(node), value, mask | bit) &&
               self(self, bdd_high(node), value | bit, mask | bit);
    };
    if (!walk(walk, set.nodes(), 0, 0))
        return std::nullopt;
    std::sort(found.begin(), found.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    return found;
}

Packet Space::pick(const Set &set) const {
    bdd node = set.nodes();
    // Follows a value of a field down the diagram; what no node asks about is free.
    const auto follow = [&](Field field, auto &&bit_value) {
        bdd at = node;
        uint32_t value = 0;
        for (int row = 0; row < info(field).bits; row++) {
            const uint32_t bit =
                1U << bit_of(field, layout_.octets(field), info(field).bits - 1 - row);
            const bool asked =
                at != bddtrue && at != bddfalse && bdd_var(at) == first_[field] + row;
            const bool one = bit_value(bit, asked ? bdd_low(at) : at);
            value |= one ? bit : 0;
            if (asked)
                at = one ? bdd_high(at) : bdd_low(at);
        }
        return std::pair(value, at);
    };
    Packet packet;
    for (const Field field : layout_.fields) {
        auto best = follow(field, [](uint32_t, const bdd &low) { return low == bddfalse; });
        const auto &usual = info(field).usual;
        for (size_t i = usual.size(); i-- > 0;) {
            const auto way =
                follow(field, [&](uint32_t bit, const bdd &) { return usual[i] & bit; });
            if (way.second != bddfalse)
                best = way;
        }
        info(field).set(packet, best.first);
        node = best.second;
    }
    return packet;
}

Set Space::only(const Packet &packet) const {
    Set set = all();
    for (size_t i = kFieldCount; i-- > 0;)
        set = equal(layout_.fields[i], info(layout_.fields[i]).get(packet)) & set;
    return set;
}

double Space::share(const Set &set) const {
    return bdd_satcount(set.nodes()) / std::exp2(bdd_varnum());
}

} // namespace analysis
