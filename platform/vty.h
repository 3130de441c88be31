/* The terminal library: where an operator's text goes.
 *
 * On a device the platform's terminal library provides it; on a plain Linux host platform/linux
 * does. A print handler is the number of the calling terminal. While one is set, listings
 * (vty_printf) go to log_print_fp_0 and one-line answers (vty_output) to log_print_fp_1; a stream
 * that is null swallows its text. Without a handler the text written while a bus request is served
 * goes back to the caller as the reply attribute "output", and any other text to standard output.
 * All state is per thread. */
#ifndef IPACL_PLATFORM_VTY_H
#define IPACL_PLATFORM_VTY_H

#include <stdio.h>

#ifdef __cplusplus
#define IPACL_THREAD_LOCAL thread_local constinit
extern "C" {
#else
#define IPACL_THREAD_LOCAL _Thread_local
#endif

extern IPACL_THREAD_LOCAL int log_print_handler;
extern IPACL_THREAD_LOCAL FILE *log_print_fp_0;
extern IPACL_THREAD_LOCAL FILE *log_print_fp_1;

/* Path prefix of the terminals' output files. Defined by the program; the terminal library fills
 * it, at the latest when a handler is set. Null: there is no place for such files, or something
 * else than a file of this service stands there. */
extern const char *vty_file_pre;

/* Makes `handler` this thread's print handler; 0 sets none, and is called before the streams are
 * closed. Where the handler's files must not be written, the prefix becomes null. */
void vty_set_handler(int handler);

/* Writes a piece of a listing. Any length. Returns the number of characters, or a negative error.
 */
int vty_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Ends a listing. */
void vty_printf_end(int flag);

/* Writes a one-line answer to a command. Any length. */
int vty_output(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif
