#include "confirm.h"

#include "list_source.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <unistd.h>

namespace ipaclctl {
namespace {

constexpr const char *kObject = "ipaclctl.apply";
constexpr const char *kMethod = "confirm";

// What has been said so far; the event loop is one for the process.
Confirmation::Word word;

void say(Confirmation::Word said) {
    word = said;
    uloop_end();
}

int on_confirm(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    say(Confirmation::kConfirmed);
    return UBUS_STATUS_OK;
}

void on_input(uloop_fd *input, unsigned) {
    char text[256];
    const ssize_t got = read(input->fd, text, sizeof text);
    if (got > 0 && memchr(text, '\n', static_cast<size_t>(got)))
        return say(Confirmation::kConfirmed);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
        uloop_fd_delete(input); // the terminal is gone
}

const char *path_or_null(const std::string &path) { return path.empty() ? nullptr : path.c_str(); }

ubus_context *connect(const std::string &socket) {
    ubus_context *ctx = ubus_connect(path_or_null(socket));
    if (!ctx)
        throw Unreachable(std::string("no message bus: ") + strerror(errno));
    return ctx;
}

ubus_method methods[] = {{kMethod, on_confirm, 0, 0, nullptr, 0}};
ubus_object_type type{kObject, 0, methods, 1};
ubus_object object{};

} // namespace

Confirmation::Confirmation(const std::string &socket) : ctx_(connect(socket)) {
    uint32_t id;
    object = {};
    object.name = kObject;
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    if (ubus_lookup_id(ctx_, kObject, &id) == UBUS_STATUS_OK ||
        ubus_add_object(ctx_, &object) != UBUS_STATUS_OK) {
        ubus_free(ctx_);
        throw Trouble("another \"apply\" waits to be confirmed");
    }
    // Whoever cut himself off must find the old lists, or be able to confirm from elsewhere.
    (void)signal(SIGHUP, SIG_IGN);
    (void)signal(SIGPIPE, SIG_IGN);
}

Confirmation::~Confirmation() { ubus_free(ctx_); }

Confirmation::Word Confirmation::wait(int seconds) {
    word = kInterrupted;
    uloop_init();
    ctx_->connection_lost = [](ubus_context *) { say(kBusLost); };
    ubus_add_uloop(ctx_);
    uloop_timeout timer{};
    timer.cb = [](uloop_timeout *) { say(kTimeout); };
    uloop_timeout_set(&timer, seconds * 1000);
    uloop_fd input{};
    input.fd = STDIN_FILENO;
    input.cb = on_input;
    if (isatty(STDIN_FILENO))
        uloop_fd_add(&input, ULOOP_READ | ULOOP_BLOCKING);
    if (uloop_run() != 0) // by a signal
        word = kInterrupted;
    uloop_fd_delete(&input);
    uloop_timeout_cancel(&timer);
    uloop_done();
    return word;
}

int confirm(Service &service) {
    ubus_context *ctx = connect(service.path());
    uint32_t id;
    int status = ubus_lookup_id(ctx, kObject, &id);
    if (status == UBUS_STATUS_OK) {
        blob_buf nothing{};
        blobmsg_buf_init(&nothing);
        status = ubus_invoke(ctx, id, kMethod, nothing.head, nullptr, nullptr, 5000);
        blob_buf_free(&nothing);
    }
    ubus_free(ctx);
    if (status == UBUS_STATUS_OK)
        return 0;
    std::cerr << "ipaclctl: nothing waits to be confirmed\n";
    return 1;
}

} // namespace ipaclctl
