#include "acl_walk.h"

void aclfast::walk_plain(const acl_fast &form, const Batch &batch) { walk(form, batch); }
