// Packets from an operator's words and from frames.
#pragma once

#include "analysis/analysis.h"

#include <cstdint>
#include <span>
#include <string>

namespace ipaclctl {

// Reads "tcp 10.0.0.1:1234 > 192.0.2.9:80 ttl 64 ack", in the words that analysis::packet_text
// writes; what is not said is usual. Throws Trouble.
analysis::Packet packet_of_text(const std::string &text);

// Reads an Ethernet frame in hexadecimal digits; blanks and colons between them don't count. Throws
// Trouble, also when it carries no whole IPv4 header.
analysis::Packet packet_of_hex(const std::string &digits);

// What stands in front of the IPv4 header.
enum class Link {
    kEthernet,
    kCooked,  // Linux cooked capture
    kCooked2, // its second form
    kRaw      // nothing
};

enum class Found {
    kPacket,
    kOther, // not IPv4
    kShort  // its headers are not whole
};

// Reads the header fields of a frame, behind any VLAN tags. Of a later fragment there are those of
// the IPv4 header alone.
Found read_frame(std::span<const uint8_t> frame, Link link, analysis::Packet &packet);

} // namespace ipaclctl
