// The walk of packets through a form, compiled once for each vector unit: what is special to a unit
// are Words and count_below. A source that includes this defines one walk_ function.
#pragma once

#include "acl_form.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#ifdef __AVX2__
#include <immintrin.h>
#endif

namespace aclfast {

namespace { // NOLINT: each source that includes this compiles a walk of its own

// The words of a page: which are used (not 0), as bits, and the first of some of them.
#if defined(__AVX512F__)

class Words {
  public:
    explicit Words(const Page &page) : words_(_mm512_load_si512(page.words)) {}
    void operator&=(const Page &page) {
        words_ = _mm512_and_si512(words_, _mm512_load_si512(page.words));
    }
    uint32_t used() const { return _mm512_test_epi64_mask(words_, words_); }
    uint64_t first(uint32_t used) const {
        const __m512i first = _mm512_maskz_compress_epi64(static_cast<__mmask8>(used), words_);
        return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm512_castsi512_si128(first)));
    }

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
    uint64_t first(uint32_t used) const {
        alignas(32) uint64_t words[Page::kWords];
        _mm256_store_si256(reinterpret_cast<__m256i *>(words), low_);
        _mm256_store_si256(reinterpret_cast<__m256i *>(words + 4), high_);
        return words[__builtin_ctz(used)];
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
    uint64_t first(uint32_t used) const { return page_.words[__builtin_ctz(used)]; }

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

inline constexpr uint32_t kNoLevels = 0; // of columns of bytes and half words

// Where a column's tables lie, in variables of its own: they need not be read again for each
// packet.
template <Shape::Kind kind, uint32_t levels>
class Finder {
  public:
    explicit Finder(const Column &column)
        : rows_(column.rows.data()), blocks_(column.blocks.data()) {
        for (uint32_t level = 0; level < levels; level++)
            tree_[level] = column.tree.data() + column.level_start[level];
    }
    const Row &row(uint32_t value) const {
        if constexpr (kind == Shape::kByte)
            return rows_[value];
        if constexpr (kind == Shape::kHalf)
            return rows_[blocks_[value >> 8] + (value & 0xFF)];
        uint32_t at = 0;
        for (uint32_t level = 0; level < levels; level++)
            at = at * Keys::kCount + count_below(tree_[level][at], biased(value));
        return rows_[at];
    }

  private:
    const Row *rows_;
    const uint32_t *blocks_;
    const Keys *tree_[levels + 1];
};

// The walk of one batch of at most `most` packets.
template <size_t most>
class Walker {
  public:
    // cppcheck-suppress uninitMemberVar // rows are found before they are read
    Walker(const acl_fast &form, const Batch &batch)
        : form_(form), batch_(batch), columns_(form.columns.size()),
          references_(form.references.data()), pages_(form.pages.data()) {}

    void walk() {
        if (columns_ == 0)
            __builtin_unreachable(); // such a form is not walked
        for (size_t c = 0; c < columns_; c++)
            find_rows(form_.columns[c], c);
        constexpr std::integral_constant<uint32_t, 1> kOne;
        for (size_t i = 0; i < count(); i++)
            answer(i, form_.page_count == 1 ? only_verdict(of_[i])
                      : form_.group == 1    ? decide(of_[i], kOne)
                                            : decide(of_[i], form_.group));
    }

  private:
    size_t count() const { return most == 1 ? 1 : batch_.count; }
    template <Shape::Kind kind, uint32_t levels = kNoLevels>
    void find_rows(const Column &column, size_t c);
    template <Shape::Kind kind, size_t... I>
    void find_in_tree(const Column &column, size_t c, std::index_sequence<I...>);
    void find_rows(const Column &column, size_t c);
    uint32_t mask(const Row *rows) const;
    template <class F>
    uint32_t first_verdict(const Row *rows, uint32_t page, F &&reference) const;
    uint32_t only_verdict(const Row *rows) const {
        return first_verdict(rows, 0, [](uint32_t page) { return page; });
    }
    uint32_t first_verdict_at(const Row *rows, uint32_t page) const {
        return first_verdict(rows, page, [&](uint32_t row) { return references_[row + page]; });
    }
    template <class Group>
    uint32_t decide(const Row *rows, Group group) const;
    void answer(size_t i, uint32_t verdict) const;

    const acl_fast &form_;
    const Batch &batch_;
    const size_t columns_;
    const uint32_t *const references_;
    const Page *const pages_;
    Row of_[most][kFields]; // the rows of each packet, one of each column
};

template <size_t most>
template <Shape::Kind kind, uint32_t levels>
inline void Walker<most>::find_rows(const Column &column, size_t c) {
    const Finder<kind, levels> finder(column);
    const size_t offset = column.shape.offset;
    const uint8_t *frags = column.shape.absent_in_fragments ? batch_.frags : nullptr;
    for (size_t i = 0; i < count(); i++) {
        const Row &row = frags && frags[i] ? form_.any_row
                                           : finder.row(value_of<kind>(batch_.packets[i], offset));
        of_[i][c] = row;
    }
}

// For each depth of the tree a search of its own, without a loop.
template <size_t most>
template <Shape::Kind kind, size_t... I>
inline void Walker<most>::find_in_tree(const Column &column, size_t c, std::index_sequence<I...>) {
    (void)((column.levels == I + 1 && (find_rows<kind, I + 1>(column, c), true)) || ...);
}

template <size_t most>
inline void Walker<most>::find_rows(const Column &column, size_t c) {
    constexpr auto kDepths = std::make_index_sequence<Column::kMostLevels>();
    switch (column.shape.kind) {
    case Shape::kByte:
        return find_rows<Shape::kByte>(column, c);
    case Shape::kHalf:
        return find_rows<Shape::kHalf>(column, c);
    case Shape::kWord:
        return find_in_tree<Shape::kWord>(column, c, kDepths);
    case Shape::kNumber:
        return find_in_tree<Shape::kNumber>(column, c, kDepths);
    }
}

// The groups of pages that are in use in all of a packet's rows.
template <size_t most>
inline uint32_t Walker<most>::mask(const Row *rows) const {
    uint32_t mask = rows[0].mask;
    for (size_t c = 1; c < columns_; c++)
        mask &= rows[c].mask;
    return mask;
}

// The verdict of the first rule in the intersection of a page of each row.
template <size_t most>
template <class F>
inline uint32_t Walker<most>::first_verdict(const Row *rows, uint32_t page, F &&reference) const {
    Words both(pages_[reference(rows[0].at)]);
    for (size_t c = 1; c < columns_; c++)
        both &= pages_[reference(rows[c].at)];
    const uint32_t used = both.used();
    // Without a branch, for it could not be foreseen: an empty page reads some rule's verdict.
    const uint32_t some = used | 1U << (Page::kWords - 1);
    const auto word = static_cast<uint32_t>(__builtin_ctz(some));
    const auto bit = static_cast<uint32_t>(__builtin_ctzll(both.first(some) | 1ULL << 63));
    const uint32_t verdict = form_.verdicts[page * Page::kRules + word * 64 + bit];
    return verdict | (static_cast<uint32_t>(used != 0) - 1); // kNoVerdict is all ones
}

// `group` is the number of pages in a group, a constant where it is 1.
template <size_t most>
template <class Group>
inline uint32_t Walker<most>::decide(const Row *rows, Group group) const {
    uint32_t best = kNoVerdict;
    uint32_t groups = mask(rows);
    const auto next_page = [&] { return static_cast<uint32_t>(__builtin_ctz(groups)) * group; };
    const auto look = [&] {
        const uint32_t page = next_page();
        groups &= groups - 1;
        best = std::min(best, first_verdict_at(rows, page));
        for (uint32_t n = 1; n < group && page + n < form_.page_count; n++)
            best = std::min(best, first_verdict_at(rows, page + n));
    };
    while (groups && form_.first[next_page()] <= best) {
        look();
        if (groups)
            look(); // whether it is still worth while could not be foreseen half of the time
    }
    return best;
}

template <size_t most>
inline void Walker<most>::answer(size_t i, uint32_t verdict) const {
    constexpr uint32_t kResult = (1U << kResultBits) - 1;
    batch_.answers[i] = verdict == kNoVerdict
                            ? acl_fast_answer{form_.default_result, 0}
                            : acl_fast_answer{verdict & kResult, verdict >> kResultBits};
}

inline void walk(const acl_fast &form, const Batch &batch) {
    if (batch.count == 1)
        Walker<1>(form, batch).walk();
    else
        Walker<kTogether>(form, batch).walk();
}

} // namespace

} // namespace aclfast
