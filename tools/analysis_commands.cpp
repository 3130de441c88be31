#include "analysis_commands.h"

#include "list_source.h"
#include "progress.h"

#include "analysis/analysis.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <arpa/inet.h>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

namespace ipaclctl {
namespace {

using analysis::Packet;
using analysis::Verdict;

constexpr int kFound = 1;
constexpr int kNoAnswer = 2;

// --- JSON ---

using Json = std::unique_ptr<cJSON, void (*)(cJSON *)>;

Json object() { return {cJSON_CreateObject(), cJSON_Delete}; }

cJSON *add_object(cJSON *to, const char *key) { return cJSON_AddObjectToObject(to, key); }
cJSON *add_array(cJSON *to, const char *key) { return cJSON_AddArrayToObject(to, key); }

cJSON *append_object(cJSON *array) {
    cJSON *item = cJSON_CreateObject();
    cJSON_AddItemToArray(array, item);
    return item;
}

void add(cJSON *to, const char *key, const std::string &text) {
    cJSON_AddStringToObject(to, key, text.c_str());
}
void add_number(cJSON *to, const char *key, double number) {
    cJSON_AddNumberToObject(to, key, number);
}
void add_count(cJSON *to, const char *key, uint64_t count) {
    add_number(to, key, static_cast<double>(count));
}
void add_bool(cJSON *to, const char *key, bool value) { cJSON_AddBoolToObject(to, key, value); }

void print(const Json &json) {
    const std::unique_ptr<char, void (*)(void *)> text(cJSON_Print(json.get()), cJSON_free);
    std::cout << text.get() << '\n';
}

// --- A list and its words ---

struct Named {
    std::string name;
    const ipacl *list;
    std::vector<std::string> rules;

    std::string rule(size_t number) const { return rules.at(number - 1); }
};

void add_rule(cJSON *to, const Named &list, size_t number) {
    add_count(to, "rule", number);
    add(to, "text", list.rule(number));
}

void add_verdict(cJSON *to, const char *key, const Named &list, const Verdict &verdict) {
    cJSON *item = add_object(to, key);
    add(item, "result", analysis::result_text(verdict.result));
    if (verdict.rule)
        add_rule(item, list, verdict.rule);
}

void add_packet(cJSON *to, const Packet &packet) {
    const acl_info &info = packet.info;
    add(to, "witness", analysis::packet_text(packet));
    cJSON *item = add_object(to, "packet");
    const auto address = [](uint32_t ip) {
        in_addr in{ip};
        char text[INET_ADDRSTRLEN];
        return std::string(inet_ntop(AF_INET, &in, text, sizeof text));
    };
    add(item, "src", address(info.src_ip));
    add(item, "dst", address(info.dst_ip));
    const std::pair<const char *, uint32_t> numbers[] = {{"sport", info.src_port},
                                                         {"dport", info.dst_port},
                                                         {"proto", info.proto},
                                                         {"tos", info.tos},
                                                         {"tcp-flags", info.tcp_flags},
                                                         {"icmp-type", info.icmp_type},
                                                         {"igmp-type", info.igmp_type},
                                                         {"ttl", info.ttl},
                                                         {"fragment", info.fragment_flags},
                                                         {"offset", info.offset_flags},
                                                         {"length", info.totallen}};
    for (const auto &[key, number] : numbers)
        add_count(item, key, number);
    add_bool(item, "later-fragment", packet.frag);
}

// "1 takes 7", "2 take 9".
std::string taking(const std::string &rules, size_t count, uint64_t entries) {
    std::string text = rules;
    return text.append(count == 1 ? " takes " : " take ").append(std::to_string(entries));
}

// --- The commands ---

int unreachable(const Named &list, bool json) {
    const auto found = analysis::unreachable(*list.list);
    constexpr const char *kReasons[] = {"inactive", "contradictory", "covered"};
    if (json) {
        const Json out = object();
        add(out.get(), "list", list.name);
        add_count(out.get(), "rules", list.rules.size());
        cJSON *array = add_array(out.get(), "unreachable");
        for (const auto &u : found) {
            cJSON *item = append_object(array);
            add_rule(item, list, u.rule);
            add(item, "reason", kReasons[u.reason]);
            cJSON *covering = add_array(item, "covering");
            for (const size_t rule : u.covering)
                add_rule(append_object(covering), list, rule);
        }
        print(out);
        return found.empty() ? 0 : kFound;
    }
    for (const auto &u : found) {
        std::cout << "rule " << u.rule << " can never match: " << list.rule(u.rule) << '\n';
        if (u.reason == analysis::Unreachable::kInactive)
            std::cout << "    it is inactive\n";
        if (u.reason == analysis::Unreachable::kEmpty)
            std::cout << "    its conditions contradict each other\n";
        for (const size_t rule : u.covering)
            std::cout << "    covered by rule " << rule << ": " << list.rule(rule) << '\n';
    }
    std::cout << list.name << ": " << found.size() << " of " << counted(list.rules.size(), "rule")
              << " can never match\n";
    return found.empty() ? 0 : kFound;
}

void add_region(cJSON *to, const analysis::Region &region) {
    cJSON *item = add_object(to, "region");
    for (const auto &values : region) {
        cJSON *array = add_array(item, values.field);
        for (const std::string &text : analysis::values_text(values))
            cJSON_AddItemToArray(array, cJSON_CreateString(text.c_str()));
    }
}

std::string percent(double share) {
    std::ostringstream text;
    text << std::setprecision(3) << 100 * share << "%";
    return text.str();
}

int diff(const Named &a, const Named &b, size_t limit, bool json) {
    const auto difference = analysis::diff(*a.list, *b.list, limit);
    const bool equal = difference.changes.empty() && difference.complete;
    if (json) {
        const Json out = object();
        add(out.get(), "before", a.name);
        add(out.get(), "after", b.name);
        add_bool(out.get(), "equal", equal);
        add_bool(out.get(), "complete", difference.complete);
        if (difference.share)
            add_number(out.get(), "share", *difference.share);
        cJSON *array = add_array(out.get(), "changes");
        for (const auto &change : difference.changes) {
            cJSON *item = append_object(array);
            add_region(item, change.region);
            add_packet(item, change.witness);
            add_verdict(item, "before", a, change.before);
            add_verdict(item, "after", b, change.after);
        }
        print(out);
        return equal ? 0 : kFound;
    }
    tell_difference(a.name, b.name, difference);
    return equal ? 0 : kFound;
}

int equal(const Named &a, const Named &b, bool json) {
    const auto witness = analysis::first_difference(*a.list, *b.list);
    Verdict before{}, after{};
    if (witness) {
        before = analysis::decide(*a.list, *witness);
        after = analysis::decide(*b.list, *witness);
    }
    if (json) {
        const Json out = object();
        add_bool(out.get(), "equal", !witness);
        if (witness) {
            add_packet(out.get(), *witness);
            add_verdict(out.get(), "before", a, before);
            add_verdict(out.get(), "after", b, after);
        }
        print(out);
    } else if (witness) {
        std::cout << a.name << " and " << b.name << " differ: " << analysis::packet_text(*witness)
                  << ": " << analysis::verdict_text(before) << " of " << a.name << ", "
                  << analysis::verdict_text(after) << " of " << b.name << '\n';
    } else {
        std::cout << a.name << " and " << b.name << " decide every packet alike\n";
    }
    return witness ? kFound : 0;
}

int merge(const Named &list, bool json) {
    const auto merged = analysis::merge(*list.list);
    const Named copy{"merged copy", nullptr, merged.lines};
    if (json) {
        const Json out = object();
        add(out.get(), "list", list.name);
        add_count(out.get(), "rules", merged.rules);
        add_count(out.get(), "merged-rules", merged.merged_rules);
        add_count(out.get(), "entries", merged.entries);
        add_count(out.get(), "merged-entries", merged.merged_entries);
        add_bool(out.get(), "equal", !merged.witness);
        if (merged.witness) {
            add_packet(out.get(), *merged.witness);
            add_verdict(out.get(), "before", list, merged.before);
            add_verdict(out.get(), "after", copy, merged.after);
        }
        cJSON *array = add_array(out.get(), "merged");
        for (const std::string &line : merged.lines)
            cJSON_AddItemToArray(array, cJSON_CreateString(line.c_str()));
        print(out);
        return merged.witness ? kFound : 0;
    }
    for (const std::string &line : merged.lines)
        std::cout << ' ' << line << '\n';
    std::cout << list.name << ": " << counted(merged.rules, "rule") << " and " << merged.entries
              << " table entries become " << merged.merged_rules << " and " << merged.merged_entries
              << '\n';
    if (merged.witness)
        std::cout << "the merged copy decides otherwise: " << analysis::packet_text(*merged.witness)
                  << ": " << analysis::verdict_text(merged.before) << " of the list, "
                  << analysis::verdict_text(merged.after) << " of the copy\n";
    else
        std::cout << "proved: the merged copy decides every packet as the list does\n";
    return merged.witness ? kFound : 0;
}

int plan(const Named &list, size_t top, bool json) {
    auto plan = analysis::plan(*list.list);
    std::stable_sort(plan.rules.begin(), plan.rules.end(),
                     [](const auto &a, const auto &b) { return a.entries > b.entries; });
    plan.rules.resize(std::min(plan.rules.size(), top));
    if (json) {
        const Json out = object();
        add(out.get(), "list", list.name);
        add_count(out.get(), "rules", list.rules.size());
        add_count(out.get(), "entries", plan.entries);
        add_count(out.get(), "merged-rules", plan.merged_rules);
        add_count(out.get(), "merged-entries", plan.merged_entries);
        cJSON *array = add_array(out.get(), "dearest");
        for (const auto &cost : plan.rules) {
            cJSON *item = append_object(array);
            add_rule(item, list, cost.rule);
            const std::pair<const char *, uint64_t> numbers[] = {
                {"entries", cost.entries}, {"src", cost.src},     {"dst", cost.dst},
                {"sport", cost.sport},     {"dport", cost.dport}, {"other", cost.other}};
            for (const auto &[key, number] : numbers)
                add_count(item, key, number);
        }
        print(out);
        return 0;
    }
    const size_t rules = list.rules.size(), merged = plan.merged_rules;
    std::cout << list.name << ": " << taking(counted(rules, "rule"), rules, plan.entries)
              << " table entries; merged, "
              << taking(std::to_string(merged), merged, plan.merged_entries)
              << "\n\n  entries = src x dst x sport x dport x other\n";
    for (const auto &cost : plan.rules)
        std::cout << std::setw(9) << cost.entries << " = " << cost.src << " x " << cost.dst << " x "
                  << cost.sport << " x " << cost.dport << " x " << cost.other << "  rule "
                  << cost.rule << ": " << list.rule(cost.rule) << '\n';
    return 0;
}

// --- The command line ---

struct Arguments {
    std::function<std::string()> running;
    std::string a, b;
    std::string file, against;
    size_t limit = 20;
    size_t top = 10;
    bool json = false;

    Named first() const { return named(file, a, "first"); }
    Named second() const { return named(against.empty() ? file : against, b, "second"); }

  private:
    Named named(const std::string &from, const std::string &name, const char *slot) const {
        const ipacl &list = read_list(configuration_of(from, running), name, slot);
        return {name, &list, analysis::rule_texts(list)};
    }
};

// Runs a command; says why there is no answer.
int answer(const LocalCommand &command) {
    try {
        return command();
    } catch (const Trouble &trouble) {
        std::cerr << "ipaclctl: " << trouble.what() << '\n';
    } catch (const analysis::TooComplex &trouble) {
        std::cerr << "ipaclctl: " << trouble.what() << '\n';
    }
    return kNoAnswer;
}

} // namespace

void tell_difference(const std::string &a, const std::string &b,
                     const analysis::Difference &difference) {
    if (difference.changes.empty() && difference.complete) {
        std::cout << a << " and " << b << " decide every packet alike\n";
        return;
    }
    for (const auto &change : difference.changes)
        std::cout << analysis::region_text(change.region) << "\n    for one, "
                  << analysis::packet_text(change.witness) << ": "
                  << analysis::verdict_text(change.before) << ", then "
                  << analysis::verdict_text(change.after) << '\n';
    if (!difference.complete)
        std::cout << "... and more" << (difference.share ? "; --limit shows them\n" : "\n");
    std::cout << a << " to " << b << ": the verdict of ";
    if (difference.share)
        std::cout << percent(*difference.share) << " of all packets changes\n";
    else
        std::cout << "packets changes; the lists are too complex to find them all\n";
}

void add_analysis_commands(CLI::App &app, std::function<std::string()> running,
                           LocalCommand &chosen) {
    const auto a = std::make_shared<Arguments>();
    a->running = std::move(running);
    const auto add = [&](const char *word, const char *help, const LocalCommand &command) {
        CLI::App *sub = app.add_subcommand(word, help);
        sub->callback([&chosen, command] { chosen = [command] { return answer(command); }; });
        sub->add_option("--file", a->file,
                        "take the lists from this configuration, not from the service");
        sub->add_flag("--json", a->json, "answer as JSON");
        return sub;
    };
    const auto one = [&](CLI::App *sub) {
        sub->add_option("list", a->a, "name of the list")->required();
    };
    const auto two = [&](CLI::App *sub) {
        sub->add_option("before", a->a, "name of the one list")->required();
        sub->add_option("after", a->b, "name of the other list")->required();
        sub->add_option("--against", a->against, "take the other list from this configuration");
    };
    one(add("unreachable", "rules that can never match, and what covers them",
            [a] { return unreachable(a->first(), a->json); }));
    CLI::App *differs = add("diff", "the packets whose verdict changes from one list to another",
                            [a] { return diff(a->first(), a->second(), a->limit, a->json); });
    two(differs);
    differs->add_option("--limit", a->limit, "show at most so many regions")
        ->check(CLI::PositiveNumber);
    two(add("equal", "whether two lists decide every packet alike",
            [a] { return equal(a->first(), a->second(), a->json); }));
    one(add("merge", "what merging a list saves, and whether it changes a verdict",
            [a] { return merge(a->first(), a->json); }));
    CLI::App *planned = add("plan", "what a list costs a hardware table",
                            [a] { return plan(a->first(), a->top, a->json); });
    one(planned);
    planned->add_option("--top", a->top, "show so many of the dearest rules");
}

} // namespace ipaclctl
