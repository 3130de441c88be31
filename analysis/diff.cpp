// What changes between two lists.
//
// Rules that both lists have in the same order, with the same result, decide alike what no other
// rule takes. So only packets of the other rules are looked at: that is little after a small
// change, whatever the size of the lists.

#include "region.h"
#include "sample.h"

#include "aclapi.h"

#include <algorithm>
#include <map>
#include <unordered_map>

namespace analysis {
namespace {

constexpr int kTries = 64;

using Rules = std::vector<Rule>;

// A text that two rules share when they take the same packets.
std::string key(const Rule &rule) {
    std::string text;
    const auto number = [&](uint32_t n) {
        text.append(reinterpret_cast<const char *>(&n), sizeof n);
    };
    for (const auto *tests : {&rule.always, &rule.whole}) {
        number(static_cast<uint32_t>(tests->size()));
        for (const Test &test : *tests) {
            number(test.field);
            number(test.kind);
            number(test.address);
            number(test.mask);
            number(static_cast<uint32_t>(test.spans.size()));
            for (const Span &span : test.spans) {
                number(span.first);
                number(span.last);
            }
        }
    }
    return text;
}

// The rules that can decide a packet, as far as that is seen at a glance, and their keys.
struct Live {
    explicit Live(const ipacl &list) {
        for (Rule &rule : rules_of(list)) {
            any = true;
            if (!rule.active || rule.never() || !place.emplace(key(rule), rules.size()).second)
                continue;
            rules.push_back(std::move(rule));
        }
    }
    // The result when no rule matches.
    uint32_t otherwise() const {
        return any ? uint32_t{IPACL_CHECK_NO_MATCH} : uint32_t{IPACL_CHECK_NO_RULES};
    }

    // The packets that a rule takes.
    const Set &set(const Space &space, size_t i) const {
        sets.resize(rules.size());
        if (!sets[i])
            sets[i] = space.of(rules[i]);
        return *sets[i];
    }

    // The places of rules, those that take most packets first.
    const std::vector<size_t> &by_size(const Space &space) const {
        if (!order.empty())
            return order;
        std::vector<double> sizes;
        for (size_t i = 0; i < rules.size(); i++) {
            sizes.push_back(space.share(set(space, i)));
            order.push_back(i);
        }
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t x, size_t y) { return sizes[x] > sizes[y]; });
        return order;
    }

    Rules rules;
    std::unordered_map<std::string, size_t> place;
    bool any = false;
    mutable std::vector<std::optional<Set>> sets;
    mutable std::vector<size_t> order;
};

// Marks the longest row of pairs (their first members ascend) whose second members ascend too.
std::vector<bool> longest_ascent(const std::vector<std::pair<size_t, size_t>> &pairs) {
    std::vector<size_t> tails; // of the best row of each length, the pair that ends it
    std::vector<size_t> before(pairs.size());
    for (size_t i = 0; i < pairs.size(); i++) {
        const auto at = std::lower_bound(
            tails.begin(), tails.end(), pairs[i].second,
            [&](size_t tail, size_t second) { return pairs[tail].second < second; });
        before[i] = at == tails.begin() ? pairs.size() : *(at - 1);
        if (at == tails.end())
            tails.push_back(i);
        else
            *at = i;
    }
    std::vector<bool> chosen(pairs.size());
    for (size_t i = tails.empty() ? pairs.size() : tails.back(); i < pairs.size(); i = before[i])
        chosen[i] = true;
    return chosen;
}

// A rule that the other list does not have in the same order.
struct Suspect {
    bool of_b;
    size_t place; // behind all rules: what no rule matches
};

std::vector<Suspect> not_common(const Live &a, const Live &b) {
    std::vector<std::pair<size_t, size_t>> pairs;
    for (size_t i = 0; i < a.rules.size(); i++) {
        const auto found = b.place.find(key(a.rules[i]));
        if (found != b.place.end() && b.rules[found->second].result == a.rules[i].result)
            pairs.emplace_back(i, found->second);
    }
    std::vector<bool> of_a(a.rules.size()), of_b(b.rules.size());
    const auto chosen = longest_ascent(pairs);
    for (size_t i = 0; i < pairs.size(); i++)
        if (chosen[i])
            of_a[pairs[i].first] = of_b[pairs[i].second] = true;
    std::vector<Suspect> rest;
    for (size_t i = 0; i < of_a.size(); i++)
        if (!of_a[i])
            rest.push_back({false, i});
    for (size_t i = 0; i < of_b.size(); i++)
        if (!of_b[i])
            rest.push_back({true, i});
    if (a.any != b.any) // no match is told apart from no rules
        rest.push_back({b.any, b.any ? of_b.size() : of_a.size()});
    return rest;
}

class Comparison {
  public:
    Comparison(const ipacl &a, const ipacl &b)
        : list_a_(a), list_b_(b), a_(a), b_(b), suspects_(not_common(a_, b_)),
          space_(Space::layout_for(both())) {}

    // A packet that is decided differently, found by trying.
    std::optional<Packet> try_packets() const {
        Random random(1); // NOLINT: the same packets every time
        for (const Suspect &suspect : suspects_)
            for (int n = 0; n < kTries; n++)
                if (const Packet packet = sample(rule_of(suspect), random); differs(packet))
                    return tidied(packet);
        return std::nullopt;
    }

    // All packets that are decided differently.
    Set changed() const { return changed(0, suspects_.size()); }

    // One of them, or none, found without putting all together.
    std::optional<Packet> any_changed() const {
        for (const Suspect &suspect : suspects_)
            if (const Set set = changed_by(suspect); !set.empty())
                return witness(set);
        return std::nullopt;
    }

    Set changed_in(const Set &scope) const {
        if (scope.empty())
            return scope;
        const auto before = decisions(a_, scope);
        auto after = decisions(b_, scope);
        Set changed;
        for (const auto &[result, set] : before)
            changed = changed | (set - after[result]);
        return changed;
    }

    Packet witness(const Set &set) const {
        const Packet packet = space_.pick(set);
        if (!differs(packet))
            throw std::logic_error("the matcher decides a packet alike that should differ");
        return packet;
    }

    // A region around a packet that is decided differently.
    Change change(const Packet &packet, const Within &changed, Set &covered) const {
        auto [region, set] = region_around(space_, changed, packet);
        covered = covered | set;
        return {std::move(region), packet, decide(list_a_, packet), decide(list_b_, packet)};
    }

    // The regions of `changed`, until they are all told or enough.
    bool tell(const Set &changed, size_t enough, std::vector<Change> &changes) const {
        const Within within = [&](const Set &scope) { return changed & scope; };
        Set rest = changed;
        while (!rest.empty() && changes.size() < enough) {
            Set covered;
            changes.push_back(change(witness(rest), within, covered));
            rest = rest - covered;
        }
        return rest.empty();
    }

    // Regions around packets that are found by trying, each looked at by itself.
    void tell_some(size_t enough, std::vector<Change> &changes) const {
        const Within within = [&](const Set &scope) { return changed_in(scope); };
        Set covered;
        Random random(1); // NOLINT: the same packets every time
        for (int n = 0; n < kTries; n++)
            for (const Suspect &suspect : suspects_) {
                if (changes.size() == enough)
                    return;
                const Packet packet = sample(rule_of(suspect), random);
                if (differs(packet) && (space_.only(packet) & covered).empty())
                    changes.push_back(change(packet, within, covered));
            }
    }

    double share(const Set &set) const { return space_.share(set); }

  private:
    Rules both() const {
        Rules rules = a_.rules;
        rules.insert(rules.end(), b_.rules.begin(), b_.rules.end());
        return rules;
    }

    // The same packet with what is usual wherever that makes no difference.
    Packet tidied(Packet packet) const {
        for (int f = 0; f < kFieldCount; f++) {
            const FieldInfo &field = info(static_cast<Field>(f));
            for (size_t i = field.usual.size(); i-- > 0;) {
                Packet usual = packet;
                field.set(usual, field.usual[i]);
                if (differs(usual))
                    packet = usual;
            }
        }
        return packet;
    }

    bool differs(const Packet &packet) const {
        return decide(list_a_, packet).result != decide(list_b_, packet).result;
    }

    const Rule &rule_of(const Suspect &suspect) const {
        static const Rule any;
        const Rules &rules = (suspect.of_b ? b_ : a_).rules;
        return suspect.place < rules.size() ? rules[suspect.place] : any;
    }

    Set changed(size_t first, size_t last) const {
        if (last - first <= 1)
            return first == last ? Set() : changed_by(suspects_[first]);
        const size_t middle = first + (last - first) / 2;
        return changed(first, middle) | changed(middle, last);
    }

    // The packets that the rule decides, and the other list otherwise. There are no others: what a
    // common rule decides in each list, the same one decides, for the first of two stands first in
    // both.
    Set changed_by(const Suspect &suspect) const {
        const Live &own = suspect.of_b ? b_ : a_, &other = suspect.of_b ? a_ : b_;
        const Rule &rule = rule_of(suspect);
        const uint32_t result = suspect.place < own.rules.size() ? rule.result : own.otherwise();
        Set rest = space_.of(rule);
        for (const size_t i : own.by_size(space_)) {
            if (rest.empty())
                return rest;
            if (i < suspect.place && !plainly_disjoint(rule, own.rules[i]))
                rest = rest - own.set(space_, i);
        }
        Set changed;
        for (size_t i = 0; i < other.rules.size() && !rest.empty(); i++) {
            if (plainly_disjoint(rule, other.rules[i]))
                continue;
            if (other.rules[i].result != result)
                changed = changed | (rest & other.set(space_, i));
            rest = rest - other.set(space_, i);
        }
        return other.otherwise() == result ? changed : changed | rest;
    }

    // What a row of rules makes of the packets in scope.
    struct Decided {
        std::map<uint32_t, Set> by_result;
        Set any;
    };

    Decided decided(const Rules &rules, size_t first, size_t last, const Set &scope) const {
        if (first == last)
            return {};
        if (last - first == 1) {
            const Set taken = space_.of(rules[first]) & scope;
            return {{{rules[first].result, taken}}, taken};
        }
        // Halves put together later keep diagrams small far longer than one rule after another.
        const size_t middle = first + (last - first) / 2;
        Decided all = decided(rules, first, middle, scope);
        const Decided second = decided(rules, middle, last, scope);
        for (const auto &[result, set] : second.by_result)
            all.by_result[result] = all.by_result[result] | (set - all.any);
        all.any = all.any | second.any;
        return all;
    }

    // The packets of `scope` by what a list decides.
    std::map<uint32_t, Set> decisions(const Live &list, const Set &scope) const {
        Decided all = decided(list.rules, 0, list.rules.size(), scope);
        all.by_result[list.otherwise()] = scope - all.any;
        return all.by_result;
    }

    const ipacl &list_a_, &list_b_;
    Live a_, b_;
    std::vector<Suspect> suspects_;
    Space space_;
};

} // namespace

std::optional<Packet> first_difference(const ipacl &a, const ipacl &b) {
    const Comparison comparison(a, b);
    if (auto packet = comparison.try_packets())
        return packet;
    return comparison.any_changed();
}

Difference diff(const ipacl &before, const ipacl &after, size_t max_regions) {
    const Comparison comparison(before, after);
    Difference difference{{}, false, std::nullopt};
    allow(kMaxSeconds / 2);
    try {
        const Set changed = comparison.changed();
        difference.share = comparison.share(changed);
        difference.complete = comparison.tell(changed, max_regions, difference.changes);
    } catch (const TooComplex &) {
        difference.changes.clear();
        difference.share.reset();
        allow(kMaxSeconds / 2);
        try {
            comparison.tell_some(max_regions, difference.changes);
        } catch (const TooComplex &) { // those that are told hold all the same
        }
        if (difference.changes.empty())
            throw;
    }
    return difference;
}

} // namespace analysis
