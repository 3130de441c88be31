#include "loader.h"

#include "progress.h"
#include "strict.h"

#include "ipacl/ipacl.h"
#include "ipacl/obj_ipacl.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace ipaclctl {
namespace {

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

// Plays lines one after the other. Rules are sent without waiting for the answers; whatever else a
// line asks for waits until the rules before it have theirs.
class Player {
  public:
    // Told of each line that is wrong, in the order of the lines. Column 0: the line as a whole.
    using Report = std::function<void(size_t number, size_t column, const std::string &wrong)>;

    Player(Service &service, bool force, Report report)
        : service_(service), force_(force), report_(std::move(report)) {}

    void play(size_t number, const std::string &line) {
        const ConfigLine read = read_config_line(line);
        switch (read.what) {
        case ConfigLine::kNothing:
            return;
        case ConfigLine::kEnd:
            return tell(number, close());
        case ConfigLine::kBadHeader:
            tell(number, close());
            skipping_ = true;
            return tell(number, read.findings);
        case ConfigLine::kHeader:
        case ConfigLine::kRemoval:
            return tell(number, header(read));
        case ConfigLine::kMergeEnable:
        case ConfigLine::kRule:
            return rule(number, line, read);
        }
    }

    // Leaves the list that is open at the end.
    void end(size_t number) {
        tell(number, close());
        service_.finish();
    }

    LoadResult result;

  private:
    // What is known at once stands behind what the lines before are still to be told.
    void tell(size_t number, const std::string &wrong) {
        if (wrong.empty())
            return;
        service_.finish();
        fail(number, wrong);
    }
    void tell(size_t number, const Findings &findings) {
        service_.finish();
        result.errors++;
        show(number, findings);
    }

    void fail(size_t number, const std::string &wrong) {
        result.errors++;
        report_(number, 0, wrong);
    }

    // Findings of a line that was sent are warnings, whatever they were.
    void show(size_t number, const Findings &findings, bool sent = false) {
        for (const Finding &finding : findings) {
            const bool warning = sent || !finding.is_error();
            result.warnings += warning;
            report_(number, finding.column, (warning ? "warning: " : "") + finding.text);
        }
    }

    void rule(size_t number, const std::string &line, const ConfigLine &read) {
        if (skipping_)
            return tell(number, kListNotOpened);
        if (!open_)
            return tell(number, kNeedsList);
        if (read.what == ConfigLine::kMergeEnable)
            return tell(number, read.findings);
        Findings findings = check_rule(kind_, line);
        if (is_held(findings, force_ ? Strictness::kForced : Strictness::kFile))
            return tell(number, findings);
        service_.send("action", rule_request(name_, kind_, line),
                      [this, number, findings = std::move(findings)](const Reply &reply) {
                          show(number, findings, true);
                          if (const std::string wrong = complaint(reply); !wrong.empty())
                              fail(number, wrong);
                          else
                              result.rules++;
                      });
    }

    // Leaves the list that is open.
    std::string close() {
        skipping_ = false;
        if (!open_)
            return "";
        open_ = false;
        return leave_list(service_, name_, kind_);
    }

    // "" or what is wrong with a header or removal.
    std::string header(const ConfigLine &read) {
        std::string wrong = close();
        if (!wrong.empty())
            return wrong;
        if (read.what == ConfigLine::kRemoval)
            return destroy_list(service_, read.name, read.kind);
        wrong = open_list(service_, read.name, read.kind);
        skipping_ = !wrong.empty();
        if (skipping_)
            return wrong;
        open_ = true;
        name_ = read.name;
        kind_ = read.kind;
        result.lists++;
        return "";
    }

    Service &service_;
    bool force_;
    Report report_;
    bool open_ = false;
    bool skipping_ = false;
    std::string name_;
    Kind kind_ = Kind::kExtended;
};

} // namespace

std::string send_rule(Service &service, const std::string &name, Kind kind,
                      const std::string &rule) {
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

LoadResult load(Service &service, std::istream &in, const std::string &source, bool force) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    Progress progress(lines.size(), "lines");
    Player player(service, force, [&](size_t number, size_t column, const std::string &wrong) {
        progress.make_way();
        tell_wrong(source, number, column, first_line(wrong));
    });
    for (size_t i = 0; i < lines.size(); i++) {
        player.play(i + 1, lines[i]);
        progress.at(i + 1);
    }
    player.end(lines.size());
    return player.result;
}

} // namespace ipaclctl
