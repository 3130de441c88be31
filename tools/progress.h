// Numbers told to the operator: counts, and a bar on a terminal for what takes longer than a
// second.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace ipaclctl {

// "1 rule", "2 rules".
inline std::string counted(uint64_t count, const char *noun) {
    std::string text = std::to_string(count);
    return text.append(" ").append(noun).append(count == 1 ? "" : "s");
}

class Progress {
  public:
    // A total of 0: it is not known.
    Progress(size_t total, const char *noun)
        : total_(total), noun_(noun), terminal_(isatty(2) == 1) {}
    ~Progress() { make_way(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void at(size_t done) {
        using namespace std::chrono;
        const auto now = steady_clock::now();
        if (!terminal_ || now - start_ < seconds(1) || now - last_ < milliseconds(100))
            return;
        constexpr size_t kWidth = 40;
        const std::string bar(total_ ? kWidth * std::min(done, total_) / total_ : 0, '#');
        if (total_)
            (void)fprintf(stderr, "\r[%-40s] %zu of %zu %s", bar.c_str(), done, total_, noun_);
        else
            (void)fprintf(stderr, "\r%zu %s", done, noun_);
        (void)fflush(stderr);
        last_ = now;
        shown_ = true;
    }
    // Clears the line, for a message or for good.
    void make_way() {
        if (shown_)
            (void)fputs("\r\033[K", stderr);
    }

  private:
    size_t total_;
    const char *noun_;
    bool shown_ = false;
    bool terminal_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point last_{};
};

} // namespace ipaclctl
