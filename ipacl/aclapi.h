/* The registry of named access lists, and what linked components ask it.
 *
 * Lists are held in 16 buckets by the byte sum of their name and keep creation order within one.
 * The registry owns every list; a list owns its rules. Names are NUL-terminated, case-sensitive,
 * stored in 20 characters. Configuration runs on one thread and takes no lock; operations that may
 * run elsewhere take `mutex_id` themselves, and say so. */
#ifndef IPACL_ACLAPI_H
#define IPACL_ACLAPI_H

#include "aclrule.h"
#include "platform/message.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { IPACL_HASH_SIZE = 16 };

/* The chain heads; lists are linked through `next`. */
extern struct ipacl *hash_table[IPACL_HASH_SIZE];

/* The registry lock, made by ipacl_init. Not recursive. */
extern uint32_t mutex_id;

/* Which debug traces are on. */
enum ipacl_debug_bit {
    IPACL_DEBUG_MERGE = 0x0001,
    IPACL_DEBUG_RANGE = 0x0002,
    IPACL_DEBUG_TIME_RANGE = 0x0004,
    IPACL_DEBUG_RESOURCE = 0x0008
};
extern uint16_t ipacl_debug_flag;

/* The name of the card that the service runs for: at most 3 characters. */
extern const char g_ipacl_card_name[4];

/* For linked components: makes the lock and empties all buckets. */
void ipacl_init(void);

/* The bucket of a name, 0 to 15; 16 for null, which is logged. */
uint32_t hash_char(const char *name);

/* Links a list at the tail of a bucket. 1; 0 for an index above 15, which is logged. */
int insert_hash_table(uint32_t index, struct ipacl *acl);

/* Makes a list and registers it as a resource. 1, also when memory was short; 0 for no name. */
int ipacl_insert(const char *name, int is_standard, int is_dynamic, int status);

/* 0 when every byte of a non-empty text is printable, else 1. */
int common_is_print_string(const char *s);

/* The ready list of a printable name, or null. */
struct ipacl *ipacl_find(const char *name);

/* The list of that name in any state, or null. */
struct ipacl *ipacl_config_find(const char *name);

/* The list of that name and kind, made if missing; null when it is of the other kind or could not
 * be made. */
struct ipacl *get_ipacl_byname(const char *name, int is_standard);

/* Deletes a list with its rules and derived copies. 1; 0 when there is none of that name and kind,
 * which is said on the terminal. */
int ipacl_delete(const char *aclname, int is_standard);

/* Tells the resource service that a list changed. Its result, or -2 for null. */
int ipacl_synchronize(struct ipacl *p_ipacl);

/* The read function that lists are registered with: stores the ready list named `index`, or null,
 * in the pointer that `param1` points to. 0; -1 for another type, index type or no name. */
int32_t acl_read(uint32_t type, uint32_t index_type, const void *index, void *param1, void *param2,
                 void *param3, void *param4);

/* Reads a list's text (its name stands from the 24th character of the first line on) and makes
 * nothing of it: 0. Takes the lock around its look-ups. */
int add_dynamic_ipacl(const char *info);

/* Deletes the list of that name, whatever its kind, under the lock. 1, or 0 when there is none,
 * which is logged. */
int delete_dynamic_ipacl(const char *aclname);

/* Terminal commands of former releases: the first does nothing (0), the second refuses (-1). */
int do_ip_acl_remove(int argc, char **argv, void *u);
int do_ip_acl_merge_enable(int argc, char **argv, void *u);

/* --- Matching ---
 *
 * Rules are tried in order and the first that matches decides: the result holds the permit, deny
 * and log bits of its flags. A caller that denies what is not permitted tests bit 0x1, and looks
 * for IPACL_CHECK_NO_LIST and IPACL_CHECK_NO_RULES first: both numbers hold that bit. Masks and
 * range addresses are compared as stored words, so a range orders addresses by their last octet
 * first on the device, and a range rule can judge an address otherwise than the masks that
 * acl_rule_IPrange_decompose makes of it. Ports are compared as they are held. Time ranges, VLAN
 * names, class of service and tcpflags are not tested. Nothing is allocated. */
enum ipacl_check_result {
    IPACL_CHECK_NO_LIST = 9,
    IPACL_CHECK_NO_RULES = 17,
    IPACL_CHECK_NO_MATCH = 34
};

/* The rule that decides about a packet among the rules from `rule` on, or null. `frag` non-zero: a
 * non-first fragment, which has no ports, no message type and no TCP flags. */
const struct ipacl_standard_rule *ipacl_match_standard(const struct ipacl_standard_rule *rule,
                                                       const struct acl_info *info);
const struct ipacl_extended_rule *ipacl_match_extended(const struct ipacl_extended_rule *rule,
                                                       const struct acl_info *info, int frag);

/* The same for a list of that kind, as a result. No lock. */
uint32_t ipacl_check_standard(const struct acl_info *acl_info, const struct ipacl *acl);
uint32_t ipacl_check_extended(const struct acl_info *acl_info, const struct ipacl *acl, int frag);

/* A network, given as address and mask in network byte order, against a standard list: a mask rule
 * must not be longer, a range rule must hold the address. No lock. */
uint32_t ipacl_check_standard_network(uint32_t addr, uint32_t mask, const struct ipacl *acl);

/* A packet against the ready list of that name, or against a list in any state. Take the lock. */
uint32_t ipacl_check(const struct acl_info *acl_info, const char *acl_name);
uint32_t ipacl_check_frag(const struct acl_info *acl_info, const char *acl_name);
uint32_t ipacl_check_by_ptr(const struct acl_info *acl_info, const struct ipacl *acl);

/* A network against a standard list; any other list is IPACL_CHECK_NO_LIST. Take the lock. */
uint32_t ipacl_check_network(uint32_t addr, uint32_t mask, const char *acl_name);
uint32_t ipacl_check_network_by_ptr(uint32_t addr, uint32_t mask, const struct ipacl *acl);

/* As ipacl_check and ipacl_check_frag, then write a line to the system log at `log_level` when the
 * result has the log bit: `fmt` as the whole format, without arguments, or, for null, a line that
 * tells the list, the verdict, the protocol and the addresses. The lock is free by then. */
uint32_t ipacl_check_log(const struct acl_info *acl_info, const char *acl_name, int log_level,
                         const char *fmt);
uint32_t ipacl_check_frag_log(const struct acl_info *acl_info, const char *acl_name, int log_level,
                              const char *fmt);

/* A raw Ethernet frame that carries IPv4. What lies beyond its end reads as zero; TTL, fragment and
 * offset flags and the total length are not taken from it, and ports stay in network byte order. A
 * list that is not found permits (1). No lock. */
uint32_t ipacl_check_test(const struct message *m, const char *acl_name);

/* Always permits (1). */
uint32_t ipacl_check_psos(const struct message *m, uint32_t diID, uint32_t direction);

/* --- Configuration snapshot --- */

/* Copies every list with its rules, under the lock, and stores the first node. Returns the number
 * of blocks, or -1 for null or short memory, which is logged. The copy of a rule shares its remark
 * text with the live rule. The caller frees the nodes. */
int32_t get_ipacl_config_info(struct ipacl_configure **ipacl_config);

/* Frees a snapshot; the pointer is left as it is. Returns the number of blocks. */
int32_t free_ipacl_config_info(struct ipacl_configure **ipacl_config);

/* --- Traces and dumps, switched on by ipacl_debug_flag --- */

/* Writes a rule in its one-line form, without a line end, to `trace_buf`, which holds at least
 * IPACL_TRACE_RULE_SIZE bytes. Returns the number of characters. */
enum { IPACL_TRACE_RULE_SIZE = 512 };
int ipacl_trace_rule_to_buf(char *trace_buf, const void *rule, int is_standard);

/* Dump a list, or every ready list and its derived copies, when any debug bit is set. */
void trace_print_rule(const struct ipacl *ipacl, int space);
void ipacl_print_hash_table(void);

/* List the time-range index on the terminal. */
void ipacl_print_tmrg_info_control_link(const struct ipacl_tmrg_info_control *first);
void ipacl_print_tmrg_info_control_node(const struct ipacl_tmrg_info_control *node);
void ipacl_print_tmrg_rule_link(const struct ipacl_tmrg_rule_node *first);
void ipacl_print_tmrg_table(void);

/* One debug line each; the caller has tested the debug bit. They return what the debug print did.
 * The second also lists `new_acl` on the terminal, under the lock. */
int ipacl_trace_timerange_rule(const struct ipacl_extended_rule *rule, int is_act,
                               const struct ipacl *p_ipacl);
int ipacl_trace_iprange_decompose(const void *rule, const struct ipacl *new_acl);
int ipacl_trace_merge(const void *from_rule, const void *to_rule, const struct ipacl *p_ipacl);

/* Does nothing: 0. */
int ipacl_register_debug(void);

/* What is said to the resource service, with bit IPACL_DEBUG_RESOURCE. Addresses are shown in their
 * low 32 bits. */
void __ipacl_trace_resource_reg_owner(uintptr_t id, int type, int index_type, uintptr_t index,
                                      uintptr_t write, uintptr_t read, const char *func_name);
void __ipacl_trace_resource_unreg_owner(uintptr_t id, const char *func_name);
void __ipacl_trace_resource_reg_syn_cb(uintptr_t id, int type, int index_type, uintptr_t index,
                                       uintptr_t callback, uintptr_t arg1, uintptr_t arg2,
                                       const char *func_name);
void __ipacl_trace_resource_reg_syn_msg(uintptr_t id, int type, int index_type, uintptr_t index,
                                        uintptr_t qid, uintptr_t arg1, uintptr_t arg2,
                                        const char *func_name);
void __ipacl_trace_resource_unreg_syn(uintptr_t id, const char *func_name);
void __ipacl_trace_resource_synchronize(uintptr_t id, uintptr_t param1, uintptr_t param2,
                                        const char *func_name);

/* Writes every configured list that is not hidden as running configuration. 1 if there was one. */
int acl_print(void);

/* Lists every list that is not hidden, dynamic ones included, indented by `space` blanks. */
void show_acl(int space);

/* Writes the directory of configured lists (`name` null), or the rules of one list, as JSON to the
 * terminal. `type` 0: the list is extended; any other value: standard. */
void ipacl_show_json(const char *name, int32_t type);

#ifdef __cplusplus
}
#endif

#endif
