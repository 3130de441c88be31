// Asks a compiled form about packets.

#include "acl_form.h"

#include "aclapi.h"

#include <algorithm>

namespace aclfast {

namespace {

// Packets that go through a form together: the searches of one overlap with those of the next.
constexpr size_t kTogether = 32;

struct Batch {
    const acl_info *packets;
    const uint8_t *frags; // null: none is a fragment
    size_t count;

    bool fragment(size_t i) const { return frags && frags[i]; }
};

using Rows = const uint32_t *[kTogether];

[[gnu::always_inline]] inline uint32_t count_below(const Keys &keys, int32_t value) {
    int32_t count = 0;
    for (uint32_t i = 0; i < Keys::kCount; i++)
        count += keys.at[i] < value;
    return static_cast<uint32_t>(count);
}

[[gnu::always_inline]] inline uint32_t find_range(const Column &column, uint32_t value) {
    uint32_t block = 0;
    for (uint32_t level = 0; level < column.levels; level++)
        block = block * Keys::kCount +
                count_below(column.tree[column.level_start[level] + block], biased(value));
    return block;
}

template <Field field>
[[gnu::always_inline]] inline void find_rows(const acl_fast &form, const Column &column,
                                             const Batch &batch, Rows &rows) {
    const uint32_t *const base = form.rows.data();
    for (size_t i = 0; i < batch.count; i++) {
        const bool fragment = batch.fragment(i);
        const uint32_t value = key<field>(batch.packets[i], fragment);
        const uint32_t at = field < kByteFields ? find_range(column, value) : value;
        const bool absent = absent_in_fragments(field) && fragment;
        rows[i] = base + (absent ? form.any_row : column.rows[at]);
    }
}

template <size_t... I>
[[gnu::always_inline]] inline void find_rows(const acl_fast &form, const Column &column,
                                             const Batch &batch, Rows &rows,
                                             std::index_sequence<I...>) {
    ((column.field == I ? find_rows<static_cast<Field>(I)>(form, column, batch, rows) : void()),
     ...);
}

// The first rule of the intersection of a page of each row.
[[gnu::always_inline]] inline uint32_t first_rule(const acl_fast &form, const Rows *rows,
                                                  size_t packet, uint32_t page) {
    const size_t at = form.mask_words + page;
    Page both = form.pages[rows[0][packet][at]];
    for (size_t c = 1; c < form.columns.size(); c++) {
        const Page &other = form.pages[rows[c][packet][at]];
        for (uint32_t w = 0; w < Page::kWords; w++)
            both.words[w] &= other.words[w];
    }
    uint32_t used = 0;
    for (uint32_t w = 0; w < Page::kWords; w++)
        used |= static_cast<uint32_t>(both.words[w] != 0) << w;
    if (used == 0)
        return UINT32_MAX;
    const auto word = static_cast<uint32_t>(__builtin_ctz(used));
    return page * Page::kRules + word * 64 +
           static_cast<uint32_t>(__builtin_ctzll(both.words[word]));
}

[[gnu::always_inline]] inline acl_fast_answer decide(const acl_fast &form, const Rows *rows,
                                                     size_t packet) {
    Decision best;
    for (uint32_t m = 0; m < form.mask_words; m++) {
        uint32_t mask = UINT32_MAX;
        for (size_t c = 0; c < form.columns.size(); c++)
            mask &= rows[c][packet][m];
        for (; mask; mask &= mask - 1) {
            const uint32_t page = m * 32 + static_cast<uint32_t>(__builtin_ctz(mask));
            if (form.first[page] > best.position)
                break;
            const uint32_t rule = first_rule(form, rows, packet, page);
            if (rule != UINT32_MAX && form.decisions[rule].position < best.position)
                best = form.decisions[rule];
        }
    }
    if (best.position == UINT32_MAX)
        return {form.default_result, 0};
    return {best.result, best.position};
}

[[gnu::always_inline]] inline void check(const acl_fast &form, const Batch &batch,
                                         acl_fast_answer *answers) {
    Rows rows[kFields];
    for (size_t c = 0; c < form.columns.size(); c++)
        find_rows(form, form.columns[c], batch, rows[c], std::make_index_sequence<kFields>());
    for (size_t i = 0; i < batch.count; i++)
        answers[i] = decide(form, rows, i);
}

#ifdef __x86_64__
[[gnu::target("avx2,bmi")]] void check_avx2(const acl_fast &form, const Batch &batch,
                                            acl_fast_answer *answers) {
    check(form, batch, answers);
}
#endif

void check_batch(const acl_fast &form, const Batch &batch, acl_fast_answer *answers) {
#ifdef __x86_64__
    static const bool has_avx2 = __builtin_cpu_supports("avx2");
    if (has_avx2)
        return check_avx2(form, batch, answers);
#endif
    check(form, batch, answers);
}

} // namespace

} // namespace aclfast

void acl_fast_check_many(const acl_fast *form, const acl_info *packets, const uint8_t *frags,
                         size_t count, acl_fast_answer *answers) {
    using namespace aclfast;
    if (!form || form->columns.empty()) {
        std::fill_n(
            answers, count,
            acl_fast_answer{form ? form->default_result : uint32_t{IPACL_CHECK_NO_LIST}, 0});
        return;
    }
    for (size_t done = 0; done < count; done += kTogether)
        check_batch(
            *form,
            {packets + done, frags ? frags + done : nullptr, std::min(kTogether, count - done)},
            answers + done);
}

uint32_t acl_fast_check(const acl_fast *form, const acl_info *packet, int frag, uint32_t *rule) {
    const uint8_t fragment = frag != 0;
    acl_fast_answer answer;
    acl_fast_check_many(form, packet, &fragment, 1, &answer);
    if (rule)
        *rule = answer.rule;
    return answer.result;
}
