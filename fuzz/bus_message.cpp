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

template <class Rule>
void add_record(blob_buf &buf, const Rule *rule, int32_t figure) {
    Rule record = rule ? *rule : Rule{};
    record.port_precedence = figure;
    blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "rule_struct", &record, sizeof record);
}

// What the hardware layer sends: the record of a rule that some list holds.
void report_from_hardware(fuzz::Input &in) {
    fuzz::Blob fields;
    const int32_t figure = in.byte();
    acl::for_each_list([&](const ipacl &list) {
        blobmsg_buf_init(&fields.buf);
        blobmsg_add_string(&fields.buf, "name", list.name);
        blobmsg_add_u8(&fields.buf, "action", IPACL_ACTION_EDIT);
        blobmsg_add_u8(&fields.buf, "moudle", IPACL_MOUDLE_HAL);
        blobmsg_add_u8(&fields.buf, "type", static_cast<uint8_t>(list.is_standard));
        if (list.is_standard)
            add_record(fields.buf, list.ipacl_s, figure);
        else
            add_record(fields.buf, list.ipacl_e, figure);
        fuzz::require(ipacl_action(nullptr, "action", fields.buf.head, nullptr) == 0,
                      "a record of the right size is taken");
        fuzz::require((!list.ipacl_s || list.ipacl_s->status != 1 ||
                       list.ipacl_s->port_precedence == figure) &&
                          (!list.ipacl_e || list.ipacl_e->status != 1 ||
                           list.ipacl_e->port_precedence == figure),
                      "the rule has the figures that were sent");
    });
}

// What requests can meet but not bring about: another status of a list, another terminal.
void disturb(fuzz::Input &in) {
    acl::for_each_list([status = in.below(6)](ipacl &list) { list.status = status; });
    log_print_handler = in.below(3);
}

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

void step(fuzz::Input &in) {
    switch (in.below(16)) {
    case 14:
        return report_from_hardware(in);
    case 15:
        return disturb(in);
    default:
        return request(in);
    }
}

} // namespace

// The files of a terminal, which are not to be real ones.
extern "C" {
FILE *fopen(const char *path, const char *mode) {
    if (is_terminal(path))
        return path[strlen(path) - 1] == '0' ? fdopen(open("/dev/null", O_RDWR | O_CLOEXEC), mode)
                                             : nullptr;
    static const auto real =
        reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
}
int chmod(const char *path, mode_t mode) noexcept {
    return is_terminal(path) ? 0 : fchmodat(AT_FDCWD, path, mode, 0);
}
}

void fuzz::play(Input &in) {
    fuzz::Service::run([&] {
        if (in.below(2))
            fake::set_vty_prefix(kTerminal);
        while (!in.empty())
            step(in);
        fuzz::require(!log_print_fp_0 && !log_print_fp_1, "a terminal's files are closed again");
    });
}
