// Readable parts of a set of packets.
#pragma once

#include "space.h"

#include <functional>

namespace analysis {

// The packets of a scope that belong to the set in question.
using Within = std::function<Set(const Set &scope)>;

// A region around a packet of the set that lies wholly in the set and is as wide as its few words
// allow, and the set of its packets.
std::pair<Region, Set> region_around(const Space &space, const Within &within,
                                     const Packet &packet);

} // namespace analysis
