// The platform as unit tests see it: every platform interface and the system calls beneath the
// service, recorded, and made to fail on demand. Link it instead of platform/linux.
//
// syslog, socket, close, ioctl, if_indextoname, recvmsg, bind and usleep are replaced in the test
// binary; a call on a descriptor that the fake did not hand out goes to the real one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fake {

// Forgets everything recorded and configured: no text, no failures, no interfaces. Memory that the
// service still holds stays allocated and counted.
void reset();

// --- Terminal: text written without a handler, in order; taking it clears it. ---
std::string take_terminal();    // vty_printf and vty_output together
std::string take_listing();     // vty_printf alone (clears nothing else)
std::string take_answers();     // vty_output alone (clears nothing else)
int printf_calls();             // calls of vty_printf since reset
std::vector<int> printf_ends(); // arguments of vty_printf_end since reset
// With a handler set, text goes to log_print_fp_0 and log_print_fp_1 as the real library does.
void set_vty_prefix(const char *prefix); // becomes vty_file_pre at vty_set_handler; may be null

// --- System log ---
struct LogLine {
    int priority;
    std::string text;
};
std::vector<LogLine> take_log();
// One "PRIORITY TEXT" a line, with the source line number in "NAME(123): " written "NAME(*): ".
std::string take_log_text();

// --- Debug print ---
struct DebugLine {
    int module;
    int level;
    std::string text;
};
std::vector<DebugLine> take_debug();

// --- Resource service ---
struct Owner {
    const void *owner;
    uint32_t type;
    uint32_t index_type;
    std::string index;
    const void *index_address;
    bool has_write;
    const void *read;
    bool codecs_are_the_platforms;
};
std::vector<Owner> take_owners();
struct Sync {
    uint32_t id;
    const void *resource; // null: announced as removed
    std::string name;
};
std::vector<Sync> take_syncs();
void set_sync_result(int32_t result); // what resource_synchronize returns from now on

// --- Memory: sys_mem_malloc and sys_mem_free. Blocks are filled with garbage, and the fake's own
// record of them hides none from a leak checker. ---
size_t live_blocks();
size_t mark();                    // a point in time, for free_lost
size_t free_lost(size_t since);   // frees what was allocated since and is still there; how many
size_t allocations();             // since reset, failed ones included
std::vector<size_t> take_sizes(); // sizes asked for since reset or the last take
void fail_allocation(int nth);    // the nth allocation from now (1: the next) fails, once
void fail_all_allocations(bool on);

// --- Mutex, yield, watchdog ---
struct Mutexes {
    int created, locks, unlocks, errors; // errors: bad handle, double lock or unlock
    bool held;
    std::string last_name;
};
Mutexes mutexes();
int yields();         // calls of tm_wkafter
int watchdog_kicks(); // calls of reset_watch_dog

// --- Interfaces: SIOCGIFADDR, SIOCGIFNETMASK, if_indextoname, the interface service ---
void set_interface(const std::string &name, unsigned index, const std::string &address,
                   const std::string &mask); // empty address or mask: that ioctl fails
void remove_interface(const std::string &name);
struct Sockets {
    int opened, closed; // AF_INET and AF_NETLINK sockets of the service
};
Sockets sockets();
void fail_socket(bool on); // socket() returns -1 from now on
void fail_bind(int result);
int bound_groups();                                    // nl_groups of the last bind, -1 if none
int bound_length();                                    // address length of the last bind
std::vector<std::string> take_looked_up();             // interface names asked by ioctl, in order
void queue_datagram(std::vector<unsigned char> bytes); // what the next recvmsg returns
void fail_recvmsg(bool on);
void overrun(int times); // that many recvmsg fail first, because notifications were lost
unsigned take_slept();   // microseconds given to usleep

// --- Bus, start-up, event loop: calls recorded as words ("ebus_connect", "uloop_init", ...) ---
std::vector<std::string> take_calls();
void fail_call(const std::string &name, int result); // that call returns `result` from now on

// Standard output written while `body` runs, printf and puts included.
template <class F>
std::string stdout_of(F &&body);
void stdout_begin();
std::string stdout_end();
template <class F>
std::string stdout_of(F &&body) {
    stdout_begin();
    body();
    return stdout_end();
}

} // namespace fake
