// One rule command in process, against what no command can do without: splitting the words,
// converting the addresses, allocating the record and one walk over the list.

#include "acl_cursor.h"
#include "acl_kind.h"
#include "lists.h"
#include "service_rows.h"

#include "ipaclext.h"
#include "ipaclstd.h"

#include <chrono>
#include <memory>

namespace {

using acl::ExtendedKind;
using acl::StandardKind;

int command(StandardKind, const char *name, const char *text) {
    return do_standard_end(name, text);
}
int command(ExtendedKind, const char *name, const char *text) {
    return do_extended_end(name, text);
}

bool is_address(std::string_view word) { return word.find('.') != std::string_view::npos; }

template <class Kind>
void bare_command(ipacl &list, const char *text) {
    acl::WordCursor words(text);
    uint32_t sum = 0;
    for (std::string_view word; words.need(word);)
        if (is_address(word))
            sum += acl::read_address(word).s_addr;
    auto *record = acl::new_record(typename Kind::Rule{});
    auto **link = &Kind::head(list);
    for (; *link; link = &(*link)->ipacl_next)
        sum += (*link)->srcaddr.s_addr;
    benchmark::DoNotOptimize(sum);
    *link = record;
    list.rule_count++;
}

// Lists of one size: a command goes into each in turn, and only the commands are timed.
template <class Kind, class F>
void measure(benchmark::State &state, const std::vector<ipacl *> &lists, uint32_t size, F work) {
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        const auto begin = Clock::now();
        for (ipacl *list : lists)
            work(*list);
        const std::chrono::duration<double> took = Clock::now() - begin;
        for (ipacl *list : lists)
            delete_acl_rule_location(list, nullptr, size + 1);
        state.SetIterationTime(took.count());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lists.size()));
}

template <class Kind>
void add(Table &table, const char *kind, uint32_t size, const std::string &text) {
    const bool standard = std::is_same_v<Kind, StandardKind>;
    std::vector<ipacl *> lists;
    for (uint32_t i = 0; i < std::max(1U, 1000 / size); i++)
        lists.push_back(&list_of((kind + std::to_string(size) + "-" + std::to_string(i)).c_str(),
                                 standard, size));
    table.add(
        std::string("rule command: ") + kind + " into " + std::to_string(size), 1.5,
        [=](benchmark::State &state) {
            measure<Kind>(state, lists, size,
                          [&](ipacl &list) { command(Kind{}, list.name, text.c_str()); });
        },
        [=](benchmark::State &state) {
            measure<Kind>(state, lists, size,
                          [&](ipacl &list) { bare_command<Kind>(list, text.c_str()); });
        },
        true);
}

} // namespace

void add_command_rows(Table &table) {
    constexpr uint32_t kNew = 1 << 20; // none of the lists has this rule
    for (const uint32_t size : {10U, 1000U, 10000U}) {
        add<StandardKind>(table, "standard", size, standard_command(kNew));
        add<ExtendedKind>(table, "extended", size, extended_command(kNew));
    }
}
