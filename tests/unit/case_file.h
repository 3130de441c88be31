// The format of tests/cases/*.case.
//
// A case is a title line "# ...", commands "> ..." and, behind each command, what it is to cause,
// one line each, between bars: T|terminal|  S|standard output|  L|system log|  B|announcement|
// R|result|. A text that does not end with a line end has "\" as its last line's mark. A result
// of 0 is not written.
#pragma once

#include "ipacl.h"
#include "obj_ipacl.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

inline std::string mark_lines(char channel, const std::string &text) {
    std::string marked;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool open = lines.eof();
        marked += std::string(1, channel) + "|" + line + (open ? "\\" : "") + "|\n";
    }
    return marked;
}

// Words of a command line; the last field of a command may be the rest of the line.
struct Words {
    explicit Words(const std::string &line) : in(line) {}
    std::string next() {
        std::string word;
        in >> word;
        return word;
    }
    int number() { return static_cast<int>(strtol(next().c_str(), nullptr, 0)); }
    std::string rest() {
        std::string text;
        std::getline(in >> std::ws, text);
        return text;
    }
    std::istringstream in;
};

// A text as it is written in a case: "-" is none, "\t" and "\n" are what they say.
inline std::string unescape(std::string text) {
    for (const auto &[from, to] : {std::pair{"\\t", "\t"}, {"\\n", "\n"}})
        for (size_t at; (at = text.find(from)) != std::string::npos;)
            text.replace(at, 2, to);
    return text;
}

// A rule record, or that many bytes of one, all zero.
inline void add_record(blob_buf *buf, size_t size) {
    blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, "rule_struct", std::string(size, '\0').data(),
                      static_cast<unsigned>(size));
}

// Puts the attributes of a request into `buf` and returns its method. They are written
// "METHOD name=web action=1 ...", with rule= last, up to
// the end of the line.
inline std::string fill_request(blob_buf *buf, const std::string &text) {
    Words words(text);
    const std::string method = words.next();
    blobmsg_buf_init(buf);
    std::string line = words.rest();
    std::string rule;
    const size_t rule_at = line.find("rule=");
    const bool has_rule = rule_at != std::string::npos;
    if (has_rule) {
        rule = unescape(line.substr(rule_at + 5));
        line.resize(rule_at);
    }
    Words attributes(line);
    for (std::string pair; !(pair = attributes.next()).empty();) {
        const std::string name = pair.substr(0, pair.find('='));
        const std::string value = pair.substr(pair.find('=') + 1);
        if (name == "name")
            blobmsg_add_string(buf, "name", value.c_str());
        else if (name == "cmd_handler")
            blobmsg_add_u32(buf, "cmd_handler", static_cast<uint32_t>(std::stol(value)));
        else if (name == "rule_struct")
            add_record(buf, value == "standard"   ? sizeof(ipacl_standard_rule)
                            : value == "extended" ? sizeof(ipacl_extended_rule)
                                                  : std::stoul(value));
        else
            blobmsg_add_u8(buf, name.c_str(), static_cast<uint8_t>(std::stoi(value)));
    }
    if (has_rule)
        blobmsg_add_string(buf, "rule", rule.c_str());
    return method;
}

// The request that a command of a case stands for, as fill_request takes it; "" for none.
inline std::string request_of(const std::string &line) {
    Words words(line);
    const std::string command = words.next();
    if (command == "bus")
        return words.rest();
    if (command == "running")
        return "showrunning";
    const auto named = [&](const char *method, int action) {
        std::string text = method;
        text += " action=" + std::to_string(action) + " moudle=0 name=" + words.next();
        const std::string type = words.next();
        return type.empty() ? text : text + " type=" + type;
    };
    if (command == "create")
        return named("create", IPACL_ACTION_CREATE);
    if (command == "destroy")
        return named("destroy", IPACL_ACTION_DELETE);
    if (command == "exit")
        return named("action", IPACL_ACTION_EXIT);
    if (command == "show")
        return named("action", IPACL_ACTION_SHOW);
    if (command == "json" && line == "json")
        return "action action=5 moudle=0";
    if (command == "json")
        return named("action", IPACL_ACTION_JSON);
    if (command == "rule") {
        const std::string text = named("action", IPACL_ACTION_EDIT);
        return text + " rule=" + words.rest();
    }
    return "";
}

struct Step {
    std::string command;
    std::string expected;
};

struct Case {
    std::string title;
    std::vector<Step> steps;
};

inline std::vector<Case> read_cases(const std::filesystem::path &path) {
    std::vector<Case> cases;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("# "))
            cases.push_back({line.substr(2), {}});
        else if (line.starts_with("> "))
            cases.back().steps.push_back({line.substr(2), ""});
        else if (!line.empty())
            cases.back().steps.back().expected += line + "\n";
    }
    return cases;
}

inline std::string identifier(const std::string &text) {
    std::string name;
    for (char c : text)
        name += isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}
