// One rule command. The first byte says for what: 's' a standard list, 'e' an extended one, 'E' one
// while no socket can be had.
//
// A rule that was added is a duplicate when it is typed again, and "no" before the same words takes
// it back.

#include "lists.h"

namespace {

int command(bool standard, const std::string &text) {
    const int result =
        standard ? do_standard_end("l", text.c_str()) : do_extended_end("l", text.c_str());
    fuzz::Service::may_lose += result < 0;
    return result;
}

void expect_rules(const ipacl &list, size_t count) {
    fuzz::require(list.rule_count == count && fuzz::rules_of(list) == count,
                  "a list holds what was added and not taken back");
}

bool active(const ipacl &list) {
    return (list.is_standard ? list.ipacl_s->status : list.ipacl_e->status) == IPACL_RULE_ACTIVE;
}

void write_one_line(const ipacl &list) {
    char line[IPACL_TRACE_RULE_SIZE];
    const void *rule = list.is_standard ? static_cast<const void *>(list.ipacl_s) : list.ipacl_e;
    const int length = ipacl_trace_rule_to_buf(line, rule, list.is_standard);
    fuzz::require(length >= 0 && static_cast<size_t>(length) == strlen(line),
                  "the one-line form is as long as it says");
}

void type(bool standard, const std::string &text) {
    const ipacl &list = *get_ipacl_byname("l", standard);
    if (command(standard, text) < 0 || fuzz::rules_of(list) == 0)
        return expect_rules(list, 0);
    expect_rules(list, 1);
    write_one_line(list);
    command(standard, text);
    const size_t count = active(list) ? 1 : 2;
    expect_rules(list, count);
    command(standard, "no " + text);
    expect_rules(list, count - 1);
}

} // namespace

void fuzz::play(Input &in) {
    const uint8_t kind = in.byte();
    fuzz::Service::run([&] {
        fake::fail_socket(kind == 'E');
        type(kind == 's', std::string(in.rest()));
    });
}
