// Requests to the object "L.IPACL": any method, attributes of any name, type and content, well and
// badly formed, as the bus wrapper hands them over. Every request is served; none is lost track of.

#include "lists.h"
#include "wire.h"

#include "obj_ipacl.h"
#include "platform/linux/ebus_narrow.h"
#include "platform/vty.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kTerminal = "/fuzz-terminal/vty"; // exists nowhere

bool is_terminal(const char *path) { return strncmp(path, kTerminal, strlen(kTerminal)) == 0; }

// The arguments of one request: its attributes one by one, or bytes as they are.
std::string arguments(fuzz::Input &in, uint8_t how) {
    if (how % 4 == 0)
        return std::string(in.bytes(in.byte()));
    fuzz::Blob fields;
    for (uint8_t count = in.below(8); count > 0; count--)
        fuzz::add_attribute(fields.buf, in);
    std::string content = fields.content();
    if (how % 4 == 1 && !content.empty()) // cut short
        content.resize(in.byte() % content.size());
    return content;
}

// A message of its own block, so that reading beyond its last word is seen.
struct Message {
    explicit Message(const std::string &content)
        : words(std::make_unique<uint32_t[]>(1 + (content.size() + 3) / 4)) {
        words[0] = cpu_to_be32(static_cast<uint32_t>(sizeof(blob_attr) + content.size()));
        content.copy(reinterpret_cast<char *>(words.get() + 1), content.size());
    }
    blob_attr *root() const { return reinterpret_cast<blob_attr *>(words.get()); }

    std::unique_ptr<uint32_t[]> words;
};

void request(fuzz::Input &in) {
    const auto &method = ipacl_methods[in.below(std::size(ipacl_methods))];
    const uint8_t how = in.byte();
    blob_buf narrowed{};
    blob_buf reply{};
    blobmsg_buf_init(&reply);
    const Message message(arguments(in, how));
    blob_attr *given = nullptr; // no message at all
    if (how < 0xF0)
        given = ebus::narrow(method, message.root(), &narrowed);
    const int status = method.handler(nullptr, method.name, given, &reply);
    fuzz::require(status == 0 || status == UBUS_STATUS_INVALID_ARGUMENT || status == -1,
                  "a request ends with a status that is specified");
    // A created list loses a record, and so does a range that is turned.
    fuzz::Service::may_lose++;
    blob_buf_free(&narrowed);
    blob_buf_free(&reply);
}

} // namespace

// The files of a terminal, which are not to be real ones.
extern "C" {
FILE *fopen(const char *path, const char *mode) {
    if (is_terminal(path))
        return path[strlen(path) - 1] == '0' ? fdopen(open("/dev/null", O_WRONLY), mode) : nullptr;
    static const auto real =
        reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
}
int chmod(const char *path, mode_t mode) noexcept {
    return is_terminal(path) ? 0 : fchmodat(AT_FDCWD, path, mode, 0);
}
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::silence();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    fuzz::Service::run([&] {
        if (in.below(2))
            fake::set_vty_prefix(kTerminal);
        while (!in.empty())
            request(in);
        fuzz::require(!log_print_fp_0 && !log_print_fp_1, "a terminal's files are closed again");
    });
    return 0;
}
