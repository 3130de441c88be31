// Makes the compiled form of a list.

#include "acl_form.h"

#include "acl_kind.h"
#include "aclapi.h"

#include <algorithm>
#include <new>

namespace aclfast {

// The block before an aligned address holds where its memory begins.
void *Budget::do_allocate(size_t size, size_t alignment) {
    const size_t whole = size + alignment + sizeof(void *);
    if (whole > left_ || whole < size)
        throw std::bad_alloc();
    void *block = sys_mem_malloc(whole);
    if (!block)
        throw std::bad_alloc();
    left_ -= whole;
    const auto begin = reinterpret_cast<uintptr_t>(block) + sizeof(void *);
    const size_t skipped = (begin + alignment - 1) / alignment * alignment - begin;
    auto *aligned = static_cast<void **>(
        static_cast<void *>(static_cast<char *>(block) + sizeof(void *) + skipped));
    aligned[-1] = block;
    return aligned;
}

void Budget::do_deallocate(void *block, size_t size, size_t alignment) {
    left_ += size + alignment + sizeof(void *);
    sys_mem_free(static_cast<void **>(block)[-1]);
}

namespace {

struct Active {
    ipacl_extended_rule rule;
    uint32_t position;
};

// A growing table of records of `width` items, each kept once.
template <class T>
class Interner {
  public:
    Interner(Vector<T> &records, uint32_t width)
        : records_(records), width_(width), slots_(256, kFree, records.get_allocator()) {}

    // The number of the record that equals `record`.
    uint32_t number(const T *record) {
        if (size_t{2} * count_ >= slots_.size())
            grow();
        uint32_t &slot = find(record);
        if (slot == kFree) {
            records_.insert(records_.end(), record, record + width_);
            slot = count_++;
        }
        return slot;
    }

  private:
    static constexpr uint32_t kFree = UINT32_MAX;

    uint32_t &find(const T *record) {
        const size_t last = slots_.size() - 1;
        for (size_t at = hash(record) & last;; at = (at + 1) & last) {
            uint32_t &slot = slots_[at];
            if (slot == kFree || memcmp(at_number(slot), record, width_ * sizeof(T)) == 0)
                return slot;
        }
    }
    void grow() {
        slots_.assign(2 * slots_.size(), kFree);
        for (uint32_t i = 0; i < count_; i++)
            find(at_number(i)) = i;
    }
    const T *at_number(uint32_t number) const {
        return records_.data() + static_cast<size_t>(number) * width_;
    }
    size_t hash(const T *record) const {
        uint64_t hash = 0;
        const auto *bytes = reinterpret_cast<const char *>(record);
        for (size_t i = 0; i < width_ * sizeof(T); i += sizeof(uint32_t)) {
            uint32_t word;
            memcpy(&word, bytes + i, sizeof word);
            hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
            hash ^= hash >> 29;
        }
        return static_cast<size_t>(hash);
    }

    Vector<T> &records_;
    uint32_t width_;
    uint32_t count_ = 0;
    Vector<uint32_t> slots_;
};

// The bits of all rules while a column is built, and their row.
class Bits {
  public:
    explicit Bits(acl_fast &form)
        : group_(form.group), pages_(form.pages, 1), rows_(form.references, form.page_count),
          bits_(form.page_count, {}, &form.budget), row_(form.page_count, 0, &form.budget) {
        pages_.number(bits_.data()); // the empty page is page 0
    }

    void set(uint32_t rule, bool on) {
        uint64_t &word = bits_[rule / Page::kRules].words[rule % Page::kRules / 64];
        const uint64_t bit = uint64_t{1} << rule % 64;
        word = on ? word | bit : word & ~bit;
    }
    bool get(uint32_t rule) const {
        return bits_[rule / Page::kRules].words[rule % Page::kRules / 64] >> rule % 64 & 1;
    }
    // To be told of each rule that was set, or of all, before the row is taken.
    void refresh(uint32_t rule) { refresh_page(rule / Page::kRules); }
    void refresh_all() {
        for (uint32_t page = 0; page < bits_.size(); page++)
            refresh_page(page);
    }
    Row row() {
        uint32_t mask = 0;
        for (uint32_t page = 0; page < row_.size(); page++)
            mask |= static_cast<uint32_t>(row_[page] != 0) << page / group_;
        return {rows_.number(row_.data()) * static_cast<uint32_t>(row_.size()), mask};
    }
    void clear() { std::fill(bits_.begin(), bits_.end(), Page{}); }

  private:
    void refresh_page(uint32_t page) { row_[page] = pages_.number(&bits_[page]); }

    uint32_t group_;
    Interner<Page> pages_;
    Interner<uint32_t> rows_;
    Vector<Page> bits_;
    Vector<uint32_t> row_;
};

class Compiler {
  public:
    Compiler(acl_fast &form, const Vector<Active> &rules)
        : form_(form), rules_(rules), numbers_(&form.budget) {}

    void compile() {
        number_rules();
        Bits bits(form_);
        for (const uint32_t number : numbers_)
            bits.set(number, true);
        bits.refresh_all();
        form_.any_row = bits.row();
        for (int field = 0; field < kFields; field++)
            add_column(static_cast<Field>(field), bits);
        if (form_.columns.empty())
            form_.columns.emplace_back(shape(kProtocol), &form_.budget)
                .rows.assign(256, form_.any_row);
        if (form_.page_count == 1)
            drop_rows();
    }

  private:
    struct Tested {
        Condition condition;
        uint32_t number;
    };
    struct Edge {
        uint32_t at;
        uint32_t number;
    };

    void number_rules();
    void add_column(Field field, Bits &bits);
    void byte_rows(Column &column, const Vector<Tested> &tested, Bits &bits);
    void range_rows(Column &column, const Vector<Tested> &tested, Bits &bits);
    void build_tree(Column &column, const Vector<uint32_t> &ends);
    void drop_rows();
    void build_blocks(Column &column, const Vector<uint32_t> &ends);

    acl_fast &form_;
    const Vector<Active> &rules_;
    Vector<uint32_t> numbers_; // of rules_
};

// Where a rule lies: rules that lie close together share pages.
struct Place {
    uint64_t source, destination;
    uint32_t rule;
};

// An address condition as a number that sorts wide ones first, each view for itself, then by the
// address.
uint64_t place_of(const ipacl_extended_rule &rule, Field number, Field word) {
    const Condition c = condition(rule, number);
    if (!c.any())
        return (c.hi - c.lo >= 1 << 24 ? uint64_t{1} << 32 : uint64_t{2} << 32) +
               static_cast<uint64_t>(c.lo);
    const Condition w = condition(rule, word);
    return w.any() ? 0 : (uint64_t{3} << 32) + static_cast<uint64_t>(w.lo);
}

void Compiler::number_rules() {
    const auto count = static_cast<uint32_t>(rules_.size());
    Vector<Place> places(&form_.budget);
    places.reserve(count);
    for (uint32_t i = 0; i < count; i++)
        places.push_back({place_of(rules_[i].rule, kSourceNetwork, kSourceWord),
                          place_of(rules_[i].rule, kDestinationNetwork, kDestinationWord), i});
    std::sort(places.begin(), places.end(), [](const Place &a, const Place &b) {
        if (a.source != b.source)
            return a.source < b.source;
        return a.destination != b.destination ? a.destination < b.destination : a.rule < b.rule;
    });

    const uint32_t pages = (count + Page::kRules - 1) / Page::kRules;
    form_.page_count = pages;
    form_.group = (pages + 31) / 32;
    Vector<uint32_t> order(pages, &form_.budget);
    for (uint32_t page = 0; page < pages; page++) {
        order[page] = page;
        Place *const begin = places.data() + size_t{page} * Page::kRules;
        Place *const end = places.data() + std::min(count, (page + 1) * Page::kRules);
        std::sort(begin, end, [](const Place &a, const Place &b) { return a.rule < b.rule; });
    }
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        return places[size_t{a} * Page::kRules].rule < places[size_t{b} * Page::kRules].rule;
    });

    numbers_.resize(count);
    form_.verdicts.resize(static_cast<size_t>(pages) * Page::kRules, kNoVerdict);
    for (uint32_t to = 0; to < pages; to++) {
        const uint32_t from = order[to] * Page::kRules;
        const uint32_t end = std::min(count, from + Page::kRules);
        for (uint32_t i = from; i < end; i++) {
            const uint32_t number = to * Page::kRules + i - from;
            const Active &active = rules_[places[i].rule];
            numbers_[places[i].rule] = number;
            form_.verdicts[number] =
                verdict(active.position,
                        active.rule.flags & (IPACL_FLAG_PERMIT | IPACL_FLAG_DENY | IPACL_FLAG_LOG));
        }
        form_.first.push_back(form_.verdicts[static_cast<size_t>(to) * Page::kRules]);
    }
}

void Compiler::add_column(Field field, Bits &bits) {
    Vector<Tested> tested(&form_.budget);
    bits.clear();
    for (uint32_t i = 0; i < rules_.size(); i++) {
        const Condition c = condition(rules_[i].rule, field);
        if (c.any())
            bits.set(numbers_[i], true);
        else
            tested.push_back({c, numbers_[i]});
    }
    if (tested.empty())
        return;
    bits.refresh_all();
    Column &column = form_.columns.emplace_back(shape(field), &form_.budget);
    if (column.shape.kind == Shape::kByte)
        byte_rows(column, tested, bits);
    else
        range_rows(column, tested, bits);
    column.rows.shrink_to_fit();
}

void Compiler::byte_rows(Column &column, const Vector<Tested> &tested, Bits &bits) {
    for (uint32_t value = 0; value < 256; value++) {
        for (const Tested &t : tested)
            bits.set(t.number, t.condition.passes(value));
        bits.refresh_all();
        column.rows.push_back(bits.row());
    }
}

// Walks the values from 0 up and switches each rule on and off where its ranges begin and end.
void Compiler::range_rows(Column &column, const Vector<Tested> &tested, Bits &bits) {
    Vector<Edge> edges(&form_.budget);
    const auto add_range = [&](uint32_t number, int64_t lo, int64_t hi) {
        if (lo > hi)
            return;
        edges.push_back({static_cast<uint32_t>(lo), number});
        if (hi < UINT32_MAX)
            edges.push_back({static_cast<uint32_t>(hi + 1), number});
    };
    for (const auto &[c, number] : tested) {
        if (c.lo <= c.except && c.except <= c.hi) {
            add_range(number, c.lo, c.except - 1);
            add_range(number, c.except + 1, c.hi);
        } else {
            add_range(number, c.lo, c.hi);
        }
    }
    std::sort(edges.begin(), edges.end(), [](const Edge &a, const Edge &b) { return a.at < b.at; });

    Vector<uint32_t> ends(&form_.budget);
    uint32_t at = 0;
    for (auto edge = edges.begin();; at = edge->at) {
        const auto begin = edge;
        for (; edge != edges.end() && edge->at == at; ++edge)
            bits.set(edge->number, !bits.get(edge->number));
        for (auto changed = begin; changed != edge; ++changed)
            bits.refresh(changed->number);
        const Row row = bits.row();
        if (column.rows.empty() || column.rows.back().at != row.at) {
            column.rows.push_back(row);
            ends.push_back(0);
        }
        ends.back() = edge == edges.end() ? UINT32_MAX : edge->at - 1;
        if (edge == edges.end())
            break;
    }
    if (column.shape.kind == Shape::kHalf)
        build_blocks(column, ends);
    else
        build_tree(column, ends);
}

// With one page, a row is its reference.
void Compiler::drop_rows() {
    const auto reference = [this](Row &row) { row.at = form_.references[row.at]; };
    for (Column &column : form_.columns)
        std::for_each(column.rows.begin(), column.rows.end(), reference);
    reference(form_.any_row);
    form_.references.clear();
}

// Turns the rows of ranges into blocks.
void Compiler::build_blocks(Column &column, const Vector<uint32_t> &ends) {
    constexpr uint32_t kBlock = 256;
    Vector<Row> rows(&form_.budget), block(kBlock, {}, &form_.budget);
    Interner<Row> blocks(rows, kBlock);
    size_t range = 0;
    for (uint32_t value = 0; value <= UINT16_MAX; value++) {
        range += value > ends[range];
        block[value % kBlock] = column.rows[range];
        if (value % kBlock == kBlock - 1)
            column.blocks.push_back(blocks.number(block.data()) * kBlock);
    }
    column.rows.swap(rows);
}

void Compiler::build_tree(Column &column, const Vector<uint32_t> &ends) {
    constexpr auto blocks = [](uint32_t keys) { return (keys + Keys::kCount - 1) / Keys::kCount; };
    uint32_t size[Column::kMostLevels];
    uint32_t levels = 0;
    for (auto n = static_cast<uint32_t>(ends.size()); levels == 0 || n > 1; n = blocks(n))
        size[levels++] = n;
    column.levels = levels;
    uint32_t span = 1;
    for (uint32_t i = 1; i < levels; i++)
        span *= Keys::kCount;
    for (uint32_t level = 0; level < levels; level++, span /= Keys::kCount) {
        const uint32_t keys = size[levels - 1 - level];
        column.level_start[level] = static_cast<uint32_t>(column.tree.size());
        for (uint32_t b = 0; b < blocks(keys); b++) {
            Keys &block = column.tree.emplace_back();
            for (uint32_t k = 0; k < Keys::kCount; k++) {
                const size_t last = (static_cast<size_t>(b) * Keys::kCount + k + 1) * span - 1;
                block.at[k] = biased(last < ends.size() ? ends[last] : UINT32_MAX);
            }
        }
    }
    column.tree.shrink_to_fit();
}

template <class Rule>
void gather(const Rule *rule, Vector<Active> &active) {
    for (uint32_t position = 1; rule; rule = rule->ipacl_next, position++)
        if (rule->status == IPACL_RULE_ACTIVE)
            active.push_back({as_extended(*rule), position});
}

void compile(const ipacl &list, acl_fast &form) {
    Vector<Active> active(&form.budget);
    acl::with_kind(list, [&](auto kind) {
        const auto *head = decltype(kind)::head(list);
        form.default_result = head ? IPACL_CHECK_NO_MATCH : IPACL_CHECK_NO_RULES;
        gather(head, active);
    });
    if (active.empty())
        return;
    Compiler(form, active).compile();
    form.references.shrink_to_fit();
    form.pages.shrink_to_fit();
}

} // namespace

} // namespace aclfast

acl_fast *acl_compile(const ipacl *acl, size_t max_bytes) {
    max_bytes = std::min<size_t>(max_bytes, UINT32_MAX); // rows are numbered in 32 bits
    if (!acl || max_bytes < sizeof(acl_fast))
        return nullptr;
    void *memory = sys_mem_malloc(sizeof(acl_fast));
    if (!memory)
        return nullptr;
    const size_t bound = max_bytes - sizeof(acl_fast);
    auto *form = new (memory) acl_fast(bound);
    try {
        aclfast::compile(*acl, *form);
        form->walk = aclfast::walks().front();
    } catch (const std::bad_alloc &) {
        acl_fast_free(form);
        return nullptr;
    }
    form->bytes = max_bytes - form->budget.left();
    return form;
}

void acl_fast_free(acl_fast *form) {
    if (!form)
        return;
    form->~acl_fast();
    sys_mem_free(form);
}

size_t acl_fast_bytes(const acl_fast *form) { return form ? form->bytes : 0; }
