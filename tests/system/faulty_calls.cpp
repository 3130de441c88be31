// Linked into the daemon with ld's --wrap for each name: __wrap_NAME is called for NAME, and
// __real_NAME is the C library's.

#include "faults.h"

#include <cjson/cJSON.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using faults::Block;

Block *map_block() {
    static Block unshared;
    const char *path = getenv("IPACL_FAULTS");
    const int fd = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0)
        return &unshared;
    void *memory = mmap(nullptr, sizeof(Block), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? &unshared : static_cast<Block *>(memory);
}

Block &block() {
    static Block *const mapped = map_block();
    return *mapped;
}

bool fails(faults::Call call) { return block().calls[call].fails(); }

void *counted(void *memory) {
    if (memory) {
        block().blocks++;
        block().bytes += static_cast<int64_t>(malloc_usable_size(memory));
    }
    return memory;
}

void uncounted(void *memory) {
    if (memory) {
        block().blocks--;
        block().bytes -= static_cast<int64_t>(malloc_usable_size(memory));
    }
}

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    return fails(faults::kMemory) ? nullptr : counted(__real_malloc(size));
}

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    return fails(faults::kMemory) ? nullptr : counted(__real_calloc(count, size));
}

void *__real_realloc(void *old, size_t size);
void *__wrap_realloc(void *old, size_t size) {
    if (fails(faults::kMemory))
        return nullptr;
    uncounted(old);
    return counted(__real_realloc(old, size));
}

void __real_free(void *memory);
void __wrap_free(void *memory) {
    uncounted(memory);
    __real_free(memory);
}

// What the C library calls these where file offsets are wider than words.
#ifdef __LP64__
#define LSTAT lstat
#define FOPEN fopen
#else
#define LSTAT lstat64
#define FOPEN fopen64
#endif
#define JOIN(a, b) a##b
#define REAL(name) JOIN(__real_, name)
#define WRAP(name) JOIN(__wrap_, name)

// A function that fails with -1, passing its arguments on otherwise.
#define FAULTY(call, name, parameters, arguments)                                                  \
    int REAL(name) parameters;                                                                     \
    int WRAP(name) parameters { return fails(call) ? -1 : REAL(name) arguments; }

FAULTY(faults::kSocket, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAULTY(faults::kBind, bind, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
FAULTY(faults::kConnect, connect, (int fd, const sockaddr *address, socklen_t size),
       (fd, address, size))
FAULTY(faults::kFflush, fflush, (FILE * stream), (stream))
FAULTY(faults::kChmod, chmod, (const char *path, mode_t mode), (path, mode))
FAULTY(faults::kMkdir, mkdir, (const char *path, mode_t mode), (path, mode))
FAULTY(faults::kLstat, LSTAT, (const char *path, struct stat *info), (path, info))
FAULTY(faults::kEpollCreate, epoll_create1, (int flags), (flags))
FAULTY(faults::kEpollCtl, epoll_ctl, (int set, int what, int fd, epoll_event *event),
       (set, what, fd, event))
FAULTY(faults::kEpollWait, epoll_wait, (int set, epoll_event *events, int size, int timeout),
       (set, events, size, timeout))
FAULTY(faults::kPipe, pipe2, (int *ends, int flags), (ends, flags))

#undef FAULTY

ssize_t __real_recvmsg(int fd, msghdr *message, int flags);
ssize_t __wrap_recvmsg(int fd, msghdr *message, int flags) {
    return fails(faults::kRecvmsg) ? -1 : __real_recvmsg(fd, message, flags);
}

ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags) {
    return fails(faults::kSendmsg) ? -1 : __real_sendmsg(fd, message, flags);
}

ssize_t __real_recv(int fd, void *bytes, size_t size, int flags);
ssize_t __wrap_recv(int fd, void *bytes, size_t size, int flags) {
    return fails(faults::kRecv) ? -1 : __real_recv(fd, bytes, size, flags);
}

int __real_ioctl(int fd, unsigned long request, void *argument);
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return fails(faults::kIoctl) ? -1 : __real_ioctl(fd, request, argument);
}

char *__real_if_indextoname(unsigned index, char *name);
char *__wrap_if_indextoname(unsigned index, char *name) {
    return fails(faults::kIfIndexToName) ? nullptr : __real_if_indextoname(index, name);
}

FILE *REAL(FOPEN)(const char *path, const char *mode);
FILE *WRAP(FOPEN)(const char *path, const char *mode) {
    return fails(faults::kFopen) ? nullptr : REAL(FOPEN)(path, mode);
}

// The stream is gone even if its last bytes are lost.
int __real_fclose(FILE *stream);
int __wrap_fclose(FILE *stream) {
    const bool failing = fails(faults::kFclose);
    const int error = errno;
    const int result = __real_fclose(stream);
    if (failing)
        errno = error;
    return failing ? EOF : result;
}

} // extern "C"

namespace {

// cJSON is a shared library, which --wrap doesn't reach.
const int hooked = [] {
    cJSON_Hooks hooks{__wrap_malloc, __wrap_free};
    cJSON_InitHooks(&hooks);
    return 0;
}();

} // namespace
