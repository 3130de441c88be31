#include "explain.h"

#include "list_source.h"
#include "packet.h"

#include "ipacl/acl_explain.h"
#include "ipacl/acl_kind.h"
#include "ipacl/acl_text.h"
#include "ipacl/acl_words.h"

#include <arpa/inet.h>
#include <iomanip>
#include <iostream>
#include <memory>

namespace ipaclctl {
namespace {

using acl::Test;
using analysis::Packet;

std::string address(uint32_t ip) {
    const in_addr in{ip};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &in, text, sizeof text);
}

// What is tested and what the packet has: "at the protocol: the packet has tcp".
std::string at(const char *test, const std::string &value) {
    return std::string("at the ").append(test).append(": the packet has ").append(value);
}

std::string protocol(uint8_t number) {
    const char *word = acl_text::protocol_word(number, false);
    return word ? word : std::to_string(number);
}

std::string failed_option(const acl_words::Option &option, const acl_info &info) {
    const uint32_t value = option.packet(info);
    if (option.shape == acl_words::Option::kChoice)
        return std::string("at an option: the packet is ")
            .append(value & option.bit ? option.word : option.other);
    return at(option.word, std::to_string(value));
}

std::string failed(const acl::Failure &failure, const acl_info &info) {
    switch (failure.test) {
    case Test::kNone:
        break;
    case Test::kActive:
        return "is inactive";
    case Test::kSource:
        return at("source", address(info.src_ip));
    case Test::kDestination:
        return at("destination", address(info.dst_ip));
    case Test::kProtocol:
        return at("protocol", protocol(info.proto));
    case Test::kSourcePort:
        return at("source port", std::to_string(info.src_port));
    case Test::kDestinationPort:
        return at("destination port", std::to_string(info.dst_port));
    case Test::kIcmpType:
        return at("ICMP type", std::to_string(info.icmp_type));
    case Test::kIgmpType:
        return at("IGMP type", std::to_string(info.igmp_type));
    case Test::kEstablished:
        return at("TCP flags", "neither ack nor rst");
    case Test::kOption:
        return failed_option(acl_words::kOptions[failure.option], info);
    }
    return "";
}

// Tells each rule up to the one that decides.
void tell_rules(const ipacl &list, const Packet &packet) {
    const auto texts = analysis::rule_texts(list);
    acl::with_kind(list, [&]<class Kind>(Kind) {
        size_t number = 0;
        for (const auto *rule = Kind::head(list); rule; rule = rule->ipacl_next) {
            const acl::Failure failure = acl::first_failure(*rule, packet.info, packet.frag);
            std::cout << std::setw(6) << number + 1 << "  " << texts[number] << '\n' << "        ";
            number++;
            if (failure.test == Test::kNone) {
                std::cout << "decides\n";
                break;
            }
            std::cout << (failure.test == Test::kActive ? "" : "fails ")
                      << failed(failure, packet.info) << '\n';
        }
    });
}

struct Arguments {
    std::function<std::string()> running;
    std::string list, packet, file;
    bool hex = false;
};

int explain(const Arguments &a) {
    const Packet packet = a.hex ? packet_of_hex(a.packet) : packet_of_text(a.packet);
    const ipacl &list = read_list(configuration_of(a.file, a.running), a.list, "explained");
    tell_rules(list, packet);
    const analysis::Verdict verdict = analysis::decide(list, packet);
    std::cout << a.list << ": " << analysis::packet_text(packet) << ": "
              << analysis::verdict_text(verdict) << '\n';
    return verdict.rule && (verdict.result & IPACL_FLAG_PERMIT) ? 0 : 1;
}

} // namespace

void add_explain_command(CLI::App &app, std::function<std::string()> running,
                         LocalCommand &chosen) {
    const auto a = std::make_shared<Arguments>();
    a->running = std::move(running);
    CLI::App *sub = app.add_subcommand("explain", "rule by rule, why a list decides as it does");
    sub->callback([&chosen, a] { chosen = [a] { return explain(*a); }; });
    sub->add_option("list", a->list, "name of the list")->required();
    sub->add_option("packet", a->packet, "PROTOCOL SOURCE[:PORT] > DESTINATION[:PORT] [FIELD...]")
        ->required();
    sub->add_flag("--hex", a->hex, "the packet is an Ethernet frame in hexadecimal digits");
    sub->add_option("--file", a->file,
                    "take the list from this configuration, not from the service");
}

} // namespace ipaclctl
