// What all fuzzers share: reading an input piece by piece, and keeping promises.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzz {

// Ends the process with a message where a promise is broken, so that the input is kept.
inline void require(bool kept, const char *promise) {
    if (kept)
        return;
    fprintf(stderr, "broken promise: %s\n", promise);
    abort();
}

// An input, taken from the front. What lies beyond its end reads as zero or as nothing.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

    bool empty() const { return rest_.empty(); }
    std::string_view rest() { return bytes(rest_.size()); }
    std::string_view bytes(size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    // Up to the next `end`, which is taken too.
    std::string_view until(char end) {
        const std::string_view taken = bytes(std::min(rest_.find(end), rest_.size()));
        bytes(1);
        return taken;
    }
    uint8_t byte() { return number<uint8_t>(); }
    uint16_t half() { return number<uint16_t>(); }
    uint32_t word() { return number<uint32_t>(); }
    uint8_t below(uint8_t end) { return static_cast<uint8_t>(byte() % end); }
    template <class T, size_t N>
    T of(const T (&values)[N]) {
        return values[byte() % N];
    }

  private:
    template <class T>
    T number() {
        T value = 0;
        const std::string_view taken = bytes(sizeof value);
        taken.copy(reinterpret_cast<char *>(&value), taken.size());
        return value;
    }

    std::string_view rest_;
};

// Plays one input and leaves nothing behind. Every fuzzer has its own.
void play(Input &in);

} // namespace fuzz
