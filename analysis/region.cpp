// A region grows from one packet: field by field, it takes all values with which the other fields'
// values stay in the set. Where these can't be told in a few words, it takes the widest row of
// values around the packet's.

#include "region.h"

#include <iterator>

namespace analysis {
namespace {

constexpr size_t kMaxPieces = 4;

constexpr Field kGrowing[] = {
    kIgmpType,     kIcmpType,    kLength,  kTtl,     kPrecedence, kTos,   kOffset, kIsFragment,
    kDontFragment, kEstablished, kSrcPort, kDstPort, kFrag,       kProto, kSrc,    kDst};
static_assert(std::size(kGrowing) == kFieldCount);

class Grower {
  public:
    Grower(const Space &space, Field field, const Set &values, uint32_t seed)
        : space_(space), field_(field), values_(values), seed_(seed) {}

    // The values in words, fewest first.
    Values words() const {
        std::optional<Values> best;
        const auto offer = [&](Values::Form form,
                               std::optional<std::vector<Values::Piece>> pieces) {
            if (pieces && (!best || pieces->size() < best->pieces.size()))
                best = values(form, std::move(*pieces));
        };
        offer(Values::kRanges, rows(Order::kNumber));
        if (is_address(field_)) {
            offer(Values::kMasked, space_.cubes(values_, field_, kMaxPieces));
            offer(Values::kStored, rows(Order::kStored));
        }
        return best ? *best : widest();
    }

    Set set_of(const Values &values) const {
        Set set;
        for (const auto &piece : values.pieces) {
            if (values.form == Values::kMasked) {
                set = set | space_.of(Test{field_, Test::kMasked, {}, piece.first, piece.second});
                continue;
            }
            const bool by_word = values.form == Values::kStored;
            const auto place = [&](uint32_t v) { return by_word ? stored(v) : v; };
            set = set | space_.between(field_, by_word ? Order::kStored : Order::kNumber,
                                       {place(piece.first), place(piece.second)});
        }
        return set;
    }

  private:
    Values values(Values::Form form, std::vector<Values::Piece> pieces) const {
        return {info(field_).name, is_address(field_), form, std::move(pieces)};
    }

    static uint32_t place(Order order, uint32_t value) {
        return order == Order::kStored ? stored(value) : value;
    }

    // The rows of neighbouring values that make up the set, or none when they are too many.
    std::optional<std::vector<Values::Piece>> rows(Order order) const {
        const uint32_t max = info(field_).max();
        std::vector<Values::Piece> found;
        const Set outside = !values_;
        auto first = space_.at_least(values_, field_, order, 0);
        while (first) {
            if (found.size() == kMaxPieces)
                return std::nullopt;
            const auto end = space_.at_least(outside, field_, order, *first);
            const uint32_t last = end ? *end - 1 : max;
            found.push_back({place(order, *first), place(order, last)});
            first = last == max ? std::nullopt : space_.at_least(values_, field_, order, last + 1);
        }
        return found;
    }

    Span row_around_seed(Order order) const {
        const uint32_t at = place(order, seed_);
        const Set outside = !values_;
        const auto below = space_.at_most(outside, field_, order, at);
        const auto above = space_.at_least(outside, field_, order, at);
        return {below ? *below + 1 : 0, above ? *above - 1 : info(field_).max()};
    }

    Values widest() const {
        const Span row = row_around_seed(Order::kNumber);
        if (is_address(field_)) {
            const Span by_word = row_around_seed(Order::kStored);
            if (by_word.last - by_word.first > row.last - row.first)
                return values(Values::kStored, {{stored(by_word.first), stored(by_word.last)}});
        }
        return values(Values::kRanges, {{row.first, row.last}});
    }

    const Space &space_;
    Field field_;
    const Set &values_;
    uint32_t seed_;
};

} // namespace

std::pair<Region, Set> region_around(const Space &space, const Within &within,
                                     const Packet &packet) {
    std::array<Set, kFieldCount> taken;
    for (const Field field : kGrowing)
        taken[field] = space.equal(field, info(field).get(packet));
    const auto all_but = [&](std::optional<Field> left_out) {
        Set product = space.all();
        for (const Field field : kGrowing)
            if (field != left_out)
                product = product & taken[field];
        return product;
    };
    std::array<std::optional<Values>, kFieldCount> words;
    for (const Field field : kGrowing) {
        const Set scope = all_but(field);
        const Set values = !space.values_in_both(field, scope, !within(scope));
        taken[field] = values;
        if (values.full())
            continue;
        const Grower grower(space, field, values, info(field).get(packet));
        words[field] = grower.words();
        taken[field] = grower.set_of(*words[field]);
    }
    Set product = all_but(std::nullopt);
    if (!(within(product) == product))
        throw std::logic_error("a region reaches beyond its set");
    Region region;
    for (auto &values : words)
        if (values)
            region.push_back(std::move(*values));
    return {std::move(region), std::move(product)};
}

} // namespace analysis
