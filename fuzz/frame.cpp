// Ethernet frames against lists. An input is a configuration up to a NUL, then a frame.
//
// The frame lies in a block of its own, so that reading beyond it is seen. What lies beyond its end
// reads as zero: the same frame with zeroes behind it has the same verdicts.

#include "lists.h"

#include <memory>

namespace {

// The verdict of every list, and of one that is not there.
std::vector<uint32_t> verdicts(std::string_view frame) {
    const auto copy = std::make_unique<uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), copy.get());
    const message m{copy.get(), copy.get() + frame.size()};
    std::vector<uint32_t> all{ipacl_check_test(&m, "nowhere")};
    acl::for_each_list([&](const ipacl &list) { all.push_back(ipacl_check_test(&m, list.name)); });
    return all;
}

} // namespace

void fuzz::play(Input &in) {
    fuzz::Service::run([&] {
        fuzz::Loader(false).load(in.until('\0'));
        const std::string frame(in.rest());
        const auto found = verdicts(frame);
        fuzz::require(found[0] == IPACL_FLAG_PERMIT, "a list that is not there permits");
        for (const uint32_t verdict : found)
            fuzz::require(verdict <= 7 || verdict == IPACL_CHECK_NO_RULES ||
                              verdict == IPACL_CHECK_NO_MATCH,
                          "a verdict is one of those that are specified");
        fuzz::require(found == verdicts(frame + std::string(128, '\0')),
                      "what lies beyond a frame reads as zero");
    });
}
