// SPDX-License-Identifier: Apache-2.0
#include "platform/msg_socket.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "common/owned.h"
#include "platform/log.h"
#include "platform/ready_poll.h"
#include "platform/time_helpers.h"
#include "platform/trust.h"

namespace {

constexpr log_tag kTag{"msg_socket"};

constexpr uint8_t kTagF64 = 'd';
constexpr uint8_t kTagU64 = 'L';
constexpr uint8_t kTagF32 = 'f';
constexpr uint8_t kTagI32 = 'i';
constexpr uint8_t kTagU32 = 'u';
constexpr uint8_t kTagText = 's';

// Bytes after the tag of a fixed-size value; 0 for a text or an unknown tag.
constexpr size_t fixed_size(uint8_t tag)
{
    switch (tag) {
    case kTagF64:
    case kTagU64:
        return 8;
    case kTagF32:
    case kTagI32:
    case kTagU32:
        return 4;
    default:
        return 0;
    }
}

// One conversion of a format: the tag it stands for, and whether the text is
// allocated ("%ms").
struct conversion {
    uint8_t tag;
    bool allocate;
};

// Reads the next conversion of fmt; returns the rest of fmt, or null for a
// malformed format. *done at the end.
const char *next_conversion(const char *fmt, conversion *out, bool *done)
{
    *done = *fmt == '\0';
    if (*done)
        return fmt;
    if (*fmt != '%')
        return nullptr;
    fmt++;
    if (fmt[0] == 'l' && fmt[1] == 'f')
        *out = {kTagF64, false};
    else if (fmt[0] == 'l' && fmt[1] == 'u')
        *out = {kTagU64, false};
    else if (fmt[0] == 'm' && fmt[1] == 's')
        *out = {kTagText, true};
    else if (fmt[0] == 'f')
        return *out = {kTagF32, false}, fmt + 1;
    else if (fmt[0] == 'i')
        return *out = {kTagI32, false}, fmt + 1;
    else if (fmt[0] == 'u')
        return *out = {kTagU32, false}, fmt + 1;
    else if (fmt[0] == 's')
        return *out = {kTagText, false}, fmt + 1;
    else
        return nullptr;
    return fmt + 2;
}

// Walks the values of a payload; false when a value does not fit.
struct value_cursor {
    const uint8_t *p;
    const uint8_t *end;

    bool next(uint8_t *tag, const uint8_t **bytes, size_t *size)
    {
        if (p >= end)
            return false;
        *tag = *p++;
        size_t n = fixed_size(*tag);
        if (*tag == kTagText) {
            if (end - p < 2)
                return false;
            uint16_t len;
            memcpy(&len, p, 2);
            p += 2;
            n = len;
        } else if (n == 0) {
            return false;
        }
        if (size_t(end - p) < n)
            return false;
        *bytes = p;
        *size = n;
        p += n;
        return true;
    }
};

int send_all_or_nothing(int fd, const msg_frame *frame)
{
    ssize_t n = send(fd, frame->bytes, frame->size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == ssize_t(frame->size))
        return 0;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return -EAGAIN;
    // A part of the frame went out: the stream is broken for the peer.
    return -EPIPE;
}

// Reads what is pending into buf (up to cap) and hands every whole frame to
// deliver. Returns the number of frames, -EPIPE when the peer closed or the
// socket failed, -EBADMSG for a malformed frame. *len carries the bytes kept
// between calls. A read that did not fill the room took all there was: what
// comes after it (a hang-up included) is for the next call.
template <typename Deliver>
int drain(int fd, uint8_t *buf, size_t cap, size_t *len, Deliver deliver)
{
    int frames = 0;
    for (bool emptied = false; !emptied;) {
        const size_t room = cap - *len;
        ssize_t n = recv(fd, buf + *len, room, MSG_DONTWAIT);
        if (n == 0)
            return -EPIPE;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return frames;
            return -EPIPE;
        }
        emptied = size_t(n) < room;
        *len += size_t(n);
        size_t used = 0;
        for (;;) {
            msg_message m;
            long r = message_parse(buf + used, *len - used, &m);
            if (r < 0)
                return int(r);
            if (r == 0)
                break;
            used += size_t(r);
            frames++;
            if (!deliver(m))
                return frames; // the callback closed the connection
        }
        memmove(buf, buf + used, *len - used);
        *len -= used;
    }
    return frames;
}

int64_t now_ms()
{
    timespec t{};
    monotonic_now(&t);
    return int64_t(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

} // namespace

// ---- addresses ---------------------------------------------------------------

int socket_relocate(const sockaddr_un *in, socklen_t in_len, sockaddr_un *out, socklen_t *out_len)
{
    if (!in || !out || !out_len || in_len <= socklen_t(offsetof(sockaddr_un, sun_path)) ||
        in_len > socklen_t(sizeof(sockaddr_un)) || in->sun_family != AF_UNIX)
        return -EINVAL;
    const char *prefix = secure_getenv(kSocketPrefixEnv);
    memcpy(out, in, in_len);
    *out_len = in_len;
    if (in->sun_path[0] != '\0' || !prefix || !*prefix)
        return 0;
    const size_t room = in_len - offsetof(sockaddr_un, sun_path) - 1;
    const size_t name_len = strnlen(in->sun_path + 1, room);
    const size_t prefix_len = strlen(prefix);
    if (prefix_len + name_len > sizeof(out->sun_path) - 1)
        return -ENAMETOOLONG;
    memset(out->sun_path, 0, sizeof out->sun_path);
    memcpy(out->sun_path + 1, prefix, prefix_len);
    memcpy(out->sun_path + 1 + prefix_len, in->sun_path + 1, name_len);
    size_t used = offsetof(sockaddr_un, sun_path) + 1 + prefix_len + name_len;
    *out_len = socklen_t(used > in_len ? used : in_len);
    return 0;
}

int socket_address(const char *name, sockaddr_un *out, socklen_t *out_len)
{
    if (!name || !*name || !out || !out_len)
        return -EINVAL;
    size_t len = strlen(name);
    if (len > sizeof(out->sun_path) - 1)
        return -ENAMETOOLONG;
    memset(out, 0, sizeof *out);
    out->sun_family = AF_UNIX;
    memcpy(out->sun_path + 1, name, len);
    *out_len = sizeof *out;
    return 0;
}

// ---- messages ----------------------------------------------------------------

int message_build(msg_frame *out, uint32_t id, const char *fmt, ...)
{
    if (!out || !fmt)
        return -EINVAL;
    uint8_t *p = out->bytes + kMsgHeaderSize;
    uint8_t *const end = out->bytes + kMsgMaxFrame;
    va_list ap;
    va_start(ap, fmt);
    int result = 0;
    for (size_t values = 0;; values++) {
        conversion c{};
        bool done = false;
        fmt = next_conversion(fmt, &c, &done);
        if (!fmt || c.allocate || (!done && values == kMsgMaxValues)) {
            result = -EINVAL;
            break;
        }
        if (done)
            break;
        uint8_t bytes[8];
        const void *src = bytes;
        size_t n = fixed_size(c.tag);
        switch (c.tag) {
        case kTagF64: {
            double v = va_arg(ap, double);
            memcpy(bytes, &v, 8);
            break;
        }
        case kTagU64: {
            uint64_t v = va_arg(ap, uint64_t);
            memcpy(bytes, &v, 8);
            break;
        }
        case kTagF32: {
            float v = float(va_arg(ap, double));
            memcpy(bytes, &v, 4);
            break;
        }
        case kTagI32: {
            int32_t v = va_arg(ap, int);
            memcpy(bytes, &v, 4);
            break;
        }
        case kTagU32: {
            uint32_t v = va_arg(ap, unsigned);
            memcpy(bytes, &v, 4);
            break;
        }
        default: { // text
            const char *s = va_arg(ap, const char *);
            if (!s) {
                result = -EINVAL;
                break;
            }
            n = strlen(s);
            if (n > UINT16_MAX) {
                result = -EMSGSIZE;
                break;
            }
            if (size_t(end - p) < 3 + n) {
                result = -EMSGSIZE;
                break;
            }
            uint16_t len = uint16_t(n);
            *p++ = kTagText;
            memcpy(p, &len, 2);
            p += 2;
            src = s;
            break;
        }
        }
        if (result < 0)
            break;
        if (c.tag != kTagText) {
            if (size_t(end - p) < 1 + n) {
                result = -EMSGSIZE;
                break;
            }
            *p++ = c.tag;
        }
        memcpy(p, src, n);
        p += n;
    }
    va_end(ap);
    if (result < 0)
        return result;
    const uint32_t length = uint32_t(p - out->bytes - kMsgHeaderSize);
    memcpy(out->bytes, &kMsgMagic, 4);
    memcpy(out->bytes + 4, &id, 4);
    memcpy(out->bytes + 8, &length, 4);
    out->size = kMsgHeaderSize + length;
    return 0;
}

long message_parse(const uint8_t *data, size_t size, msg_message *out)
{
    if (!data || !out)
        return -EINVAL;
    // A wrong magic is known from the first bytes: no need to wait for more.
    uint8_t magic[4];
    memcpy(magic, &kMsgMagic, 4);
    if (memcmp(data, magic, size < 4 ? size : 4) != 0)
        return -EBADMSG;
    if (size < kMsgHeaderSize)
        return 0;
    uint32_t id, length;
    memcpy(&id, data + 4, 4);
    memcpy(&length, data + 8, 4);
    if (length > kMsgMaxPayload)
        return -EBADMSG;
    if (size < kMsgHeaderSize + length)
        return 0;
    value_cursor cursor{data + kMsgHeaderSize, data + kMsgHeaderSize + length};
    size_t values = 0;
    while (cursor.p < cursor.end) {
        uint8_t tag;
        const uint8_t *bytes;
        size_t n;
        if (!cursor.next(&tag, &bytes, &n) || ++values > kMsgMaxValues)
            return -EBADMSG;
        if (tag == kTagText && memchr(bytes, 0, n))
            return -EBADMSG;
    }
    *out = {id, length, data + kMsgHeaderSize};
    return long(kMsgHeaderSize + length);
}

uint32_t message_get_id(const msg_message *message)
{
    return message ? message->id : UINT32_MAX;
}

int message_read(const msg_message *message, const char *fmt, ...)
{
    if (!message || !fmt || (message->length && !message->payload))
        return -EINVAL;
    char **texts[kMsgMaxValues];
    size_t text_count = 0;
    value_cursor cursor{message->payload, message->payload + message->length};
    va_list ap;
    va_start(ap, fmt);
    int result = 0;
    for (;;) {
        conversion c{};
        bool done = false;
        fmt = next_conversion(fmt, &c, &done);
        if (!fmt || (c.tag == kTagText && !c.allocate)) {
            result = -EINVAL;
            break;
        }
        if (done)
            break;
        void *dest = va_arg(ap, void *);
        if (!dest) {
            result = -EINVAL;
            break;
        }
        uint8_t tag;
        const uint8_t *bytes;
        size_t n;
        if (!cursor.next(&tag, &bytes, &n) || tag != c.tag) {
            result = -EBADMSG;
            break;
        }
        if (tag != kTagText) {
            memcpy(dest, bytes, n);
            continue;
        }
        if (text_count == kMsgMaxValues) {
            result = -EINVAL;
            break;
        }
        char *text = static_cast<char *>(malloc(n + 1));
        if (!text) {
            result = -ENOMEM;
            break;
        }
        memcpy(text, bytes, n);
        text[n] = '\0';
        *static_cast<char **>(dest) = text;
        texts[text_count++] = static_cast<char **>(dest);
    }
    va_end(ap);
    if (result < 0)
        for (size_t i = 0; i < text_count; i++) {
            free(*texts[i]);
            *texts[i] = nullptr;
        }
    return result;
}

// ---- clients -----------------------------------------------------------------

struct msg_loop {
    int epoll_fd;
};

struct msg_context {
    msg_client_cb callback;
    void *user_data;
    msg_loop loop;
    int fd;
    bool have_address;
    bool report_connected; // connected, not yet reported
    bool reported_up;      // the callback was told "connected"
    sockaddr_un address;
    socklen_t address_len;
    trust_policy policy;
    // What the refusals of untrusted servers have logged (keyed by their
    // user id), until a trusted server is found.
    trust_refusals refusals;
    int64_t next_attempt_ms;
    ready_hint hint; // on fd: the cycle's one poll
    size_t rx_len;
    uint8_t rx[kMsgMaxFrame];
};

namespace {

void close_connection(msg_context *c)
{
    if (c->fd < 0)
        return;
    epoll_ctl(c->loop.epoll_fd, EPOLL_CTL_DEL, c->fd, nullptr);
    close(c->fd);
    c->fd = -1;
    c->rx_len = 0;
    c->report_connected = false;
}

// Whether the server at the other end of fd runs as a trusted user: anyone
// can bind an abstract name, so the name alone proves nothing.
bool peer_trusted(msg_context *c, int fd)
{
    ucred peer{};
    socklen_t len = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0)
        peer.uid = uid_t(-1);
    if (trust_allows(&c->policy, peer.uid)) {
        trust_refusals_clear(&c->refusals);
        return true;
    }
    char key[32];
    snprintf(key, sizeof key, "uid %u", unsigned(peer.uid));
    trust_report report = trust_refusal_seen(&c->refusals, key);
    if (report == trust_report::quiet)
        return false;
    const char *name = c->address.sun_path[0] ? c->address.sun_path : c->address.sun_path + 1;
    int shown = static_cast<int>(
        strnlen(name, c->address_len - offsetof(sockaddr_un, sun_path) - (c->address.sun_path[0] ? 0 : 1)));
    const char *at = c->address.sun_path[0] ? "" : "@";
    log_msg(kTag, LOG_ERR, "refusing the server on %s%.*s: process %d runs as uid %u, not a trusted user", at, shown,
            name, int(peer.pid), unsigned(peer.uid));
    if (report == trust_report::last)
        log_msg(kTag, LOG_ERR, "%s%.*s: further refusals are not reported until a trusted server is found", at,
                shown, name);
    return false;
}

// One attempt. 0 when connected or worth retrying later, -errno otherwise.
int try_connect(msg_context *c)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&c->address), c->address_len) != 0) {
        int err = errno;
        close(fd);
        c->next_attempt_ms = now_ms() + kMsgRetryMs;
        // Nobody listening yet, or the listener's backlog is full: try again later.
        if (err == ECONNREFUSED || err == ENOENT || err == EAGAIN)
            return 0;
        return -err;
    }
    if (!peer_trusted(c, fd)) {
        close(fd);
        c->next_attempt_ms = now_ms() + kMsgRetryMs;
        return 0;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(c->loop.epoll_fd, EPOLL_CTL_ADD, fd, &ev);
    c->fd = fd;
    c->report_connected = true;
    return 0;
}

} // namespace

msg_context *context_create(msg_client_cb callback, void *user_data)
{
    if (!callback)
        return nullptr;
    owned<msg_context, context_destroy> c{zeroed_new<msg_context>()};
    if (!c)
        return nullptr;
    c->fd = -1;
    c->hint = ready_hint_for(&c->fd);
    c->loop.epoll_fd = -1;
    c->callback = callback;
    c->user_data = user_data;
    trust_policy_load(&c->policy);
    c->loop.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (c->loop.epoll_fd < 0)
        return nullptr;
    return c.release();
}

msg_loop *context_get_loop(msg_context *context)
{
    return context ? &context->loop : nullptr;
}

int loop_get_fd(const msg_loop *loop)
{
    return loop ? loop->epoll_fd : -EINVAL;
}

int context_connect(msg_context *context, const sockaddr *address, socklen_t length)
{
    if (!context || !address)
        return -EINVAL;
    if (context->have_address)
        return -EISCONN;
    int r = socket_relocate(reinterpret_cast<const sockaddr_un *>(address), length, &context->address,
                            &context->address_len);
    if (r < 0)
        return r;
    r = try_connect(context);
    if (r < 0)
        return r;
    context->have_address = true;
    return 0;
}

bool context_is_connected(const msg_context *context)
{
    return context && context->fd >= 0;
}

int context_process_fd(msg_context *context)
{
    if (!context)
        return -EINVAL;
    msg_context *c = context;
    if (c->have_address && c->fd < 0 && now_ms() >= c->next_attempt_ms)
        try_connect(c);
    if (c->report_connected) {
        c->report_connected = false;
        c->reported_up = true;
        c->callback(c, MSG_EVENT_CONNECTED, nullptr, nullptr, c->user_data);
    }
    if (c->fd < 0 || ready_hint_take_empty(&c->hint, c->fd))
        return 0;
    const int fd = c->fd;
    int r = drain(fd, c->rx, sizeof c->rx, &c->rx_len, [c, fd](const msg_message &m) {
        c->callback(c, MSG_EVENT_MESSAGE, nullptr, &m, c->user_data);
        return c->fd == fd; // the callback may have stopped the context
    });
    if (c->fd != fd)
        return r < 0 ? 0 : r;
    if (r >= 0)
        return r;
    if (r == -EBADMSG)
        log_msg(kTag, LOG_WARNING, "malformed frame from the peer: connection dropped");
    close_connection(c);
    c->next_attempt_ms = now_ms() + kMsgRetryMs;
    if (c->reported_up) {
        c->reported_up = false;
        c->callback(c, MSG_EVENT_DISCONNECTED, nullptr, nullptr, c->user_data);
    }
    return 0;
}

ready_hint *context_ready_hint(msg_context *context)
{
    return context ? &context->hint : nullptr;
}

int context_send(msg_context *context, const msg_frame *frame)
{
    if (!context || !frame || frame->size > kMsgMaxFrame)
        return -EINVAL;
    if (context->fd < 0)
        return -ENOTCONN;
    return send_all_or_nothing(context->fd, frame);
}

int context_stop(msg_context *context)
{
    if (!context)
        return -EINVAL;
    close_connection(context);
    context->have_address = false;
    context->reported_up = false;
    return 0;
}

void context_destroy(msg_context *context)
{
    if (!context)
        return;
    close_connection(context);
    if (context->loop.epoll_fd >= 0)
        close(context->loop.epoll_fd);
    free(context);
}

// ---- servers -----------------------------------------------------------------

struct msg_connection {
    msg_server *server;
    int fd; // -1: free slot
    size_t rx_len;
    uint8_t rx[kMsgMaxFrame];
};

struct msg_server {
    msg_server_cb callback;
    void *user_data;
    int listen_fd;
    msg_connection connections[kMsgMaxConnections];
};

namespace {

void drop(msg_connection *conn, bool report)
{
    if (conn->fd < 0)
        return;
    close(conn->fd);
    conn->fd = -1;
    conn->rx_len = 0;
    msg_server *s = conn->server;
    if (report)
        s->callback(s, MSG_EVENT_DISCONNECTED, conn, nullptr, s->user_data);
}

} // namespace

msg_server *server_create(const char *name, msg_server_cb callback, void *user_data)
{
    sockaddr_un plain, address;
    socklen_t length;
    int r = socket_address(name, &plain, &length);
    if (r == 0)
        r = socket_relocate(&plain, length, &address, &length);
    if (r < 0 || !callback) {
        errno = r < 0 ? -r : EINVAL;
        return nullptr;
    }
    auto *s = zeroed_new<msg_server>();
    if (!s) {
        errno = ENOMEM;
        return nullptr;
    }
    s->callback = callback;
    s->user_data = user_data;
    for (msg_connection &c : s->connections) {
        c.server = s;
        c.fd = -1;
    }
    s->listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (s->listen_fd < 0 || bind(s->listen_fd, reinterpret_cast<const sockaddr *>(&address), length) != 0 ||
        listen(s->listen_fd, int(kMsgMaxConnections)) != 0) {
        int err = errno;
        if (s->listen_fd >= 0)
            close(s->listen_fd);
        free(s);
        errno = err;
        return nullptr;
    }
    return s;
}

int server_process(msg_server *server, int timeout_ms)
{
    if (!server)
        return -EINVAL;
    pollfd fds[1 + kMsgMaxConnections];
    msg_connection *owners[1 + kMsgMaxConnections] = {};
    nfds_t n = 0;
    fds[n++] = {server->listen_fd, POLLIN, 0};
    for (msg_connection &c : server->connections)
        if (c.fd >= 0) {
            owners[n] = &c;
            fds[n++] = {c.fd, POLLIN, 0};
        }
    int ready = poll(fds, n, timeout_ms);
    if (ready < 0)
        return errno == EINTR ? 0 : -errno;
    int events = 0;
    auto read_from = [server, &events](msg_connection *conn) {
        int r = drain(conn->fd, conn->rx, sizeof conn->rx, &conn->rx_len, [server, conn](const msg_message &m) {
            server->callback(server, MSG_EVENT_MESSAGE, conn, &m, server->user_data);
            return conn->fd >= 0;
        });
        events += r > 0 ? r : 0;
        if (r < 0) {
            drop(conn, true);
            events++;
        }
    };
    for (nfds_t i = 1; i < n; i++)
        if (fds[i].revents && owners[i]->fd >= 0)
            read_from(owners[i]);
    if (fds[0].revents & POLLIN)
        for (;;) {
            int fd = accept4(server->listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0)
                break;
            msg_connection *slot = nullptr;
            for (msg_connection &c : server->connections)
                if (c.fd < 0) {
                    slot = &c;
                    break;
                }
            if (!slot) {
                close(fd); // full: the client sees the close and tries again
                continue;
            }
            slot->fd = fd;
            slot->rx_len = 0;
            server->callback(server, MSG_EVENT_CONNECTED, slot, nullptr, server->user_data);
            events++;
            // A client may have written before it was accepted.
            if (slot->fd >= 0)
                read_from(slot);
        }
    return events;
}

int connection_send(msg_connection *connection, const msg_frame *frame)
{
    if (!connection || !frame || frame->size > kMsgMaxFrame)
        return -EINVAL;
    if (connection->fd < 0)
        return -ENOTCONN;
    int r = send_all_or_nothing(connection->fd, frame);
    if (r == -EPIPE)
        drop(connection, true);
    return r;
}

int server_broadcast(msg_server *server, const msg_frame *frame)
{
    if (!server || !frame)
        return -EINVAL;
    int sent = 0;
    for (msg_connection &c : server->connections)
        if (c.fd >= 0 && connection_send(&c, frame) == 0)
            sent++;
    return sent;
}

size_t server_connection_count(const msg_server *server)
{
    size_t n = 0;
    if (server)
        for (const msg_connection &c : server->connections)
            n += c.fd >= 0;
    return n;
}

void server_destroy(msg_server *server)
{
    if (!server)
        return;
    for (msg_connection &c : server->connections)
        drop(&c, false);
    close(server->listen_fd);
    free(server);
}
