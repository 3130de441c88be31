// The walk of packets through a form, compiled once for each vector unit: what is special to a unit
// are Words and count_below. A source that includes this defines one walk_ function.
#pragma once

#include "acl_form.h"

#include <cstring>

#ifdef __AVX2__
#include <immintrin.h>
#endif

namespace aclfast {

namespace {

#if defined(__AVX512F__)

class Words {
  public:
    explicit Words(const Page &page) : words_(_mm512_load_si512(page.words)) {}
    void operator&=(const Page &page) {
        words_ = _mm512_and_si512(words_, _mm512_load_si512(page.words));
    }
    uint32_t used() const { return _mm512_test_epi64_mask(words_, words_); }
    void store(Page &page) const { _mm512_store_si512(page.words, words_); }

  private:
    __m512i words_;
};

inline uint32_t count_below(const Keys &keys, int32_t value) {
    const __m512i all = _mm512_load_si512(keys.at);
    return static_cast<uint32_t>(
        __builtin_popcount(_mm512_cmplt_epi32_mask(all, _mm512_set1_epi32(value))));
}

#elif defined(__AVX2__)

class Words {
  public:
    explicit Words(const Page &page) : low_(load(page, 0)), high_(load(page, 4)) {}
    void operator&=(const Page &page) {
        low_ = _mm256_and_si256(low_, load(page, 0));
        high_ = _mm256_and_si256(high_, load(page, 4));
    }
    uint32_t used() const { return used(low_) | used(high_) << 4; }
    void store(Page &page) const {
        _mm256_store_si256(reinterpret_cast<__m256i *>(page.words), low_);
        _mm256_store_si256(reinterpret_cast<__m256i *>(page.words + 4), high_);
    }

  private:
    static __m256i load(const Page &page, int word) {
        return _mm256_load_si256(reinterpret_cast<const __m256i *>(page.words + word));
    }
    static uint32_t used(__m256i words) {
        const __m256i empty = _mm256_cmpeq_epi64(words, _mm256_setzero_si256());
        return static_cast<uint32_t>(_mm256_movemask_pd(_mm256_castsi256_pd(empty))) ^ 0xF;
    }
    __m256i low_, high_;
};

inline uint32_t count_below(const Keys &keys, int32_t value) {
    const auto *half = reinterpret_cast<const __m256i *>(keys.at);
    const __m256i all = _mm256_set1_epi32(value);
    const __m256i below = _mm256_packs_epi32(_mm256_cmpgt_epi32(all, _mm256_load_si256(half)),
                                             _mm256_cmpgt_epi32(all, _mm256_load_si256(half + 1)));
    return static_cast<uint32_t>(
               __builtin_popcount(static_cast<uint32_t>(_mm256_movemask_epi8(below)))) /
           2;
}

#else

class Words {
  public:
    explicit Words(const Page &page) : page_(page) {}
    void operator&=(const Page &page) {
        for (uint32_t w = 0; w < Page::kWords; w++)
            page_.words[w] &= page.words[w];
    }
    uint32_t used() const {
        uint32_t used = 0;
        for (uint32_t w = 0; w < Page::kWords; w++)
            used |= static_cast<uint32_t>(page_.words[w] != 0) << w;
        return used;
    }
    void store(Page &page) const { page = page_; }

  private:
    Page page_;
};

inline uint32_t count_below(const Keys &keys, int32_t value) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < Keys::kCount; i++)
        count += keys.at[i] < value;
    return count;
}

#endif

using Rows = const uint32_t *[kTogether];

template <Shape::Kind kind>
inline uint32_t value_of(const acl_info &packet, size_t offset) {
    const auto *at = reinterpret_cast<const uint8_t *>(&packet) + offset;
    if constexpr (kind == Shape::kByte)
        return *at;
    if constexpr (kind == Shape::kHalf) {
        uint16_t half;
        memcpy(&half, at, sizeof half);
        return half;
    }
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return kind == Shape::kNumber ? in_host_order(word) : word;
}

template <Shape::Kind kind>
inline void find_rows(const acl_fast &form, const Column &column, const Batch &batch, Rows &rows) {
    const uint32_t *const base = form.rows.data(), *const row_of = column.rows.data();
    const Keys *const tree = column.tree.data();
    const size_t offset = column.shape.offset;
    for (size_t i = 0; i < batch.count; i++) {
        const uint32_t value = value_of<kind>(batch.packets[i], offset);
        uint32_t at = kind == Shape::kByte ? value : 0;
        if constexpr (kind != Shape::kByte)
            for (uint32_t level = 0; level < column.levels; level++)
                at = at * Keys::kCount +
                     count_below(tree[column.level_start[level] + at], biased(value));
        rows[i] = base + row_of[at];
    }
    if (column.shape.absent_in_fragments && batch.frags)
        for (size_t i = 0; i < batch.count; i++)
            if (batch.frags[i])
                rows[i] = base + form.any_row;
}

inline void find_rows(const acl_fast &form, const Column &column, const Batch &batch, Rows &rows) {
    switch (column.shape.kind) {
    case Shape::kByte:
        return find_rows<Shape::kByte>(form, column, batch, rows);
    case Shape::kHalf:
        return find_rows<Shape::kHalf>(form, column, batch, rows);
    case Shape::kWord:
        return find_rows<Shape::kWord>(form, column, batch, rows);
    case Shape::kNumber:
        return find_rows<Shape::kNumber>(form, column, batch, rows);
    }
}

// The first rule of the intersection of a page of each row.
inline uint32_t first_rule(const acl_fast &form, const Rows *rows, size_t columns, size_t packet,
                           uint32_t page) {
    const Page *const pages = form.pages.data();
    const size_t at = form.mask_words + page;
    Words both(pages[rows[0][packet][at]]);
    for (size_t c = 1; c < columns; c++)
        both &= pages[rows[c][packet][at]];
    const uint32_t used = both.used();
    if (used == 0)
        return UINT32_MAX;
    Page page_of_both;
    both.store(page_of_both);
    const auto word = static_cast<uint32_t>(__builtin_ctz(used));
    return page * Page::kRules + word * 64 +
           static_cast<uint32_t>(__builtin_ctzll(page_of_both.words[word]));
}

inline acl_fast_answer decide(const acl_fast &form, const Rows *rows, size_t columns,
                              size_t packet) {
    Decision best;
    for (uint32_t m = 0; m < form.mask_words; m++) {
        uint32_t mask = UINT32_MAX;
        for (size_t c = 0; c < columns; c++)
            mask &= rows[c][packet][m];
        for (; mask; mask &= mask - 1) {
            const uint32_t page = m * 32 + static_cast<uint32_t>(__builtin_ctz(mask));
            if (form.first[page] > best.position)
                break;
            const uint32_t rule = first_rule(form, rows, columns, packet, page);
            if (rule != UINT32_MAX && form.decisions[rule].position < best.position)
                best = form.decisions[rule];
        }
    }
    if (best.position == UINT32_MAX)
        return {form.default_result, 0};
    return {best.result, best.position};
}

inline void walk(const acl_fast &form, const Batch &batch) {
    Rows rows[kFields];
    const size_t columns = form.columns.size();
    for (size_t c = 0; c < columns; c++)
        find_rows(form, form.columns[c], batch, rows[c]);
    for (size_t i = 0; i < batch.count; i++)
        batch.answers[i] = decide(form, rows, columns, i);
}

} // namespace

} // namespace aclfast
