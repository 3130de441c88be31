// Faults on demand in a real daemon: what it asks of the C library goes through counters that it
// shares with the test, and the test says which call is to fail.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace faults {

enum Call {
    kMemory, // malloc, calloc and realloc
    kSocket,
    kBind,
    kConnect,
    kRecvmsg,
    kSendmsg,
    kRecv,
    kIoctl,
    kIfIndexToName,
    kFopen,
    kFflush,
    kFclose,
    kChmod,
    kMkdir,
    kLstat,
    kEpollCreate,
    kEpollCtl,
    kEpollWait,
    kPipe,
    kCalls
};

struct Counter {
    std::atomic<uint64_t> made;                   // calls so far
    std::atomic<uint64_t> fail_first, fail_count; // the calls that fail, by number from 1
    std::atomic<uint64_t> failed;                 // calls that have failed so
    std::atomic<int> error;                       // what they set errno to

    // Lets `count` calls fail, the first of them the nth from now (1: the next).
    void arm(uint64_t nth, uint64_t count, int with) {
        failed = 0;
        error = with;
        fail_first = made + nth;
        fail_count = count;
    }
    void disarm() { fail_count = 0; }
    // Counts a call. True when it is to fail; errno is set then.
    bool fails() {
        const uint64_t number = ++made;
        const uint64_t count = fail_count;
        if (count == 0 || number < fail_first || number - fail_first >= count)
            return false;
        failed++;
        errno = error;
        return true;
    }
};

// Zero-filled memory of a file named by the environment variable IPACL_FAULTS.
struct Block {
    Counter calls[kCalls];
    std::atomic<int64_t> blocks, bytes; // allocated now
};

} // namespace faults
