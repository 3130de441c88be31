#include "apply.h"

#include "analysis_commands.h"
#include "confirm.h"
#include "list_source.h"
#include "loader.h"
#include "progress.h"
#include "strict.h"

#include "analysis/analysis.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <unordered_map>
#include <vector>

namespace ipaclctl {
namespace {

using Rules = std::vector<std::string>;

// A list as the running configuration shows it.
struct Content {
    Kind kind;
    Rules rules;
    bool operator==(const Content &) const = default;
};
using State = std::optional<Content>; // none: there is no such list
using Lists = std::map<std::string, State>;

struct Change {
    std::string name;
    State before, after;
};

State state_of(const Lists &lists, const std::string &name) {
    const auto found = lists.find(name);
    return found == lists.end() ? State() : found->second;
}

std::string header_of(const std::string &name, Kind kind) {
    return std::string("ip access-list ").append(kind_name(kind)).append(" ").append(name);
}

// "ip access-list KIND NAME", or with "no" before it.
struct Header {
    bool no;
    Kind kind;
    std::string name; // blanks may be part of it
};

std::optional<Header> header_in(std::string line) {
    const bool no = line.starts_with("no ");
    if (no)
        line.erase(0, 3);
    for (const Kind kind : {Kind::kStandard, Kind::kExtended})
        if (const std::string start = header_of("", kind); line.starts_with(start))
            return Header{no, kind, line.substr(start.size())};
    return std::nullopt;
}

template <class F>
void for_each_line(const std::string &text, F &&fn) {
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        fn(trimmed(line));
}

std::string running_text(Service &service) { return service.text("showrunning", Request()); }

Lists lists_in(const std::string &running) {
    Lists lists;
    State *open = nullptr;
    for_each_line(running, [&](const std::string &line) {
        if (const auto header = header_in(line)) {
            open = &lists[header->name];
            *open = Content{header->kind, {}};
        } else if (line == "!") {
            open = nullptr;
        } else if (open && line != "merge-enable") {
            (*open)->rules.push_back(line);
        }
    });
    return lists;
}

// --- What is wanted ---

// The lists that a configuration names, each with what it makes of them in the end.
class Wanted {
  public:
    explicit Wanted(const std::string &file) : from_(read_configuration(file)) {
        for_each_line(from_.text, [this](const std::string &line) { take(line); });
        size_t slot = 0;
        for (auto &[name, state] : lists_)
            if (state)
                read(name, *state, ++slot);
        if (wrong_ > 0)
            throw Trouble(from_.source + " would not be taken whole; nothing was changed");
    }

    const Lists &lists() const { return lists_; }
    const ipacl *list(const std::string &name) const {
        const auto found = read_.find(name);
        return found == read_.end() ? nullptr : found->second;
    }

  private:
    void take(const std::string &line) {
        number_++;
        const ConfigLine read = read_config_line(line);
        switch (read.what) {
        case ConfigLine::kNothing:
            return;
        case ConfigLine::kEnd:
            open_ = false;
            return;
        case ConfigLine::kBadHeader:
            open_ = true; // its rules are not complained of as well
            return complain(read.findings);
        case ConfigLine::kHeader:
            open_ = true;
            lists_[read.name] = Content{read.kind, {}};
            return;
        case ConfigLine::kRemoval:
            open_ = false;
            lists_[read.name] = State();
            return;
        case ConfigLine::kMergeEnable:
            return complain(read.findings);
        case ConfigLine::kRule:
            if (!open_)
                complain(kNeedsList);
        }
    }

    void complain(const Findings &findings) {
        for (const Finding &finding : findings)
            complain(finding.text, finding.column);
    }
    void complain(const std::string &wrong, size_t column = 0) {
        tell_wrong(from_.source, number_, column, wrong);
        wrong_++;
    }

    void read(const std::string &name, Content &content, size_t slot) {
        std::string place = "wanted ";
        place.append(std::to_string(slot));
        const ipacl &list = read_list(from_, name, place.c_str(), &wrong_);
        read_[name] = &list;
        content.kind = list.is_standard ? Kind::kStandard : Kind::kExtended;
        content.rules = analysis::rule_texts(list);
    }

    Configuration from_;
    Lists lists_;
    std::map<std::string, const ipacl *> read_;
    size_t number_ = 0, wrong_ = 0;
    bool open_ = false;
};

// --- What differs, as text ---

// Marks the most lines of `after` that stand in `before` in the same order. Lines are different
// from each other within a list.
std::vector<bool> kept_lines(const Rules &before, const Rules &after) {
    std::unordered_map<std::string, size_t> places;
    for (size_t i = 0; i < before.size(); i++)
        places.emplace(before[i], i);
    // The longest ascending run of places: ends[n] is the line that ends the best run of n + 1.
    constexpr size_t kNone = SIZE_MAX;
    std::vector<size_t> place(after.size(), kNone), previous(after.size(), kNone), ends;
    for (size_t i = 0; i < after.size(); i++) {
        const auto found = places.find(after[i]);
        if (found == places.end())
            continue;
        place[i] = found->second;
        const auto end = std::lower_bound(ends.begin(), ends.end(), i,
                                          [&](size_t a, size_t b) { return place[a] < place[b]; });
        if (end != ends.begin())
            previous[i] = *(end - 1);
        if (end == ends.end())
            ends.push_back(i);
        else
            *end = i;
    }
    std::vector<bool> kept(after.size());
    for (size_t i = ends.empty() ? kNone : ends.back(); i != kNone; i = previous[i])
        kept[i] = true;
    return kept;
}

struct Line {
    char mark; // ' ', '-' or '+'
    const std::string *text;
};

std::vector<Line> text_diff(const Rules &before, const Rules &after) {
    const auto kept = kept_lines(before, after);
    std::vector<Line> lines;
    size_t at = 0; // of before
    for (size_t i = 0; i < after.size(); i++) {
        if (!kept[i])
            continue;
        // What goes stands before what comes: both up to the next line that stays.
        for (; before[at] != after[i]; at++)
            lines.push_back({'-', &before[at]});
        size_t first = i;
        while (first > 0 && !kept[first - 1])
            first--;
        for (; first < i; first++)
            lines.push_back({'+', &after[first]});
        lines.push_back({' ', &before[at++]});
    }
    for (; at < before.size(); at++)
        lines.push_back({'-', &before[at]});
    size_t first = after.size();
    while (first > 0 && !kept[first - 1])
        first--;
    for (; first < after.size(); first++)
        lines.push_back({'+', &after[first]});
    return lines;
}

// Shows the lines that differ and some around them.
void tell_text_diff(const Rules &before, const Rules &after) {
    constexpr size_t kAround = 2;
    const auto lines = text_diff(before, after);
    size_t shown = 0; // lines before this one are told
    for (size_t i = 0; i < lines.size(); i++) {
        if (lines[i].mark == ' ')
            continue;
        const size_t first = std::max(shown, i - std::min(i, kAround));
        if (first > shown)
            std::cout << "  ...\n";
        size_t end = first;
        for (; end < lines.size() && (end <= i + kAround); end++) {
            std::cout << lines[end].mark << ' ' << *lines[end].text << '\n';
            if (lines[end].mark != ' ')
                i = end;
        }
        shown = end;
    }
    if (shown < lines.size())
        std::cout << "  ...\n";
}

class Teller {
  public:
    Teller(const std::string &running, const Wanted &wanted, size_t limit)
        : running_{running, "the service", true}, wanted_(wanted), limit_(limit) {}

    void tell(const Change &change) {
        static const Rules kNothing;
        const Rules &before = change.before ? change.before->rules : kNothing;
        const Rules &after = change.after ? change.after->rules : kNothing;
        if (!change.before || !change.after || change.before->kind != change.after->kind) {
            tell_header('-', change.name, change.before);
            tell_header('+', change.name, change.after);
        } else {
            tell_header(' ', change.name, change.before);
        }
        tell_text_diff(before, after);
        if (change.before && change.after)
            tell_exactly(change.name);
    }

  private:
    static void tell_header(char mark, const std::string &name, const State &state) {
        if (state)
            std::cout << mark << header_of(name, state->kind) << '\n';
    }

    void tell_exactly(const std::string &name) {
        std::string slot = "running ";
        slot.append(std::to_string(++slots_));
        try {
            tell_difference(name + " as it runs", "the new one",
                            analysis::diff(read_list(running_, name, slot.c_str()),
                                           *wanted_.list(name), limit_));
        } catch (const std::runtime_error &trouble) {
            std::cout << "the packets whose verdict changes can't be told: " << trouble.what()
                      << '\n';
        }
    }

    Configuration running_;
    const Wanted &wanted_;
    size_t limit_;
    size_t slots_ = 0;
};

// --- Sending it ---

// While one lives no signal ends the tool: what was begun is brought to an end.
class Undisturbed {
  public:
    Undisturbed() {
        for (size_t i = 0; i < std::size(kSignals); i++)
            old_[i] = signal(kSignals[i], SIG_IGN);
    }
    ~Undisturbed() {
        for (size_t i = 0; i < std::size(kSignals); i++)
            (void)signal(kSignals[i], old_[i]);
    }
    Undisturbed(const Undisturbed &) = delete;
    Undisturbed &operator=(const Undisturbed &) = delete;

  private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
    void (*old_[std::size(kSignals)])(int);
};

// A list in its editing mode, in which no matcher finds it; it leaves that mode with the block.
class Editing {
  public:
    Editing(Service &service, const std::string &name, Kind kind)
        : service_(service), name_(name), kind_(kind), wrong_(open_list(service, name, kind)),
          open_(wrong_.empty()) {}

    // Does nothing once something went wrong.
    void send(const std::string &command) {
        if (wrong_.empty())
            wrong_ = send_rule(service_, name_, kind_, command);
    }
    // "" or what went wrong.
    std::string leave() {
        if (open_) {
            const std::string left = leave_list(service_, name_, kind_);
            if (wrong_.empty())
                wrong_ = left;
        }
        return wrong_;
    }

  private:
    Service &service_;
    const std::string &name_;
    Kind kind_;
    std::string wrong_;
    bool open_;
};

// Makes a list another one. Rules can only be put behind the others: those that stay are the
// longest beginning of the new list that stands in the old one, in order. "" or what went wrong.
std::string make(Service &service, const std::string &name, const State &from, const State &to) {
    const bool anew = from && (!to || from->kind != to->kind);
    if (anew)
        if (std::string wrong = destroy_list(service, name, from->kind); !wrong.empty())
            return wrong;
    if (!to)
        return "";
    static const Rules kNothing;
    const Rules &old = from && !anew ? from->rules : kNothing;
    Editing editing(service, name, to->kind);
    size_t stay = 0;
    for (const std::string &rule : old)
        if (stay < to->rules.size() && rule == to->rules[stay])
            stay++;
        else
            editing.send("no " + command_of_shown(rule));
    for (; stay < to->rules.size(); stay++)
        editing.send(command_of_shown(to->rules[stay]));
    return editing.leave();
}

// The first list that is not as it should be, or "".
std::string not_as(Service &service, const std::vector<Change> &changes, State Change::*wanted) {
    const Lists now = lists_in(running_text(service));
    for (const Change &change : changes)
        if (state_of(now, change.name) != change.*wanted)
            return change.name;
    return "";
}

// Puts the old lists back: rule by rule, and whole where that does not do. "" or what is wrong.
std::string put_back(Service &service, const std::vector<Change> &changes) {
    const Undisturbed undisturbed;
    for (const bool whole : {false, true}) {
        const Lists now = lists_in(running_text(service));
        for (const Change &change : changes) {
            State is = state_of(now, change.name);
            if (is == change.before)
                continue;
            if (whole && is && make(service, change.name, is, std::nullopt).empty())
                is.reset();
            make(service, change.name, is, change.before);
        }
        if (not_as(service, changes, &Change::before).empty())
            return "";
    }
    return "the list " + not_as(service, changes, &Change::before) +
           " could not be put back as it was";
}

// "" or what went wrong.
std::string send(Service &service, const std::vector<Change> &changes) {
    const Undisturbed undisturbed;
    for (const Change &change : changes)
        if (const std::string wrong = make(service, change.name, change.before, change.after);
            !wrong.empty())
            return change.name + ": " + wrong;
    const std::string other = not_as(service, changes, &Change::after);
    return other.empty() ? "" : other + ": the service has made something else of it";
}

int give_up(Service &service, const std::vector<Change> &changes, const std::string &why) {
    const std::string wrong = put_back(service, changes);
    std::cerr << "ipaclctl: " << why << "; "
              << (wrong.empty() ? "the old lists are back" : wrong.c_str()) << '\n';
    return 1;
}

int await_word(Service &service, Confirmation &confirmation, int seconds,
               const std::vector<Change> &changes) {
    std::cerr << "applied; the old lists come back in "
              << counted(static_cast<uint64_t>(seconds), "second")
              << " unless \"ipaclctl confirm\" is given, or Enter pressed here" << std::endl;
    switch (confirmation.wait(seconds)) {
    case Confirmation::kConfirmed:
        std::cerr << "confirmed\n";
        return 0;
    case Confirmation::kTimeout:
        return give_up(service, changes, "not confirmed in time");
    case Confirmation::kInterrupted:
        return give_up(service, changes, "interrupted");
    case Confirmation::kBusLost:
        break;
    }
    return give_up(service, changes, "the message bus went away before this was confirmed");
}

std::vector<Change> changes_to(const Lists &wanted, const Lists &running) {
    std::vector<Change> changes;
    for (const auto &[name, after] : wanted)
        if (const State before = state_of(running, name); before != after)
            changes.push_back({name, before, after});
    return changes;
}

} // namespace

int apply(Service &service, const Apply &what) {
    const Wanted wanted(what.file);
    const std::string running = running_text(service);
    const auto changes = changes_to(wanted.lists(), lists_in(running));
    Teller teller(running, wanted, what.limit);
    for (const Change &change : changes)
        teller.tell(change);
    const size_t all = wanted.lists().size();
    std::cout << changes.size() << " of " << counted(all, "list")
              << (all == 1 ? " differs" : " differ") << std::endl;
    if (what.dry_run || changes.empty())
        return 0;
    std::optional<Confirmation> confirmation;
    if (what.confirm)
        confirmation.emplace(service.path());
    if (const std::string wrong = send(service, changes); !wrong.empty())
        return give_up(service, changes, wrong);
    return confirmation ? await_word(service, *confirmation, what.confirm, changes) : 0;
}

} // namespace ipaclctl
