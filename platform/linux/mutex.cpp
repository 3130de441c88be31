// Mutexes by handle.

#include "platform/sys.h"

#include <atomic>
#include <iterator>
#include <pthread.h>

namespace {

struct Entry {
    std::atomic<bool> ready;
    pthread_mutex_t mutex{};
};

Entry table[16];
std::atomic<uint32_t> used;

// The mutex of a handle (its place in the table, from 1), or null.
pthread_mutex_t *find(uint32_t id) {
    if (id == 0 || id > std::size(table) || !table[id - 1].ready)
        return nullptr;
    return &table[id - 1].mutex;
}

} // namespace

int32_t mu_create(const char *, uint32_t, uint32_t, uint32_t *id) {
    if (!id)
        return -1;
    const uint32_t place = used++;
    if (place >= std::size(table)) {
        used--;
        return -1;
    }
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&table[place].mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    table[place].ready = true;
    *id = place + 1;
    return 0;
}

int32_t mu_lock(uint32_t id, uint32_t, uint32_t) {
    pthread_mutex_t *mutex = find(id);
    return mutex && pthread_mutex_lock(mutex) == 0 ? 0 : -1;
}

int32_t mu_unlock(uint32_t id) {
    pthread_mutex_t *mutex = find(id);
    return mutex && pthread_mutex_unlock(mutex) == 0 ? 0 : -1;
}
