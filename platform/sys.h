/* The system library: mutex, memory, yield, watchdog, bit search, number text, debug print.
 *
 * On a device the platform's system library provides it; on a plain Linux host platform/linux
 * does. Every call is safe from any thread. */
#ifndef IPACL_PLATFORM_SYS_H
#define IPACL_PLATFORM_SYS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a mutex called `name` (at most 4 characters are kept) and stores its handle, never 0,
 * through `id`. `attributes` and `ceiling` are the device's. 0, or a negative error. */
int32_t mu_create(const char *name, uint32_t attributes, uint32_t ceiling, uint32_t *id);

/* Locks; `wait` and `timeout` are the device's (0, 0: wait until it is free). 0, or a negative
 * error, also for a handle that was never created. Not recursive. */
int32_t mu_lock(uint32_t id, uint32_t wait, uint32_t timeout);

/* Unlocks. 0, or a negative error. */
int32_t mu_unlock(uint32_t id);

/* Lets other tasks run for `ticks` ticks; 0 only yields. */
void tm_wkafter(uint32_t ticks);

/* Tells the watchdog that a long operation is alive. */
void reset_watch_dog(void);

/* Tracked memory, not zeroed; null when it is short. sys_mem_free takes null. */
void *sys_mem_malloc(size_t size);
void sys_mem_free(void *block);

/* What is allocated at the moment, and the most that ever was. */
struct sys_mem_usage {
    size_t blocks;
    size_t bytes;
    size_t high_water; /* bytes */
};
void sys_mem_get_usage(struct sys_mem_usage *usage);

/* Position of the most significant set bit, counted from bit 31 as 0; 32 for 0. */
uint32_t ffb(uint32_t word);

/* Writes `value` in decimal, NUL-terminated, to `text`, which holds at least 21 bytes. */
void lltostr(uint64_t value, char *text);

/* The module number of this service in debug lines. */
enum { SYS_MODULE_IPACL = 83 };

/* Writes one debug line of a module at a level, through a printf format. The caller has decided
 * that the level is enabled. Returns the number of characters, or a negative error. */
int sys_debug_print(int module, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
