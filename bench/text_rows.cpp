// The texts of a list of 10,000 rules, against writing the same bytes with one fprintf a line.
// Both go into a stream that drops them.

#include "lists.h"
#include "service_rows.h"

#include "platform/vty.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr uint32_t kRules = 10000;

using Show = void (*)(const ipacl &);

FILE *nowhere() {
    static FILE *stream = fopen("/dev/null", "w");
    return stream;
}

// Runs `show` with its text going to a stream.
void show_to(FILE *stream, Show show, const ipacl &list) {
    log_print_handler = 1;
    log_print_fp_0 = stream;
    show(list);
    log_print_fp_0 = nullptr;
    log_print_handler = 0;
}

std::vector<std::string> lines_of(Show show, const ipacl &list) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    show_to(stream, show, list);
    fclose(stream);
    std::vector<std::string> lines;
    for (size_t at = 0; at < size;) {
        const size_t end = std::string_view(text, size).find('\n', at);
        lines.emplace_back(text + at, end - at);
        at = end + 1;
    }
    free(text);
    return lines;
}

void add(Table &table, const std::string &name, double goal, Show show, const ipacl &list) {
    const auto lines = lines_of(show, list);
    table.add(name, goal, repeat(1, [=, &list] { show_to(nowhere(), show, list); }), repeat(1, [=] {
                  for (const auto &line : lines)
                      fprintf(nowhere(), "%s\n", line.c_str());
              }));
}

} // namespace

void add_text_rows(Table &table) {
    for (const bool standard : {true, false}) {
        const ipacl &list = list_of(standard ? "text-s" : "text-e", standard, kRules);
        const std::string end = standard ? ", 10000 standard" : ", 10000 extended";
        add(
            table, "running configuration" + end, 2, [](const ipacl &l) { print_rule(&l); }, list);
        add(
            table, "listing" + end, 2, [](const ipacl &l) { show_rule(&l, 0); }, list);
        add(
            table, "JSON" + end, 4, [](const ipacl &l) { ipacl_show_json(l.name, l.is_standard); },
            list);
    }
}
