// The real matcher, asked about one packet.

#include "analysis.h"

#include "aclapi.h"

namespace analysis {
namespace {

template <class Record>
size_t number_of(const Record *head, const Record *rule) {
    size_t number = 0;
    for (; rule && head; head = head->ipacl_next) {
        number++;
        if (head == rule)
            return number;
    }
    return 0;
}

} // namespace

Verdict decide(const ipacl &list, const Packet &packet) {
    const acl_info &info = packet.info;
    if (list.is_standard == 1)
        return {ipacl_check_standard(&info, &list),
                number_of(list.ipacl_s, ipacl_match_standard(list.ipacl_s, &info))};
    return {ipacl_check_extended(&info, &list, packet.frag),
            number_of(list.ipacl_e, ipacl_match_extended(list.ipacl_e, &info, packet.frag))};
}

} // namespace analysis
