/* The registry of named access lists, and what linked components ask it.
 *
 * Lists are held in 16 buckets by the byte sum of their name and keep creation order within one.
 * The registry owns every list; a list owns its rules. Names are NUL-terminated, case-sensitive,
 * stored in 20 characters. Configuration runs on one thread and takes no lock; operations that may
 * run elsewhere take `mutex_id` themselves, and say so. */
#ifndef IPACL_ACLAPI_H
#define IPACL_ACLAPI_H

#include "aclrule.h"

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
