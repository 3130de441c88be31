// Rules that can never match, and the rules that cover them together.
//
// A random packet that the rule decides shows that it is needed; only where none turns up the
// packets of the rule are taken apart exactly.

#include "sample.h"
#include "space.h"

#include <algorithm>

namespace analysis {
namespace {

constexpr int kTries = 32;

class Finder {
  public:
    explicit Finder(const ipacl &list)
        : list_(list), rules_(rules_of(list)), space_(Space::layout_for(rules_)),
          sets_(rules_.size()) {}

    std::vector<Unreachable> run() {
        std::vector<Unreachable> found;
        for (size_t i = 0; i < rules_.size(); i++)
            if (auto reason = look_at(i))
                found.push_back(std::move(*reason));
        return found;
    }

  private:
    struct Part {
        size_t rule = 0; // from 0
        Set set;         // what it takes of the rule that is looked at
        double size = 0;
    };

    std::optional<Unreachable> look_at(size_t i) {
        const Rule &rule = rules_[i];
        if (!rule.active)
            return Unreachable{rule.number, Unreachable::kInactive, {}};
        if (rule.never())
            return Unreachable{rule.number, Unreachable::kEmpty, {}};
        for (int n = 0; n < kTries; n++)
            if (decide(list_, sample(rule, random_)).rule == rule.number)
                return std::nullopt;
        auto covering = cover(i);
        if (covering.empty())
            return std::nullopt;
        return Unreachable{rule.number, Unreachable::kCovered, std::move(covering)};
    }

    const Set &set(size_t i) {
        if (!sets_[i])
            sets_[i] = space_.of(rules_[i]);
        return *sets_[i];
    }

    // The rules before rule i that cover it together; none when it is needed.
    std::vector<size_t> cover(size_t i) {
        std::vector<Part> parts;
        for (size_t j = 0; j < i; j++) {
            if (!rules_[j].active || rules_[j].never() || plainly_disjoint(rules_[i], rules_[j]))
                continue;
            Set part = set(i) & set(j);
            if (part == set(i))
                return {rules_[j].number};
            if (!part.empty())
                parts.push_back({j, part, space_.share(part)});
        }
        // The largest first, for they leave the least to go on with.
        std::stable_sort(parts.begin(), parts.end(),
                         [](const Part &a, const Part &b) { return a.size > b.size; });
        Set rest = set(i);
        for (size_t n = 0; n < parts.size(); n++) {
            rest = rest - parts[n].set;
            if (rest.empty()) {
                parts.resize(n + 1);
                return irredundant(parts, set(i));
            }
        }
        const Packet witness = space_.pick(rest);
        if (decide(list_, witness).rule != rules_[i].number)
            throw std::logic_error("the matcher does not let a rule decide its own packet");
        return {};
    }

    // Leaves parts out, the smallest first, as long as the others cover all.
    static std::vector<size_t> irredundant(const std::vector<Part> &parts, const Set &all) {
        std::vector<Set> larger(parts.size() + 1); // what the parts before each cover
        for (size_t n = 0; n < parts.size(); n++)
            larger[n + 1] = larger[n] | parts[n].set;
        Set kept;
        std::vector<size_t> rules;
        for (size_t n = parts.size(); n-- > 0;) {
            if ((kept | larger[n]) == all)
                continue;
            kept = kept | parts[n].set;
            rules.push_back(parts[n].rule + 1);
        }
        std::sort(rules.begin(), rules.end());
        return rules;
    }

    const ipacl &list_;
    std::vector<Rule> rules_;
    Space space_;
    std::vector<std::optional<Set>> sets_;
    Random random_{1}; // NOLINT: the same packets every time
};

} // namespace

std::vector<Unreachable> unreachable(const ipacl &list) { return Finder(list).run(); }

} // namespace analysis
