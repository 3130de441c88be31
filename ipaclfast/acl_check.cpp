// Asks a compiled form about packets.

#include "acl_form.h"

#include "aclapi.h"

#include <algorithm>

using namespace aclfast;

std::vector<Walk *> aclfast::walks() {
    std::vector<Walk *> all;
#ifdef IPACLFAST_X86_64
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl"))
        all.push_back(walk_avx512);
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt"))
        all.push_back(walk_avx2);
#endif
    all.push_back(walk_plain);
    return all;
}

void acl_fast_check_many(const acl_fast *form, const acl_info *packets, const uint8_t *frags,
                         size_t count, acl_fast_answer *answers) {
    if (!form || form->columns.empty()) {
        const uint32_t result = form ? form->default_result : uint32_t{IPACL_CHECK_NO_LIST};
        std::fill_n(answers, count, acl_fast_answer{result, 0});
        return;
    }
    for (size_t done = 0; done < count; done += kTogether)
        form->walk(*form, {packets + done, frags ? frags + done : nullptr,
                           std::min(kTogether, count - done), answers + done});
}

uint32_t acl_fast_check(const acl_fast *form, const acl_info *packet, int frag, uint32_t *rule) {
    const uint8_t fragment = frag != 0;
    acl_fast_answer answer{};
    acl_fast_check_many(form, packet, &fragment, 1, &answer);
    if (rule)
        *rule = answer.rule;
    return answer.result;
}
