#include "lint.h"

#include "strict.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

namespace ipaclctl {
namespace {

struct Located {
    size_t line;
    Finding finding;
};

const char *severity_name(const Finding &finding) {
    return finding.is_error() ? "error" : "warning";
}

// Reads the lines of a file as they would be played: a rule belongs to the list above it.
class Linter {
  public:
    void read(const std::string &line) {
        number_++;
        const ConfigLine read = read_config_line(line);
        add(read.findings);
        switch (read.what) {
        case ConfigLine::kNothing:
        case ConfigLine::kMergeEnable:
            return;
        case ConfigLine::kEnd:
        case ConfigLine::kRemoval:
            if (read.what == ConfigLine::kRemoval)
                kinds_.erase(read.name);
            open_ = skipping_ = false;
            return;
        case ConfigLine::kBadHeader:
            open_ = false;
            skipping_ = true;
            return;
        case ConfigLine::kHeader:
            return open(line, read);
        case ConfigLine::kRule:
            if (open_)
                add(check_rule(kind_, line));
            else
                add({whole_line(line, skipping_ ? kListNotOpened : kNeedsList)});
        }
    }

    std::vector<Located> found;

  private:
    static Finding whole_line(const std::string &line, const std::string &text) {
        return {Check::kNoList, Severity::kError, line.find_first_not_of(", \t\r") + 1, text};
    }

    void open(const std::string &line, const ConfigLine &read) {
        kind_ = kinds_.try_emplace(read.name, read.kind).first->second;
        open_ = kind_ == read.kind;
        skipping_ = !open_;
        if (skipping_)
            add({whole_line(line, std::string("the list ") + read.name + " is " + kind_name(kind_) +
                                      " above")});
    }

    void add(const Findings &findings) {
        for (const Finding &finding : findings)
            found.push_back({number_, finding});
    }

    size_t number_ = 0;
    bool open_ = false;
    bool skipping_ = false;
    Kind kind_ = Kind::kExtended;
    std::map<std::string, Kind> kinds_;
};

using Json = std::unique_ptr<cJSON, void (*)(cJSON *)>;

cJSON *add_number(cJSON *object, const char *key, size_t number) {
    return cJSON_AddNumberToObject(object, key, static_cast<double>(number));
}

void print(const Json &json) {
    const std::unique_ptr<char, void (*)(void *)> text(cJSON_Print(json.get()), cJSON_free);
    std::cout << text.get() << '\n';
}

void print_text(const std::string &source, const std::vector<Located> &found) {
    for (const auto &[line, finding] : found)
        std::cout << source << ':' << line << ':' << finding.column << ": "
                  << severity_name(finding) << ": " << finding.text << " [" << id_of(finding.check)
                  << "]\n";
}

void print_json(const std::string &source, const std::vector<Located> &found) {
    const Json all(cJSON_CreateArray(), cJSON_Delete);
    for (const auto &[line, finding] : found) {
        cJSON *one = cJSON_CreateObject();
        cJSON_AddItemToArray(all.get(), one);
        cJSON_AddStringToObject(one, "file", source.c_str());
        add_number(one, "line", line);
        add_number(one, "column", finding.column);
        cJSON_AddStringToObject(one, "severity", severity_name(finding));
        cJSON_AddStringToObject(one, "check", id_of(finding.check));
        cJSON_AddStringToObject(one, "message", finding.text.c_str());
    }
    print(all);
}

// A file's name as a reference of a URI: what may not stand in one is escaped.
std::string uri_of(const std::string &file) {
    constexpr const char *kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                                   "-._~/";
    std::string uri;
    for (const char c : file) {
        char escaped[4];
        if (strchr(kPlain, c)) {
            uri += c;
            continue;
        }
        (void)snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(c));
        uri += escaped;
    }
    return uri;
}

void add_text(cJSON *object, const char *key, const char *text) {
    cJSON_AddStringToObject(cJSON_AddObjectToObject(object, key), "text", text);
}

// The form that code-scanning services read: SARIF 2.1.0.
void print_sarif(const std::string &source, const std::vector<Located> &found) {
    const Json log(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddStringToObject(log.get(), "$schema", "https://json.schemastore.org/sarif-2.1.0.json");
    cJSON_AddStringToObject(log.get(), "version", "2.1.0");
    cJSON *run = cJSON_CreateObject();
    cJSON_AddItemToArray(cJSON_AddArrayToObject(log.get(), "runs"), run);
    cJSON *driver = cJSON_AddObjectToObject(cJSON_AddObjectToObject(run, "tool"), "driver");
    cJSON_AddStringToObject(driver, "name", "ipaclctl lint");
    cJSON_AddStringToObject(driver, "version", IPACL_VERSION);
    cJSON *rules = cJSON_AddArrayToObject(driver, "rules");
    for (const auto &row : checks()) {
        cJSON *rule = cJSON_CreateObject();
        cJSON_AddItemToArray(rules, rule);
        cJSON_AddStringToObject(rule, "id", row.id);
        add_text(rule, "shortDescription", row.what);
    }
    cJSON *results = cJSON_AddArrayToObject(run, "results");
    for (const auto &[line, finding] : found) {
        cJSON *one = cJSON_CreateObject();
        cJSON_AddItemToArray(results, one);
        cJSON_AddStringToObject(one, "ruleId", id_of(finding.check));
        cJSON_AddStringToObject(one, "level", severity_name(finding));
        add_text(one, "message", finding.text.c_str());
        cJSON *place = cJSON_CreateObject();
        cJSON_AddItemToArray(cJSON_AddArrayToObject(one, "locations"), place);
        cJSON *physical = cJSON_AddObjectToObject(place, "physicalLocation");
        cJSON_AddStringToObject(cJSON_AddObjectToObject(physical, "artifactLocation"), "uri",
                                uri_of(source).c_str());
        cJSON *region = cJSON_AddObjectToObject(physical, "region");
        add_number(region, "startLine", line);
        add_number(region, "startColumn", finding.column);
    }
    print(log);
}

} // namespace

int lint(const std::string &file, LintFormat format, bool warnings_count) {
    const bool standard_input = file == "-";
    std::ifstream opened;
    if (!standard_input) {
        opened.open(file);
        if (!opened) {
            std::cerr << "ipaclctl: can't read " << file << ": " << strerror(errno) << '\n';
            return 2;
        }
    }
    std::istream &in = standard_input ? std::cin : opened;
    const std::string source = standard_input ? "stdin" : file;
    Linter linter;
    for (std::string line; std::getline(in, line);)
        linter.read(line);
    switch (format) {
    case LintFormat::kText:
        print_text(source, linter.found);
        break;
    case LintFormat::kJson:
        print_json(source, linter.found);
        break;
    case LintFormat::kSarif:
        print_sarif(source, linter.found);
        break;
    }
    return std::any_of(linter.found.begin(), linter.found.end(), [&](const Located &located) {
        return warnings_count || located.finding.is_error();
    });
}

} // namespace ipaclctl
