// What the sources of the bus library share.
#pragma once

#include <libubus.h>

namespace ubus {

// The attributes of one message, by id; absent or badly formed ones are null.
struct Attributes {
    explicit Attributes(blob_attr *root);
    blob_attr *operator[](ubus_msg_attr id) const { return attr[id]; }
    bool get(ubus_msg_attr id, uint32_t &value) const;
    const char *text(ubus_msg_attr id) const;

    blob_attr *attr[UBUS_ATTR_MAX] = {};
};

// A root attribute under construction; freed with the block.
class Body {
  public:
    Body() : whole_(blob_buf_init(&buf_, 0) == 0) {}
    ~Body() { blob_buf_free(&buf_); }
    Body(const Body &) = delete;
    Body &operator=(const Body &) = delete;

    blob_buf *operator&() { return &buf_; }
    blob_attr *root() { return buf_.head; }
    Body &put(ubus_msg_attr id, uint32_t value);
    Body &put(ubus_msg_attr id, const char *text);
    Body &put_flag(ubus_msg_attr id);
    Body &put_data(blob_attr *msg); // the content of `msg`, or none
    // False when memory was short for an attribute or the message is too long to be sent.
    bool whole() const { return whole_ && blob_raw_len(buf_.head) <= UBUS_MAX_MSGLEN; }
    // What was put by other means: null, or false, when memory was short.
    void check(const void *attr) { check(attr != nullptr); }
    void check(bool put) { whole_ = whole_ && put; }

  private:
    blob_buf buf_{};
    bool whole_;
};

constexpr int kForever = -1;

// Sends one message whole, waiting for room where it must. False when the connection is gone.
bool send_message(ubus_context *ctx, int type, uint16_t seq, uint32_t peer, blob_attr *root);

// Receives what there is, waiting at most `timeout` milliseconds, and handles every whole message.
// False when the connection is gone.
bool receive(ubus_context *ctx, int timeout);

// Starts a request. UBUS_STATUS_INVALID_ARGUMENT when it can't be sent.
int start_request(ubus_context *ctx, ubus_request *req, Body &body, int type, uint32_t peer);

// Starts a request and waits for its end.
int run_request(ubus_context *ctx, Body &body, int type, uint32_t peer, ubus_data_handler_t raw,
                void *priv);

// An answer to an outstanding request.
void handle_answer(ubus_context *ctx, const ubus_msghdr &header, blob_attr *root);

// A call of, or a word to, one of our objects.
void handle_call(ubus_context *ctx, const ubus_msghdr &header, blob_attr *root);

// Ends every outstanding request.
void fail_requests(ubus_context *ctx);

// True while a call is served or an answer is waited for: further calls must queue.
inline bool busy(const ubus_context *ctx) { return ctx->stack_depth > 0; }

} // namespace ubus
