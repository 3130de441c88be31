#include "shell.h"

#include "commands.h"
#include "loader.h"
#include "save.h"
#include "strict.h"
#include "terminal.h"
#include "walk.h"

#include "ipacl/acl_words.h"

#include <csignal>
#include <iostream>
#include <memory>
#include <net/if.h>
#include <sstream>
#include <unistd.h>

namespace ipaclctl {
namespace {

enum Mode : unsigned { kExec = 1, kConfig = 2, kList = 4, kEvery = 7 };

// What is shown of a text: the lines with, without, or from a line with `text` on.
struct Filter {
    std::string word;
    std::string text;

    std::string applied_to(const std::string &whole) const {
        if (word.empty())
            return whole;
        std::istringstream lines(whole);
        std::string kept;
        bool begun = false;
        for (std::string line; std::getline(lines, line);) {
            const bool found = line.find(text) != std::string::npos;
            begun = begun || found;
            if (word == "include" ? found : word == "exclude" ? !found : begun)
                kept += line + '\n';
        }
        return kept;
    }
};

std::vector<std::string> interface_names() {
    std::vector<std::string> names;
    const std::unique_ptr<struct if_nameindex, void (*)(struct if_nameindex *)> all(
        if_nameindex(), if_freenameindex);
    for (const auto *one = all.get(); one && one->if_index; one++)
        names.emplace_back(one->if_name);
    return names;
}

// Where the word that is being typed begins.
size_t begin_of_last_word(const std::string &text) {
    const size_t at = text.find_last_of(acl_words::kSeparators);
    return at == std::string::npos ? 0 : at + 1;
}

class Shell {
  public:
    Shell(Service &service, bool force) : service_(service), forced_(force) {
        service_.on_absence({[this] { waiting(); }, [this] { back(); }});
    }
    ~Shell() { service_.on_absence({}); }
    Shell(const Shell &) = delete;
    Shell &operator=(const Shell &) = delete;

    int run_terminal();
    int run_pipe();

  private:
    struct Command {
        const char *word;
        const char *help;
        unsigned modes;
        void (Shell::*run)(Walk &);
    };
    static const Command kCommands[];

    // Reads a command, and obeys it unless only help is asked for.
    void dispatch(Walk &walk);
    bool obey(const std::string &line);
    bool finished(Walk &walk);
    bool read_filter(Walk &walk, Filter &filter);

    void configure(Walk &walk);
    void exit(Walk &walk);
    void end(Walk &walk);
    void ip(Walk &walk);
    void no(Walk &walk);
    void action(Walk &walk);
    void force(Walk &walk);
    void show(Walk &walk);
    void show_access_lists(Walk &walk);
    void write(Walk &walk);
    void header(Walk &walk, bool remove);
    void rule(Walk &walk, size_t first, bool negated, bool force);

    void leave();
    bool at_end();
    void waiting();
    void back();
    void say(const std::string &text, size_t column = 0);
    void tell(const Walk &walk, bool sent = false);
    void result(const std::string &wrong) {
        if (!wrong.empty())
            say(wrong);
    }

    std::string prompt() const;
    Walk probe(const std::string &text);
    std::string help(const std::string &text);
    std::vector<std::string> complete(const std::string &text);
    std::vector<std::string> names_of(const Choice &choice);

    Service &service_;
    bool forced_;
    LineEditor *editor_ = nullptr; // on a terminal
    Mode mode_ = kExec;
    bool probing_ = false;
    bool done_ = false;
    bool away_ = false;   // the waiting was told
    bool coming_ = false; // `back` is at work
    size_t number_ = 0;   // of the line, in a pipe
    size_t told_ = 0;     // findings of the line
    int wrong_ = 0;       // how often something was said that is no mere news
    std::string name_;    // of the list that is open
    Kind kind_ = Kind::kExtended;
    std::vector<std::string> sent_; // into the list since it was opened
};

const Shell::Command Shell::kCommands[] = {
    {"configure", "Make, change and remove access lists", kExec, &Shell::configure},
    {"show", "Show access lists", kEvery, &Shell::show},
    {"write", "Save the running configuration", kEvery, &Shell::write},
    {"ip", "Open an access list, or make one", kConfig | kList, &Shell::ip},
    {acl_words::kPermit, "Add a rule that lets packets through", kList, &Shell::action},
    {acl_words::kDeny, "Add a rule that stops packets", kList, &Shell::action},
    {acl_words::kNo, "Remove a rule or an access list", kConfig | kList, &Shell::no},
    {"force", "Send a rule that strict reading holds back", kList, &Shell::force},
    {"end", "Leave the configuration", kConfig | kList, &Shell::end},
    {"exit", "Leave this mode; at the top, the shell", kEvery, &Shell::exit},
};

void Shell::dispatch(Walk &walk) {
    Choices choices;
    for (const auto &command : kCommands)
        if (command.modes & mode_)
            choices.push_back({command.word, command.help, {}});
    if (!walk.take(choices))
        return;
    for (const auto &command : kCommands)
        if (walk.took(command.word) && (command.modes & mode_))
            return (this->*command.run)(walk);
}

// True when the line ends here, nothing is wrong with it, and it is to be obeyed.
bool Shell::finished(Walk &walk) {
    if (!walk.take_if({}) && walk.left())
        walk.error_at_next(Check::kUnknownWord,
                           std::string(walk.next()) + " is too much: the line is complete");
    return !probing_ && walk.findings().empty();
}

// Reads what follows a bar.
bool Shell::read_filter(Walk &walk, Filter &filter) {
    static const Choices filters{{"include", "Lines that have a text", {}},
                                 {"exclude", "Lines that have it not", {}},
                                 {"begin", "From the first line that has it", {}}};
    static const Choices texts{{"TEXT", "To the end of the line", Choice::kValue}};
    if (!walk.take(filters))
        return false;
    filter.word = walk.choice();
    filter.text = walk.rest();
    filter.text.erase(filter.text.find_last_not_of(" \t\r\n") + 1);
    if (!walk.take(texts))
        return false;
    walk.skip_rest();
    return finished(walk);
}

void Shell::configure(Walk &walk) {
    static const Choices terminal{{"terminal", "From here; it may be left out", {}}};
    walk.take_if(terminal);
    if (finished(walk))
        mode_ = kConfig;
}

void Shell::exit(Walk &walk) {
    if (!finished(walk))
        return;
    if (mode_ == kExec)
        done_ = true;
    else if (mode_ == kConfig)
        mode_ = kExec;
    else
        leave();
}

void Shell::end(Walk &walk) {
    if (!finished(walk))
        return;
    leave();
    mode_ = kExec;
}

// Leaves the list that is open.
void Shell::leave() {
    if (mode_ != kList)
        return;
    const std::string wrong = leave_list(service_, name_, kind_);
    mode_ = kConfig;
    sent_.clear();
    result(wrong);
}

void Shell::ip(Walk &walk) { header(walk, false); }

// Reads what follows "ip", and opens or removes the list.
void Shell::header(Walk &walk, bool remove) {
    static const Choices lists{{"access-list", "An access list", {}}};
    static const Choices names{{"NAME", "Of the list, at most 20 characters", Choice::kListName}};
    if (!walk.take(lists) || !walk.take(list_kinds()))
        return;
    const Kind kind = *kind_word(walk.choice());
    if (!walk.take(names))
        return;
    const std::string name = walk.word();
    if (const std::string bad = bad_name(name); !bad.empty())
        walk.error(Check::kName, bad);
    if (!finished(walk))
        return;
    leave();
    if (remove)
        return result(destroy_list(service_, name, kind));
    if (const std::string wrong = open_list(service_, name, kind); !wrong.empty())
        return say(wrong);
    mode_ = kList;
    name_ = name;
    kind_ = kind;
}

void Shell::no(Walk &walk) {
    static const Choices lists{{"ip", "Remove an access list", {}}};
    static const Choices rules{{acl_words::kPermit, "Remove a rule that permits", {}},
                               {acl_words::kDeny, "Remove a rule that denies", {}}};
    if (!walk.take(mode_ == kList ? rules + lists : lists))
        return;
    if (walk.took("ip"))
        header(walk, true);
    else
        rule(walk, walk.taken() - 2, true, false);
}

void Shell::action(Walk &walk) { rule(walk, walk.taken() - 1, false, false); }

void Shell::force(Walk &walk) {
    const size_t first = walk.taken();
    if (!walk.take(rule_actions()))
        return;
    const bool negated = walk.took(acl_words::kNo);
    if (!negated || walk.take(rule_actions()))
        rule(walk, first, negated, true);
}

// Reads what follows the action, and sends the words from the first one on.
void Shell::rule(Walk &walk, size_t first, bool negated, bool force) {
    read_rule_behind_action(walk, kind_, negated);
    if (probing_)
        return;
    const bool held =
        is_held(walk.findings(), force || forced_ ? Strictness::kForced : Strictness::kTyped);
    tell(walk, !held);
    if (held)
        return;
    const std::string text = walk.text_from(first);
    const std::string wrong = send_rule(service_, name_, kind_, text);
    if (wrong.empty())
        sent_.push_back(text);
    result(wrong);
}

void Shell::show(Walk &walk) {
    static const Choices things{{"ip", "Access lists as numbered tables", {}},
                                {"running-config", "Every list as it can be loaded", {}}};
    static const Choices with_history =
        things + Choices{{"history", "What was typed in this session", {}}};
    static const Choices bar{{"|", "Show a part only", {}}};
    static const Choices lists{{"access-lists", "Access lists", {}}};
    if (!walk.take(editor_ ? with_history : things))
        return;
    if (walk.took("ip")) {
        if (walk.take(lists))
            show_access_lists(walk);
        return;
    }
    const bool history = walk.took("history");
    Filter filter;
    if (!(walk.take_if(bar) ? read_filter(walk, filter) : finished(walk)))
        return;
    std::string text;
    if (history)
        for (const auto &line : editor_->lines())
            text += line + '\n';
    else
        text = service_.text("showrunning", Request());
    std::cout << filter.applied_to(text);
}

void Shell::show_access_lists(Walk &walk) {
    static const Choices bar{{"|", "Show a part only", {}}};
    static const Choices names{{"NAME", "One list", Choice::kListName}};
    static const Choices forms{{"json", "As JSON", {}}};
    std::optional<std::string> name;
    Filter filter;
    bool more = walk.take_if(names + bar), json = false;
    if (more && !walk.took("|")) {
        name = walk.word();
        more = walk.take_if(forms + bar);
        if (more && walk.took("json")) {
            json = true;
            more = walk.take_if(bar);
        }
    }
    if (!(more ? read_filter(walk, filter) : finished(walk)))
        return;
    const auto kind = name ? service_.kind_of(*name) : Kind::kExtended;
    if (!kind)
        return say("there is no list " + *name);
    std::cout << filter.applied_to(json ? json_text(service_, name, *kind)
                                        : listing(service_, name));
}

void Shell::write(Walk &walk) {
    static const Choices files{
        {"FILE", "Where to, instead of the start-up configuration", Choice::kValue}};
    std::string file = kStartupConfig;
    if (walk.take_if(files))
        file = walk.word();
    if (finished(walk))
        result(replace_file(file, service_.text("showrunning", Request())));
}

// Says one line: what is wrong, or what happened.
void Shell::say(const std::string &text, size_t column) {
    wrong_++;
    if (editor_) {
        std::cout << "% ";
        if (column)
            std::cout << "column " << column << ": ";
        std::cout << text << std::endl;
        return;
    }
    std::cout.flush();
    tell_wrong("stdin", number_, column, text);
}

// Says what was found, once. What was found in a line that is sent all the same is a warning.
void Shell::tell(const Walk &walk, bool sent) {
    for (; told_ < walk.findings().size(); told_++) {
        const Finding &finding = walk.findings()[told_];
        say((sent ? "warning: " : "") + finding.text, finding.column);
        wrong_ -= sent;
    }
}

void Shell::waiting() {
    if (probing_ || away_)
        return;
    away_ = true;
    say("the access-list service went away; waiting for it to come back");
    wrong_--;
}

// The service is there again, but perhaps anew: what was typed into the list is sent once more.
// What it still has is refused as a duplicate, which is as good.
void Shell::back() {
    if (coming_ || probing_)
        return;
    coming_ = true;
    away_ = false;
    std::string again;
    if (mode_ == kList) {
        open_list(service_, name_, kind_);
        for (const auto &text : sent_)
            send_rule(service_, name_, kind_, text);
        again = "; what was typed into " + name_ +
                " was sent again, lines: " + std::to_string(sent_.size());
    }
    say("the access-list service was away and is back" + again);
    wrong_--;
    coming_ = false;
}

std::string Shell::prompt() const {
    switch (mode_) {
    case kConfig:
        return "ipacl(config)# ";
    case kList:
        return "ipacl(" + name_ + ")# ";
    default:
        return "ipacl# ";
    }
}

// Reads a text as a command that is not obeyed.
Walk Shell::probe(const std::string &text) {
    Walk walk(text, Walk::Reading::kAbbreviated);
    probing_ = true;
    dispatch(walk);
    probing_ = false;
    return walk;
}

std::vector<std::string> Shell::names_of(const Choice &choice) {
    if (choice.what == Choice::kInterfaceName)
        return interface_names();
    std::vector<std::string> names;
    if (choice.what != Choice::kListName)
        return names;
    const int patience = service_.patience();
    service_.set_patience(0);
    probing_ = true;
    try {
        for (const auto &[name, kind] : service_.lists())
            names.push_back(name);
    } catch (const Unreachable &) { // there are none to offer
    }
    probing_ = false;
    service_.set_patience(patience);
    return names;
}

std::string Shell::help(const std::string &text) {
    const size_t at = begin_of_last_word(text);
    const std::string begun = text.substr(at), before = text.substr(0, at);
    const Walk walk = probe(before);
    for (const Finding &finding : walk.findings())
        if (finding.is_error() && finding.check != Check::kIncomplete)
            return "% " + finding.text + '\n';
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto &choice : walk.expected()) {
        const bool any_value = choice.what != Choice::kWord && rows.empty();
        if (choice.word.starts_with(begun) || any_value)
            rows.emplace_back(choice.word, choice.help);
        for (const auto &name : names_of(choice))
            if (name.starts_with(begun))
                rows.emplace_back(name, "");
    }
    if (walk.may_end() && begun.empty())
        rows.emplace_back("<cr>", "The line is complete");
    std::string shown;
    for (const auto &[word, what] : rows) {
        shown += "  " + word;
        if (!what.empty())
            shown.append(word.size() < 20 ? 20 - word.size() : 1, ' ') += what;
        shown += '\n';
    }
    if (!rows.empty())
        return shown;
    return "% nothing begins with " + begun + " here\n";
}

std::vector<std::string> Shell::complete(const std::string &text) {
    const size_t at = begin_of_last_word(text);
    const std::string begun = text.substr(at), before = text.substr(0, at);
    std::vector<std::string> words;
    const auto offer = [&](const std::string &word) {
        if (word.starts_with(begun))
            words.push_back(word);
    };
    const Walk walk = probe(before);
    for (const auto &choice : walk.expected()) {
        if (choice.what == Choice::kWord)
            offer(choice.word);
        for (const auto &name : names_of(choice))
            offer(name);
    }
    return words;
}

// False when the service can't be reached.
bool Shell::obey(const std::string &line) {
    Walk walk(line, Walk::Reading::kAbbreviated);
    if (!walk.left() || walk.next()[0] == '!' || walk.next()[0] == '#')
        return true;
    told_ = 0;
    try {
        dispatch(walk);
        tell(walk);
        return true;
    } catch (const Unreachable &error) {
        coming_ = false;
        say(error.what());
        return false;
    }
}

// Leaves the list that is still open. False when the service can't be reached.
bool Shell::at_end() {
    try {
        leave();
        return true;
    } catch (const Unreachable &error) {
        say(error.what());
        return false;
    }
}

int Shell::run_terminal() {
    // When the terminal goes, reading ends and the list that is open is left.
    (void)signal(SIGHUP, SIG_IGN);
    LineEditor editor({[this] { return prompt(); },
                       [this](const std::string &text) { return help(text); },
                       [this](const std::string &text) { return complete(text); }});
    editor_ = &editor;
    while (!done_) {
        const auto line = editor.read();
        if (!line) {
            std::cout << std::endl;
            break;
        }
        if (!obey(*line))
            editor.put_back(*line);
        std::cout.flush();
    }
    const bool left = at_end();
    editor_ = nullptr;
    return left ? 0 : 2;
}

int Shell::run_pipe() {
    for (std::string line; !done_ && std::getline(std::cin, line);) {
        number_++;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.ends_with('?')) {
            line.pop_back();
            std::cout << help(line);
        } else if (!obey(line)) {
            return 2;
        }
    }
    if (!at_end())
        return 2;
    std::cout.flush();
    return wrong_ ? 1 : 0;
}

} // namespace

int run_shell(Service &service, bool force) {
    Shell shell(service, force);
    return isatty(0) && isatty(1) ? shell.run_terminal() : shell.run_pipe();
}

} // namespace ipaclctl
