// SPDX-License-Identifier: Apache-2.0
// msg_socket: typed messages between local processes over UNIX stream
// sockets in the abstract namespace, with our own framing.
//
// A frame is a 12-byte header (magic "OMSG", message id, payload length, all
// u32 in host order) and a payload of typed values, each a tag byte and its
// bytes: 'd' f64, 'L' u64, 'f' f32, 'i' i32, 'u' u32, 's' text (u16 length,
// then the characters, no terminator and no zero byte inside). A frame whose
// header or values do not parse is malformed: the receiver drops the
// connection, since the byte stream can no longer be trusted.
//
// Clients: a context owns one connection. context_connect remembers the
// address and tries at once; the outcome is reported by the next
// context_process_fd as event MSG_EVENT_CONNECTED. A lost connection is
// reported as MSG_EVENT_DISCONNECTED and retried every kMsgRetryMs, from
// context_process_fd, until context_stop: a daemon that restarts is found
// again without the client asking. Nothing blocks and nothing runs on
// another thread: callbacks are called from context_process_fd.
//
// Trust: anyone can bind an abstract name, so a client checks the server's
// credentials (SO_PEERCRED) on every connection and hangs up on a server
// that does not run as a trusted user (platform/trust.h), reporting it once
// per user; it keeps trying as for an absent server, so a trusted server
// that takes the name back is found again.
//
// Relocation: the abstract names of the services can be moved by
// ORLUNE_SOCKET_PREFIX, prepended to every abstract name a client connects to
// or a server listens on, so tests and the virtual vehicle run in parallel
// beside a real system. Unset, the names are used as they are.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>

inline constexpr const char *kSocketPrefixEnv = "ORLUNE_SOCKET_PREFIX";

inline constexpr uint32_t kMsgMagic = 0x47534d4f; // "OMSG" in memory order on little-endian
inline constexpr size_t kMsgHeaderSize = 12;
inline constexpr size_t kMsgMaxPayload = 4096;
inline constexpr size_t kMsgMaxFrame = kMsgHeaderSize + kMsgMaxPayload;
inline constexpr size_t kMsgMaxValues = 32;
// Interval between two connection attempts of a client whose peer is absent.
inline constexpr int kMsgRetryMs = 200;

enum msg_event : int {
    MSG_EVENT_CONNECTED = 0,
    MSG_EVENT_DISCONNECTED = 1,
    MSG_EVENT_MESSAGE = 2,
};

// A received message: a view into the receiver's buffer, valid during the
// callback that hands it over.
struct msg_message {
    uint32_t id;
    uint32_t length; // payload bytes
    const uint8_t *payload;
};

// A message ready to send.
struct msg_frame {
    size_t size;
    uint8_t bytes[kMsgMaxFrame];
};

struct msg_loop;
struct msg_context;
struct msg_connection;
struct msg_server;

using msg_client_cb = void (*)(msg_context *context, int event, msg_connection *connection,
                               const msg_message *message, void *user_data);
using msg_server_cb = void (*)(msg_server *server, int event, msg_connection *connection,
                               const msg_message *message, void *user_data);

// ---- addresses ---------------------------------------------------------------

// The full-size (sizeof(sockaddr_un)) abstract address of name, zero-padded
// as the flight software's services expect, before relocation.
// 0, -EINVAL for an empty name, -ENAMETOOLONG.
int socket_address(const char *name, sockaddr_un *out, socklen_t *out_len);

// Applies ORLUNE_SOCKET_PREFIX to an abstract address: the name (the bytes
// after the leading zero, up to the first zero byte) gets the prefix, and the
// zero padding keeps the address at its length (at least the name's). Other
// addresses are copied unchanged. 0, -EINVAL, -ENAMETOOLONG.
int socket_relocate(const sockaddr_un *in, socklen_t in_len, sockaddr_un *out, socklen_t *out_len);

// ---- messages ----------------------------------------------------------------

// Builds a frame. Formats: "%lf" and "%f" take a double, "%lu" a uint64_t,
// "%i" an int, "%u" an unsigned, "%s" a text. 0, -EINVAL for a bad format or
// a text with no room, -EMSGSIZE.
int message_build(msg_frame *out, uint32_t id, const char *fmt, ...);

// Parses one frame at the start of data. Returns the frame's size with *out
// pointing into data; 0 when more bytes are needed; -EBADMSG for a malformed
// frame.
long message_parse(const uint8_t *data, size_t size, msg_message *out);

uint32_t message_get_id(const msg_message *message);

// Decodes the values in order into the destinations: "%lf" double *, "%lu"
// uint64_t *, "%f" float *, "%i" int32_t *, "%u" uint32_t *, "%ms" char **
// (a newly allocated text that the receiver frees). Values beyond the
// format are ignored. 0; -EINVAL for a null argument or a bad format;
// -EBADMSG when a value is missing or of another type (destinations before
// it keep what was stored; texts already made are freed and their
// destinations set to null); -ENOMEM.
int message_read(const msg_message *message, const char *fmt, ...);

// ---- clients -----------------------------------------------------------------

msg_context *context_create(msg_client_cb callback, void *user_data);
// The context's loop: its descriptor becomes readable when the context has
// something to process.
msg_loop *context_get_loop(msg_context *context);
int loop_get_fd(const msg_loop *loop);

// 0; -EINVAL for a bad address, -EISCONN when already connecting, -errno
// when no socket can be made.
int context_connect(msg_context *context, const sockaddr *address, socklen_t length);
// Whether the connection is up at this moment.
bool context_is_connected(const msg_context *context);
// Processes everything pending without blocking. Number of messages handed
// to the callback, or -EINVAL. When the cycle's one poll found nothing on
// the connection (context_ready_hint), it does not ask again.
int context_process_fd(msg_context *context);
// The connection's hint for ready_poll.
struct ready_hint;
ready_hint *context_ready_hint(msg_context *context);
// 0; -ENOTCONN when not connected; -EAGAIN when the socket is full (the
// frame is not sent); -EPIPE when the connection broke.
int context_send(msg_context *context, const msg_frame *frame);
// Closes the connection and forgets the address. 0 or -EINVAL.
int context_stop(msg_context *context);
void context_destroy(msg_context *context);

// ---- servers -----------------------------------------------------------------

inline constexpr size_t kMsgMaxConnections = 16;

// Listens on the abstract name (relocated). Null with errno set.
msg_server *server_create(const char *name, msg_server_cb callback, void *user_data);
// Waits up to timeout_ms for activity (0: does not wait), accepts clients,
// reads their frames and calls the callback. Number of events, or -errno.
int server_process(msg_server *server, int timeout_ms);
// Sends to every client. Number of clients that took the frame.
int server_broadcast(msg_server *server, const msg_frame *frame);
// 0; -EAGAIN when the client's socket is full (frame dropped); -EPIPE when the
// client was dropped.
int connection_send(msg_connection *connection, const msg_frame *frame);
size_t server_connection_count(const msg_server *server);
// Closes every connection and the listening socket. Null is ignored.
void server_destroy(msg_server *server);
