// The writer of rule text: one walk over a rule per kind, and a row of a table per renderer.
//
// A Style says everything in which the renderers differ; a Sink takes the tokens. A new renderer
// is a new row. Tokens carry their own blanks and are simply put behind each other, so doubled
// blanks are where they are meant to be.
#pragma once

#include "ipacl.h"

#include <cstddef>

namespace acl_text {

// Takes pieces of text in order.
class Sink {
  public:
    void text(const char *token) { puts_(*this, token); }
    void format(const char *fmt, ...) __attribute__((format(printf, 2, 3))); // short tokens only
    void address(in_addr address);

  protected:
    using Puts = void (*)(Sink &, const char *);
    explicit Sink(Puts puts) : puts_(puts) {}

  private:
    Puts puts_;
};

// The terminal, piece by piece.
class TerminalSink : public Sink {
  public:
    TerminalSink();
};

// A line in memory that grows. `failed` tells that memory was short and the line is not whole.
class LineSink : public Sink {
  public:
    LineSink();
    ~LineSink();
    LineSink(const LineSink &) = delete;
    LineSink &operator=(const LineSink &) = delete;

    const char *line() const { return line_; }
    size_t length() const { return used_; }
    bool failed() const { return failed_; }
    void clear();

  private:
    void put(const char *token);

    char small_[256];
    char *line_ = small_;
    size_t used_ = 0;
    size_t size_ = sizeof small_;
    bool failed_ = false;
};

// How one renderer writes a rule. Action words are printf formats that may take the rule's index.
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
