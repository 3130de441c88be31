// ipaclctl: the operator's hands on a running access-list service.
//
// Exit status: 0 done; 1 refused or failed; 2 wrong usage, or nobody to ask.

#include "analysis_commands.h"
#include "apply.h"
#include "commands.h"
#include "confirm.h"
#include "explain.h"
#include "import.h"
#include "lint.h"
#include "list_source.h"
#include "ranges.h"
#include "replay.h"
#include "save.h"
#include "shell.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <iostream>
#include <map>

namespace {

using namespace ipaclctl;

std::vector<std::string> kinds() {
    return {kind_name(Kind::kStandard), kind_name(Kind::kExtended)};
}

const std::map<std::string, LintFormat> &formats() {
    static const std::map<std::string, LintFormat> words{
        {"text", LintFormat::kText}, {"json", LintFormat::kJson}, {"sarif", LintFormat::kSarif}};
    return words;
}

// What the command line asked for.
struct Arguments {
    std::string socket;
    int timeout = 30;
    bool verbose = false;
    bool force = false;
    bool warnings_count = false;
    LintFormat format = LintFormat::kText;
    std::string file;
    std::string words;
    unsigned count = 0;
    std::optional<std::string> name;
    std::optional<Kind> kind;
};

using Command = std::function<int(Service &)>;

class CommandLine {
  public:
    CommandLine() {
        app_.set_version_flag("--version", IPACL_VERSION);
        app_.require_subcommand(0, 1); // without one: the shell
        app_.add_option("-s,--socket", a_.socket, "socket of the message bus");
        app_.add_option("-t,--timeout", a_.timeout, "seconds to wait for an answer")
            ->check(CLI::PositiveNumber);
        force(&app_);
        auto *load = add("load", "play a configuration (- is standard input)", [this](Service &s) {
            return load_file(s, a_.file, a_.verbose, a_.force);
        });
        load->add_option("file", a_.file)->required();
        load->add_flag("-v,--verbose", a_.verbose, "say what was loaded");
        force(load);
        add("running-config", "write the running configuration", show_running);
        auto *saved =
            add("save", "write the running configuration to a file, all or nothing",
                [this](Service &s) { return save(s, a_.file.empty() ? kStartupConfig : a_.file); });
        saved->add_option("file", a_.file,
                          "where to (default: " + std::string(kStartupConfig) + ")");
        auto *show = add("show", "list one access list, or all",
                         [this](Service &s) { return show_lists(s, a_.name); });
        name(show, false);
        auto *json = add("json", "the directory of lists, or the rules of one, as JSON",
                         [this](Service &s) { return show_json(s, a_.name, a_.kind); });
        name(json, false);
        kind(json, false);
        auto *made = add("create", "make a list",
                         [this](Service &s) { return create(s, *a_.name, *a_.kind); });
        name(made, true);
        kind(made, true);
        auto *destroyed = add("destroy", "destroy a list with all its rules",
                              [this](Service &s) { return destroy(s, *a_.name, a_.kind); });
        name(destroyed, true);
        kind(destroyed, false);
        auto *edited = add("rule", "give one rule command to a list",
                           [this](Service &s) { return rule(s, *a_.name, a_.words, a_.force); });
        name(edited, true);
        edited->add_option("words", a_.words, "the command, as one argument")->required();
        force(edited);
        add_lint();
        auto *watched = add("watch", "tell every list that changes or goes",
                            [this](Service &s) { return watch(s, a_.count); });
        watched->add_option("--count", a_.count, "end after so many");
#ifdef IPACL_ANALYSIS
        add_answers();
#endif
    }

    int run(int argc, char **argv) {
        try {
            app_.parse(argc, argv);
            if (local_command_)
                return local_command_();
            Service service(a_.socket, a_.timeout);
            return command_ ? command_(service) : run_shell(service, a_.force);
        } catch (const CLI::ParseError &error) {
            return app_.exit(error) == 0 ? 0 : 2;
        } catch (const Trouble &error) {
            std::cerr << "ipaclctl: " << error.what() << '\n';
            return 2;
        } catch (const Unreachable &error) {
            std::cerr << "ipaclctl: " << error.what() << '\n';
            return 2;
        }
    }

  private:
    CLI::App *add(const char *word, const char *help, const Command &command) {
        CLI::App *sub = app_.add_subcommand(word, help);
        sub->callback([this, command] { command_ = command; });
        return sub;
    }
    // What needs no service.
    void add_lint() {
        CLI::App *sub = app_.add_subcommand("lint", "read a configuration strictly, and say what "
                                                    "is wrong with it, without a service");
        sub->add_option("file", a_.file, "- is standard input")->required();
        sub->add_option_function<std::string>(
               "--format", [this](const std::string &word) { a_.format = formats().at(word); },
               "text, json or sarif")
            ->check(CLI::IsMember(formats()));
        sub->add_flag("-W,--warnings-as-errors", a_.warnings_count,
                      "exit with 1 for warnings as well");
        sub->callback([this] {
            local_command_ = [this] { return lint(a_.file, a_.format, a_.warnings_count); };
        });
    }
#ifdef IPACL_ANALYSIS
    // What works on lists in this process.
    void add_answers() {
        auto *applied = add("apply", "make the lists of a configuration what it says",
                            [this](Service &s) { return apply(s, apply_); });
        applied->add_option("file", apply_.file)->required();
        applied->add_flag("--dry-run", apply_.dry_run, "only show what would change");
        applied
            ->add_option("--confirm", apply_.confirm,
                         "put the old lists back after so many seconds, unless confirmed")
            ->check(CLI::Range(1, 24 * 60 * 60));
        applied->add_option("--limit", apply_.limit, "show at most so many regions of a list")
            ->check(CLI::PositiveNumber);
        add("confirm", "keep what \"apply --confirm\" has applied", confirm);
        const auto running = [this] {
            return Service(a_.socket, a_.timeout).text("showrunning", Request());
        };
        add_analysis_commands(app_, running, local_command_);
        add_explain_command(app_, running, local_command_);
        add_replay_command(app_, running, local_command_);
        add_ranges_command(app_, local_command_);
        add_import_command(app_, local_command_);
    }
#endif
    void force(CLI::App *sub) {
        sub->add_flag("-f,--force", a_.force, "send what strict reading holds back");
    }
    void name(CLI::App *sub, bool required) {
        sub->add_option("name", a_.name, "name of the list")->required(required);
    }
    void kind(CLI::App *sub, bool required) {
        sub->add_option_function<std::string>(
               "--type", [this](const std::string &word) { a_.kind = kind_word(word); },
               "standard or extended")
            ->check(CLI::IsMember(kinds()))
            ->required(required);
    }

    CLI::App app_{"Talks to a running IPv4 access-list service.", "ipaclctl"};
    Arguments a_;
    Apply apply_;
    Command command_;
    LocalCommand local_command_; // asks the service only if it has to
};

} // namespace

int main(int argc, char **argv) { return CommandLine().run(argc, argv); }
