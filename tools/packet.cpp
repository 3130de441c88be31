#include "packet.h"

#include "list_source.h"

#include "analysis/rules.h"
#include "ipacl/acl_words.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <optional>
#include <sstream>
#include <string_view>

namespace ipaclctl {
namespace {

using analysis::Packet;

constexpr const char *kForm = "expected \"PROTOCOL SOURCE[:PORT] > DESTINATION[:PORT] [FIELD...]\"";

struct TcpFlag {
    const char *word;
    uint8_t bit;
};
constexpr TcpFlag kTcpFlags[] = {{"fin", 0x01}, {"syn", 0x02}, {"rst", 0x04},
                                 {"psh", 0x08}, {"ack", 0x10}, {"urg", 0x20}};

// The fields that are said by their name.
constexpr analysis::Field kNamed[] = {
    analysis::kTos,    analysis::kPrecedence,   analysis::kIcmpType,   analysis::kIgmpType,
    analysis::kTtl,    analysis::kDontFragment, analysis::kIsFragment, analysis::kOffset,
    analysis::kLength, analysis::kFrag};

// One word for a later fragment as it really looks.
constexpr const char *kFragment = "fragment";

std::optional<uint32_t> number(std::string_view text, uint32_t max) {
    uint32_t value;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > max)
        return std::nullopt;
    return value;
}

// A row of a table of words and numbers.
template <class Table>
std::optional<uint32_t> named(const Table &table, std::string_view word) {
    for (const auto &row : table)
        if (word == row.word)
            return row.number;
    return std::nullopt;
}

class TextReader {
  public:
    explicit TextReader(const std::string &text) : in_(text) {}

    Packet read() {
        for (const analysis::Field field : kNamed)
            set(field, usual(field));
        read_protocol();
        read_end(packet_.info.src_ip, packet_.info.src_port);
        if (next(kForm) != ">")
            throw Trouble(kForm);
        read_end(packet_.info.dst_ip, packet_.info.dst_port);
        for (std::string word; in_ >> word;)
            read_field(word);
        return packet_;
    }

  private:
    static uint32_t usual(analysis::Field field) {
        const auto &values = analysis::info(field).usual;
        return values.empty() ? 0 : values[0];
    }
    void set(analysis::Field field, uint32_t value) { analysis::info(field).set(packet_, value); }

    std::string next(const std::string &wrong) {
        std::string word;
        if (!(in_ >> word))
            throw Trouble(wrong);
        return word;
    }

    void read_protocol() {
        const std::string word = next(kForm);
        auto found = named(acl_words::kProtocols, word);
        if (!found)
            found = number(word, UINT8_MAX);
        if (!found || *found == IPACL_PROTOCOL_IP)
            throw Trouble("a packet has one protocol, and " + word + " is none");
        packet_.info.proto = static_cast<uint8_t>(*found);
    }

    void read_end(uint32_t &ip, uint16_t &port) {
        const std::string word = next(kForm);
        const size_t colon = word.find(':');
        const std::string address = word.substr(0, colon);
        if (inet_pton(AF_INET, address.c_str(), &ip) != 1)
            throw Trouble(address + " is no address");
        if (colon == std::string::npos)
            return;
        const std::string text = word.substr(colon + 1);
        auto found = named(acl_words::kPorts, text);
        if (!found)
            found = number(text, UINT16_MAX);
        if (!found)
            throw Trouble(text + " is no port");
        port = static_cast<uint16_t>(*found);
    }

    void read_field(const std::string &word) {
        for (const TcpFlag &flag : kTcpFlags)
            if (word == flag.word) {
                packet_.info.tcp_flags |= flag.bit;
                return;
            }
        if (word == kFragment) {
            for (const auto field : {analysis::kIsFragment, analysis::kOffset, analysis::kFrag})
                set(field, 1);
            return;
        }
        for (const analysis::Field field : kNamed)
            if (word == analysis::info(field).name)
                return read_value(field);
        throw Trouble(word + " is no field of a packet; there are" + fields());
    }

    void read_value(analysis::Field field) {
        const analysis::FieldInfo &info = analysis::info(field);
        if (info.bits == 1)
            return set(field, 1);
        const std::string range = std::string(info.name) + " needs a number from 0 to ";
        const auto value = number(next(range + std::to_string(info.max())), info.max());
        if (!value)
            throw Trouble(range + std::to_string(info.max()));
        set(field, *value);
    }

    static std::string fields() {
        std::string all;
        for (const TcpFlag &flag : kTcpFlags)
            all.append(" ").append(flag.word);
        for (const analysis::Field field : kNamed)
            all.append(" ").append(analysis::info(field).name);
        return all.append(" ").append(kFragment);
    }

    std::istringstream in_;
    Packet packet_;
};

// The bytes of a frame from some place on.
using Bytes = std::span<const uint8_t>;

uint16_t word_at(Bytes bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

constexpr uint16_t kIpv4 = 0x0800;

constexpr bool is_vlan_tag(uint16_t type) {
    return type == 0x8100 || type == 0x88A8 || type == 0x9100;
}

struct LinkHeader {
    size_t size;
    size_t type_at; // the place of the two bytes that tell what follows
};

constexpr LinkHeader header_of(Link link) {
    switch (link) {
    case Link::kEthernet:
        return {14, 12};
    case Link::kCooked:
        return {16, 14};
    case Link::kCooked2:
        return {20, 0};
    case Link::kRaw:
        break;
    }
    return {0, 0};
}

Found take_link(Bytes &frame, Link link) {
    const LinkHeader header = header_of(link);
    if (link == Link::kRaw)
        return frame.empty() ? Found::kShort : Found::kPacket;
    if (frame.size() < header.size)
        return Found::kShort;
    uint16_t type = word_at(frame, header.type_at);
    frame = frame.subspan(header.size);
    while (is_vlan_tag(type)) {
        if (frame.size() < 4)
            return Found::kShort;
        type = word_at(frame, 2);
        frame = frame.subspan(4);
    }
    return type == kIpv4 ? Found::kPacket : Found::kOther;
}

// The header fields that lie behind the IPv4 header. False: they are not whole.
bool read_transport(Bytes bytes, acl_info &info) {
    const bool tcp = info.proto == acl_words::kTcp;
    if (acl_words::has_ports(info.proto)) {
        if (bytes.size() < (tcp ? 14U : 4U))
            return false;
        info.src_port = word_at(bytes, 0);
        info.dst_port = word_at(bytes, 2);
        info.tcp_flags = static_cast<uint8_t>(tcp ? bytes[13] & 0x3F : 0);
    } else if (info.proto == acl_words::kIcmp) {
        if (bytes.size() < 2)
            return false;
        info.icmp_type = bytes[0];
        info.icmp_code = bytes[1];
    } else if (info.proto == acl_words::kIgmp) {
        if (bytes.empty())
            return false;
        info.igmp_type = bytes[0];
    }
    return true;
}

Found read_ipv4(Bytes bytes, Packet &packet) {
    constexpr size_t kShortest = 20;
    if (!bytes.empty() && bytes[0] >> 4 != 4)
        return Found::kOther;
    if (bytes.size() < kShortest)
        return Found::kShort;
    const size_t header = 4 * static_cast<size_t>(bytes[0] & 0xF);
    const uint16_t length = word_at(bytes, 2);
    if (header < kShortest || bytes.size() < header || (length != 0 && length < header))
        return Found::kShort;
    packet = Packet{};
    acl_info &info = packet.info;
    info.tos = bytes[1];
    info.totallen = length;
    info.ttl = bytes[8];
    info.proto = bytes[9];
    memcpy(&info.src_ip, &bytes[12], sizeof info.src_ip);
    memcpy(&info.dst_ip, &bytes[16], sizeof info.dst_ip);
    constexpr uint16_t kDontFragment = 0x4000, kMoreFragments = 0x2000, kOffset = 0x1FFF;
    const uint16_t fragment = word_at(bytes, 6);
    if (fragment & kDontFragment)
        info.fragment_flags |= IPACL_DONT_FRAGMENT_SET;
    if (fragment & (kMoreFragments | kOffset))
        info.fragment_flags |= IPACL_IS_FRAGMENT;
    packet.frag = (fragment & kOffset) != 0;
    if (packet.frag) {
        info.offset_flags = IPACL_OFFSET_NOT_ZERO;
        return Found::kPacket;
    }
    // What lies behind the packet is padding. A length of 0 is left to be filled in by the network
    // card that was to cut the packet up.
    if (length != 0 && length < bytes.size())
        bytes = bytes.first(length);
    return read_transport(bytes.subspan(header), info) ? Found::kPacket : Found::kShort;
}

} // namespace

Packet packet_of_text(const std::string &text) { return TextReader(text).read(); }

Packet packet_of_hex(const std::string &digits) {
    std::string plain;
    for (const char c : digits)
        if (!strchr(" \t\n:", c))
            plain.push_back(c);
    std::vector<uint8_t> frame;
    for (size_t at = 0; at < plain.size(); at += 2) {
        uint8_t byte;
        const char *first = plain.data() + at,
                   *last = plain.data() + std::min(at + 2, plain.size());
        const auto [end, error] = std::from_chars(first, last, byte, 16);
        if (error != std::errc() || end != first + 2)
            throw Trouble("a frame is written in pairs of hexadecimal digits, and \"" +
                          std::string(first, last) + "\" is none");
        frame.push_back(byte);
    }
    Packet packet;
    switch (read_frame(frame, Link::kEthernet, packet)) {
    case Found::kOther:
        throw Trouble("the frame carries no IPv4 packet");
    case Found::kShort:
        throw Trouble("the frame ends within its headers");
    case Found::kPacket:
        break;
    }
    return packet;
}

Found read_frame(std::span<const uint8_t> frame, Link link, Packet &packet) {
    const Found found = take_link(frame, link);
    return found == Found::kPacket ? read_ipv4(frame, packet) : found;
}

} // namespace ipaclctl
