#include "list_source.h"

#include "strict.h"

#include "analysis/analysis.h"
#include "ipacl/aclapi.h"
#include "ipacl/ipaclext.h"
#include "ipacl/ipaclstd.h"
#include "platform/vty.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <vector>

namespace ipaclctl {
namespace {

// What the library writes to the terminal while one of these lives, instead of standard output.
class Answers {
  public:
    Answers() {
        log_print_fp_1 = open_memstream(&text_, &size_);
        log_print_handler = 1;
    }
    ~Answers() {
        log_print_handler = 0;
        (void)fclose(log_print_fp_1);
        log_print_fp_1 = nullptr;
        free(text_);
    }
    Answers(const Answers &) = delete;
    Answers &operator=(const Answers &) = delete;

    // In one line.
    std::string take() {
        (void)fflush(log_print_fp_1);
        std::string line(text_, size_);
        for (char &c : line)
            c = c == '\n' ? ' ' : c;
        line.erase(line.find_last_not_of(' ') + 1);
        return line;
    }

  private:
    char *text_ = nullptr;
    size_t size_ = 0;
};

class Reader {
  public:
    Reader(const Configuration &from, const std::string &name, const char *slot, size_t *refused)
        : from_(from), name_(name), slot_(slot), refused_(refused) {}

    const ipacl &read() {
        std::istringstream in(from_.text);
        for (std::string line; std::getline(in, line);) {
            number_++;
            take(trimmed(line));
        }
        if (!list_)
            throw Trouble(from_.running ? "there is no list " + name_
                                        : "there is no list " + name_ + " in " + from_.source);
        return *list_;
    }

  private:
    void take(const std::string &line) {
        const ConfigLine read = read_config_line(line);
        switch (read.what) {
        case ConfigLine::kNothing:
        case ConfigLine::kMergeEnable:
            return;
        case ConfigLine::kEnd:
            open_ = false;
            return;
        case ConfigLine::kBadHeader:
            open_ = false;
            return refuse(read.findings);
        case ConfigLine::kHeader:
        case ConfigLine::kRemoval:
            open_ = false;
            if (read.name == name_)
                header(read);
            return;
        case ConfigLine::kRule:
            if (open_)
                rule(line);
        }
    }

    void header(const ConfigLine &read) {
        if (read.what == ConfigLine::kRemoval) {
            if (list_)
                ipacl_delete(slot_, list_->is_standard);
            list_ = nullptr;
            return;
        }
        ipacl *made = get_ipacl_byname(slot_, read.kind == Kind::kStandard);
        open_ = made != nullptr;
        if (made)
            list_ = made;
        else
            refuse("there is a list of this name of the other kind");
    }

    void rule(const std::string &line) {
        const Findings findings =
            check_rule(list_->is_standard ? Kind::kStandard : Kind::kExtended, line);
        if (is_held(findings, from_.running ? Strictness::kForced : Strictness::kFile))
            return refuse(findings);
        Answers answers;
        const std::string command = from_.running ? command_of_shown(line) : line;
        const int result = list_->is_standard ? do_standard_end(slot_, command.c_str())
                                              : do_extended_end(slot_, command.c_str());
        std::string wrong = answers.take();
        if (wrong.empty() && result != 0)
            wrong = "the interface that it names is not to be found here";
        if (!wrong.empty())
            return refuse(wrong);
        if (from_.running)
            check(line);
    }

    // The service can show words that the rule commands skip: the last rule must read as it was
    // shown.
    void check(const std::string &line) {
        const auto texts = analysis::rule_texts(*list_);
        if (texts.empty() || texts.back() != line)
            throw Trouble("the list " + name_ + " has a rule that can't be read back: " + line);
    }

    void refuse(const Findings &findings) {
        for (const Finding &finding : findings)
            if (finding.is_error())
                refuse(finding.text, finding.column);
    }
    void refuse(const std::string &wrong, size_t column = 0) {
        if (from_.running)
            throw Trouble("the list " + name_ + " can't be read back: " + wrong);
        tell_wrong(from_.source, number_, column, wrong);
        if (refused_)
            ++*refused_;
    }

    const Configuration &from_;
    const std::string &name_;
    const char *slot_;
    size_t *refused_;
    size_t number_ = 0;
    ipacl *list_ = nullptr;
    bool open_ = false;
};

} // namespace

Configuration read_configuration(const std::string &file) {
    std::ostringstream text;
    if (file == "-") {
        text << std::cin.rdbuf();
        return {text.str(), "stdin", false};
    }
    std::ifstream in(file);
    if (!in)
        throw Trouble("can't read " + file + ": " + strerror(errno));
    if (in.peek() != std::ifstream::traits_type::eof())
        text << in.rdbuf();
    return {text.str(), file, false};
}

Configuration configuration_of(const std::string &file,
                               const std::function<std::string()> &running) {
    return file.empty() ? Configuration{running(), "the service", true} : read_configuration(file);
}

std::string trimmed(const std::string &line) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

std::string command_of_shown(const std::string &line) {
    constexpr std::string_view kShown = " ftp-data";
    std::string command = line;
    for (size_t at = 0; (at = command.find(kShown, at)) != std::string::npos; at++)
        if (at + kShown.size() == command.size() || command[at + kShown.size()] == ' ')
            command.replace(at, kShown.size(), " 20");
    return command;
}

const ipacl &read_list(const Configuration &configuration, const std::string &name,
                       const char *slot, size_t *refused) {
    return Reader(configuration, name, slot, refused).read();
}

} // namespace ipaclctl
