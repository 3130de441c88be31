// Readable parts of a set of packets.
#pragma once

#include "space.h"

namespace analysis {

// A region around a packet of `set` that lies wholly in the set and is as wide as its few words
// allow, and the set of its packets.
std::pair<Region, Set> region_around(const Space &space, const Set &set, const Set &outside,
                                     const Packet &packet);

} // namespace analysis
