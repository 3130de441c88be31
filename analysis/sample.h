// Random packets that a rule takes: a cheap way to find a witness before the exact way.
#pragma once

#include "rules.h"

#include <random>

namespace analysis {

using Random = std::mt19937;

// `rule` must be able to match.
Packet sample(const Rule &rule, Random &random);

} // namespace analysis
