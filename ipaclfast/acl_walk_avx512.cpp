#include "acl_walk.h"

void aclfast::walk_avx512(const acl_fast &form, const Batch &batch) { walk(form, batch); }
