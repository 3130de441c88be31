// What is made of whole lists: the snapshot, the decomposition of ranges, the merged copy.

#include "acl_kind.h"
#include "lists.h"
#include "service_rows.h"

#include "ipaclstd.h"

#include <arpa/inet.h>
#include <fstream>

namespace {

using Rule = ipacl_standard_rule;

// Copies every record of a list and frees the copies.
template <class R>
void copy_and_free(const R *rules) {
    R *copies = nullptr;
    for (; rules; rules = rules->ipacl_next) {
        R *copy = acl::new_record(*rules);
        copy->ipacl_next = copies;
        copies = copy;
    }
    while (copies)
        sys_mem_free(std::exchange(copies, copies->ipacl_next));
}

void add_snapshot(Table &table) {
    table.add("snapshot of all lists, floor: copying the records", 0,
              repeat(1,
                     [] {
                         ipacl_configure *lists;
                         get_ipacl_config_info(&lists);
                         free_ipacl_config_info(&lists);
                     }),
              repeat(1, [] {
                  for (const ipacl *list : hash_table)
                      for (; list; list = list->next)
                          if (list->is_standard == 1)
                              copy_and_free(list->ipacl_s);
                          else
                              copy_and_free(list->ipacl_e);
              }));
}

std::vector<Rule> ranges() {
    std::vector<Rule> all;
    std::ifstream file(RANGES);
    for (std::string line; std::getline(file, line);) {
        const size_t comma = line.find(',');
        Rule rule{};
        rule.flags = IPACL_FLAG_PERMIT;
        rule.status = IPACL_RULE_ACTIVE;
        rule.compare_flag = IPACL_COMPARE_RANGE;
        rule.src_begin_addr.s_addr = inet_addr(line.substr(0, comma).c_str());
        rule.src_end_addr.s_addr = inet_addr(line.substr(comma + 1).c_str());
        all.push_back(rule);
    }
    return all;
}

void add_decomposition(Table &table) {
    const auto all = ranges();
    std::vector<size_t> blocks; // of each range
    for (const Rule &range : all) {
        ipacl *list = acl_rule_IPrange_decompose(&range, 1);
        blocks.push_back(list->rule_count);
        acl_rule_IPrange_delete(list);
    }
    table.add("decomposition of " + std::to_string(all.size()) + " ranges, floor: the records", 0,
              repeat(1,
                     [=] {
                         for (const Rule &range : all)
                             acl_rule_IPrange_delete(acl_rule_IPrange_decompose(&range, 1));
                     }),
              repeat(1, [=] {
                  for (size_t i = 0; i < all.size(); i++) {
                      auto *list = acl::new_record(ipacl{});
                      for (size_t block = 0; block < blocks[i]; block++) {
                          auto *rule = acl::new_record(all[i]);
                          rule->ipacl_next = std::exchange(list->ipacl_s, rule);
                      }
                      while (list->ipacl_s)
                          sys_mem_free(std::exchange(list->ipacl_s, list->ipacl_s->ipacl_next));
                      sys_mem_free(list);
                  }
              }));
}

// For each rule one walk over those before it.
void bare_pairs(const ipacl &list) {
    uint32_t sum = 0;
    for (const Rule *rule = list.ipacl_s; rule; rule = rule->ipacl_next)
        for (const Rule *other = list.ipacl_s; other != rule; other = other->ipacl_next)
            sum += other->srcaddr.s_addr;
    benchmark::DoNotOptimize(sum);
}

void add_merge(Table &table, const std::string &name, const ipacl &list, bool pairs) {
    table.add(name + (pairs ? ", floor: walking all pairs" : ", floor: the records"), 0,
              repeat(1,
                     [&list] {
                         ipacl *merged = nullptr;
                         acl_rule_merger_create_upper_ipacl(&list, &merged);
                         acl::free_copy(merged);
                     }),
              repeat(1, [&list, pairs] {
                  copy_and_free(list.ipacl_s);
                  if (pairs)
                      bare_pairs(list);
              }));
}

} // namespace

void add_list_rows(Table &table) {
    add_snapshot(table);
    add_decomposition(table);
    constexpr uint32_t kRules = 1000;
    list_of("adjacent", true, 0);
    for (uint32_t i = 0; i < kRules; i++) {
        const in_addr address{htonl(0x0A000000 + i)};
        do_standard_end("adjacent", (std::string("permit ") + inet_ntoa(address)).c_str());
    }
    add_merge(table, "merge 1000 adjacent blocks", list_of("adjacent", true, kRules), false);
    add_merge(table, "merge 1000 that don't", list_of("apart", true, kRules), true);
}
