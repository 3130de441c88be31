#include "acl_walk.h"

void aclfast::walk_avx2(const acl_fast &form, const Batch &batch) { walk(form, batch); }
