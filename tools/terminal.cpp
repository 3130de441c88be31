#include "terminal.h"

#include "ipacl/acl_words.h"

#include <cstdio>
#include <histedit.h>

namespace ipaclctl {
namespace {

constexpr int kRemembered = 500; // lines of history

// The part of a text behind its last separator: the word that is being typed.
std::string last_word(const std::string &text) {
    const size_t at = text.find_last_of(acl_words::kSeparators);
    return at == std::string::npos ? text : text.substr(at + 1);
}

// How all of the words begin.
std::string common_beginning(const std::vector<std::string> &words) {
    std::string common = words[0];
    for (const auto &word : words)
        while (!word.starts_with(common))
            common.pop_back();
    return common;
}

} // namespace

struct LineEditor::State {
    Habits habits;
    EditLine *editor = nullptr;
    History *past = nullptr;
    std::string prompt;

    // The text before the cursor.
    std::string typed() const {
        const LineInfo *line = el_line(editor);
        return {line->buffer, line->cursor};
    }

    static State &of(EditLine *editor) {
        void *state = nullptr;
        el_get(editor, EL_CLIENTDATA, &state);
        return *static_cast<State *>(state);
    }

    static char *on_prompt(EditLine *editor) { return of(editor).prompt.data(); }

    static unsigned char on_help(EditLine *editor, int) {
        const State &state = of(editor);
        (void)printf("?\n%s", state.habits.help(state.typed()).c_str());
        (void)fflush(stdout);
        return CC_REDISPLAY;
    }

    static unsigned char on_tab(EditLine *editor, int) {
        const State &state = of(editor);
        const auto words = state.habits.complete(state.typed());
        if (words.empty())
            return CC_REFRESH_BEEP;
        const std::string begun = last_word(state.typed());
        std::string more = common_beginning(words).substr(begun.size());
        if (words.size() == 1)
            more += ' ';
        if (!more.empty())
            return el_insertstr(editor, more.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        (void)putchar('\n');
        for (const auto &word : words)
            (void)printf("  %s", word.c_str());
        (void)putchar('\n');
        (void)fflush(stdout);
        return CC_REDISPLAY;
    }

    // Replaces what is on the line, and ends it.
    static unsigned char end_with(EditLine *editor, const char *text) {
        const LineInfo *line = el_line(editor);
        const auto length = static_cast<int>(line->lastchar - line->buffer);
        el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
        el_deletestr(editor, length);
        el_insertstr(editor, text);
        return CC_NEWLINE;
    }

    static unsigned char on_abandon(EditLine *editor, int) {
        (void)printf("^C\n");
        (void)fflush(stdout);
        return end_with(editor, "\n");
    }

    static unsigned char on_leave(EditLine *editor, int) {
        (void)printf("^Z\n");
        (void)fflush(stdout);
        return end_with(editor, "end\n");
    }
};

LineEditor::LineEditor(Habits habits) : state_(std::make_unique<State>()) {
    state_->habits = std::move(habits);
    EditLine *editor = state_->editor = el_init("ipaclctl", stdin, stdout, stderr);
    HistEvent event;
    state_->past = history_init();
    history(state_->past, &event, H_SETSIZE, kRemembered);
    history(state_->past, &event, H_SETUNIQUE, 1);
    el_set(editor, EL_CLIENTDATA, state_.get());
    el_set(editor, EL_PROMPT, State::on_prompt);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_HIST, history, state_->past);
    el_set(editor, EL_ADDFN, "ipacl-help", "what may stand here", State::on_help);
    el_set(editor, EL_ADDFN, "ipacl-complete", "complete the word", State::on_tab);
    el_set(editor, EL_ADDFN, "ipacl-abandon", "give the line up", State::on_abandon);
    el_set(editor, EL_ADDFN, "ipacl-leave", "leave the configuration", State::on_leave);
    el_set(editor, EL_BIND, "?", "ipacl-help", nullptr);
    el_set(editor, EL_BIND, "\t", "ipacl-complete", nullptr);
    el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    // Both keys are for the line, not for the process. What is typed while a command runs waits for
    // the next line as it was typed.
    el_set(editor, EL_SETTY, "-d", "-isig", nullptr);
    el_set(editor, EL_SETTY, "-x", "-isig", "-icanon", "-echo", nullptr);
    el_set(editor, EL_BIND, "^C", "ipacl-abandon", nullptr);
    el_set(editor, EL_BIND, "^Z", "ipacl-leave", nullptr);
}

LineEditor::~LineEditor() {
    el_end(state_->editor);
    history_end(state_->past);
}

std::optional<std::string> LineEditor::read() {
    state_->prompt = state_->habits.prompt();
    int length = 0;
    el_set(state_->editor, EL_PREP_TERM, 1); // before the prompt invites to type
    const char *got = el_gets(state_->editor, &length);
    if (!got || length <= 0)
        return std::nullopt;
    std::string line(got, static_cast<size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    HistEvent event;
    if (line.find_first_not_of(acl_words::kSeparators) != std::string::npos)
        history(state_->past, &event, H_ENTER, line.c_str());
    return line;
}

void LineEditor::put_back(const std::string &text) { el_push(state_->editor, text.c_str()); }

std::vector<std::string> LineEditor::lines() const {
    std::vector<std::string> lines;
    HistEvent event;
    for (int there = history(state_->past, &event, H_LAST); there == 0;
         there = history(state_->past, &event, H_PREV))
        lines.emplace_back(event.str);
    return lines;
}

} // namespace ipaclctl
