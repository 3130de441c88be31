#include "ranges.h"

#include "list_source.h"
#include "strict.h"

#include "ipacl/aclrule.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <charconv>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>

namespace ipaclctl {
namespace {

uint32_t number_of(const std::string &text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        throw Trouble("\"" + text + "\" is no address");
    return ntohl(address.s_addr);
}

std::string text_of(uint32_t number) {
    const in_addr address{htonl(number)};
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

AddressRange prefix(const std::string &address, const std::string &length) {
    int bits;
    const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), bits);
    if (error != std::errc() || end != length.data() + length.size() || bits < 0 || bits > 32)
        throw Trouble("\"/" + length + "\" is no prefix length");
    const uint32_t host = bits == 0 ? UINT32_MAX : (uint32_t{1} << (32 - bits)) - 1;
    const uint32_t first = number_of(address);
    if (first & host)
        throw Trouble(address + " is not the first address of a /" + length);
    return {first, first | host};
}

// Makes one of ranges that overlap or touch.
std::vector<AddressRange> united(std::vector<AddressRange> ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<AddressRange> all;
    for (const AddressRange &range : ranges)
        if (!all.empty() && (all.back().last == UINT32_MAX || range.first <= all.back().last + 1))
            all.back().last = std::max(all.back().last, range.last);
        else
            all.push_back(range);
    return all;
}

using Blocks = std::set<Block>;

// The library's decomposition. It can't take the very last address.
void decompose(const AddressRange &range, Blocks &blocks) {
    ipacl_standard_rule rule{};
    rule.flags = IPACL_FLAG_PERMIT;
    rule.status = IPACL_RULE_ACTIVE;
    rule.compare_flag = IPACL_COMPARE_RANGE;
    rule.src_begin_addr.s_addr = htonl(range.first);
    rule.src_end_addr.s_addr = htonl(range.last);
    const std::unique_ptr<ipacl, void (*)(ipacl *)> list(acl_rule_IPrange_decompose(&rule, 1),
                                                         acl_rule_IPrange_delete);
    if (!list)
        throw std::bad_alloc();
    for (const auto *made = list->ipacl_s; made; made = made->ipacl_next)
        blocks.insert({ntohl(made->srcaddr.s_addr), ntohl(made->srcmsk.s_addr)});
}

// Replaces two blocks that differ in the one bit `bit` by the one that leaves it open, wherever
// there are two. Tells whether there were.
bool fuse(Blocks &blocks, uint32_t bit, bool prefixes_only) {
    bool fused = false;
    for (auto at = blocks.begin(); at != blocks.end();) {
        const Block block = *at++;
        if (!(block.mask & bit) || (block.address & bit))
            continue;
        if (prefixes_only && (block.mask & (bit - 1)))
            continue;
        const auto other = blocks.find({block.address | bit, block.mask});
        if (other == blocks.end())
            continue;
        if (at == other)
            ++at;
        blocks.erase(other);
        blocks.erase(block);
        blocks.insert({block.address, block.mask & ~bit});
        fused = true;
    }
    return fused;
}

void fuse_all(Blocks &blocks, bool prefixes_only) {
    for (bool again = true; again;) {
        again = false;
        for (uint32_t bit = 1; bit != 0; bit <<= 1)
            again = fuse(blocks, bit, prefixes_only) || again;
    }
}

struct Arguments {
    std::string file, name;
    bool deny = false, any_mask = false;
};

std::vector<AddressRange> read_ranges(const Configuration &from) {
    std::vector<AddressRange> ranges;
    std::istringstream in(from.text);
    size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        number++;
        const std::string text = trimmed(line.substr(0, line.find('#')));
        if (text.empty())
            continue;
        try {
            ranges.push_back(range_of_line(text));
        } catch (const Trouble &trouble) {
            throw Trouble(from.source + ":" + std::to_string(number) + ": " + trouble.what());
        }
    }
    return ranges;
}

int ranges(const Arguments &a) {
    if (const std::string wrong = bad_name(a.name); !wrong.empty())
        throw Trouble(wrong);
    const auto given = read_ranges(read_configuration(a.file));
    const auto blocks = blocks_of(given, a.any_mask);
    std::cout << "ip access-list standard " << a.name << '\n';
    for (const Block &block : blocks) {
        std::cout << (a.deny ? " deny " : " permit ");
        if (block.mask == 0)
            std::cout << "any\n";
        else
            std::cout << text_of(block.address) << ' ' << text_of(block.mask) << '\n';
    }
    std::cout << "!\n";
    std::cerr << given.size() << " ranges, " << blocks.size() << " rules\n";
    return 0;
}

} // namespace

AddressRange range_of_line(const std::string &line) {
    if (const size_t slash = line.find('/'); slash != std::string::npos)
        return prefix(trimmed(line.substr(0, slash)), trimmed(line.substr(slash + 1)));
    const size_t comma = line.find(',');
    if (comma == std::string::npos)
        return {number_of(line), number_of(line)};
    const AddressRange range{number_of(trimmed(line.substr(0, comma))),
                             number_of(trimmed(line.substr(comma + 1)))};
    if (range.first > range.last)
        throw Trouble("the range ends before it begins");
    return range;
}

std::vector<Block> blocks_of(std::vector<AddressRange> ranges, bool any_mask) {
    Blocks blocks;
    ranges = united(std::move(ranges));
    for (AddressRange range : ranges) {
        if (range.last == UINT32_MAX) {
            blocks.insert({UINT32_MAX, UINT32_MAX});
            if (range.first == range.last)
                continue;
            range.last--;
        }
        decompose(range, blocks);
    }
    fuse_all(blocks, true);
    if (any_mask)
        fuse_all(blocks, false);
    return {blocks.begin(), blocks.end()};
}

void add_ranges_command(CLI::App &app, LocalCommand &chosen) {
    const auto a = std::make_shared<Arguments>();
    CLI::App *sub =
        app.add_subcommand("ranges", "write a list of addresses and masks for ranges of addresses");
    sub->callback([&chosen, a] { chosen = [a] { return ranges(*a); }; });
    sub->add_option("file", a->file,
                    "lines of FIRST,LAST or ADDRESS/LENGTH or ADDRESS (- is standard input)")
        ->required();
    sub->add_option("--name", a->name, "name of the list")->required();
    sub->add_flag("--deny", a->deny, "rules that deny");
    sub->add_flag("--any-mask", a->any_mask, "fewer rules, with masks that are no prefixes");
}

} // namespace ipaclctl
