// The words of one command line, and what a word can be read as.
#pragma once

#include "acl_words.h"

#include <arpa/inet.h>
#include <cstring>
#include <string_view>

namespace acl {

class WordCursor {
  public:
    explicit WordCursor(const char *line) : rest_(line ? line : "") {}

    // The next word; empty at the end of the line.
    std::string_view next() {
        rest_ += strspn(rest_, acl_words::kSeparators);
        const size_t length = strcspn(rest_, acl_words::kSeparators);
        const std::string_view word(rest_, length);
        rest_ += length;
        return word;
    }

    // The next word, which must be there: false at the end of the line.
    bool need(std::string_view &word) {
        word = next();
        return !word.empty();
    }

  private:
    const char *rest_;
};

// An IPv4 address as inet_addr reads it, in network byte order; what is none is all ones.
inline in_addr read_address(std::string_view word) {
    char text[128]; // no address is longer
    if (word.size() >= sizeof text)
        return in_addr{INADDR_NONE};
    memcpy(text, word.data(), word.size());
    text[word.size()] = '\0';
    return in_addr{inet_addr(text)};
}

// A decimal number as strtol reads it where a long has 32 bits: clamped, 0 for no number.
inline int32_t read_number(std::string_view word) {
    size_t i = 0;
    while (i < word.size() && (word[i] == ' ' || (word[i] >= '\t' && word[i] <= '\r')))
        i++;
    const bool negative = i < word.size() && word[i] == '-';
    if (negative || (i < word.size() && word[i] == '+'))
        i++;
    const int64_t limit = negative ? -int64_t{INT32_MIN} : INT32_MAX;
    int64_t value = 0;
    for (; i < word.size() && word[i] >= '0' && word[i] <= '9'; i++)
        value = value * 10 + (word[i] - '0') > limit ? limit : value * 10 + (word[i] - '0');
    return static_cast<int32_t>(negative ? -value : value);
}

} // namespace acl
