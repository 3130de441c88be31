// Configuration, running configuration, and back: what a list's text makes is that text again.
//
// The one exception: port 20 of tcp is written "ftp-data", which reads as 21. Names of time ranges
// are read and not written, and words of the listings that commands do not take are never written
// for rules that came from commands.

#include "lists.h"

namespace {

std::string text_of(std::string_view configuration) {
    std::string text;
    fuzz::Service::run([&] {
        fuzz::Loader(false).load(configuration);
        text = fuzz::running_configuration();
    });
    return text;
}

void expect_same(const std::string &first, const std::string &second) {
    if (first == second)
        return;
    fprintf(stderr, "--- first\n%s--- second\n%s", first.c_str(), second.c_str());
    fuzz::require(false, "a running configuration makes itself again");
}

} // namespace

void fuzz::play(Input &in) {
    const std::string first = text_of(in.rest());
    const std::string second = text_of(first);
    if (first.find(" ftp-data") == std::string::npos)
        expect_same(first, second);
    expect_same(second, text_of(second));
}
