// Debug traces of rules, and dumps of lists and of the time-range index.
//
// Rules are written by the text writer in its trace and dump styles; lines are put together in
// memory that grows. Dumps test the debug flag themselves, single traces are gated by who calls.

#include "acl_kind.h"
#include "acl_lock.h"
#include "acl_text.h"
#include "platform/vty.h"

namespace {

using acl_text::LineSink;

constexpr int kDumpLevel = 255;

int print(int level, const LineSink &line) {
    return sys_debug_print(SYS_MODULE_IPACL, level, "%s", line.line());
}

void write_trace(acl_text::Sink &sink, const void *rule, bool is_standard) {
    acl::with_kind(is_standard, [&]<class Kind>(Kind) {
        int index = 1;
        write_rule(sink, acl_text::kTrace, *static_cast<const typename Kind::Rule *>(rule), index,
                   0);
    });
}

void dump_rules(const ipacl &list) {
    LineSink line;
    int index = 1;
    acl::with_kind(list, [&]<class Kind>(Kind) {
        for (const auto *rule = Kind::head(list); rule; rule = rule->ipacl_next) {
            line.clear();
            write_rule(line, acl_text::kDump, *rule, index, 0);
            line.format("[flags=0x%08X, status=0x%08X]\n", static_cast<unsigned>(rule->flags),
                        static_cast<unsigned>(rule->status));
            print(kDumpLevel, line);
        }
    });
}

// The record of a list, field by field.
void write_fields(LineSink &line, const ipacl &list) {
    line.format("[id: 0x%08x]", list.id);
    line.format("[name: %s]", list.name);
    line.format("[is_standard: %d]", list.is_standard);
    line.format("[is_dynamic: %d]", list.is_dynamic);
    line.format("[ipacl_s: %p]", static_cast<void *>(list.ipacl_s));
    line.format("[ipacl_e: %p]", static_cast<void *>(list.ipacl_e));
    line.format("[next: %p]", static_cast<void *>(list.next));
    line.format("[rule_count: %d]", static_cast<int>(list.rule_count));
    line.format("[flag: 0x%08x]", list.flag);
    line.format("[is_change: %d]", list.is_change);
    line.format("[merge_enable: %d]", list.merge_enable);
}

void write_status(LineSink &line, const ipacl &list) {
    line.format("[status: 0x%08x]", static_cast<unsigned>(list.status));
}

void dump_list(const ipacl &list, int number) {
    LineSink line;
    line.format("*** node num = %02d, addr = %p***\n", number, static_cast<const void *>(&list));
    write_fields(line, list);
    for (int i = 0; i < 2; i++) // kept: written twice
        line.format("[p_merge: %p]", static_cast<void *>(list.p_mergeacl));
    write_status(line, list);
    line.format("[p_cleanacl: %p]", static_cast<void *>(list.p_cleanacl));
    print(kDumpLevel, line);
    trace_print_rule(&list, 0);
}

void dump_copy(const ipacl &base, const ipacl *copy, const char *title, const char *merge_format) {
    if (!copy || copy == &base)
        return;
    LineSink line;
    line.text(title);
    write_fields(line, *copy);
    char merge[64];
    (void)snprintf(merge, sizeof merge, merge_format, static_cast<void *>(copy->p_mergeacl));
    line.text(merge);
    write_status(line, *copy);
    print(kDumpLevel, line);
    trace_print_rule(copy, 0);
}

constexpr const char *kUnit = "    ";

} // namespace

int ipacl_trace_rule_to_buf(char *trace_buf, const void *rule, int is_standard) {
    acl_text::BufferSink sink(trace_buf, IPACL_TRACE_RULE_SIZE);
    write_trace(sink, rule, is_standard == 1);
    return sink.end();
}

void trace_print_rule(const ipacl *ipacl, int) {
    if (!ipacl_debug_flag)
        return;
    sys_debug_print(SYS_MODULE_IPACL, kDumpLevel,
                    "\n============== IP ACL INFO (BEGIN) ==============\n");
    LineSink header;
    header.format(acl_text::listing_header(*ipacl), ipacl->name);
    if (ipacl->rule_count) {
        header.text(acl_text::kColumns);
        header.text(acl_text::kRuler);
    }
    print(kDumpLevel, header);
    dump_rules(*ipacl);
    sys_debug_print(SYS_MODULE_IPACL, kDumpLevel,
                    "\n============== IP ACL INFO ( END ) ==============\n");
}

void ipacl_print_hash_table(void) {
    if (!ipacl_debug_flag)
        return;
    for (int index = 0; index < IPACL_HASH_SIZE; index++) {
        sys_debug_print(SYS_MODULE_IPACL, kDumpLevel, "=========== index = %02d ===========\n",
                        index);
        int number = 0;
        for (const ipacl *list = hash_table[index]; list; list = list->next) {
            if (list->status != IPACL_STATUS_READY)
                continue;
            dump_list(*list, ++number);
            dump_copy(*list, list->p_mergeacl, "\n##### p_mergeacl info #####\n", "[p_merge: %p]");
            dump_copy(*list, list->p_cleanacl, "\n##### p_cleanacl info #####\n", "[p_merge:%p]");
            sys_debug_print(SYS_MODULE_IPACL, kDumpLevel, "\n");
        }
    }
}

void ipacl_print_tmrg_info_control_link(const ipacl_tmrg_info_control *first) {
    for (; first; first = first->p_info_ctrl_next)
        ipacl_print_tmrg_info_control_node(first);
}

void ipacl_print_tmrg_info_control_node(const ipacl_tmrg_info_control *node) {
    vty_printf("%s***tmrg_name:%s(resID=0x%08X)\n", kUnit, node->tmrg_name, node->res_id);
    for (const auto *user = node->p_ipacl_next; user; user = user->p_ipacl_next) {
        vty_printf("%s%s***ipacl:0x%08X(num=%d)\n", kUnit, kUnit,
                   static_cast<uint32_t>(user->p_ipacl), user->rule_num);
        ipacl_print_tmrg_rule_link(user->p_rule_next);
    }
}

void ipacl_print_tmrg_rule_link(const ipacl_tmrg_rule_node *first) {
    for (; first; first = first->p_rule_next)
        vty_printf("%s%s%s***rule:0x%08X\n", kUnit, kUnit, kUnit,
                   static_cast<uint32_t>(first->p_erule));
}

void ipacl_print_tmrg_table(void) { vty_printf_end(1); }

int ipacl_trace_timerange_rule(const ipacl_extended_rule *rule, int is_act, const ipacl *p_ipacl) {
    LineSink line;
    line.format("[IP ACL(%s)] %s rule: ", p_ipacl->name, is_act ? "ACTIVE" : "INACTIVE");
    write_trace(line, rule, false);
    line.text("\n");
    return print(IPACL_DEBUG_TIME_RANGE, line);
}

int ipacl_trace_iprange_decompose(const void *rule, const ipacl *new_acl) {
    LineSink line;
    line.text("[IP ACL] Decompose iprange rule: ");
    write_trace(line, rule, new_acl->is_standard == 1);
    line.text("\n");
    const int printed = print(IPACL_DEBUG_RANGE, line);
    acl::Lock lock;
    if (new_acl->status == IPACL_STATUS_READY) {
        vty_printf("==>\n");
        show_rule(new_acl, 0);
        vty_printf_end(1);
    }
    return printed;
}

int ipacl_trace_merge(const void *from_rule, const void *to_rule, const ipacl *p_ipacl) {
    const bool is_standard = p_ipacl->is_standard == 1;
    LineSink line;
    line.format("[IP ACL(%s)] Merge: ", p_ipacl->name);
    write_trace(line, from_rule, is_standard);
    line.text("       => ");
    write_trace(line, to_rule, is_standard);
    line.text("\n");
    return print(IPACL_DEBUG_MERGE, line);
}

int ipacl_register_debug(void) { return 0; }
