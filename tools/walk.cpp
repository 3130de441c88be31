#include "walk.h"

#include "ipacl/acl_words.h"

#include <algorithm>
#include <iostream>

namespace ipaclctl {
namespace {

const Choice *value_of(const Choices &choices) {
    for (const auto &choice : choices)
        if (choice.what != Choice::kWord)
            return &choice;
    return nullptr;
}

// The choices that begin with a text.
std::vector<const Choice *> beginning(const Choices &choices, std::string_view text) {
    std::vector<const Choice *> found;
    for (const auto &choice : choices)
        if (choice.what == Choice::kWord && choice.word.starts_with(text))
            found.push_back(&choice);
    return found;
}

bool is_number(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

const std::vector<CheckInfo> &checks() {
    static const std::vector<CheckInfo> table{
        {Check::kIncomplete, "incomplete", "The line ends where a word is needed."},
        {Check::kUnknownWord, "unknown-word", "A word has no meaning at its place."},
        {Check::kAmbiguous, "ambiguous-word", "An abbreviation stands for more than one word."},
        {Check::kSkippedWord, "skipped-word", "The service reads a word and drops it."},
        {Check::kLooseWord, "loose-word", "A word is read as another one that it begins with."},
        {Check::kTwice, "option-twice", "Only one of two options of a kind counts."},
        {Check::kAddress, "address", "An address is read as another one, or is none."},
        {Check::kWildcardMask, "wildcard-mask", "A compare mask looks like a wildcard mask."},
        {Check::kRangeTurned, "range-turned", "A range has its last value before its first."},
        {Check::kRangeOrder, "range-order", "A range orders addresses by their last octet."},
        {Check::kNumber, "number", "A number is none, or is cut to its field."},
        {Check::kImpossibleValue, "impossible-value", "No packet has such a value."},
        {Check::kFtpData, "ftp-data", "A port name is read as another one."},
        {Check::kName, "name", "A name is cut."},
        {Check::kNoList, "no-list", "A rule belongs to no list."},
        {Check::kMergeEnable, "merge-enable", "A switch that other components set."},
    };
    return table;
}

const char *id_of(Check check) {
    for (const auto &row : checks())
        if (row.check == check)
            return row.id;
    return "";
}

Choices operator+(Choices left, const Choices &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::string one_of(const Choices &choices) {
    std::string text;
    for (size_t i = 0; i < choices.size(); i++) {
        if (i > 0)
            text += i + 1 == choices.size() ? " or " : ", ";
        text += choices[i].word;
    }
    return text;
}

void tell_wrong(const std::string &source, size_t line, size_t column, const std::string &text) {
    std::cerr << source << ':' << line;
    if (column)
        std::cerr << ':' << column;
    std::cerr << ": " << text << '\n';
}

Walk::Walk(std::string_view line, Reading reading) : line_(line), reading_(reading) {
    for (size_t at = 0;
         (at = line.find_first_not_of(acl_words::kSeparators, at)) != std::string_view::npos;) {
        const size_t end = std::min(line.find_first_of(acl_words::kSeparators, at), line.size());
        words_.push_back({std::string(line.substr(at, end - at)), at + 1});
        at = end;
    }
}

// What the next word is among the choices; a word that only begins like one is a finding.
const Choice *Walk::match(const Choices &choices) {
    std::string &word = words_[at_].text;
    for (const auto &choice : choices)
        if (choice.what == Choice::kWord && choice.word == word)
            return &choice;
    const Choice *value = value_of(choices);
    if (value && is_number(word))
        return value;
    const auto longer = beginning(choices, word);
    if (reading_ == Reading::kAbbreviated) {
        if (longer.size() == 1)
            word = longer[0]->word;
        else if (longer.size() > 1) {
            Choices several;
            for (const auto *choice : longer)
                several.push_back(*choice);
            error_at_next(Check::kAmbiguous, word + " can be " + one_of(several));
            return nullptr;
        }
        return longer.size() == 1 ? longer[0] : value;
    }
    for (const auto &choice : choices) {
        if (choice.what != Choice::kWord || !word.starts_with(choice.word))
            continue;
        error_at_next(Check::kLooseWord,
                      word + " is read as " + choice.word + ": write " + choice.word);
        return &choice;
    }
    if (longer.size() == 1 && !value)
        error_at_next(Check::kUnknownWord, word + " is not a whole word: write " + longer[0]->word);
    return value;
}

bool Walk::ran_out(const Choices &choices, End end) {
    if (at_ < words_.size())
        return false;
    expected_ = choices;
    may_end_ = end == End::kAllowed;
    if (!may_end_)
        found(Check::kIncomplete, Severity::kError, at_,
              "the line ends too early: expected " + one_of(choices));
    over_ = true;
    return true;
}

// Takes the next word if it is one of the choices.
bool Walk::take_match(const Choices &choices) {
    const Choice *choice = match(choices);
    if (!choice)
        return false;
    taken_ = {choice->word, choice->what};
    at_++;
    return true;
}

bool Walk::take(const Choices &choices, End end) {
    const size_t before = findings_.size();
    if (over_ || ran_out(choices, end))
        return false;
    if (take_match(choices))
        return true;
    if (findings_.size() == before)
        error_at_next(Check::kUnknownWord,
                      words_[at_].text + " is not known here: expected " + one_of(choices));
    over_ = true;
    return false;
}

bool Walk::take_if(const Choices &choices, End end) {
    const size_t before = findings_.size();
    if (over_ || ran_out(choices, end))
        return false;
    const bool took = take_match(choices);
    over_ = !took && findings_.size() != before;
    return took;
}

void Walk::found(Check check, Severity severity, size_t word, const std::string &text) {
    size_t column = 1;
    if (word < words_.size())
        column = words_[word].column;
    else if (!words_.empty())
        column = line_.find_last_not_of(acl_words::kSeparators) + 2;
    findings_.push_back({check, severity, column, text});
}

void Walk::refused(Check check, const std::string &text) {
    error(check, text);
    findings_.back().hopeless = true;
}

std::string Walk::text_from(size_t word) const {
    std::string text;
    for (; word < words_.size(); word++) {
        if (!text.empty())
            text += ' ';
        text += words_[word].text;
    }
    return text;
}

std::string_view Walk::rest() const {
    return at_ < words_.size() ? line_.substr(words_[at_].column - 1) : std::string_view();
}

} // namespace ipaclctl
