#include "import.h"

#include "foreign.h"
#include "list_source.h"
#include "strict.h"

#include "ipacl/aclapi.h"
#include "platform/sys.h"

#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <set>

namespace ipaclctl {
namespace {

constexpr int kFound = 1;

// A list of this process that is made from records.
class Made {
  public:
    Made(const std::string &slot, bool standard) : list_(get_ipacl_byname(slot.c_str(), standard)) {
        if (!list_)
            throw std::bad_alloc();
    }
    void add(const Record &record) {
        std::visit([this](const auto &rule) { append(rule); }, record);
    }
    const ipacl &list() const { return *list_; }

  private:
    template <class Rule>
    void append(const Rule &content) {
        auto *rule = static_cast<Rule *>(sys_mem_malloc(sizeof(Rule)));
        if (!rule)
            throw std::bad_alloc();
        *rule = content;
        add_acl_rule_location(list_, rule, 0, 0);
    }
    ipacl *list_;
};

// Converts one file.
class Importer {
  public:
    explicit Importer(const Configuration &from) : from_(from) {}

    int run() {
        const Foreign foreign = read_foreign(from_.text);
        for (const ForeignList &list : foreign.lists)
            convert(list);
        std::cerr << rules_ << " rules: " << rules_ - lost_ << " converted, " << noted_
                  << " of them with a note, " << lost_ << " lost; " << foreign.others
                  << " other lines passed over\n";
        return lost_ > 0 ? kFound : 0;
    }

  private:
    std::string slot(const char *what) {
        return std::string(what).append(" ").append(std::to_string(lists_));
    }

    void convert(const ForeignList &list) {
        lists_++;
        if (const std::string bad = name_trouble(list); !bad.empty())
            return lose(list, bad);
        Made meant(slot("meant"), list.standard), converted(slot("converted"), list.standard);
        bool comparable = true;
        for (const ForeignRule &rule : list.rules) {
            for (const Record &record : rule.meant) {
                meant.add(record);
                if (rule.lost.empty())
                    converted.add(record);
            }
            comparable = comparable && (rule.lost.empty() || rule.remark || !rule.meant.empty());
        }
        const std::string text = write(list, analysis::rule_texts(converted.list()));
        std::cout << text;
        if (comparable)
            prove(list.name, meant.list(), text);
        else
            std::cerr << list.name
                      << ": a rule was lost that can't be said in our terms; nothing is proved\n";
    }

    void lose(const ForeignList &list, const std::string &why) {
        for (const ForeignRule &rule : list.rules)
            if (!rule.remark)
                tell_lost(rule, why);
    }

    void tell_lost(const ForeignRule &rule, const std::string &why) {
        rules_++;
        lost_++;
        tell(rule, "lost, " + why);
    }

    // The list with those of its rules that are shown as `shown`, in order; tells what became of
    // each.
    std::string write(const ForeignList &list, const std::vector<std::string> &shown) {
        std::string text = "ip access-list ";
        text.append(list.standard ? "standard " : "extended ").append(list.name).append("\n");
        size_t next = 0, by_port = 0;
        std::set<std::string> commands;
        for (const ForeignRule &rule : list.rules) {
            if (rule.remark || !rule.lost.empty()) {
                text.append(rule.remark ? "# " : "# lost: ").append(rule.text).append("\n");
                if (!rule.remark)
                    tell_lost(rule, rule.lost);
                continue;
            }
            rules_++;
            by_port += rule.denies_by_port;
            noted_ += !rule.notes.empty();
            for (const std::string &note : rule.notes)
                tell(rule, note);
            for (size_t i = 0; i < rule.meant.size(); i++, next++)
                if (commands.insert(shown[next]).second)
                    text.append(" ").append(command_of_shown(shown[next])).append("\n");
                else
                    tell(rule, "left out, an equal rule stands before it");
        }
        if (by_port)
            std::cerr << list.name << ": " << by_port
                      << (by_port == 1 ? " rule denies" : " rules deny")
                      << " by port and so take every later fragment, which shows none; most "
                         "devices let such a rule pass them\n";
        return text.append("!\n");
    }

    std::string name_trouble(const ForeignList &list) {
        const std::string bad = bad_name(list.name);
        return bad.empty() && !names_.insert(list.name).second
                   ? "there is a list " + list.name + " of the other kind"
                   : bad;
    }

    void tell(const ForeignRule &rule, const std::string &what) const {
        std::cerr << from_.source << ':' << rule.line << ": " << what << ": " << rule.text << '\n';
    }

    // Whether the text, read as the service reads it, decides as was meant.
    void prove(const std::string &name, const ipacl &meant, const std::string &text) {
        size_t refused = 0;
        const ipacl &read =
            read_list({text, from_.source, false}, name, slot("read back").c_str(), &refused);
        std::optional<analysis::Packet> witness;
        try {
            witness = analysis::first_difference(meant, read);
        } catch (const analysis::TooComplex &trouble) {
            std::cerr << name << ": can't be proved: " << trouble.what() << '\n';
            return;
        }
        if (witness)
            std::cerr << name << ": not as it was: " << analysis::packet_text(*witness) << ": "
                      << analysis::verdict_text(analysis::decide(meant, *witness)) << ", now "
                      << analysis::verdict_text(analysis::decide(read, *witness)) << '\n';
        else
            std::cerr << name << ": proved, it decides every packet as it was meant to\n";
    }

    const Configuration &from_;
    std::set<std::string> names_;
    size_t lists_ = 0, rules_ = 0, noted_ = 0, lost_ = 0;
};

} // namespace

void add_import_command(CLI::App &app, LocalCommand &chosen) {
    const auto file = std::make_shared<std::string>();
    CLI::App *sub =
        app.add_subcommand("import", "convert access lists with wildcard masks, rule by rule");
    sub->callback([&chosen, file] {
        chosen = [file] {
            const Configuration from = read_configuration(*file);
            return Importer(from).run();
        };
    });
    sub->add_option("file", *file, "a configuration (- is standard input)")->required();
}

} // namespace ipaclctl
