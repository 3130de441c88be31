// Sets of packets as decision diagrams.
//
// A Space gives every bit of every field a variable. Sets of one Space are not to be mixed with
// those of a Space of another order. All of them share one pool of nodes; when that is full an
// operation throws TooComplex, and everything made so far stays good. The same happens when
// the allowed time has passed.
#pragma once

#include "rules.h"

#include <bdd.h>

#include <array>

namespace analysis {

class Set {
  public:
    Set() : nodes_(bddfalse) {}
    explicit Set(const bdd &nodes);

    bool empty() const { return nodes_ == bddfalse; }
    bool full() const { return nodes_ == bddtrue; }
    bool operator==(const Set &other) const { return nodes_ == other.nodes_; }

    Set operator&(const Set &other) const { return Set(nodes_ & other.nodes_); }
    Set operator|(const Set &other) const { return Set(nodes_ | other.nodes_); }
    Set operator^(const Set &other) const { return Set(nodes_ ^ other.nodes_); }
    Set operator-(const Set &other) const { return Set(nodes_ - other.nodes_); }
    Set operator!() const { return Set(!nodes_); }

    const bdd &nodes() const { return nodes_; }

  private:
    bdd nodes_;
};

// Allows so much time of the processor from now on; a new Space allows kMaxSeconds.
void allow(double seconds);

// How the values of a field are put in a row: by number, or addresses by their stored words.
enum class Order { kNumber, kStored };

// Which variable each bit has: fields from the top of the diagram down, and the octets of each
// address from the first or, as range rules compare them, in the order of stored words.
struct Layout {
    std::array<Field, kFieldCount> fields;
    Order src, dst;

    Order octets(Field field) const { return field == kSrc ? src : dst; }
};

class Space {
  public:
    explicit Space(const Layout &layout);
    // With the layout that suits the rules.
    static Layout layout_for(const std::vector<Rule> &rules);

    Set all() const { return Set(bddtrue); }
    Set equal(Field field, uint32_t value) const;
    Set between(Field field, Order order, Span span) const;
    Set of(const Test &test) const;
    Set of(const Rule &rule) const;

    // The values of `field` that packets in `both` a and b have.
    Set values_in_both(Field field, const Set &a, const Set &b) const;

    // The least value from `from` on, or the greatest up to it, of a set that is not empty.
    std::optional<uint32_t> at_least(const Set &set, Field field, Order order, uint32_t from) const;
    std::optional<uint32_t> at_most(const Set &set, Field field, Order order, uint32_t from) const;

    // At most `limit` disjoint cubes of values and masks that make up the values of a field, or
    // none when there are more. `set` tells about that field only.
    std::optional<std::vector<Values::Piece>> cubes(const Set &set, Field field,
                                                    size_t limit) const;

    // A packet of a set that is not empty, as usual as can be.
    Packet pick(const Set &set) const;
    Set only(const Packet &packet) const;
    // The part of all packets that is in the set, 0 to 1.
    double share(const Set &set) const;

  private:
    int variable(Field field, int bit) const { return first_[field] + place(field, bit); }
    int place(Field field, int bit) const;
    Set literal(Field field, int bit, bool value) const;
    Set bound(Field field, Order order, uint32_t value, bool upper) const;
    std::optional<uint32_t> extreme(Set set, Field field, Order order, bool greatest) const;

    Layout layout_;
    int first_[kFieldCount];
    mutable std::optional<bdd> others_[kFieldCount]; // the variables of all other fields
};

} // namespace analysis
