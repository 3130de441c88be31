#include "commands.h"

#include "loader.h"
#include "save.h"
#include "strict.h"

#include "ipacl/obj_ipacl.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

namespace ipaclctl {
namespace {

// Says what is wrong, if anything is.
int result(const std::string &wrong) {
    if (wrong.empty())
        return 0;
    std::cerr << "ipaclctl: " << wrong << '\n';
    return 1;
}

int no_such_list(const std::string &name) { return result("there is no list " + name); }

Request request_of(ipacl_action_code action) {
    Request request;
    request.action = static_cast<uint8_t>(action);
    request.moudle = static_cast<uint8_t>(IPACL_MOUDLE_CMD);
    return request;
}

} // namespace

int load_file(Service &service, const std::string &file, bool verbose, bool force) {
    std::ifstream opened;
    if (file != "-") {
        opened.open(file);
        if (!opened)
            return result("can't read " + file + ": " + strerror(errno));
    }
    const bool standard_input = file == "-";
    const LoadResult loaded =
        load(service, standard_input ? std::cin : opened, standard_input ? "stdin" : file, force);
    if (verbose) {
        std::cerr << loaded.lists << " lists, " << loaded.rules << " rules, " << loaded.errors
                  << " errors";
        if (loaded.warnings)
            std::cerr << ", " << loaded.warnings << " warnings";
        std::cerr << '\n';
    }
    return loaded.errors ? 1 : 0;
}

int show_running(Service &service) {
    std::cout << service.text("showrunning", Request());
    return 0;
}

int save(Service &service, const std::string &file) {
    return result(replace_file(file, service.text("showrunning", Request())));
}

std::string listing(Service &service, const std::optional<std::string> &name) {
    if (name) {
        Request request = request_of(IPACL_ACTION_SHOW);
        request.name = *name;
        return service.text("action", request);
    }
    // The listing of every list that the configuration names, in its order.
    std::istringstream running(service.text("showrunning", Request()));
    std::string all;
    for (std::string line; std::getline(running, line);)
        if (line.starts_with("ip access-list "))
            all += listing(service, line.substr(line.rfind(' ') + 1));
    return all;
}

int show_lists(Service &service, const std::optional<std::string> &name) {
    const std::string text = listing(service, name);
    std::cout << text;
    return name && text.empty() ? no_such_list(*name) : 0;
}

std::string json_text(Service &service, const std::optional<std::string> &name, Kind kind) {
    Request request = request_of(IPACL_ACTION_JSON);
    if (name) {
        request.name = *name;
        request.type = kind;
    }
    return service.text("action", request);
}

int show_json(Service &service, const std::optional<std::string> &name, std::optional<Kind> kind) {
    if (name && !kind)
        kind = service.kind_of(*name);
    if (name && !kind)
        return no_such_list(*name);
    std::cout << json_text(service, name, kind.value_or(Kind::kExtended));
    return 0;
}

int create(Service &service, const std::string &name, Kind kind) {
    std::string wrong = bad_name(name);
    if (wrong.empty())
        wrong = open_list(service, name, kind);
    if (wrong.empty())
        wrong = leave_list(service, name, kind);
    return result(wrong);
}

int destroy(Service &service, const std::string &name, std::optional<Kind> kind) {
    if (!kind)
        kind = service.kind_of(name);
    return kind ? result(destroy_list(service, name, *kind)) : no_such_list(name);
}

int rule(Service &service, const std::string &name, const std::string &words, bool force) {
    const auto kind = service.kind_of(name);
    if (!kind)
        return no_such_list(name);
    const Findings findings = check_rule(*kind, words);
    for (const Finding &finding : findings)
        std::cerr << "ipaclctl: column " << finding.column << ": " << finding.text << '\n';
    if (is_held(findings, force ? Strictness::kForced : Strictness::kTyped))
        return 1;
    std::string wrong = open_list(service, name, *kind);
    if (wrong.empty()) {
        wrong = send_rule(service, name, *kind, words);
        const std::string left = leave_list(service, name, *kind);
        if (wrong.empty())
            wrong = left;
    }
    return result(wrong);
}

int watch(Service &service, unsigned count) {
    unsigned seen = 0;
    service.watch([] { std::cerr << "watching\n"; },
                  [&](const std::string &name, const std::string &state) {
                      std::cout << name << ' ' << state << std::endl;
                      return ++seen != count;
                  });
    return 0;
}

} // namespace ipaclctl
