// How libFuzzer calls every fuzzer.

#include "fuzz.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // What the service prints to standard output is of no use here, and there is a lot of it.
    fuzz::require(freopen("/dev/null", "w", stdout), "standard output is silent");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    fuzz::play(in);
    return 0;
}
