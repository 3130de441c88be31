// Why a rule does not take a packet: the matcher's own tests, with somebody listening.
#pragma once

#include "ipacl.h"

#include <cstddef>

namespace acl {

// The tests that a rule makes of a packet, in their order.
enum class Test {
    kNone, // every test holds: the rule takes the packet
    kActive,
    kSource,
    kDestination,
    kProtocol,
    kSourcePort,
    kDestinationPort,
    kIcmpType,
    kIgmpType,
    kEstablished,
    kOption
};

struct Failure {
    Test test;
    size_t option; // of kOption: the row of acl_words::kOptions
};

// The first test that fails. `frag`: the packet is a non-first fragment. No lock.
Failure first_failure(const ipacl_standard_rule &rule, const acl_info &info, bool frag);
Failure first_failure(const ipacl_extended_rule &rule, const acl_info &info, bool frag);

} // namespace acl
