/* A skeleton of a device's platform: every function that the service calls, with the least that
 * keeps it going on one thread. Put the device's own calls in place of the bodies. */

#include "platform/ebus.h"
#include "platform/intf.h"
#include "platform/resource.h"
#include "platform/syncinit.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

/* The bus wrapper. */

int ebus_connect(void) { return 0; }

int ebus_add_object(struct ebus_object_s *object) { return object ? 0 : -1; }

void ebus_add_uloop(void) {}

void ebus_disconnect(void) {}

int ebus_send_event(const char *name, struct blob_attr *msg) { return name && msg ? 0 : -1; }

/* The start-up synchroniser. */

void syncinit_finish(void) {}

/* The terminal library. */

IPACL_THREAD_LOCAL int log_print_handler;
IPACL_THREAD_LOCAL FILE *log_print_fp_0;
IPACL_THREAD_LOCAL FILE *log_print_fp_1;

void vty_set_handler(int handler) {
    if (handler && !vty_file_pre)
        vty_file_pre = "/run/ipacl/vty";
    log_print_handler = handler;
}

static int write_text(FILE *of_handler, const char *fmt, va_list args) {
    FILE *stream = log_print_handler ? of_handler : stdout;
    return stream ? vfprintf(stream, fmt, args) : 0;
}

int vty_printf(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int written = write_text(log_print_fp_0, fmt, args);
    va_end(args);
    return written;
}

int vty_output(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int written = write_text(log_print_fp_1, fmt, args);
    va_end(args);
    return written;
}

void vty_printf_end(int flag) { (void)flag; }

/* The resource service. */

int32_t __RESOURCE_TYPE_ACCESSLIST_encode(const void *index, void *bytes, uint32_t size) {
    const size_t length = strlen(index) + 1;
    if (length > size)
        return -1;
    memcpy(bytes, index, length);
    return (int32_t)length;
}

int32_t __RESOURCE_TYPE_ACCESSLIST_decode(const void *bytes, uint32_t size, void *index,
                                          uint32_t index_size) {
    return memchr(bytes, '\0', size) ? __RESOURCE_TYPE_ACCESSLIST_encode(bytes, index, index_size)
                                     : -1;
}

int32_t __resource_register_owner(const void *owner, uint32_t type, resource_encode_t encode,
                                  resource_decode_t decode, uint32_t index_type, const void *index,
                                  resource_write_t write, resource_read_t read) {
    (void)type, (void)encode, (void)decode, (void)index_type, (void)write;
    return owner && index && read ? 0 : -1;
}

int32_t resource_synchronize(uint32_t id, const void *resource, const char *name) {
    (void)id, (void)resource;
    return name ? 0 : -1;
}

int32_t resource_read(uint32_t type, uint32_t index_type, const void *index, void *param1,
                      void *param2, void *param3, void *param4) {
    (void)type, (void)index_type, (void)index;
    (void)param1, (void)param2, (void)param3, (void)param4;
    return -1; /* nobody owns anything */
}

/* The interface service. */

int32_t interface_omnivorous_callback_getname(uint32_t devid, char **name) {
    return snprintf(*name, 20, "if%u", devid) < 20 ? 0 : -1;
}

/* The system library. */

int32_t mu_create(const char *name, uint32_t attributes, uint32_t ceiling, uint32_t *id) {
    (void)name, (void)attributes, (void)ceiling;
    *id = 1;
    return 0;
}

int32_t mu_lock(uint32_t id, uint32_t wait, uint32_t timeout) {
    (void)wait, (void)timeout;
    return id ? 0 : -1;
}

int32_t mu_unlock(uint32_t id) { return id ? 0 : -1; }

void tm_wkafter(uint32_t ticks) { (void)ticks; }

void reset_watch_dog(void) {}

void *sys_mem_malloc(size_t size) { return malloc(size); }

void sys_mem_free(void *block) { free(block); }

void sys_mem_get_usage(struct sys_mem_usage *usage) { memset(usage, 0, sizeof *usage); }

uint32_t ffb(uint32_t word) { return word ? (uint32_t)__builtin_clz(word) : 32; }

void lltostr(uint64_t value, char *text) { snprintf(text, 21, "%llu", (unsigned long long)value); }

int sys_debug_print(int module, int level, const char *fmt, ...) {
    (void)module, (void)level;
    va_list args;
    va_start(args, fmt);
    const int written = vprintf(fmt, args);
    va_end(args);
    return written;
}
