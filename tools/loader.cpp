#include "loader.h"

#include "ipacl/ipacl.h"
#include "ipacl/obj_ipacl.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <unistd.h>
#include <vector>

namespace ipaclctl {
namespace {

using Words = std::vector<std::string>;

Words split(const std::string &line) {
    constexpr const char *kSeparators = ", \t\r\n";
    Words words;
    for (size_t at = 0; (at = line.find_first_not_of(kSeparators, at)) != std::string::npos;) {
        const size_t end = line.find_first_of(kSeparators, at);
        words.push_back(line.substr(at, end - at));
        at = end == std::string::npos ? line.size() : end;
    }
    return words;
}

std::optional<Kind> kind_word(const std::string &word) {
    if (word == "standard")
        return Kind::kStandard;
    if (word == "extended")
        return Kind::kExtended;
    return std::nullopt;
}

Request request_for(const std::string &name, Kind kind, ipacl_action_code action) {
    Request request;
    request.name = name;
    request.action = static_cast<uint8_t>(action);
    request.moudle = static_cast<uint8_t>(IPACL_MOUDLE_CMD);
    request.type = kind;
    return request;
}

Request rule_request(const std::string &name, Kind kind, const std::string &rule) {
    Request request = request_for(name, kind, IPACL_ACTION_EDIT);
    request.rule = rule;
    return request;
}

std::string first_line(const std::string &text) { return text.substr(0, text.find('\n')); }

// What to say of a reply.
std::string complaint(const Reply &reply) {
    if (!reply.output.empty()) {
        std::string all = reply.output;
        while (!all.empty() && all.back() == '\n')
            all.pop_back();
        std::replace(all.begin(), all.end(), '\n', ' ');
        return all;
    }
    return reply.status ? std::string("the service refused it: ") + ubus_strerror(reply.status)
                        : std::string();
}

// A bar on a terminal for what takes longer than a second.
class Progress {
  public:
    explicit Progress(size_t total) : total_(total), shown_(false), terminal_(isatty(2) == 1) {}
    ~Progress() {
        if (shown_)
            (void)fputs("\r\033[K", stderr);
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void at(size_t done) {
        using namespace std::chrono;
        const auto now = steady_clock::now();
        if (!terminal_ || now - start_ < seconds(1) || now - last_ < milliseconds(100))
            return;
        constexpr size_t kWidth = 40;
        const std::string bar(total_ ? kWidth * done / total_ : kWidth, '#');
        (void)fprintf(stderr, "\r[%-40s] %zu of %zu lines", bar.c_str(), done, total_);
        (void)fflush(stderr);
        last_ = now;
        shown_ = true;
    }
    // Clears the line for a message.
    void make_way() {
        if (shown_)
            (void)fputs("\r\033[K", stderr);
    }

  private:
    size_t total_;
    bool shown_;
    bool terminal_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point last_{};
};

// Plays lines one after the other. Rules are sent without waiting for the answers; whatever else a
// line asks for waits until the rules before it have theirs.
class Player {
  public:
    // Told of each line that is wrong, in the order of the lines.
    using Report = std::function<void(size_t number, const std::string &wrong)>;

    Player(Service &service, Report report) : service_(service), report_(std::move(report)) {}

    void play(size_t number, const std::string &line) {
        const Words words = split(line);
        if (words.empty() || words[0][0] == '#')
            return;
        if (const std::string wrong = obey(number, words, line); !wrong.empty())
            tell(number, wrong);
    }

    // Leaves the list that is open at the end.
    void end(size_t number) {
        if (const std::string wrong = close(); !wrong.empty())
            tell(number, wrong);
        service_.finish();
    }

    LoadResult result;

  private:
    // What is known at once stands behind what the lines before are still to be told.
    void tell(size_t number, const std::string &wrong) {
        service_.finish();
        fail(number, wrong);
    }

    void fail(size_t number, const std::string &wrong) {
        result.errors++;
        report_(number, wrong);
    }

    // "" or what is wrong with the line, as far as that is known without the service's answer.
    std::string obey(size_t number, const Words &words, const std::string &line) {
        if (words[0] == "!")
            return close();
        const bool no = words[0] == "no" && words.size() > 2 && words[2] == "access-list";
        if (no || (words.size() > 1 && words[0] == "ip" && words[1] == "access-list"))
            return header(words, no);
        if (skipping_)
            return "this line belongs to a list that could not be opened";
        if (!open_)
            return "a rule needs a list: put \"ip access-list standard|extended NAME\" first";
        if (words[0] == "merge-enable")
            return "merge-enable can't be switched on through the bus";
        if (std::string wrong = refused_silently(kind_, line); !wrong.empty())
            return wrong;
        service_.send("action", rule_request(name_, kind_, line),
                      [this, number](const Reply &reply) {
                          if (const std::string wrong = complaint(reply); !wrong.empty())
                              fail(number, wrong);
                          else
                              result.rules++;
                      });
        return "";
    }

    // Leaves the list that is open.
    std::string close() {
        skipping_ = false;
        if (!open_)
            return "";
        open_ = false;
        return leave_list(service_, name_, kind_);
    }

    std::string header(const Words &words, bool no) {
        const size_t at = no ? 3 : 2;
        std::string wrong = close();
        const auto kind = words.size() > at ? kind_word(words[at]) : std::nullopt;
        if (!kind || words.size() != at + 2)
            return skip("expected \"" + std::string(no ? "no " : "") +
                        "ip access-list standard|extended NAME\"");
        if (const std::string bad = bad_name(words[at + 1]); !bad.empty())
            return skip(bad);
        if (!wrong.empty())
            return wrong;
        if (no)
            return destroy_list(service_, words[at + 1], *kind);
        wrong = open_list(service_, words[at + 1], *kind);
        if (!wrong.empty())
            return skip(wrong);
        open_ = true;
        name_ = words[at + 1];
        kind_ = *kind;
        result.lists++;
        return "";
    }

    std::string skip(const std::string &wrong) {
        skipping_ = true;
        return wrong;
    }

    Service &service_;
    Report report_;
    bool open_ = false;
    bool skipping_ = false;
    std::string name_;
    Kind kind_ = Kind::kExtended;
};

} // namespace

std::string bad_name(const std::string &name) {
    if (name.empty())
        return "a list needs a name";
    if (name.size() > IPACL_NAME_LEN)
        return "the name " + name + " is too long: at most 20 characters are kept";
    return "";
}

std::string refused_silently(Kind kind, const std::string &rule) {
    const Words words = split(rule);
    const size_t at = !words.empty() && words[0].starts_with("no") ? 2 : 1;
    if (kind != Kind::kStandard || words.size() < at + 3 || !words[at].starts_with("src-range"))
        return "";
    const in_addr_t first = inet_addr(words[at + 1].c_str());
    const in_addr_t last = inet_addr(words[at + 2].c_str());
    if (first <= last)
        return "";
    return "the range " + words[at + 1] + " to " + words[at + 2] +
           " is refused: its last address must not come before its first, and this device orders "
           "the addresses of a range by their last octet first";
}

std::string send_rule(Service &service, const std::string &name, Kind kind,
                      const std::string &rule) {
    if (std::string wrong = refused_silently(kind, rule); !wrong.empty())
        return wrong;
    return complaint(service.call("action", rule_request(name, kind, rule)));
}

std::string open_list(Service &service, const std::string &name, Kind kind) {
    const Reply reply = service.call("create", request_for(name, kind, IPACL_ACTION_CREATE));
    if (reply.status == 0)
        return "";
    const auto found = service.kind_of(name);
    if (found && *found != kind)
        return std::string("there is ") +
               (*found == Kind::kStandard ? "a standard" : "an extended") +
               " list of this name; destroy it first, or choose another name";
    return "the list " + name + " can't be opened for editing";
}

std::string leave_list(Service &service, const std::string &name, Kind kind) {
    return complaint(service.call("action", request_for(name, kind, IPACL_ACTION_EXIT)));
}

std::string destroy_list(Service &service, const std::string &name, Kind kind) {
    const auto found = service.kind_of(name);
    if (!found)
        return "there is no list " + name;
    if (*found != kind)
        return "the list " + name + " is " + kind_name(*found);
    return complaint(service.call("destroy", request_for(name, kind, IPACL_ACTION_DELETE)));
}

LoadResult load(Service &service, std::istream &in, const std::string &source) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    Progress progress(lines.size());
    Player player(service, [&](size_t number, const std::string &wrong) {
        progress.make_way();
        (void)fprintf(stderr, "%s:%zu: %s\n", source.c_str(), number, first_line(wrong).c_str());
    });
    for (size_t i = 0; i < lines.size(); i++) {
        player.play(i + 1, lines[i]);
        progress.at(i + 1);
    }
    player.end(lines.size());
    return player.result;
}

} // namespace ipaclctl
