// The writer of rule text: one walk over a rule per kind, and a row of a table per renderer.
//
// A Style says everything in which the renderers differ; a Sink takes the tokens. A new renderer
// is a new row. Tokens carry their own blanks and are simply put behind each other, so doubled
// blanks are where they are meant to be.
#pragma once

#include "ipacl.h"

#include <cstddef>
#include <cstring>
#include <string_view>

namespace acl_text {

// Writes an address in dotted form at `to`, where INET_ADDRSTRLEN bytes may be written; without a
// NUL. Returns its end.
char *write_dotted(char *to, in_addr address);

// Gathers pieces of text in order. What happens when the room for them ends is a sink's own.
class Sink {
  public:
    void text(std::string_view token) {
        if (token.size() > static_cast<size_t>(end_ - at_))
            return spill_(*this, token);
        memcpy(at_, token.data(), token.size());
        at_ += token.size();
    }
    void number(int value);
    // A text in which "%5d", if it is there, stands for the number.
    void numbered(std::string_view text, int value);
    void format(const char *fmt, ...) __attribute__((format(printf, 2, 3))); // short tokens only
    void address(in_addr address);

  protected:
    // Takes a token for which there is no room.
    using Spill = void (*)(Sink &, std::string_view);
    Sink(Spill spill, char *room, size_t size)
        : begin_(room), at_(room), end_(room + size), spill_(spill) {}
    ~Sink() = default;
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    void use(char *room, size_t size) {
        begin_ = at_ = room;
        end_ = room + size;
    }
    size_t used() const { return static_cast<size_t>(at_ - begin_); }

    char *begin_, *at_, *end_;

  private:
    Spill spill_;
};

// The terminal. Text arrives there when there is much of it, and at the end of the block.
class TerminalSink : public Sink {
  public:
    TerminalSink();
    ~TerminalSink() { flush(); }
    TerminalSink(const TerminalSink &) = delete;
    TerminalSink &operator=(const TerminalSink &) = delete;

  private:
    void flush();

    char text_[1024]; // cppcheck-suppress uninitMemberVarPrivate
};

// A buffer of the caller's, of at least one byte: what does not fit is cut off.
class BufferSink : public Sink {
  public:
    BufferSink(char *buffer, size_t size)
        : Sink(
              [](Sink &self, std::string_view token) {
                  auto &sink = static_cast<BufferSink &>(self);
                  sink.text(token.substr(0, static_cast<size_t>(sink.end_ - sink.at_)));
              },
              buffer, size - 1) {}

    // Ends the text and returns its length.
    int end() {
        *at_ = '\0';
        return static_cast<int>(used());
    }
};

// A line in memory that grows. `failed` tells that memory was short and the line is not whole.
class LineSink : public Sink {
  public:
    LineSink();
    ~LineSink();
    LineSink(const LineSink &) = delete;
    LineSink &operator=(const LineSink &) = delete;

    const char *line() const {
        *at_ = '\0'; // there is always room for it
        return begin_;
    }
    size_t length() const { return used(); }
    bool failed() const { return failed_; }
    void clear();

  private:
    void grow(std::string_view token);

    char small_[256];
    bool failed_ = false;
};

// How one renderer writes a rule. In action words "%5d" stands for the rule's index.
struct Style {
    struct Actions {
        const char *permit;
        const char *deny;
        const char *remark;
        const char *none; // neither permit, deny nor remark; "" writes and counts nothing
    };
    enum class Remark {
        kWholeLine, // its text instead of everything behind the action
        kInPlace,   // its text in place of each address
        kUnseen
    };
    enum class Extra { kCos, kTcpFlags, kEstablished };

    Actions standard;
    Actions extended;
    Remark remark;
    const char *reverse_mask_word; // written after the action; "" where masks are marked instead
    // The mark behind a complemented mask; null: masks are written as stored.
    const char *standard_mask_mark;
    const char *extended_mask_mark;
    const char *any_standard;
    const char *dst_portrange_gap; // behind "dst-portrange"
    bool all_protocol_words;       // false: only those of the one-line trace form
    const char *cos;
    const char *tcp_flags;
    Extra extras[3]; // in this order
    const char *line_end;
};

extern const Style kRunning; // running configuration
extern const Style kListing; // indexed listing
extern const Style kCounted; // running configuration with hit counters, which the caller appends
extern const Style kTrace;   // one-line form of the debug traces
extern const Style kDump;    // indexed, inactive rules included; the caller ends the line

// Writes one rule. `index` is the number of the next indexed rule and `space` its indentation.
void write_rule(Sink &sink, const Style &style, const ipacl_standard_rule &rule, int &index,
                int space);
void write_rule(Sink &sink, const Style &style, const ipacl_extended_rule &rule, int &index,
                int space);

void write_space(Sink &sink, int space);

// The lines above an indexed listing; the first is a format that takes the list's name.
const char *listing_header(const ipacl &list);
inline constexpr const char *kColumns = " Index          Rule content\n";
inline constexpr const char *kRuler =
    " --------------------------------------------------------------------\n";

// The words of the TCP and UDP port tables, or null.
const char *port_word(uint16_t protocol, uint16_t port);

// The word of a protocol number, or null.
const char *protocol_word(uint16_t protocol, bool traced_only);

} // namespace acl_text
