// The listings of one access list: running configuration, indexed listing, hit counters.

#include "acl_kind.h"
#include "acl_lock.h"
#include "acl_log.h"
#include "acl_text.h"
#include "platform/vty.h"

using acl_text::LineSink;
using acl_text::TerminalSink;

namespace {

const char *config_header(const ipacl &list) {
    return list.is_standard == 1 ? "ip access-list standard %s\n" : "ip access-list extended %s\n";
}

constexpr const char *kMergeLine = " merge-enable\n";
// Calls fn(rule) for every active rule of the list, in order.
template <class F>
void for_each_active(const ipacl &list, F &&fn) {
    acl::with_kind(list, [&]<class Kind>(Kind) {
        for (auto *rule = Kind::head(list); rule; rule = rule->ipacl_next)
            if (rule->status == IPACL_RULE_ACTIVE)
                fn(*rule);
    });
}

void write_active_rules(const ipacl &list, const acl_text::Style &style, int space) {
    TerminalSink terminal;
    int index = 1;
    for_each_active(list,
                    [&](const auto &rule) { write_rule(terminal, style, rule, index, space); });
}

// The units behind a hit counter. kept: of a standard rule only one is named.
void write_units(LineSink &line, const ipacl_standard_rule &, int flag) {
    if (flag & IPACL_SHOW_PACKETS)
        line.text(" packets");
    else if (flag & IPACL_SHOW_BYTES)
        line.text(" bytes");
}

void write_units(LineSink &line, const ipacl_extended_rule &, int flag) {
    if (flag & IPACL_SHOW_PACKETS)
        line.text(" packets");
    if (flag & IPACL_SHOW_BYTES)
        line.text(" bytes");
}

// True when printing `text` as a format would read arguments: it holds a "%" outside of "%%".
bool holds_conversion(const char *text) {
    for (const char *c = strchr(text, '%'); c; c = strchr(c + 2, '%'))
        if (c[1] != '%')
            return true;
    return false;
}

template <class Rule>
void show_counted(LineSink &line, Rule &rule, int flag, acl_print_fn printfun) {
    char count[32];
    int index = 1;
    line.clear();
    write_rule(line, acl_text::kCounted, rule, index, 0);
    lltostr(rule.stat_count, count);
    line.text(" statistics: ");
    line.text(count);
    write_units(line, rule, flag);
    line.text("\n");
    if (line.failed()) {
        ACL_LOG_ERROR("insufficient memory!\n");
        return;
    }
    rule.stat_count = 0;
    if (holds_conversion(line.line()))
        printfun("%s", line.line());
    else
        printfun(line.line()); // the line is the format: "%%" shows as one "%"
}

} // namespace

void print_rule(const ipacl *ipacl) {
    vty_printf(config_header(*ipacl), ipacl->name);
    if (ipacl->merge_enable)
        vty_printf("%s", kMergeLine);
    write_active_rules(*ipacl, acl_text::kRunning, 0);
    vty_printf("!\n");
}

void print_space(int space) {
    TerminalSink terminal;
    acl_text::write_space(terminal, space);
}

void show_rule(const ipacl *ipacl, int space) {
    if (!ipacl) {
        ACL_LOG_ERROR("catch a null pointer!\n");
        return;
    }
    print_space(space);
    vty_printf(acl_text::listing_header(*ipacl), ipacl->name);
    print_space(space);
    vty_printf("%s", acl_text::kColumns);
    print_space(space);
    vty_printf("%s", acl_text::kRuler);
    write_active_rules(*ipacl, acl_text::kListing, space);
}

void show_ip_acl_rule(ipacl *ipacl, int flag, acl_print_fn printfun) {
    if (!ipacl)
        return;
    printfun(config_header(*ipacl), ipacl->name);
    if (ipacl->merge_enable)
        printfun(kMergeLine);
    LineSink line;
    for_each_active(*ipacl, [&](auto &rule) {
        if (!(flag & IPACL_SHOW_LOG_ONLY) || (rule.flags & IPACL_FLAG_LOG))
            show_counted(line, rule, flag, printfun);
    });
}

void print_ipaclrule_byname(const char *acl_name) {
    acl::Lock lock;
    const ipacl *list = ipacl_config_find(acl_name);
    if (list && list->status == IPACL_STATUS_READY)
        show_rule(list, 5);
}
