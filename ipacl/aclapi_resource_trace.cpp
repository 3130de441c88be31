// Debug lines about what is said to the resource service.

#include "aclapi.h"
#include "platform/sys.h"

namespace {

// An address as 32 bits.
uint32_t low(uintptr_t address) { return static_cast<uint32_t>(address); }

} // namespace

#define TRACE_RESOURCE(format, ...)                                                                \
    do {                                                                                           \
        if (ipacl_debug_flag & IPACL_DEBUG_RESOURCE)                                               \
            sys_debug_print(SYS_MODULE_IPACL, IPACL_DEBUG_RESOURCE, format, g_ipacl_card_name,     \
                            func_name, __VA_ARGS__);                                               \
    } while (0)

void __ipacl_trace_resource_reg_owner(uintptr_t id, int type, int index_type, uintptr_t index,
                                      uintptr_t write, uintptr_t read, const char *func_name) {
    TRACE_RESOURCE("\n[%s: REG_OWNER (FUNC: %s)] OWNER_ID: 0x%08x, RESOURCE_TYPE: %d, "
                   "RESOURCE_INDEX_TYPE: %d, INDEX_ADDR: 0x%08x, WRITE_FUNC: 0x%08x, READ_FUNC: "
                   "0x%08x\n",
                   low(id), type, index_type, low(index), low(write), low(read));
}

void __ipacl_trace_resource_unreg_owner(uintptr_t id, const char *func_name) {
    TRACE_RESOURCE("\n[%s: UNREG_OWNER (FUNC: %s)] OWNER_ID: 0x%08x\n", low(id));
}

void __ipacl_trace_resource_reg_syn_cb(uintptr_t id, int type, int index_type, uintptr_t index,
                                       uintptr_t callback, uintptr_t arg1, uintptr_t arg2,
                                       const char *func_name) {
    TRACE_RESOURCE("\n[%s: REG_SYN_CB (FUNC: %s)] SYN_ID: 0x%08x, RESOURCE_TYPE: %d, "
                   "RESOURCE_INDEX_TYPE: %d, INDEX_ADDR: 0x%08x, CB_FUNC: 0x%08x, ARG1: 0x%08x, "
                   "ARG2: 0x%08x\n",
                   low(id), type, index_type, low(index), low(callback), low(arg1), low(arg2));
}

void __ipacl_trace_resource_reg_syn_msg(uintptr_t id, int type, int index_type, uintptr_t index,
                                        uintptr_t qid, uintptr_t arg1, uintptr_t arg2,
                                        const char *func_name) {
    TRACE_RESOURCE("\n[%s: REG_SYN_MSG (FUNC: %s)] SYN_ID: 0x%08x, RESOURCE_TYPE: %d, "
                   "RESOURCE_INDEX_TYPE: %d, INDEX_ADDR: 0x%08x, QID: 0x%08x, ARG1: 0x%08x, ARG2: "
                   "0x%08x\n",
                   low(id), type, index_type, low(index), low(qid), low(arg1), low(arg2));
}

void __ipacl_trace_resource_unreg_syn(uintptr_t id, const char *func_name) {
    TRACE_RESOURCE("\n[%s: UNREG_SYN (FUNC: %s)] SYN_ID: 0x%08x\n", low(id));
}

void __ipacl_trace_resource_synchronize(uintptr_t id, uintptr_t param1, uintptr_t param2,
                                        const char *func_name) {
    TRACE_RESOURCE("\n[%s: RES_SYN (FUNC: %s)] OWNER_ID: 0x%08x, PARAM1: 0x%08x, PARAM2: 0x%08x\n",
                   low(id), low(param1), low(param2));
}
