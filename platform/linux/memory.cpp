// Tracked memory: what is allocated now, and the most that ever was.

#include "platform/sys.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>

namespace {

std::atomic<size_t> blocks, bytes, high_water;

} // namespace

void *sys_mem_malloc(size_t size) {
    void *block = malloc(size);
    if (!block)
        return nullptr;
    blocks++;
    const size_t now = bytes += malloc_usable_size(block);
    size_t most = high_water;
    while (now > most && !high_water.compare_exchange_weak(most, now)) {
    }
    return block;
}

void sys_mem_free(void *block) {
    if (!block)
        return;
    blocks--;
    bytes -= malloc_usable_size(block);
    free(block);
}

void sys_mem_get_usage(sys_mem_usage *usage) { *usage = {blocks, bytes, high_water}; }
