/* The rule command of standard lists, as the operator types it in a list's configuration mode:
 *
 *   [no] permit|deny any | ADDRESS [MASK] | src-range FIRST LAST
 *
 * A mask is a compare mask. Words are separated by commas, blanks, tabs and line ends, and match by
 * their first letters. Event-loop thread only; no lock is taken. */
#ifndef IPACL_IPACLSTD_H
#define IPACL_IPACLSTD_H

#include "ipacl.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Applies one command to the list `aclname`: adds the rule, or removes the equal one. 0, also when
 * the list is missing or refuses the rule; -1 for an incomplete line (said on the terminal) and for
 * a range whose last address is below the first (said on standard output). */
int do_standard_end(const char *aclname, const char *rule_text);

/* Copies the precedences and the counter of `rule` into the equal rule of the list. Always 0. */
int do_standard_change_precedence(const char *aclname, const struct ipacl_standard_rule *rule);

/* Leaves the list's configuration mode and announces the list. The synchronisation's result, or -1
 * when there is no such list in that mode. */
int acls_exit(const char *aclname);

#ifdef __cplusplus
}
#endif

#endif
