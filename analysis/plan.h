// The cost of a list's rules, in list order.
#pragma once

#include "analysis.h"

namespace analysis {

std::vector<RuleCost> costs(const ipacl &list);

} // namespace analysis
