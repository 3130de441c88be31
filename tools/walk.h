// One line read word by word against what may stand at each place. The same walk finds what is
// wrong with a line, spells out its abbreviations, and says what could be typed next.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ipaclctl {

// What a checked line can have. The table `kChecks` of walk.cpp names each.
enum class Check {
    kIncomplete,
    kUnknownWord,
    kAmbiguous,
    kSkippedWord,
    kLooseWord,
    kTwice,
    kAddress,
    kWildcardMask,
    kRangeTurned,
    kRangeOrder,
    kNumber,
    kImpossibleValue,
    kFtpData,
    kName,
    kNoList,
    kMergeEnable,
};

struct CheckInfo {
    Check check;
    const char *id;
    const char *what; // a sentence
};

const std::vector<CheckInfo> &checks();
const char *id_of(Check check);

// An error loses something of what was typed; a warning is kept as typed, and hardly meant.
enum class Severity { kWarning, kError };

struct Finding {
    Check check;
    Severity severity;
    size_t column; // of the line, from 1
    std::string text;
    bool hopeless = false; // the service refuses such a line: nothing can force it

    bool is_error() const { return severity == Severity::kError; }
};

using Findings = std::vector<Finding>;

// Writes "SOURCE:LINE: TEXT" or, with a column, "SOURCE:LINE:COLUMN: TEXT" to standard error.
void tell_wrong(const std::string &source, size_t line, size_t column, const std::string &text);

// One way to go on with a line: a word, or a value that is shown by a placeholder.
struct Choice {
    enum What { kWord, kValue, kListName, kInterfaceName };
    std::string word;
    std::string help;
    What what = kWord;
};

using Choices = std::vector<Choice>;

// The two joined.
Choices operator+(Choices left, const Choices &right);

class Walk {
  public:
    // kExact: every word stands as it is, as the service reads it, whole or as the beginning of a
    // longer one. kAbbreviated: a word may be the beginning of just one that may stand there.
    enum class Reading { kExact, kAbbreviated };
    enum class End { kNeeded, kAllowed };

    Walk(std::string_view line, Reading reading);

    // Takes the next word, which has to be one of the choices. False when there is none, or when
    // it is another: then that is a finding, and the walk is over.
    bool take(const Choices &choices, End end = End::kNeeded);
    // The same, but a word that is none of the choices is left where it is, without a finding.
    bool take_if(const Choices &choices, End end = End::kAllowed);

    // What was taken last: the word, spelled out, and its choice.
    const std::string &word() const { return words_[at_ - 1].text; }
    const std::string &choice() const { return taken_.word; }
    bool took(std::string_view word) const { return taken_.word == word; }
    bool took_value() const { return taken_.what != Choice::kWord; }

    // The word that comes next; "" at the end of the line.
    std::string_view next() const { return left() ? words_[at_].text : std::string_view(); }
    // The word that many places behind the next one; "" where there is none.
    std::string_view peek(size_t places) const {
        return at_ + places < words_.size() ? words_[at_ + places].text : std::string_view();
    }
    bool left() const { return !over_ && at_ < words_.size(); }
    // Passes over the next word.
    void skip() { at_++; }
    // The walk can't tell what the words behind are: it ends here.
    void stop() { over_ = true; }
    bool over() const { return over_; }

    // A finding about the word that was taken last, or about the next one.
    void error(Check check, const std::string &text) {
        found(check, Severity::kError, at_ - 1, text);
    }
    void warning(Check check, const std::string &text) {
        found(check, Severity::kWarning, at_ - 1, text);
    }
    void error_at_next(Check check, const std::string &text) {
        found(check, Severity::kError, at_, text);
    }
    void refused(Check check, const std::string &text); // an error that can't be forced

    const Findings &findings() const { return findings_; }
    // What may stand where the line ended; nothing when the walk did not come so far.
    const Choices &expected() const { return expected_; }
    bool may_end() const { return may_end_; }

    // How many words were taken; the words from one of them on, spelled out, with single blanks;
    // what was typed from the next word on.
    size_t taken() const { return at_; }
    std::string text_from(size_t word) const;
    std::string_view rest() const;
    void skip_rest() { at_ = words_.size(); }

  private:
    struct Word {
        std::string text;
        size_t column;
    };

    bool ran_out(const Choices &choices, End end);
    const Choice *match(const Choices &choices);
    bool take_match(const Choices &choices);
    void found(Check check, Severity severity, size_t word, const std::string &text);

    std::string_view line_;
    Reading reading_;
    std::vector<Word> words_;
    size_t at_ = 0; // the next word
    struct {
        std::string word;
        Choice::What what = Choice::kWord;
    } taken_;
    bool over_ = false;
    Findings findings_;
    Choices expected_;
    bool may_end_ = false;
};

// "A, B or C"
std::string one_of(const Choices &choices);

} // namespace ipaclctl
