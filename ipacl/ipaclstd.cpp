// The rule command of standard lists.
//
// A line is read completely before anything is done: an incomplete one leaves no trace but its
// message. Then the record is made and goes into the list, or the equal rule comes out of it.

#include "ipaclstd.h"

#include "acl_command.h"
#include "acl_cursor.h"

#include <cstdio>

namespace {

struct Command {
    ipacl_standard_rule rule{};
    bool negated = false;
    bool bad_range = false;
};

void set_action(ipacl_standard_rule &rule, uint16_t action) {
    rule.flags = action;
    rule.compare_flag = IPACL_COMPARE_MASK;
    rule.any_flag = 1;
    rule.status = IPACL_RULE_ACTIVE;
}

bool read_range(acl::WordCursor &words, Command &command) {
    std::string_view first, last;
    if (!words.need(first) || !words.need(last))
        return false;
    auto &rule = command.rule;
    rule.compare_flag = IPACL_COMPARE_RANGE;
    rule.src_begin_addr = acl::read_address(first);
    rule.src_end_addr = acl::read_address(last);
    // kept: addresses are ordered as stored, on this target by their last octet first.
    command.bad_range = rule.src_begin_addr.s_addr > rule.src_end_addr.s_addr;
    return true;
}

// Reads a whole line. False when it lacks a word.
bool read_command(const char *text, Command &command) {
    acl::WordCursor words(text);
    auto &rule = command.rule;
    std::string_view word;
    if (!words.need(word))
        return false;
    command.negated = word.starts_with(acl_words::kNo);
    if (command.negated && !words.need(word))
        return false;
    if (word.starts_with(acl_words::kPermit))
        set_action(rule, IPACL_FLAG_PERMIT);
    else if (word.starts_with(acl_words::kDeny))
        set_action(rule, IPACL_FLAG_DENY);

    if (!words.need(word))
        return false;
    if (word.starts_with(acl_words::kStandardSource.range_word))
        return read_range(words, command);
    if (word.starts_with(acl_words::kAny)) {
        rule.any_flag = 0;
        return true;
    }
    rule.srcaddr = acl::read_address(word);
    rule.srcmsk = words.need(word) ? acl::read_address(word) : in_addr{INADDR_BROADCAST};
    return true;
}

} // namespace

int do_standard_end(const char *aclname, const char *rule_text) {
    Command command;
    if (!read_command(rule_text, command))
        return acl::refuse_incomplete();
    using Kind = acl::StandardKind;
    ipacl *list = acl::config_find<Kind>(aclname);
    auto *record = acl::new_record(command.rule);
    if (command.bad_range) { // kept: the record is lost
        printf("Error:The ip-address should not be less than %s.\n",
               inet_ntoa(command.rule.src_end_addr));
        return -1;
    }
    acl::apply<Kind>(list, record, command.negated);
    return 0;
}

int do_standard_change_precedence(const char *aclname, const ipacl_standard_rule *rule) {
    return acl::change_precedence<acl::StandardKind>(aclname, rule);
}

int acls_exit(const char *aclname) {
    if (!aclname)
        return -1;
    int result;
    if (acl::leave_mode(aclname, result))
        return result;
    puts("ipacl->status!=NOTREADY");
    return -1;
}
