// The compiled form.
//
// Rules have numbers of their own, in pages of 512. For each field that some rule tests, a column
// says which rules accept a packet's value: it finds the row of the value, and a row is the bits
// of all rules, kept as one reference for each page. Beside the row stands a mask of the groups of
// pages that are not empty in it. The rules that match a packet are the intersection of one row
// from each column; the masks tell where to look. Rules whose addresses lie close together share
// pages, so few pages are left to intersect; within a page they are in list order, so the first
// bit decides, and pages are in the order of their first rule.
#pragma once

#include "acl_fields.h"
#include "aclfast.h"

#include <memory_resource>
#include <vector>

namespace aclfast {

// Memory of the platform's allocator, up to a bound. Beyond it, or when memory is short, it throws
// std::bad_alloc.
class Budget : public std::pmr::memory_resource {
  public:
    explicit Budget(size_t bound) : left_(bound) {}
    size_t left() const { return left_; }

  private:
    void *do_allocate(size_t size, size_t alignment) override;
    void do_deallocate(void *block, size_t size, size_t alignment) override;
    bool do_is_equal(const memory_resource &other) const noexcept override {
        return this == &other;
    }

    size_t left_;
};

template <class T>
using Vector = std::pmr::vector<T>;

struct alignas(64) Page {
    static constexpr uint32_t kWords = 8;
    static constexpr uint32_t kRules = 64 * kWords;
    uint64_t words[kWords];
};

// Sixteen sorted numbers, searched at once. They are signed for the sake of vector units: biased
// flips the top bit.
struct alignas(64) Keys {
    static constexpr uint32_t kCount = 16;
    int32_t at[kCount];
};
constexpr int32_t biased(uint32_t value) { return static_cast<int32_t>(value ^ 0x80000000U); }

// Where a row's references begin, and its mask. In a form of one page: the page itself.
struct Row {
    uint32_t at;
    uint32_t mask;
};

// Finds the row of a value. A byte indexes `rows`. A half word has a block of 256 rows for each
// value of its upper byte, equal blocks once. A word has a row for each range of values, and the
// last value of each range in a tree of Keys: the root first, then level by level the last values
// of the blocks below.
struct Column {
    Column(const Shape &where, std::pmr::memory_resource *memory)
        : shape(where), tree(memory), blocks(memory), rows(memory) {}

    static constexpr uint32_t kMostLevels = 7; // 16 to the power of 7 are all ranges that fit
    Shape shape;
    uint32_t levels = 0;
    uint32_t level_start[kMostLevels]{};
    Vector<Keys> tree;
    Vector<uint32_t> blocks;
    Vector<Row> rows;
};

// What a rule says, so that the smallest word is the first rule's: its position and its result.
constexpr uint32_t kResultBits = 3;
constexpr uint32_t kNoVerdict = UINT32_MAX;
constexpr uint32_t verdict(uint32_t position, uint32_t result) {
    return position << kResultBits | result;
}

// Packets that go through a form together: the searches of one overlap with those of the next.
inline constexpr size_t kTogether = 32;
struct Batch {
    const acl_info *packets;
    const uint8_t *frags; // null: none is a fragment
    size_t count;         // at most kTogether
    acl_fast_answer *answers;
};

// Answers a batch from a form that has columns.
using Walk = void(const acl_fast &form, const Batch &batch);
Walk walk_plain;
#ifdef IPACLFAST_X86_64
Walk walk_avx2, walk_avx512;
#endif

// The walks that this processor can take, the best first.
std::vector<Walk *> walks();

} // namespace aclfast

struct acl_fast {
    explicit acl_fast(size_t bound)
        : budget(bound), columns(&budget), references(&budget), pages(&budget), first(&budget),
          verdicts(&budget) {}

    aclfast::Budget budget;
    aclfast::Walk *walk = nullptr; // of this processor
    size_t bytes = 0;
    uint32_t default_result = 0; // when no rule matches
    aclfast::Vector<aclfast::Column> columns;

    uint32_t page_count = 0;
    uint32_t group = 1;                   // pages for each bit of a mask
    aclfast::Row any_row{};               // every rule
    aclfast::Vector<uint32_t> references; // of rows
    aclfast::Vector<aclfast::Page> pages;
    aclfast::Vector<uint32_t> first;    // the smallest verdict of each page
    aclfast::Vector<uint32_t> verdicts; // by the rules' numbers
};
