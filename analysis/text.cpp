// Verdicts, packets, regions and rules in words.

#include "acl_text.h"
#include "aclapi.h"
#include "rules.h"

#include <arpa/inet.h>
#include <bit>

namespace analysis {
namespace {

std::string address(uint32_t value) {
    const in_addr in{htonl(value)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &in, text, sizeof text);
}

std::string protocol(uint32_t number) {
    const char *word = acl_text::protocol_word(static_cast<uint16_t>(number), false);
    return word ? word : std::to_string(number);
}

// The number of leading ones of a mask that is a prefix.
std::optional<int> prefix_length(uint32_t mask) {
    const int length = std::countl_one(mask);
    return std::popcount(mask) == length ? std::optional(length) : std::nullopt;
}

std::string block(uint32_t value, uint32_t mask) {
    const auto length = prefix_length(mask);
    if (!length)
        return address(value) + " mask " + address(mask);
    return *length == 32 ? address(value) : address(value) + "/" + std::to_string(*length);
}

std::string address_range(uint32_t first, uint32_t last) {
    const uint32_t differing = first ^ last;
    if ((differing & (differing + 1)) == 0 && (first & differing) == 0)
        return block(first, ~differing);
    return address(first) + "-" + address(last);
}

std::string piece_text(const Values &values, const Values::Piece &piece) {
    if (values.form == Values::kMasked)
        return block(piece.first, piece.second);
    if (values.form == Values::kStored) {
        std::string text = "range ";
        return text.append(address(piece.first)).append(" ").append(address(piece.second));
    }
    if (values.is_address)
        return address_range(piece.first, piece.second);
    const bool names = std::string_view(values.field) == info(kProto).name;
    const auto number = [&](uint32_t n) { return names ? protocol(n) : std::to_string(n); };
    if (piece.first == piece.second)
        return number(piece.first);
    return std::to_string(piece.first) + "-" + std::to_string(piece.second);
}

// A rule without indentation and line end.
template <class Record>
std::string rule_text(const Record &rule) {
    acl_text::LineSink line;
    int index = 1;
    acl_text::write_rule(line, acl_text::kRunning, rule, index, 0);
    std::string text(line.line(), line.length());
    const size_t first = text.find_first_not_of(" \n");
    if (first == std::string::npos)
        return "(no action)";
    return text.substr(first, text.find_last_not_of(" \n") - first + 1);
}

template <class Record>
std::vector<std::string> texts(const Record *rule) {
    std::vector<std::string> all;
    for (; rule; rule = rule->ipacl_next)
        all.push_back(rule_text(*rule));
    return all;
}

} // namespace

std::string result_text(uint32_t result) {
    if (result == IPACL_CHECK_NO_RULES)
        return "the list has no rules";
    if (result == IPACL_CHECK_NO_MATCH)
        return "no rule matches";
    std::string text;
    const auto add = [&](uint32_t bit, const char *word) {
        if (result & bit)
            text.append(text.empty() ? "" : " and ").append(word);
    };
    add(IPACL_FLAG_PERMIT, "permit");
    add(IPACL_FLAG_DENY, "deny");
    add(IPACL_FLAG_LOG, "log");
    return text.empty() ? "no action" : text;
}

std::string verdict_text(const Verdict &verdict) {
    std::string text = result_text(verdict.result);
    if (verdict.rule)
        text.append(" by rule ").append(std::to_string(verdict.rule));
    return text;
}

std::string packet_text(const Packet &packet) {
    const acl_info &p = packet.info;
    const bool ports = p.proto == 6 || p.proto == 17;
    std::string text = protocol(p.proto);
    const auto end = [&](uint32_t ip, uint16_t port) {
        text.append(address(ntohl(ip)));
        if (ports)
            text.append(":").append(std::to_string(port));
    };
    const auto option = [&](Field field) {
        const uint32_t value = info(field).get(packet);
        const auto &usual = info(field).usual;
        if (usual.empty() || value != usual[0]) {
            text.append(" ").append(field == kEstablished ? "ack" : info(field).name);
            if (info(field).bits > 1)
                text.append(" ").append(std::to_string(value));
        }
    };
    text.append(" ");
    end(p.src_ip, p.src_port);
    text.append(" > ");
    end(p.dst_ip, p.dst_port);
    for (const Field field : {kTos, kPrecedence, kEstablished, kIcmpType, kIgmpType, kTtl,
                              kDontFragment, kIsFragment, kOffset, kLength, kFrag})
        option(field);
    return text;
}

std::vector<std::string> values_text(const Values &values) {
    std::vector<std::string> texts;
    for (const auto &piece : values.pieces)
        texts.push_back(piece_text(values, piece));
    return texts;
}

std::string region_text(const Region &region) {
    std::string text;
    for (const Values &values : region) {
        text.append(text.empty() ? "" : " ").append(values.field).append(" ");
        bool first = true;
        for (const std::string &piece : values_text(values)) {
            text.append(first ? "" : ", ").append(piece);
            first = false;
        }
    }
    return text.empty() ? "every packet" : text;
}

std::vector<std::string> rule_texts(const ipacl &list) {
    return list.is_standard == 1 ? texts(list.ipacl_s) : texts(list.ipacl_e);
}

} // namespace analysis
