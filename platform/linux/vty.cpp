// The terminal library: handler files, the text kept for a reply, or standard output.

#include "platform/vty.h"

#include "vty_capture.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

thread_local constinit int log_print_handler = 0;
thread_local constinit FILE *log_print_fp_0 = nullptr;
thread_local constinit FILE *log_print_fp_1 = nullptr;

namespace {

constexpr const char *kDirectory = "/run/ipacl";
constexpr size_t kKept = 16 << 10; // of the capture's memory, between requests

struct Capture {
    bool on;
    bool truncated;
    size_t used;
    size_t size;
    char *text;
};
thread_local constinit Capture capture{};

// Room for `more` characters and a NUL; false when the text can't grow so far.
bool make_room(size_t more) {
    const size_t wanted = capture.used + more + 1;
    if (wanted <= capture.size)
        return true;
    if (wanted > vty::kMaxCapture)
        return false;
    const size_t size = std::min(std::max(2 * wanted, kKept), vty::kMaxCapture);
    auto *grown = static_cast<char *>(realloc(capture.text, size));
    if (!grown)
        return false;
    capture.text = grown;
    capture.size = size;
    return true;
}

int keep(const char *fmt, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, fmt, args);
    if (length > 0 && !capture.truncated) {
        // Once something was dropped nothing more is kept, so that no line goes missing inside.
        capture.truncated = !make_room(static_cast<size_t>(length));
        if (!capture.truncated) {
            (void)vsnprintf(capture.text + capture.used, static_cast<size_t>(length) + 1, fmt,
                            again);
            capture.used += static_cast<size_t>(length);
        }
    }
    va_end(again);
    return length;
}

int write_text(FILE *stream, const char *fmt, va_list args) {
    if (log_print_handler)
        return stream ? vfprintf(stream, fmt, args) : 0;
    return capture.on ? keep(fmt, args) : vprintf(fmt, args);
}

static_assert(sizeof(ino_t) == 8, "lstat fails where inode numbers are long");

// Why a directory is not to be used for terminal files, or null.
const char *unusable(const char *directory) {
    struct stat info {};
    mkdir(directory, 0755);
    if (lstat(directory, &info) != 0)
        return strerror(errno);
    if (!S_ISDIR(info.st_mode))
        return "not a directory";
    if (info.st_uid != geteuid() && info.st_uid != 0)
        return "owned by another user";
    if (info.st_mode & (S_IWGRP | S_IWOTH))
        return "others may write to it";
    return nullptr;
}

// Why a handler file is not to be written to, or null. Only this user and root can put anything
// into the directory, so what is found here is what will be opened.
const char *unusable_file(const char *name) {
    struct stat info {};
    if (lstat(name, &info) != 0)
        return errno == ENOENT ? nullptr : strerror(errno);
    if (S_ISLNK(info.st_mode))
        return "a symbolic link";
    if (!S_ISREG(info.st_mode))
        return "not a file";
    return info.st_nlink > 1 ? "a file with another name" : nullptr;
}

bool refused(const char *name, const char *reason) {
    if (reason)
        syslog(LOG_ERR, "ipacl: terminal files can't be kept in %s: %s", name, reason);
    return reason != nullptr;
}

// Leaves the prefix null where the files of `handler` must not be written.
void fill_prefix(int handler) {
    static char prefix[512];
    vty_file_pre = nullptr;
    const char *directory = getenv("IPACL_VTY_DIR");
    if (!directory || !*directory)
        directory = kDirectory;
    const int length = snprintf(prefix, sizeof prefix, "%s/vty", directory);
    if (length < 0 || static_cast<size_t>(length) >= sizeof prefix ||
        refused(directory, unusable(directory)))
        return;
    for (int number : {0, 1}) {
        char name[sizeof prefix + 16];
        (void)snprintf(name, sizeof name, "%s_%d_%d", prefix, handler, number);
        if (refused(name, unusable_file(name)))
            return;
    }
    vty_file_pre = prefix;
}

// Looks, before the files are closed, whether all text has got into them; if not, the reply says
// that some was dropped.
void check_files() {
    for (FILE *stream : {log_print_fp_0, log_print_fp_1}) {
        if (!stream || (fflush(stream) == 0 && !ferror(stream)))
            continue;
        syslog(LOG_ERR, "ipacl: the text for terminal %d could not be written whole",
               log_print_handler);
        capture.truncated = true;
    }
}

} // namespace

void vty_set_handler(int handler) {
    if (handler)
        fill_prefix(handler);
    else if (log_print_handler)
        check_files();
    log_print_handler = handler;
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

void vty_printf_end(int) {
    if (log_print_handler && log_print_fp_0)
        (void)fflush(log_print_fp_0);
}

void vty::begin_capture() {
    capture.on = true;
    capture.truncated = false;
    capture.used = 0;
}

const char *vty::end_capture(bool &truncated) {
    capture.on = false;
    truncated = capture.truncated;
    if (truncated) // end at a line end
        while (capture.used > 0 && capture.text[capture.used - 1] != '\n')
            capture.used--;
    if (capture.used == 0)
        return nullptr;
    capture.text[capture.used] = '\0';
    return capture.text;
}

void vty::release_capture() {
    if (capture.size <= kKept)
        return;
    free(capture.text);
    capture.text = nullptr;
    capture.size = 0;
}
