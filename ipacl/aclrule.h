/* Rule lists: the operations on the ordered rules of one list, and the renderers of rule text.
 *
 * A list's order is positional, 1-based, and never sorted. A rule handed to an insertion belongs
 * to the list once that succeeded; a removal frees the record. Results are 1 for done or found and
 * 0 for not, unless stated otherwise. No operation takes the registry lock: callers that run beside
 * the matchers hold it. */
#ifndef IPACL_ACLRULE_H
#define IPACL_ACLRULE_H

#include "ipacl.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1 if `dst` is the same rule as `src`. Not symmetric: a VLAN name of `dst` need only be a prefix
 * of that of `src`. Remark, is_act, precedences and counter are not compared. */
int acle_cmp(const struct ipacl_extended_rule *src, const struct ipacl_extended_rule *dst);

/* The first active rule of the list that equals `target`, or null. */
struct ipacl_standard_rule *find_acls_rule(const struct ipacl *ipacl,
                                           const struct ipacl_standard_rule *target);
struct ipacl_extended_rule *find_acle_rule(const struct ipacl *ipacl,
                                           const struct ipacl_extended_rule *target);

/* Append a rule. 0 when the list is of the other kind or already holds an equal rule. They leave
 * rule_count, is_change and the VLAN-name index alone. */
int add_acls_rule(struct ipacl *ipacl, struct ipacl_standard_rule *rule);
int add_acle_rule(struct ipacl *ipacl, struct ipacl_extended_rule *rule);

/* Unlink and free the first rule equal to `rule` (not its remark); the extended one also drops the
 * found rule's node of the VLAN-name index. rule_count and is_change are left alone. */
int delete_acls_rule(struct ipacl *ipacl, const struct ipacl_standard_rule *rule);
int delete_acle_rule(struct ipacl *ipacl, const struct ipacl_extended_rule *rule);

/* Insert `rule`, a record of the list's kind, at `location` (1-based; 0: at the end). With
 * `check_exist` a duplicate is refused with a line on the terminal; remarks never are. Returns the
 * position, or 0 when nothing was inserted; a location beyond the end appends and returns one less
 * than the rule's position. Sets is_change and counts the rule. */
uint32_t add_acl_rule_location(struct ipacl *ipacl, void *rule, uint32_t location,
                               uint32_t check_exist);

/* With `rule`: delete the first equal rule, 1 or 0. Without: `location` 0 deletes every rule and
 * returns their number, any other position deletes that rule and returns the position (0 beyond
 * the end); an empty list gives 1. Sets is_change and counts down. */
uint32_t delete_acl_rule_location(struct ipacl *ipacl, const void *rule, uint32_t location);

/* Swap rule `number` of the ready list `name` with the one above (`direction` 1) or below it. */
int exchange_acls_rule(const char *name, uint32_t number, int direction);
int exchange_acle_rule(const char *name, uint32_t number, int direction);

/* Replace rule `number` of the ready list `name` by a copy of `target` that keeps the old rule's
 * VLAN names. rule_count, is_change and the VLAN-name index are left alone. */
int rewrite_acle_rule(const char *name, uint32_t number, const struct ipacl_extended_rule *target);

/* Copy the content of a rule. The destination keeps its remark, precedences and counter. The first
 * two copy no more than the flag word (extended: and TCP flags and class of service) of a remark
 * and then leave the destination's link; otherwise the link is cleared. */
void copy_acls_rule(struct ipacl_standard_rule *dst, const struct ipacl_standard_rule *src);
void copy_acle_rule(struct ipacl_extended_rule *dst, const struct ipacl_extended_rule *src);
void copy_acle_rule_only_content(struct ipacl_extended_rule *dst,
                                 const struct ipacl_extended_rule *src);

/* The VLAN-name index: the rules that name an interface, in order of creation. */
extern struct _ipacl_rule_vlanname *ipacl_vlanname_list_head;

/* Adding notes at most 20 characters of a name as the rule's source or
 * destination interface: 0, or -1 when memory is short. Deleting removes the rule's node and
 * ignores the name: always 0. */
int add_ipacl_vlanname_list(const char *vlan_name, struct ipacl *ipacl,
                            struct ipacl_extended_rule *rule, int is_src);
int delete_ipacl_vlanname_list(const char *vlan_name, struct ipacl *ipacl,
                               struct ipacl_extended_rule *rule);

/* The name of a device interface, in a buffer that the next call overwrites, or null. */
char *ipacl_get_intfname(uint32_t devid);

/* A printf-like function. */
typedef int (*acl_print_fn)(const char *fmt, ...);

/* Write a list as running configuration through vty_printf. The list must not be null. */
void print_rule(const struct ipacl *ipacl);

/* Write `space` blanks through vty_printf; nothing for 0 and below. */
void print_space(int space);

/* Write a list as an indexed listing, indented by `space` blanks, through vty_printf. */
void show_rule(const struct ipacl *ipacl, int space);

/* Bits of the flag of show_ip_acl_rule. */
enum ipacl_show_flag {
    IPACL_SHOW_PACKETS = 0x1,
    IPACL_SHOW_BYTES = 0x2,
    IPACL_SHOW_LOG_ONLY = 0x4
};

/* Write a list as running configuration with every rule's hit counter, and clear the counters that
 * were written. Each rule line is handed to `printfun` whole, as the format itself unless it holds
 * a lone "%": then as the argument of "%s". A null list writes nothing. */
void show_ip_acl_rule(struct ipacl *ipacl, int flag, acl_print_fn printfun);

/* Take the registry lock and list the ready list `acl_name`, indented by 5 blanks. */
void print_ipaclrule_byname(const char *acl_name);

/* --- Range decomposition --- */

/* The number of trailing zero bits of `ip` (host byte order); 31 for 0. */
uint32_t acl_get_back_zero_num(uint32_t ip);

/* Makes a scratch list "temp" of the fewest address/mask rules that cover the range of a standard
 * rule, the highest block first. The range is taken in host byte order. Extended rules are not
 * decomposed: the list is then empty. The caller releases it with acl_rule_IPrange_delete. Null
 * when memory is short, which is said on the terminal; rules made so far are then lost. */
struct ipacl *acl_rule_IPrange_decompose(const void *rule, int is_standard);
void acl_rule_IPrange_delete(struct ipacl *ipacl);

/* --- Rule merger ---
 *
 * A base list may carry a merged copy in p_mergeacl, which it owns. Spans are compared in host byte
 * order, unlike in matching. Merging can change verdicts: where a rule of the other action lies
 * between two merged ones, where ranges take part, and where a fusion makes a mask that is no
 * prefix. */
enum ipacl_merge_rc {
    IPACL_MERGE_RC_OK = 0,
    IPACL_MERGE_RC_NOT_ENOUGH_MEMORY = -1,
    IPACL_MERGE_RC_NULL_POINTER = -2,
    IPACL_MERGE_RC_SYS_ERROR = -3
};

/* Brings the merged copy up to date, clears is_change, and stores 1 through `would_notify_upper`
 * when the copy's users must be told, else 0. */
int acl_rule_merger_ctrl(struct ipacl *base_ipacl, int *would_notify_upper);

/* Builds a merged copy, which belongs to the caller, without remarks and without extended rules
 * whose time range is inactive. Rules of another `status` than 1 stay, and merge with none. */
int acl_rule_merger_create_upper_ipacl(const struct ipacl *base_ipacl, struct ipacl **upper_ipacl);

/* Decides about an earlier rule `src` and a later one `dst`: 0 no merge, 1 the later one is
 * redundant (`src` may have been widened), 2 the earlier one is. */
int acl_rule_merger_op(void *src, const void *dst, int is_standard);

/* A copy of an extended list without remarks and rules of an inactive time range, unmerged, or
 * null. It shares remark texts. */
struct ipacl *deepcopy_ipacl_ext_rule(const struct ipacl *base);

/* Fills the caller's record with copies of the rules, chosen as for a merged copy. 0, -1 when
 * memory is short (what was copied stays), -2 for a missing argument. */
int deepcopy_ipacl_clean(const struct ipacl *base_ipacl, struct ipacl *dst_ipacl);

#ifdef __cplusplus
}
#endif

#endif
