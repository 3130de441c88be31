// A whole configuration, then everything that reads lists: running configuration, listings, JSON,
// traces and dumps, the snapshot, copies, the merger, decomposition. A text that begins with '#'
// is read with all debug traces on.

#include "lists.h"

namespace {

constexpr size_t kMaxLines = 200; // the merger compares every pair of rules, time and again

void decompose(const ipacl_standard_rule *rule) {
    for (; rule; rule = rule->ipacl_next) {
        ipacl *blocks = acl_rule_IPrange_decompose(rule, 1);
        fuzz::require(blocks && blocks->rule_count <= 62, "a range is at most 62 blocks");
        acl_rule_IPrange_delete(blocks);
    }
}

void copy(const ipacl &list) {
    if (!list.is_standard) {
        ipacl *whole = deepcopy_ipacl_ext_rule(&list);
        fuzz::require(whole, "a list can be copied");
        acl::free_copy(whole);
    }
    auto *clean = acl::new_record(ipacl{});
    fuzz::require(deepcopy_ipacl_clean(&list, clean) == 0, "a list can be cleaned");
    fuzz::require(fuzz::rules_of(*clean) <= fuzz::rules_of(list), "a clean copy invents no rule");
    acl::free_copy(clean);
}

void merge(ipacl &list) {
    int notify;
    for (const int enabled : {1, 1, 0}) {
        list.merge_enable = enabled;
        list.is_change = 1;
        fuzz::require(acl_rule_merger_ctrl(&list, &notify) == IPACL_MERGE_RC_OK,
                      "a list can be merged");
        fuzz::require(list.p_mergeacl && fuzz::rules_of(*list.p_mergeacl) <= fuzz::rules_of(list),
                      "a merged copy has no more rules than its base");
    }
}

void snapshot() {
    ipacl_configure *all;
    const int32_t blocks = get_ipacl_config_info(&all);
    fuzz::require(blocks == free_ipacl_config_info(&all), "a snapshot is freed whole");
}

void read_all() {
    acl_print();
    show_acl(1);
    ipacl_show_json(nullptr, 0);
    ipacl_print_hash_table();
    snapshot();
    acl::for_each_list([](ipacl &list) {
        fuzz::require(list.rule_count == fuzz::rules_of(list), "a list counts its rules");
        fuzz::read_with_every_renderer(list);
        decompose(list.ipacl_s);
        copy(list);
        merge(list);
    });
    ipacl_print_hash_table(); // with the derived copies
    fuzz::require(fake::mutexes().errors == 0 && !fake::mutexes().held, "the lock is given back");
}

} // namespace

void fuzz::play(Input &in) {
    const std::string_view text = in.rest();
    if (static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) > kMaxLines)
        return;
    fuzz::Service::run([&] {
        ipacl_init();
        ipacl_debug_flag = text.starts_with("#") ? 0xFFFF : 0;
        fuzz::Loader(true).load(text);
        read_all();
    });
}
