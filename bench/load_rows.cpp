// Loading files of rules. Others are measured in the same rounds where they are installed and the
// machine lets them run.

#include "bus_rows.h"
#include "lists.h"
#include "table.h"

#include "ipacl.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

using Words = std::vector<std::string>;

constexpr const char *kZebra = "/usr/lib/frr/zebra";
constexpr double kPatience = 100; // seconds for one load of somebody else's

std::string write(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
    return path;
}

// A file of `count` lines made by `line`, between two others.
template <class F>
std::string file_of(const Folder &folder, uint32_t count, const std::string &first, F line,
                    const std::string &last) {
    std::string text = first;
    for (uint32_t i = 0; i < count; i++)
        text += line(i) + "\n";
    return write(folder.path + "/rules", text + last);
}

// The address in a rule command of ours.
std::string address_of(uint32_t i) {
    std::istringstream words(standard_command(i));
    std::string address;
    words >> address >> address;
    return address;
}

bool run(const Words &command) { return Process(command).wait() == 0; }

// Text that a command writes.
std::string output_of(const std::string &command) {
    std::string text;
    FILE *pipe = popen(command.c_str(), "r");
    char buffer[4096];
    while (const size_t got = fread(buffer, 1, sizeof buffer, pipe))
        text.append(buffer, got);
    pclose(pipe);
    return text;
}

size_t occurrences(const std::string &text, const std::string &word) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at += word.size())
        count++;
    return count;
}

// Seconds a rule, or why there are none.
struct Outcome {
    double seconds = 0;
    std::string refused;
    bool cut = false; // it took too long: more than `seconds`
};

Outcome failed(const std::string &why) { return {0, why, false}; }

constexpr int kCut = 124; // the status of `timeout` when it had to end its command

// Times one load and sees that all rules have arrived.
template <class F>
Outcome timed(uint32_t count, const Words &command, F arrived) {
    int status = 0;
    const double took = seconds([&] { status = Process(command).wait(); });
    if (status == kCut)
        return {took / count, "", true};
    const size_t rules = arrived();
    if (rules != count)
        return failed(std::to_string(rules) + " of " + std::to_string(count) + " rules arrived");
    return {took / count, "", false};
}

Outcome load_ours(const Programs &programs, uint32_t count) {
    const System system(programs);
    const Folder folder;
    const std::string file =
        file_of(folder, count, "ip access-list extended web\n", extended_command, "!\n");
    return timed(count, {programs.ipaclctl, "load", file}, [&] {
        return occurrences(output_of(programs.ipaclctl + " running-config"), " permit ");
    });
}

std::string rule_of_nftables(uint32_t i) {
    return "add rule ip bench web ip saddr " + address_of(i) +
           " ip daddr 192.0.2.0/24 tcp dport 80 accept";
}

Outcome load_nftables(const Programs &, uint32_t count) {
    if (output_of("nft --version 2>&1").find("nftables") == std::string::npos)
        return failed("nftables is not installed");
    if (!run({"nft", "add table ip bench; add chain ip bench web"}))
        return failed("the kernel takes no nftables rules here");
    const Folder folder;
    const std::string file = file_of(folder, count, "", rule_of_nftables, "");
    const Outcome outcome = timed(count, {"nft", "-f", file}, [] {
        return occurrences(output_of("nft list chain ip bench web"), " accept");
    });
    run({"nft", "delete table ip bench"});
    return outcome;
}

std::string rule_of_frr(uint32_t i) {
    std::string rule = "access-list web seq ";
    rule += std::to_string(i + 1);
    return rule + " permit " + address_of(i) + "/32";
}

Outcome load_frr(const Programs &, uint32_t count) {
    if (access(kZebra, X_OK) != 0)
        return failed("FRRouting is not installed");
    const Folder folder;
    std::filesystem::permissions(folder.path, std::filesystem::perms::all);
    const std::string shell = "timeout 60 vtysh --vty_socket " + folder.path;
    const Process zebra({kZebra, "-u", "frr", "-g", "frr", "--vty_socket", folder.path, "-z",
                         folder.path + "/api", "-i", folder.path + "/pid", "-f", "/dev/null"});
    for (int i = 0; output_of(shell + " -c 'show version' 2>/dev/null").empty(); i++, usleep(50000))
        if (i == 100)
            return failed("zebra does not start");
    const std::string file = file_of(folder, count, "", rule_of_frr, "");
    return timed(count,
                 {"timeout", std::to_string(static_cast<int>(kPatience)), "vtysh", "--vty_socket",
                  folder.path, "-f", file},
                 [&] {
                     return occurrences(output_of(shell + " -c 'show running-config' 2>/dev/null"),
                                        "access-list web seq");
                 });
}

using Load = Outcome (*)(const Programs &, uint32_t);

struct Loader {
    const char *name;
    Load load;
    uint32_t most;     // rules that it is asked for
    double worth_more; // seconds that a load may take for all rounds to be made, else one is
};

constexpr Loader kOurs{"ipaclctl load", load_ours, 50000, 10};
constexpr Loader kOthers[] = {{"nftables", load_nftables, 50000, 10},
                              {"FRRouting", load_frr, 10000, 5}};

// Median of the rounds of one loader, and what stopped it.
struct Rounds {
    void add(const Programs &programs, const Loader &loader, uint32_t count) {
        const bool slow = !times.empty() && times[0] * count > loader.worth_more;
        if (slow || !last.refused.empty())
            return;
        last = loader.load(programs, count);
        if (last.refused.empty())
            times.push_back(last.seconds);
    }
    std::vector<double> times;
    Outcome last;
};

std::string name_of(uint32_t count, const Loader &other, const Rounds &rounds) {
    std::string name = "load " + std::to_string(count) + ", a rule; beside: ";
    name += other.name;
    if (rounds.last.cut)
        name += " (at least)";
    return name;
}

void print_loads(const Programs &programs, uint32_t count) {
    Rounds ours, others[std::size(kOthers)];
    for (int round = 0; round < kRounds; round++) {
        ours.add(programs, kOurs, count);
        for (size_t i = 0; i < std::size(kOthers); i++)
            if (count <= kOthers[i].most)
                others[i].add(programs, kOthers[i], count);
    }
    if (ours.times.empty())
        return print_skipped("load", ours.last.refused);
    for (size_t i = 0; i < std::size(kOthers); i++) {
        const std::string name = name_of(count, kOthers[i], others[i]);
        if (!others[i].times.empty())
            print_row(name, median(ours.times), median(others[i].times), count <= 10000 ? 1 : 0);
        else
            print_skipped(name,
                          count > kOthers[i].most ? "takes too long" : others[i].last.refused);
    }
}

size_t resident(pid_t pid) {
    std::ifstream map("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string word; map >> word;)
        if (word == "Private_Dirty:") {
            size_t kib;
            map >> kib;
            return kib * 1024;
        }
    return 0;
}

template <class F>
void print_memory(const Programs &programs, const std::string &kind, F command, size_t record) {
    constexpr uint32_t kRules = 10000;
    const System system(programs);
    const Folder folder;
    const size_t before = resident(system.daemon());
    run({programs.ipaclctl, "load",
         file_of(folder, kRules, "ip access-list " + kind + " web\n", command, "!\n")});
    const double each = static_cast<double>(resident(system.daemon()) - before) / kRules;
    const auto floor = static_cast<double>(record + sizeof(size_t));
    printf("%-56s %8.0f B %8.0f B %7.3g\n",
           ("resident memory a rule, " + kind + ", floor: record").c_str(), each, floor,
           each / floor);
}

} // namespace

void print_memory_rows(const Programs &programs) {
    print_memory(programs, "standard", standard_command, sizeof(ipacl_standard_rule));
    print_memory(programs, "extended", extended_command, sizeof(ipacl_extended_rule));
}

void print_load_rows(const Programs &programs) {
    for (const uint32_t count : {1000U, 10000U, 50000U})
        print_loads(programs, count);
}
