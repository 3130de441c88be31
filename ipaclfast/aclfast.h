/* The compiled form of an access list: the same answers as the matcher of aclapi.h, faster.
 *
 * A form is made from a list of either kind and never changes; a list that changed is compiled
 * again. Any number of threads may read one form at once, without a lock, until it is freed. It
 * keeps nothing of the list, which may change or go meanwhile. */
#ifndef IPACL_ACLFAST_H
#define IPACL_ACLFAST_H

#include "ipacl.h"

#ifdef __cplusplus
extern "C" {
#endif

struct acl_fast;

struct acl_fast_answer {
    uint32_t result; /* as ipacl_check_by_ptr: action bits, or enum ipacl_check_result */
    uint32_t rule;   /* position of the rule that decided, counted from 1; 0: none did */
};

/* Compiles a list in any state. At no time does it hold more than `max_bytes`, the form included;
 * 64 MiB are plenty for 16,384 rules, and more than 4 GiB are never used. Returns the form, which
 * the caller frees, or null: no list, the bound too low, or memory short. No lock: the list must
 * not change meanwhile. */
struct acl_fast *acl_compile(const struct ipacl *acl, size_t max_bytes);

/* Frees a form; takes null. Nobody may be reading it. */
void acl_fast_free(struct acl_fast *form);

/* The bytes that a form holds; 0 for null. */
size_t acl_fast_bytes(const struct acl_fast *form);

/* One packet, with the result of ipacl_check_by_ptr, or for `frag` non-zero of a non-first
 * fragment. The position goes to `rule` unless that is null. A null form is
 * IPACL_CHECK_NO_LIST. */
uint32_t acl_fast_check(const struct acl_fast *form, const struct acl_info *packet, int frag,
                        uint32_t *rule);

/* `count` packets at once, one answer each. `frags` holds `frag` for each packet; null: 0 for
 * all. Batches of 32 and more are the cheapest. */
void acl_fast_check_many(const struct acl_fast *form, const struct acl_info *packets,
                         const uint8_t *frags, size_t count, struct acl_fast_answer *answers);

#ifdef __cplusplus
}
#endif

#endif
