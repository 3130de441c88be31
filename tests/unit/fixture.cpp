#include "fixture.h"

#include "platform/sys.h"

void ServiceTest::sys_free(void *block) { sys_mem_free(block); }
