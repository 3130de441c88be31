// Lists out of a configuration text, and what reads them.
#pragma once

#include "aclapi_kind.h"
#include "fuzz.h"
#include "ipaclext.h"
#include "ipaclstd.h"

namespace fuzz {

// Plays configuration lines straight into the service, without the bus: headers, rules, "!".
class Loader {
  public:
    // Long or unprintable names are the business of the registry; a round trip keeps to names that
    // fit.
    explicit Loader(bool any_name) : any_name_(any_name) {}

    void load(std::string_view text) {
        while (!text.empty()) {
            const size_t end = std::min(text.find('\n'), text.size());
            play(std::string(text.substr(0, end)));
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        leave();
    }

  private:
    void play(const std::string &line) {
        constexpr std::string_view kStandard = "ip access-list standard ";
        constexpr std::string_view kExtended = "ip access-list extended ";
        constexpr std::string_view kNo = "no ";
        const std::string_view text = line;
        const bool no = text.starts_with(kNo);
        const std::string_view header = no ? text.substr(kNo.size()) : text;
        if (header.starts_with(kStandard))
            open(std::string(header.substr(kStandard.size())), 1, no);
        else if (header.starts_with(kExtended))
            open(std::string(header.substr(kExtended.size())), 0, no);
        else if (text.starts_with("!"))
            leave();
        else if (!name_.empty())
            rule(line.c_str());
    }
    void open(const std::string &name, int is_standard, bool no) {
        leave();
        if (no) {
            ipacl_delete(name.c_str(), is_standard);
            return;
        }
        if (!any_name_ && (name.empty() || name.size() > IPACL_NAME_LEN ||
                           name.find_first_of(", \t\r", 0, 5) != std::string::npos))
            return;
        ipacl *list = get_ipacl_byname(name.c_str(), is_standard);
        if (!list)
            return;
        list->status = IPACL_STATUS_NOTREADY;
        name_ = list->name;
        is_standard_ = is_standard;
    }
    void leave() {
        if (!name_.empty())
            is_standard_ ? acls_exit(name_.c_str()) : acle_exit(name_.c_str());
        name_.clear();
    }
    void rule(const char *text) {
        if (!is_standard_)
            do_extended_end(name_.c_str(), text);
        else if (do_standard_end(name_.c_str(), text) < 0)
            Service::may_lose++; // a range that is turned loses its record
    }

    bool any_name_;
    std::string name_;
    int is_standard_ = 0;
};

inline std::string running_configuration() {
    fake::take_terminal();
    acl_print();
    return fake::take_terminal();
}

template <class Rule>
size_t length(const Rule *rule) {
    size_t count = 0;
    for (; rule; rule = rule->ipacl_next)
        count++;
    return count;
}

inline size_t rules_of(const ipacl &list) {
    return list.is_standard == 1 ? length(list.ipacl_s) : length(list.ipacl_e);
}

} // namespace fuzz
