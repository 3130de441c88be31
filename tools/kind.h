// The two kinds of lists, and the words for them.
#pragma once

#include <optional>
#include <string_view>

namespace ipaclctl {

enum class Kind { kExtended, kStandard };

constexpr const char *kind_name(Kind kind) {
    return kind == Kind::kStandard ? "standard" : "extended";
}

// The kind that a word names.
constexpr std::optional<Kind> kind_word(std::string_view word) {
    for (const Kind kind : {Kind::kStandard, Kind::kExtended})
        if (word == kind_name(kind))
            return kind;
    return std::nullopt;
}

} // namespace ipaclctl
