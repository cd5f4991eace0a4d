// SPDX-License-Identifier: Apache-2.0
// Framing, typed values, relocation, and a client that follows its server
// through a restart and a malformed frame.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/msg_socket.h"
#include "platform/ready_poll.h"
#include "platform/telemetry_test_util.h"

namespace {

// A frame of payload whose header claims length bytes (by default the payload's).
std::vector<uint8_t> frame_bytes(uint32_t id, const std::vector<uint8_t> &payload, int64_t claimed = -1)
{
    std::vector<uint8_t> f(12 + payload.size());
    uint32_t magic = kMsgMagic, length = uint32_t(claimed < 0 ? int64_t(payload.size()) : claimed);
    memcpy(f.data(), &magic, 4);
    memcpy(f.data() + 4, &id, 4);
    memcpy(f.data() + 8, &length, 4);
    for (size_t i = 0; i < payload.size(); i++)
        f[12 + i] = payload[i];
    return f;
}

TEST(MsgSocket, EveryTypeSurvivesTheRoundTrip)
{
    msg_frame f;
    ASSERT_EQ(message_build(&f, 7, "%lf%lu%f%i%u%s", 1.25, uint64_t(1) << 40, 2.5, -3, 4u, "text"), 0);
    msg_message m;
    ASSERT_EQ(message_parse(f.bytes, f.size, &m), long(f.size));
    EXPECT_EQ(message_get_id(&m), 7u);
    double d = 0;
    uint64_t lu = 0;
    float fl = 0;
    int32_t i = 0;
    uint32_t u = 0;
    char *s = nullptr;
    ASSERT_EQ(message_read(&m, "%lf%lu%f%i%u%ms", &d, &lu, &fl, &i, &u, &s), 0);
    EXPECT_EQ(d, 1.25);
    EXPECT_EQ(lu, uint64_t(1) << 40);
    EXPECT_EQ(fl, 2.5f);
    EXPECT_EQ(i, -3);
    EXPECT_EQ(u, 4u);
    EXPECT_STREQ(s, "text");
    free(s);

    // A prefix of the values may be read; a type or a value that is not
    // there is refused, and texts made before the refusal are taken back.
    EXPECT_EQ(message_read(&m, "%lf", &d), 0);
    s = reinterpret_cast<char *>(1);
    char *s2 = reinterpret_cast<char *>(1);
    ASSERT_EQ(message_build(&f, 1, "%s%u", "a", 1u), 0);
    ASSERT_GT(message_parse(f.bytes, f.size, &m), 0);
    EXPECT_EQ(message_read(&m, "%ms%ms", &s, &s2), -EBADMSG);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(message_read(&m, "%ms%u%u", &s, &u, &u), -EBADMSG);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(message_read(&m, "%x", &u), -EINVAL);
}

TEST(MsgSocket, MalformedFramesAreRefusedAndPartialOnesWaitedFor)
{
    struct row {
        const char *what;
        std::vector<uint8_t> bytes;
        long expected;
    } rows[] = {
        {"bad magic", {'X', 'M', 'S', 'G', 0, 0, 0, 0, 0, 0, 0, 0}, -EBADMSG},
        {"bad magic seen early", {'O', 'X'}, -EBADMSG},
        {"header cut", {'O', 'M', 'S'}, 0},
        {"last byte still to come", frame_bytes(1, {'u', 1, 0, 0}, 5), 0},
        {"text beyond payload", frame_bytes(0, {'s', 9, 0, 'a', 'b'}), -EBADMSG},
        {"zero inside a text", frame_bytes(0, {'s', 2, 0, 'a', 0}), -EBADMSG},
        {"unknown tag", frame_bytes(0, {'x', 1, 2, 3, 4}), -EBADMSG},
        {"value cut", frame_bytes(0, {'u', 1, 2}), -EBADMSG},
        {"payload too long", frame_bytes(0, {}, int64_t(kMsgMaxPayload) + 1), -EBADMSG},
        {"longest payload still to come", frame_bytes(0, {}, int64_t(kMsgMaxPayload)), 0},
        {"empty payload", frame_bytes(5, {}), 12},
    };
    for (const row &r : rows) {
        msg_message m;
        EXPECT_EQ(message_parse(r.bytes.data(), r.bytes.size(), &m), r.expected) << r.what;
    }
}

TEST(MsgSocket, AbstractNamesTakeThePrefixAndKeepTheirLength)
{
    sockaddr_un gps{};
    gps.sun_family = AF_UNIX;
    memcpy(gps.sun_path + 1, "gps", 3);
    sockaddr_un out;
    socklen_t len = 0;
    ASSERT_EQ(socket_relocate(&gps, sizeof gps, &out, &len), 0);
    EXPECT_EQ(len, socklen_t(sizeof gps));
    EXPECT_EQ(memcmp(&gps, &out, sizeof gps), 0);

    test_root root; // sets the prefix
    const std::string prefix = getenv(kSocketPrefixEnv);
    ASSERT_EQ(socket_relocate(&gps, sizeof gps, &out, &len), 0);
    EXPECT_EQ(len, socklen_t(110));
    EXPECT_EQ(out.sun_path[0], '\0');
    EXPECT_EQ(std::string(out.sun_path + 1), prefix + "gps");
    for (size_t i = 1 + prefix.size() + 3; i < sizeof out.sun_path; i++)
        ASSERT_EQ(out.sun_path[i], '\0') << i;

    sockaddr_un path{};
    path.sun_family = AF_UNIX;
    strcpy(path.sun_path, "/run/gps.sock");
    ASSERT_EQ(socket_relocate(&path, sizeof path, &out, &len), 0);
    EXPECT_STREQ(out.sun_path, "/run/gps.sock");
    EXPECT_EQ(socket_relocate(&path, 2, &out, &len), -EINVAL);
}

struct recorder {
    std::vector<int> events;
    std::vector<uint32_t> ids;
    static void cb(msg_context *, int event, msg_connection *, const msg_message *m, void *user)
    {
        auto *r = static_cast<recorder *>(user);
        r->events.push_back(event);
        if (m)
            r->ids.push_back(message_get_id(m));
    }
};

void server_cb(msg_server *, int, msg_connection *, const msg_message *, void *) {}

// Processes the server, when there is one, and the client until pred holds.
bool process_until(msg_context *c, msg_server *s, const std::function<bool()> &pred)
{
    return eventually([&] {
        if (s)
            server_process(s, 0);
        context_process_fd(c);
        return pred();
    });
}

TEST(MsgSocket, ClientFollowsItsServerThroughARestart)
{
    test_root root;
    recorder rec;
    msg_context *c = context_create(recorder::cb, &rec);
    ASSERT_NE(c, nullptr);
    sockaddr_un address;
    socklen_t len;
    ASSERT_EQ(socket_address("svc", &address, &len), 0);
    // Nobody listens yet: the request stands, the attempt is repeated.
    ASSERT_EQ(context_connect(c, reinterpret_cast<sockaddr *>(&address), len), 0);
    EXPECT_EQ(context_connect(c, reinterpret_cast<sockaddr *>(&address), len), -EISCONN);
    context_process_fd(c);
    EXPECT_TRUE(rec.events.empty());

    msg_server *s = server_create("svc", server_cb, nullptr);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(process_until(c, s, [&] { return !rec.events.empty(); }));
    EXPECT_EQ(rec.events, std::vector<int>{MSG_EVENT_CONNECTED});
    ASSERT_TRUE(process_until(c, s, [&] { return server_connection_count(s) == 1; }));

    // The cycle's one poll found nothing: the read after it does not ask,
    // and what came since is for the read after that.
    ready_hint *hint = context_ready_hint(c);
    ready_poll(&hint, 1);
    msg_frame f;
    ASSERT_EQ(message_build(&f, 3, "%u", 3u), 0);
    ASSERT_EQ(server_broadcast(s, &f), 1);
    EXPECT_EQ(context_process_fd(c), 0);
    EXPECT_EQ(context_process_fd(c), 1);
    for (uint32_t id : {4u, 5u, 6u}) {
        ASSERT_EQ(message_build(&f, id, "%u", id), 0);
        ASSERT_EQ(server_broadcast(s, &f), 1);
    }
    // The loop's descriptor tells an outside poller that work is pending.
    pollfd pfd{loop_get_fd(context_get_loop(c)), POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 1000), 1);
    ready_poll(&hint, 1);
    EXPECT_EQ(context_process_fd(c), 3);
    EXPECT_EQ(rec.ids, (std::vector<uint32_t>{3, 4, 5, 6}));

    server_destroy(s);
    ASSERT_TRUE(process_until(c, nullptr, [&] { return rec.events.size() == 6; }));
    EXPECT_EQ(rec.events.back(), MSG_EVENT_DISCONNECTED);
    s = server_create("svc", server_cb, nullptr);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(process_until(c, s, [&] { return rec.events.size() == 7; }));
    EXPECT_EQ(rec.events.back(), MSG_EVENT_CONNECTED);

    // After stop nothing is retried.
    EXPECT_EQ(context_stop(c), 0);
    EXPECT_FALSE(context_is_connected(c));
    std::this_thread::sleep_for(std::chrono::milliseconds(kMsgRetryMs + 50));
    server_process(s, 0);
    context_process_fd(c);
    EXPECT_EQ(rec.events.size(), 7u);
    context_destroy(c);
    server_destroy(s);
}

TEST(MsgSocket, MalformedFrameFromThePeerDropsTheConnection)
{
    test_root root;
    sockaddr_un address;
    socklen_t len;
    ASSERT_EQ(socket_address("raw", &address, &len), 0);
    sockaddr_un relocated;
    ASSERT_EQ(socket_relocate(&address, len, &relocated, &len), 0);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&relocated), len), 0);
    ASSERT_EQ(listen(listener, 1), 0);

    recorder rec;
    log_capture cap;
    msg_context *c = context_create(recorder::cb, &rec);
    ASSERT_EQ(context_connect(c, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    msg_frame good;
    ASSERT_EQ(message_build(&good, 9, "%i", 1), 0);
    ASSERT_EQ(write(peer, good.bytes, good.size), ssize_t(good.size));
    ASSERT_EQ(write(peer, "garbage-garbage", 15), 15);
    context_process_fd(c);
    EXPECT_EQ(rec.ids, std::vector<uint32_t>{9});
    EXPECT_EQ(rec.events, (std::vector<int>{MSG_EVENT_CONNECTED, MSG_EVENT_MESSAGE, MSG_EVENT_DISCONNECTED}));
    // A peer that talks nonsense is a warning: the client reconnects.
    std::vector<std::string> said;
    for (const log_record &r : cap.take())
        if (r.tag == "msg_socket")
            said.push_back(std::to_string(r.priority) + " " + r.text);
    EXPECT_EQ(said, std::vector<std::string>{"4 malformed frame from the peer: connection dropped"});
    char byte;
    EXPECT_EQ(read(peer, &byte, 1), 0); // the client closed its end
    context_destroy(c);
    close(peer);
    close(listener);
}

} // namespace
