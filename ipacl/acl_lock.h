// Holds the registry lock for a block, on every path out of it.
#pragma once

#include "aclapi.h"
#include "platform/sys.h"

namespace acl {

class Lock {
  public:
    Lock() { mu_lock(mutex_id, 0, 0); }
    ~Lock() { mu_unlock(mutex_id); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
};

} // namespace acl
