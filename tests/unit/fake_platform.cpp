#include "fake_platform.h"

#include "platform/ebus.h"
#include "platform/intf.h"
#include "platform/resource.h"
#include "platform/syncinit.h"
#include "platform/sys.h"
#include "platform/vty.h"

#include <libubox/uloop.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <map>
#include <net/if.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

thread_local constinit int log_print_handler = 0;
thread_local constinit FILE *log_print_fp_0 = nullptr;
thread_local constinit FILE *log_print_fp_1 = nullptr;

namespace fake {
namespace {

struct Interface {
    unsigned index;
    std::string address, mask;
};

struct State {
    std::string terminal, listing, answers;
    int printf_calls = 0;
    std::vector<int> printf_ends;
    std::string prefix;
    bool has_prefix = false;
    std::vector<LogLine> log;
    std::vector<DebugLine> debug;
    std::vector<Owner> owners;
    std::vector<Sync> syncs;
    int32_t sync_result = 0;
    size_t allocations = 0;
    std::vector<size_t> sizes;
    int fail_nth = 0;
    bool fail_all = false;
    int yields = 0, kicks = 0;
    std::map<std::string, Interface> interfaces;
    Sockets sockets{0, 0};
    bool fail_socket = false, fail_recvmsg = false;
    int overruns = 0;
    int bind_result = 0, groups = -1, bind_length = 0;
    std::vector<std::string> looked_up;
    std::vector<std::vector<unsigned char>> datagrams;
    unsigned slept = 0;
    std::vector<std::string> calls;
    std::map<std::string, int> failing;
    Mutexes mutexes{0, 0, 0, 0, false, ""};
};

// Never destroyed: the system calls below are made until the very end of the process.
State &state = *new State;
// Live blocks by serial number, with their addresses inverted: a leak checker must not take this
// record for a reference.
std::map<uintptr_t, size_t> &live = *new std::map<uintptr_t, size_t>;
size_t serial = 0;
uintptr_t hidden(const void *block) { return ~reinterpret_cast<uintptr_t>(block); }
std::set<int> &descriptors = *new std::set<int>; // handed out by the fake socket()
int next_descriptor = 1000;

std::string vformat(const char *fmt, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, fmt, again);
    va_end(again);
    std::string text(static_cast<size_t>(length) + 1, '\0');
    vsnprintf(text.data(), text.size(), fmt, args);
    text.pop_back();
    return text;
}

// Writes "*" for the number between `before` and `after`, where there is one.
std::string mask_number(const std::string &text, const std::string &before,
                        const std::string &after) {
    const size_t end = text.find(after);
    if (end == std::string::npos)
        return text;
    const size_t start = text.find_last_not_of("0123456789", end - 1) + 1;
    if (start == end || start < before.size() ||
        text.compare(start - before.size(), before.size(), before) != 0)
        return text;
    return text.substr(0, start) + "*" + text.substr(end);
}

template <class T>
T take(T &value) {
    return std::exchange(value, T{});
}

int recorded(const char *name) {
    state.calls.emplace_back(name);
    const auto it = state.failing.find(name);
    return it == state.failing.end() ? 0 : it->second;
}

int write_text(FILE *stream, std::string &own, const char *fmt, va_list args) {
    const std::string text = vformat(fmt, args);
    if (log_print_handler) {
        if (stream)
            fputs(text.c_str(), stream);
    } else {
        state.terminal += text;
        own += text;
    }
    return static_cast<int>(text.size());
}

} // namespace

void reset() {
    state = State{};
    log_print_handler = 0;
    log_print_fp_0 = log_print_fp_1 = nullptr;
    vty_file_pre = nullptr;
}

std::string take_terminal() {
    state.listing.clear();
    state.answers.clear();
    return take(state.terminal);
}
std::string take_listing() { return take(state.listing); }
std::string take_answers() { return take(state.answers); }
int printf_calls() { return state.printf_calls; }
std::vector<int> printf_ends() { return state.printf_ends; }
void set_vty_prefix(const char *prefix) {
    state.has_prefix = prefix != nullptr;
    state.prefix = prefix ? prefix : "";
}
std::vector<LogLine> take_log() { return take(state.log); }
std::string take_log_text() {
    std::string all;
    for (const auto &line : take_log()) {
        all += std::to_string(line.priority) + " " +
               mask_number(mask_number(line.text, "(", "): "), ",", ",errno");
        if (all.back() != '\n')
            all += '\n';
    }
    return all;
}
std::vector<DebugLine> take_debug() { return take(state.debug); }
std::vector<Owner> take_owners() { return take(state.owners); }
std::vector<Sync> take_syncs() { return take(state.syncs); }
void set_sync_result(int32_t result) { state.sync_result = result; }
size_t live_blocks() { return live.size(); }
size_t mark() { return serial; }
size_t free_lost(size_t since) {
    return std::erase_if(live, [&](const auto &block) {
        if (block.second < since)
            return false;
        free(reinterpret_cast<void *>(~block.first));
        return true;
    });
}
size_t allocations() { return state.allocations; }
std::vector<size_t> take_sizes() { return take(state.sizes); }
void fail_allocation(int nth) { state.fail_nth = nth; }
void fail_all_allocations(bool on) { state.fail_all = on; }
Mutexes mutexes() { return state.mutexes; }
int yields() { return state.yields; }
int watchdog_kicks() { return state.kicks; }
void set_interface(const std::string &name, unsigned index, const std::string &address,
                   const std::string &mask) {
    state.interfaces[name] = {index, address, mask};
}
void remove_interface(const std::string &name) { state.interfaces.erase(name); }
Sockets sockets() { return state.sockets; }
void fail_socket(bool on) { state.fail_socket = on; }
void fail_bind(int result) { state.bind_result = result; }
int bound_groups() { return state.groups; }
int bound_length() { return state.bind_length; }
std::vector<std::string> take_looked_up() { return take(state.looked_up); }
void queue_datagram(std::vector<unsigned char> bytes) {
    state.datagrams.push_back(std::move(bytes));
}
void fail_recvmsg(bool on) { state.fail_recvmsg = on; }
void overrun(int times) { state.overruns = times; }
unsigned take_slept() { return take(state.slept); }
std::vector<std::string> take_calls() { return take(state.calls); }
void fail_call(const std::string &name, int result) { state.failing[name] = result; }

namespace {
int saved_stdout = -1;
FILE *captured = nullptr;
} // namespace

void stdout_begin() {
    fflush(stdout);
    saved_stdout = dup(1);
    captured = tmpfile();
    dup2(fileno(captured), 1);
}

std::string stdout_end() {
    fflush(stdout);
    dup2(saved_stdout, 1);
    ::close(saved_stdout);
    rewind(captured);
    std::string text;
    for (int c; (c = fgetc(captured)) != EOF;)
        text.push_back(static_cast<char>(c));
    fclose(captured);
    return text;
}

} // namespace fake

using fake::recorded;
using fake::state;

// --- platform interfaces ---

void vty_set_handler(int handler) {
    if (handler && state.has_prefix)
        vty_file_pre = state.prefix.c_str();
    log_print_handler = handler;
}
int vty_printf(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    state.printf_calls++;
    const int length = fake::write_text(log_print_fp_0, state.listing, fmt, args);
    va_end(args);
    return length;
}
int vty_output(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int length = fake::write_text(log_print_fp_1, state.answers, fmt, args);
    va_end(args);
    return length;
}
void vty_printf_end(int flag) { state.printf_ends.push_back(flag); }

int32_t __RESOURCE_TYPE_ACCESSLIST_encode(const void *, void *, uint32_t) { return -1; }
int32_t __RESOURCE_TYPE_ACCESSLIST_decode(const void *, uint32_t, void *, uint32_t) { return -1; }
int32_t __resource_register_owner(const void *owner, uint32_t type, resource_encode_t encode,
                                  resource_decode_t decode, uint32_t index_type, const void *index,
                                  resource_write_t write, resource_read_t read) {
    state.owners.push_back({owner, type, index_type, static_cast<const char *>(index), index,
                            write != nullptr, reinterpret_cast<const void *>(read),
                            encode == __RESOURCE_TYPE_ACCESSLIST_encode &&
                                decode == __RESOURCE_TYPE_ACCESSLIST_decode});
    return 0;
}
int32_t resource_synchronize(uint32_t id, const void *resource, const char *name) {
    state.syncs.push_back({id, resource, name});
    return state.sync_result;
}

int32_t mu_create(const char *name, uint32_t, uint32_t, uint32_t *id) {
    state.mutexes.created++;
    state.mutexes.last_name = name;
    *id = 7;
    return 0;
}
int32_t mu_lock(uint32_t id, uint32_t, uint32_t) {
    auto &m = state.mutexes;
    m.locks++;
    m.errors += id != 7 || m.held;
    m.held = true;
    return 0;
}
int32_t mu_unlock(uint32_t id) {
    auto &m = state.mutexes;
    m.unlocks++;
    m.errors += id != 7 || !m.held;
    m.held = false;
    return 0;
}
void tm_wkafter(uint32_t) { state.yields++; }
void reset_watch_dog(void) { state.kicks++; }

void *sys_mem_malloc(size_t size) {
    state.allocations++;
    state.sizes.push_back(size);
    if (state.fail_all || (state.fail_nth > 0 && --state.fail_nth == 0))
        return nullptr;
    void *block = malloc(size);
    memset(block, 0xA5, size);
    fake::live.emplace(fake::hidden(block), fake::serial++);
    return block;
}
void sys_mem_free(void *block) {
    if (!block)
        return;
    if (fake::live.erase(fake::hidden(block)) == 0) {
        fprintf(stderr, "sys_mem_free of a block that is not allocated\n");
        abort();
    }
    free(block);
}
uint32_t ffb(uint32_t word) { return word ? static_cast<uint32_t>(__builtin_clz(word)) : 32; }
void lltostr(uint64_t value, char *text) { strcpy(text, std::to_string(value).c_str()); }
int sys_debug_print(int module, int level, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    state.debug.push_back({module, level, fake::vformat(fmt, args)});
    va_end(args);
    return static_cast<int>(state.debug.back().text.size());
}

int32_t interface_omnivorous_callback_getname(uint32_t devid, char **name) {
    for (const auto &[known, interface] : state.interfaces) {
        if (interface.index != devid)
            continue;
        strcpy(*name, known.c_str());
        return 0;
    }
    return -1;
}

void syncinit_finish(void) { recorded("syncinit_finish"); }
int ebus_connect(void) { return recorded("ebus_connect"); }
int ebus_add_object(ebus_object_s *) { return recorded("ebus_add_object"); }
void ebus_add_uloop(void) { recorded("ebus_add_uloop"); }
void ebus_disconnect(void) { recorded("ebus_disconnect"); }
int ebus_send_event(const char *, blob_attr *) { return 0; }

// --- the event loop ---

int uloop_init(void) { return recorded("uloop_init"); }
void uloop_done(void) { recorded("uloop_done"); }
int uloop_run_timeout(int timeout) {
    return recorded(("uloop_run_timeout " + std::to_string(timeout)).c_str());
}
int uloop_fd_add(uloop_fd *, unsigned int flags) {
    return recorded(("uloop_fd_add " + std::to_string(flags)).c_str());
}

// --- system calls ---

extern "C" {

void syslog(int priority, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    state.log.push_back({priority, fake::vformat(fmt, args)});
    va_end(args);
}

int socket(int domain, int type, int protocol) noexcept {
    if (domain != AF_INET && domain != AF_NETLINK)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    if (state.fail_socket)
        return -1;
    state.sockets.opened++;
    fake::descriptors.insert(++fake::next_descriptor);
    return fake::next_descriptor;
}

int close(int fd) {
    if (fake::descriptors.erase(fd) == 0)
        return static_cast<int>(syscall(SYS_close, fd));
    state.sockets.closed++;
    return 0;
}

int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    if (!fake::descriptors.contains(fd))
        return static_cast<int>(syscall(SYS_bind, fd, address, length));
    state.groups = static_cast<int>(reinterpret_cast<const sockaddr_nl *>(address)->nl_groups);
    state.bind_length = static_cast<int>(length);
    return state.bind_result;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (!fake::descriptors.contains(fd))
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    auto *ifr = static_cast<ifreq *>(argument);
    state.looked_up.emplace_back(ifr->ifr_name);
    const auto it = state.interfaces.find(ifr->ifr_name);
    const bool asks_address = request == SIOCGIFADDR;
    const std::string text = it == state.interfaces.end() ? ""
                             : asks_address               ? it->second.address
                                                          : it->second.mask;
    if (text.empty()) {
        errno = ENODEV;
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(text.c_str());
    memcpy(&ifr->ifr_addr, &address, sizeof address);
    return 0;
}

char *if_indextoname(unsigned index, char *name) noexcept {
    for (const auto &[known, interface] : state.interfaces)
        if (interface.index == index)
            return strcpy(name, known.c_str());
    errno = ENXIO;
    return nullptr;
}

ssize_t recvmsg(int, msghdr *message, int) {
    if (state.overruns > 0) {
        state.overruns--;
        errno = ENOBUFS;
        return -1;
    }
    if (state.fail_recvmsg || state.datagrams.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const auto bytes = state.datagrams.front();
    state.datagrams.erase(state.datagrams.begin());
    if (message->msg_iovlen == 0)
        return 0;
    const size_t size = std::min(bytes.size(), message->msg_iov[0].iov_len);
    std::copy_n(bytes.data(), size, static_cast<unsigned char *>(message->msg_iov[0].iov_base));
    return static_cast<ssize_t>(size);
}

int usleep(useconds_t microseconds) {
    state.slept += microseconds;
    return 0;
}

} // extern "C"
