// The connection: bytes in, bytes out, and which message goes where.
//
// Everything that has arrived is read with one call into one buffer, and every whole message in it
// is handled. A message is copied before it is handled, because handling may receive more; while
// memory is too short for the copy it stays where it is, and nothing behind it is read. Calls that
// arrive while another one is served, or an answer is waited for, queue until that is over.

#include "ubus_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace ubus {
namespace {

constexpr size_t kHeader = sizeof(ubus_msghdr);
constexpr size_t kChunk = 64 << 10;
constexpr int kShortMemoryPause = 10; // milliseconds

// What has arrived and is not handled yet.
struct Inbox {
    size_t size;
    size_t begin;
    size_t end;
    char *bytes() { return reinterpret_cast<char *>(this + 1); }
};

struct Queued {
    list_head list;
    ubus_msghdr header;
    // the root attribute follows
    blob_attr *root() { return reinterpret_cast<blob_attr *>(this + 1); }
};

Inbox *inbox(ubus_context *ctx) { return static_cast<Inbox *>(ctx->msgbuf); }

// Room for at least one more read, and for the whole of a message of `wanted` bytes.
bool make_room(ubus_context *ctx, size_t wanted) {
    Inbox *box = inbox(ctx);
    if (box && box->begin > 0) {
        memmove(box->bytes(), box->bytes() + box->begin, box->end - box->begin);
        box->end -= box->begin;
        box->begin = 0;
    }
    const size_t size = std::max(wanted, kChunk);
    if (box && box->size >= size)
        return true;
    auto *grown = static_cast<Inbox *>(realloc(box, sizeof(Inbox) + size));
    if (!grown)
        return false;
    if (!box)
        grown->begin = grown->end = 0;
    grown->size = size;
    ctx->msgbuf = grown;
    return true;
}

bool is_answer(uint8_t type) { return type == UBUS_MSG_STATUS || type == UBUS_MSG_DATA; }

// The length of the message at the front of the inbox, header included; 0 while that is not known.
// What can't be a message is skipped.
size_t front_length(Inbox *box) {
    while (box && box->end - box->begin >= kHeader + sizeof(blob_attr)) {
        const char *start = box->bytes() + box->begin;
        ubus_msghdr header{};
        blob_attr root{};
        memcpy(&header, start, kHeader);
        memcpy(&root, start + kHeader, sizeof root);
        const size_t length = be32_to_cpu(root.id_len) & BLOB_ATTR_LEN_MASK;
        if (header.version == 0 && length >= sizeof root && length <= UBUS_MAX_MSGLEN)
            return kHeader + length;
        box->begin += kHeader + sizeof root;
    }
    return 0;
}

bool has_message(ubus_context *ctx) {
    Inbox *box = inbox(ctx);
    const size_t length = front_length(box);
    return length > 0 && box->end - box->begin >= length;
}

// Takes the next whole message out of the inbox; null when there is none, or no memory for it.
Queued *next_message(ubus_context *ctx) {
    if (!has_message(ctx))
        return nullptr;
    Inbox *box = inbox(ctx);
    const size_t whole = front_length(box);
    auto *message = static_cast<Queued *>(malloc(sizeof(Queued) + whole - kHeader + 3));
    if (!message)
        return nullptr;
    const char *start = box->bytes() + box->begin;
    memcpy(&message->header, start, kHeader);
    message->header.seq = be16_to_cpu(message->header.seq);
    message->header.peer = be32_to_cpu(message->header.peer);
    memcpy(static_cast<void *>(message->root()), start + kHeader, whole - kHeader);
    box->begin += whole;
    return message;
}

// Serves the calls that have queued, in order, unless one is served already or an answer is waited
// for: whoever does that sees to them afterwards.
void serve_queued(ubus_context *ctx) {
    while (!busy(ctx) && !list_empty(&ctx->pending)) {
        auto *message = list_first_entry(&ctx->pending, Queued, list);
        list_del(&message->list);
        ctx->stack_depth++;
        handle_call(ctx, message->header, message->root());
        ctx->stack_depth--;
        free(message);
    }
}

void handle_messages(ubus_context *ctx) {
    serve_queued(ctx);
    while (Queued *message = next_message(ctx)) {
        // Handling this one may run the loop, which the socket does not tell of what is read.
        if (has_message(ctx) && !ctx->pending_timer.pending)
            uloop_timeout_set(&ctx->pending_timer, 0);
        if (is_answer(message->header.type)) {
            handle_answer(ctx, message->header, message->root());
            free(message);
        } else {
            list_add_tail(&message->list, &ctx->pending);
            serve_queued(ctx);
        }
    }
    if (has_message(ctx))
        uloop_timeout_set(&ctx->pending_timer, kShortMemoryPause);
}

void serve_pending(uloop_timeout *timer) {
    auto *ctx = container_of(timer, ubus_context, pending_timer);
    serve_queued(ctx);
    if (has_message(ctx) || ctx->sock.error)
        receive(ctx, 0);
}

void drop_pending(ubus_context *ctx) {
    uloop_timeout_cancel(&ctx->pending_timer);
    while (!list_empty(&ctx->pending)) {
        auto *message = list_first_entry(&ctx->pending, Queued, list);
        list_del(&message->list);
        free(message);
    }
}

// False when the time is over. A signal may end the wait before that: whoever waits looks whether
// there is something, and waits again for the time that is left.
bool wait_for(int fd, short events, int timeout) {
    pollfd p{fd, events, 0};
    const int ready = poll(&p, 1, timeout);
    return ready > 0 || (ready < 0 && errno == EINTR);
}

// Reads what has arrived. False when the connection is gone.
bool read_some(ubus_context *ctx) {
    if (!make_room(ctx, front_length(inbox(ctx))))
        return false;
    Inbox *box = inbox(ctx);
    const ssize_t got =
        recv(ctx->sock.fd, box->bytes() + box->end, box->size - box->end, MSG_DONTWAIT);
    if (got > 0)
        box->end += static_cast<size_t>(got);
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR || errno == ENOMEM));
}

void lose(ubus_context *ctx) {
    if (ctx->cancel_poll)
        return; // a handler has waited, and seen it
    uloop_fd_delete(&ctx->sock);
    ctx->sock.eof = true;
    ctx->cancel_poll = true;
    drop_pending(ctx);
    fail_requests(ctx);
    if (ctx->connection_lost)
        ctx->connection_lost(ctx);
}

// The loop lets go of a connection that has ended, and nothing tells of it again: what is left in
// it is read up to the end, here or in the loop of a handler.
void on_socket(uloop_fd *u, unsigned int) {
    auto *ctx = container_of(u, ubus_context, sock);
    if (u->error)
        uloop_timeout_set(&ctx->pending_timer, 0);
    while (receive(ctx, 0) && u->error) {
    }
}

void end_loop(ubus_context *) { uloop_end(); }

int open_socket(const char *path) {
    if (!path)
        path = UBUS_UNIX_SOCKET;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// Waits for the greeting. False when what came is none.
bool read_greeting(ubus_context *ctx) {
    for (;;) {
        if (Queued *message = next_message(ctx)) {
            const bool hello = message->header.type == UBUS_MSG_HELLO;
            ctx->local_id = cpu_to_be32(message->header.peer);
            free(message);
            return hello && ctx->local_id > 1;
        }
        if (has_message(ctx))
            poll(nullptr, 0, kShortMemoryPause);
        else if (!wait_for(ctx->sock.fd, POLLIN, kForever) || !read_some(ctx))
            return false;
    }
}

// Connects the socket of a context whose lists are set up. 0, or a status.
int open_connection(ubus_context *ctx, const char *path) {
    ctx->sock.fd = open_socket(path);
    ctx->sock.eof = ctx->sock.error = ctx->sock.registered = false;
    ctx->cancel_poll = false;
    if (ctx->sock.fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;
    if (Inbox *box = inbox(ctx))
        box->begin = box->end = 0;
    if (read_greeting(ctx))
        return UBUS_STATUS_OK;
    close(ctx->sock.fd);
    ctx->sock.fd = -1;
    return UBUS_STATUS_UNKNOWN_ERROR;
}

void close_connection(ubus_context *ctx) {
    uloop_fd_delete(&ctx->sock);
    drop_pending(ctx);
    if (ctx->sock.fd >= 0)
        close(ctx->sock.fd);
    ctx->sock.fd = -1;
}

} // namespace

bool send_message(ubus_context *ctx, int type, uint16_t seq, uint32_t peer, blob_attr *root) {
    ubus_msghdr header{0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    iovec parts[2] = {{&header, kHeader}, {root, blob_raw_len(root)}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    size_t left = kHeader + parts[1].iov_len;
    while (left > 0) {
        const ssize_t sent = sendmsg(ctx->sock.fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EAGAIN) {
            wait_for(ctx->sock.fd, POLLOUT, kForever);
            continue;
        }
        if (sent < 0 && (errno == ENOBUFS || errno == ENOMEM)) {
            poll(nullptr, 0, kShortMemoryPause);
            continue;
        }
        if (sent < 0 && errno != EINTR) {
            shutdown(ctx->sock.fd,
                     SHUT_RDWR); // half a message may be out: whoever reads sees the end
            return false;
        }
        auto done = sent < 0 ? 0 : static_cast<size_t>(sent);
        left -= done;
        for (auto &part : parts) {
            const size_t step = std::min(done, part.iov_len);
            part.iov_base = static_cast<char *>(part.iov_base) + step;
            part.iov_len -= step;
            done -= step;
        }
    }
    return true;
}

bool receive(ubus_context *ctx, int timeout) {
    if (has_message(ctx)) { // it came with the greeting, or memory was short for it
        handle_messages(ctx);
        if (has_message(ctx)) {
            poll(nullptr, 0, kShortMemoryPause);
            return true;
        }
        timeout = 0;
    }
    if (timeout != 0 && !wait_for(ctx->sock.fd, POLLIN, timeout))
        return true;
    const bool alive = read_some(ctx);
    handle_messages(ctx);
    if (!alive)
        lose(ctx);
    return alive;
}

} // namespace ubus

using namespace ubus;

ubus_context *ubus_connect(const char *path) {
    auto *ctx = static_cast<ubus_context *>(calloc(1, sizeof(ubus_context)));
    if (!ctx)
        return nullptr;
    if (ubus_connect_ctx(ctx, path) == 0)
        return ctx;
    const int error = errno;
    free(ctx);
    errno = error;
    return nullptr;
}

int ubus_connect_ctx(ubus_context *ctx, const char *path) {
    memset(ctx, 0, sizeof *ctx);
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    INIT_LIST_HEAD(&ctx->objects.list_head);
    ctx->sock.cb = on_socket;
    ctx->pending_timer.cb = serve_pending;
    ctx->connection_lost = end_loop;
    if (uloop_init() < 0)
        return -1;
    if (open_connection(ctx, path) == UBUS_STATUS_OK)
        return 0;
    const int error = errno;
    free(ctx->msgbuf);
    ctx->msgbuf = nullptr;
    errno = error;
    return -1;
}

int ubus_reconnect(ubus_context *ctx, const char *path) {
    close_connection(ctx);
    if (const int status = open_connection(ctx, path))
        return status;
    list_head again{};
    INIT_LIST_HEAD(&again);
    while (!list_empty(&ctx->objects.list_head)) {
        auto *obj = list_first_entry(&ctx->objects.list_head, ubus_object, avl.list);
        list_del(&obj->avl.list);
        list_add_tail(&obj->avl.list, &again);
        obj->id = 0;
        obj->has_subscribers = false;
        if (obj->type)
            obj->type->id = 0;
    }
    while (!list_empty(&again)) {
        auto *obj = list_first_entry(&again, ubus_object, avl.list);
        list_del(&obj->avl.list);
        if (ubus_add_object(ctx, obj) != UBUS_STATUS_OK)
            list_add_tail(&obj->avl.list, &ctx->objects.list_head); // for the next attempt
    }
    return UBUS_STATUS_OK;
}

void ubus_shutdown(ubus_context *ctx) {
    close_connection(ctx);
    free(ctx->msgbuf);
    ctx->msgbuf = nullptr;
}

void ubus_free(ubus_context *ctx) {
    ubus_shutdown(ctx);
    free(ctx);
}

void ubus_add_uloop(ubus_context *ctx) { uloop_fd_add(&ctx->sock, ULOOP_READ | ULOOP_BLOCKING); }

void ubus_handle_event(ubus_context *ctx) { receive(ctx, 0); }
