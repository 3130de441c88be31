/* The rule command of extended lists, as the operator types it in a list's configuration mode:
 *
 *   [no] permit|deny PROTOCOL SOURCE [PORTS] DESTINATION [PORTS] [OPTION...]
 *
 *   SOURCE       any | ADDRESS MASK | src-range FIRST LAST | interface NAME
 *   DESTINATION  the same with dst-range
 *   PORTS        eq|gt|lt|neq PORT | src-portrange FIRST LAST (dst-portrange), tcp and udp only
 *   OPTION       tos N, precedence N, cos N, time-range NAME, donotfragment-set,
 *                donotfragment-notset, is-fragment, not-fragment, offset-zero, offset-not-zero,
 *                ttl eq|gt|lt N, totallen eq|gt|lt N
 *
 * A mask is a compare mask. Words are separated by commas, blanks, tabs and line ends, and match by
 * their first letters; unknown options are skipped and the name of a time range is not kept.
 * Event-loop thread only; no lock is taken. */
#ifndef IPACL_IPACLEXT_H
#define IPACL_IPACLEXT_H

#include "ipacl.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Applies one command to the list `aclname`: adds the rule, or removes the equal one. 0, also when
 * the rule was refused (said on the terminal); -1 for an incomplete line (said on the terminal) and
 * when an interface could not be looked up (logged). */
int do_extended_end(const char *aclname, const char *rule_text);

/* Copies the precedences and the counter of `rule` into the equal rule of the list. Always 0. */
int do_extended_change_precedence(const char *aclname, const struct ipacl_extended_rule *rule);

/* Leaves the list's configuration mode and announces the list. The synchronisation's result, or -1
 * when there is no such list in that mode. */
int acle_exit(const char *aclname);

#ifdef __cplusplus
}
#endif

#endif
