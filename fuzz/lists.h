// The service on the fake platform, lists out of a configuration text, and what reads them.
#pragma once

#include "aclapi_kind.h"
#include "fixture.h"
#include "fuzz.h"
#include "ipaclext.h"
#include "ipaclstd.h"

#include <utility>

namespace fuzz {

// The service for one input: no lists, an interface or two. Afterwards all of it is gone, and every
// block that is still there must be one that is specified to be lost.
class Service : private ServiceTest {
  public:
    static constexpr const char *kAddress = "10.0.0.1";
    static constexpr const char *kMask = "255.255.255.0";

    Service() = delete;
    template <class F>
    static void run(F &&body) {
        const size_t start = fake::mark();
        fake::set_interface("vlan1", 1, "10.1.0.1", "255.255.0.0");
        fake::set_interface("vlan10", 10, kAddress, kMask);
        may_lose = 0;
        body();
        delete_lists();
        clear();
        require(fake::free_lost(start) <= may_lose, "no more memory is lost than specified");
    }
    static inline size_t may_lose;

  private:
    void TestBody() override {}
    // One at a time, each filed where its name says: a name that was cut lies in another bucket.
    static void delete_lists() {
        for (ipacl *&head : hash_table) {
            while (ipacl *list = head) {
                head = list->next;
                list->next = nullptr;
                ipacl *&home = hash_table[hash_char(list->name)];
                ipacl *others = std::exchange(home, list);
                require(ipacl_delete(list->name, list->is_standard), "a list can be deleted");
                home = others;
            }
        }
    }
};

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

inline int discard(const char *, ...) { return 0; }

inline void read_with_every_renderer(ipacl &list) {
    print_rule(&list);
    show_rule(&list, 2);
    show_ip_acl_rule(&list, IPACL_SHOW_PACKETS | IPACL_SHOW_BYTES, discard);
    print_ipaclrule_byname(list.name);
    ipacl_show_json(list.name, list.is_standard);
    trace_print_rule(&list, 3);
}

} // namespace fuzz
