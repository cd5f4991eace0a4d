// SPDX-License-Identifier: Apache-2.0
// The iiod server byte for byte, from a plain socket: the replies libiio
// depends on, garbage, and clients that vanish mid-command.
#include "sim/iiod_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

namespace {

// A literal with its embedded NULs, without the terminator.
template <size_t N>
std::string bytes(const char (&text)[N])
{
    return std::string(text, N - 1);
}

class wire {
public:
    explicit wire(uint16_t port)
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}};
        if (connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
            throw std::runtime_error("connect failed");
        timeval tv{5, 0}; // a missing reply fails the test instead of hanging it
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~wire() { close(fd_); }
    void send_text(const std::string &s)
    {
        ASSERT_EQ(::send(fd_, s.data(), s.size(), MSG_NOSIGNAL), static_cast<ssize_t>(s.size()));
    }
    std::string read_exact(size_t n)
    {
        std::string out(n, '\0');
        size_t got = 0;
        while (got < n) {
            ssize_t r = recv(fd_, out.data() + got, n - got, 0);
            if (r <= 0)
                throw std::runtime_error("connection closed or timed out");
            got += static_cast<size_t>(r);
        }
        return out;
    }
    std::string line()
    {
        std::string out;
        while (out.empty() || out.back() != '\n')
            out += read_exact(1);
        return out;
    }
    // A command whose reply is one integer line.
    std::string ask(const std::string &request)
    {
        send_text(request);
        return line();
    }
    bool closed_by_peer()
    {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 2000) != 1)
            return false;
        char c;
        return recv(fd_, &c, 1, 0) == 0;
    }

private:
    int fd_ = -1;
};

class IiodServer : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim::scenario s = sim::default_scenario();
        std::string error;
        server_ = sim::iiod_server::start(s, {}, &error);
        ASSERT_TRUE(server_) << error;
    }
    std::unique_ptr<sim::iiod_server> server_;
};

TEST_F(IiodServer, PrintSendsTheCountedDescriptionAndOneMoreByte)
{
    wire w(server_->port());
    w.send_text("PRINT\r\n");
    const std::string length = w.line();
    const size_t n = std::stoul(length);
    EXPECT_EQ(n, server_->context_xml().size());
    const std::string xml = w.read_exact(n);
    EXPECT_EQ(w.read_exact(1), "\n");
    EXPECT_EQ(xml.rfind("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!DOCTYPE context [", 0), 0u);
    for (const char *expected :
         {"<device id=\"iio:device0\" name=\"orlune-imu\">", "<device id=\"trigger0\" name=\"orlune-imu-trig\">",
          "<device id=\"iio:device1\" name=\"orlune-lps22hb\">", "<device id=\"trigger2\" name=\"orlune-magneto-trig\">",
          "<channel id=\"accel_x\" type=\"input\"><scan-element index=\"0\" format=\"le:s16/16&gt;&gt;0\" />"
          "<attribute name=\"raw\" filename=\"in_accel_x_raw\" /><attribute name=\"scale\" filename=\"in_accel_scale\" />",
          "<channel id=\"timestamp\" type=\"input\"><scan-element index=\"7\" format=\"le:s64/64&gt;&gt;0\" /></channel>",
          "<scan-element index=\"0\" format=\"le:u24/32&gt;&gt;0\" />", "filename=\"in_mount_matrix\"",
          "<attribute name=\"rate_divider\" />", "<buffer-attribute name=\"length\" />"})
        EXPECT_NE(xml.find(expected), std::string::npos) << expected;
    // The empty line and EXIT get no reply; the next reply is TIMEOUT's.
    EXPECT_EQ(w.ask("\r\nTIMEOUT 2500\r\n"), "0\n");
    w.send_text("\r\nEXIT\r\n");
    EXPECT_TRUE(w.closed_by_peer());
}

TEST_F(IiodServer, AttributeRepliesCarryTheValueWithItsNul)
{
    wire w(server_->port());
    EXPECT_EQ(w.ask("READ iio:device0 sampling_frequency\r\n"), "5\n");
    EXPECT_EQ(w.read_exact(6), bytes("1000\0\n"));
    EXPECT_EQ(w.ask("READ iio:device0 INPUT accel_y scale\r\n"), "12\n");
    EXPECT_EQ(w.read_exact(13), bytes("0.002394202\0\n"));
    EXPECT_EQ(w.ask("READ trigger0 rate_divider\r\n"), "2\n");
    EXPECT_EQ(w.read_exact(3), bytes("5\0\n"));
    EXPECT_EQ(w.ask("READ iio:device2 INPUT magn_x mount_matrix\r\n"), "28\n");
    EXPECT_EQ(w.read_exact(29), bytes("-1, 0, 0; 0, 1, 0; 0, 0, -1\0\n"));

    struct row {
        const char *request;
        const char *reply;
    };
    for (const row &r : {row{"READ iio:device9 sampling_frequency\r\n", "-19\n"},
                         row{"READ iio:device0 in_accel_scale\r\n", "-2\n"},
                         row{"READ iio:device0 INPUT magn_x scale\r\n", "-6\n"},
                         row{"READ iio:device0 DEBUG direct_reg_access\r\n", "-2\n"},
                         row{"READ iio:device0 \r\n", "-38\n"},
                         row{"GETTRIG trigger0\r\n", "-2\n"},
                         row{"GETTRIG iio:device0\r\n", "-5\n"},
                         row{"SETTRIG iio:device0 nothing\r\n", "-2\n"},
                         row{"SETTRIG iio:device0 trigger0\r\n", "0\n"},
                         row{"SET iio:device0 BUFFERS_COUNT 4\r\n", "0\n"},
                         row{"ZPRINT\r\n", "-22\n"},
                         row{"CLOSE iio:device0\r\n", "-6\n"},
                         row{"READBUF iio:device0 120\r\n", "-9\n"}})
        EXPECT_EQ(w.ask(r.request), r.reply) << r.request;
    EXPECT_EQ(w.ask("GETTRIG iio:device0\r\n"), "15\n");
    EXPECT_EQ(w.read_exact(16), "orlune-imu-trig\n");
}

TEST_F(IiodServer, WriteReadsItsWholePayloadBeforeAnswering)
{
    wire w(server_->port());
    // The payload arrives in its own segment, NUL counted, as libiio sends it.
    w.send_text("WRITE iio:device0 sampling_frequency 4\r\n");
    w.send_text(bytes("500\0"));
    EXPECT_EQ(w.line(), "4\n");
    EXPECT_EQ(w.ask("READ iio:device0 sampling_frequency\r\n"), "4\n");
    EXPECT_EQ(w.read_exact(5), bytes("500\0\n"));
    // Refused writes still swallow their payload: the next reply is in step.
    struct row {
        std::string request;
        const char *reply;
    };
    for (const row &r : {row{bytes("WRITE iio:device9 sampling_frequency 5\r\n1000\0"), "-19\n"},
                         row{bytes("WRITE iio:device0 sampling_frequency 2\r\n0\0"), "-22\n"},
                         row{bytes("WRITE iio:device0 INPUT accel_x scale 2\r\n1\0"), "-13\n"},
                         row{bytes("WRITE trigger0 rate_divider 3\r\n10\0"), "3\n"},
                         row{bytes("WRITE iio:device0  3\r\nab\0"), "-38\n"}}) {
        EXPECT_EQ(w.ask(r.request), r.reply) << r.request;
        EXPECT_EQ(w.ask("TIMEOUT 2500\r\n"), "0\n") << "after " << r.request;
    }
    EXPECT_EQ(w.ask("READ trigger0 rate_divider\r\n"), "3\n");
}

TEST_F(IiodServer, ReadbufSendsLengthMaskAndDataEndsAShortBatchWithZeroAndTimesOut)
{
    wire control(server_->port());
    EXPECT_EQ(control.ask("TIMEOUT 200\r\n"), "0\n");
    wire buffer(server_->port());
    EXPECT_EQ(buffer.ask("OPEN iio:device0 5 000000ff\r\n"), "0\n");
    // No trigger attached yet: the IMU produces nothing; the polled barometer
    // answers at once instead.
    EXPECT_EQ(buffer.ask("READBUF iio:device0 120\r\n"), "-110\n");
    EXPECT_EQ(control.ask("OPEN iio:device1 1 00000007\r\n"), "0\n");
    EXPECT_EQ(control.ask("READBUF iio:device1 16\r\n"), "-11\n");
    EXPECT_EQ(control.ask("SETTRIG iio:device0 trigger0\r\n"), "0\n");
    EXPECT_EQ(buffer.ask("READBUF iio:device0 120\r\n"), "120\n");
    EXPECT_EQ(buffer.line(), "000000ff\n");
    const std::string full = buffer.read_exact(120);
    // Nothing follows a full batch: the next bytes are the next reply.
    ASSERT_EQ(server_->inject({0, sim::fault_kind::short_batch, "orlune-imu", 0, 2, 1, 0}), 0);
    EXPECT_EQ(buffer.ask("READBUF iio:device0 120\r\n"), "48\n");
    EXPECT_EQ(buffer.line(), "000000ff\n");
    const std::string part = buffer.read_exact(48);
    EXPECT_EQ(buffer.read_exact(2), "0\n");
    // Timestamps (last 8 bytes of each 24-byte scan) follow each other by 1 ms.
    int64_t previous = 0;
    for (const std::string *data : {&full, &part}) {
        for (size_t off = 16; off < data->size(); off += 24) {
            int64_t stamp;
            std::memcpy(&stamp, data->data() + off, 8);
            if (previous) {
                EXPECT_GT(stamp, previous);
                EXPECT_EQ((stamp - previous) % 1000000, 0) << "whole 1 ms periods";
            }
            previous = stamp;
        }
    }
    // Only accel_x and the timestamp: 16-byte scans, the timestamp at 8.
    EXPECT_EQ(buffer.ask("CLOSE iio:device0\r\n"), "0\n");
    EXPECT_EQ(buffer.ask("OPEN iio:device0 2 00000081\r\n"), "0\n");
    EXPECT_EQ(buffer.ask("READBUF iio:device0 32\r\n"), "32\n");
    EXPECT_EQ(buffer.line(), "00000081\n");
    const std::string narrow = buffer.read_exact(32);
    EXPECT_EQ(narrow.substr(2, 6), std::string(6, '\0')) << "padding before the timestamp";
    EXPECT_EQ(buffer.ask("READBUF iio:device0 8\r\n"), "-22\n") << "less than one scan";
    EXPECT_EQ(buffer.ask("OPEN iio:device1 1 00000008\r\n"), "-22\n") << "bit beyond the 3 channels";
    EXPECT_EQ(buffer.ask("OPEN iio:device1 1 0000000700000000\r\n"), "-22\n") << "one word for 3 channels";
}

TEST_F(IiodServer, ClientsShareADeviceEachWithItsOwnMaskRefillAndCursor)
{
    wire control(server_->port());
    EXPECT_EQ(control.ask("SETTRIG iio:device0 trigger0\r\n"), "0\n");
    // A kernel buffer of 4 s at 1 kHz: a busy machine drops no scan here.
    EXPECT_EQ(control.ask(bytes("WRITE iio:device0 BUFFER length 5\r\n4096\0")), "5\n");
    // Every channel, 5 scans a refill (24-byte scans, the stamp at 16); and
    // accel_x with the stamp, 2 a refill (16-byte scans, the stamp at 8).
    struct reader {
        std::unique_ptr<wire> w;
        const char *mask;
        size_t scan, stamp_at, samples;
        int64_t last = 0;
        std::string refill()
        {
            const size_t n = scan * samples;
            EXPECT_EQ(w->ask("READBUF iio:device0 " + std::to_string(n) + "\r\n"), std::to_string(n) + "\n");
            EXPECT_EQ(w->line(), std::string(mask) + "\n");
            std::string data = w->read_exact(n);
            last = stamp(data, n / scan - 1);
            return data;
        }
        int64_t stamp(const std::string &data, size_t k) const
        {
            int64_t v;
            std::memcpy(&v, data.data() + k * scan + stamp_at, 8);
            return v;
        }
    };
    reader all{std::make_unique<wire>(server_->port()), "000000ff", 24, 16, 5};
    reader one{std::make_unique<wire>(server_->port()), "00000081", 16, 8, 2};
    EXPECT_EQ(all.w->ask("OPEN iio:device0 5 000000ff\r\n"), "0\n");
    EXPECT_EQ(all.w->ask("OPEN iio:device0 5 000000ff\r\n"), "-16\n") << "one buffer per device and connection";
    all.refill();
    // The second client joins the running stream: the first one's scans go on
    // on the same 1 ms grid (a restart would move it).
    int64_t before = all.last;
    EXPECT_EQ(one.w->ask("OPEN iio:device0 2 00000081\r\n"), "0\n");
    EXPECT_EQ((all.stamp(all.refill(), 0) - before) % 1000000, 0);
    one.refill();
    EXPECT_EQ(control.ask(bytes("WRITE iio:device0 BUFFER length 3\r\n64\0")), "-16\n") << "fixed while open";
    // A connection's enable is its own buffer's: the other one streams on.
    EXPECT_EQ(one.w->ask(bytes("WRITE iio:device0 BUFFER enable 2\r\n0\0")), "2\n");
    before = all.last;
    EXPECT_EQ((all.stamp(all.refill(), 0) - before) % 1000000, 0);
    for (const auto &[w, value] : {std::pair{one.w.get(), bytes("0\0\n")}, std::pair{all.w.get(), bytes("1\0\n")}}) {
        EXPECT_EQ(w->ask("READ iio:device0 BUFFER enable\r\n"), "2\n");
        EXPECT_EQ(w->read_exact(3), value);
    }
    // Enabled again, it restarts the device: both readers start at scan 0.
    EXPECT_EQ(one.w->ask(bytes("WRITE iio:device0 BUFFER enable 2\r\n1\0")), "2\n");
    EXPECT_EQ(one.stamp(one.refill(), 0), all.stamp(all.refill(), 0));
    // The rate written again restarts the device too (the readers were at
    // scans 5 and 2): both start over, and scan j is the same scan for both,
    // stamp and counts.
    EXPECT_EQ(control.ask(bytes("WRITE iio:device0 sampling_frequency 5\r\n1000\0")), "5\n");
    std::string wide, narrow;
    for (int i = 0; i < 2; i++)
        wide += all.refill();
    for (int i = 0; i < 5; i++)
        narrow += one.refill();
    for (size_t k = 0; k < 10; k++) {
        SCOPED_TRACE(k);
        EXPECT_EQ(one.stamp(narrow, k), all.stamp(wide, k));
        EXPECT_EQ(narrow.substr(k * 16, 2), wide.substr(k * 24, 2)) << "accel_x";
        if (k) {
            EXPECT_EQ(all.stamp(wide, k) - all.stamp(wide, k - 1), 1000000);
        }
    }
    // One client vanishes in the middle of a refill (no CLOSE, no EXIT), another
    // leaves halfway through a WRITE payload: the other reader goes on.
    all.w->send_text("READBUF iio:device0 120000\r\n");
    all.w.reset();
    {
        wire half(server_->port());
        half.send_text("WRITE iio:device0 sampling_frequency 100\r\n12");
    }
    for (int i = 0; i < 3; i++) {
        before = one.last;
        const int64_t first = one.stamp(one.refill(), 0);
        EXPECT_GT(first, before);
        EXPECT_EQ((first - before) % 1000000, 0);
    }
    EXPECT_EQ(one.w->ask("CLOSE iio:device0\r\n"), "0\n");
    EXPECT_EQ(one.w->ask("READBUF iio:device0 32\r\n"), "-9\n");
    // Once the vanished client's reader is gone too, the length is free.
    std::string reply = "-16\n";
    for (int i = 0; i < 200 && reply == "-16\n"; i++) {
        reply = control.ask(bytes("WRITE iio:device0 BUFFER length 3\r\n64\0"));
        if (reply == "-16\n")
            usleep(10000);
    }
    EXPECT_EQ(reply, "3\n");
}

TEST_F(IiodServer, SurvivesRandomLinesAndAnswersEachWithOneError)
{
    std::mt19937 rng(1234);
    wire w(server_->port());
    for (int i = 0; i < 500; i++) {
        std::string line;
        const int len = 1 + static_cast<int>(rng() % 60);
        for (int k = 0; k < len; k++)
            line += static_cast<char>(' ' + 1 + rng() % 94); // printable, no blank-only lines
        EXPECT_EQ(w.ask(line + "\r\n").at(0), '-') << line;
    }
    // An over-long line is refused once, as a whole.
    EXPECT_EQ(w.ask(std::string(10000, 'x') + "\r\n"), "-22\n");
    EXPECT_EQ(w.ask("TIMEOUT 2500\r\n"), "0\n");
    // Raw bytes on another connection; then the server still serves everyone.
    {
        wire noise(server_->port());
        std::string bytes(20000, '\0');
        for (char &c : bytes)
            c = static_cast<char>(rng());
        noise.send_text(bytes);
    }
    wire after(server_->port());
    after.send_text("PRINT\r\n");
    EXPECT_EQ(std::stoul(after.line()), server_->context_xml().size());
}

TEST(IiodServerScenario, ScriptedFaultsArmAtTheirScenarioTime)
{
    sim::scenario s = sim::default_scenario();
    s.faults = {{0.15, sim::fault_kind::refill_error, "orlune-imu", 71, 0, 1, 0}};
    std::string error;
    const auto t0 = std::chrono::steady_clock::now();
    auto server = sim::iiod_server::start(s, {}, &error);
    ASSERT_TRUE(server) << error;
    wire control(server->port());
    EXPECT_EQ(control.ask("SETTRIG iio:device0 trigger0\r\n"), "0\n");
    wire buffer(server->port());
    EXPECT_EQ(buffer.ask("OPEN iio:device0 5 000000ff\r\n"), "0\n");
    int batches = 0;
    std::string reply;
    for (; batches < 400; batches++) { // 5 ms each: the fault comes after about 30
        reply = buffer.ask("READBUF iio:device0 120\r\n");
        if (reply != "120\n")
            break;
        buffer.line();
        buffer.read_exact(120);
    }
    EXPECT_EQ(reply, "-71\n");
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(150)) << "not before its time";
    EXPECT_EQ(buffer.ask("READBUF iio:device0 120\r\n"), "120\n") << "armed for one refill";
}

TEST(IiodServerScenario, AScanBecomesReadableItsDeliveryDelayAfterItsStamp)
{
    sim::scenario s;
    std::string error;
    ASSERT_EQ(sim::scenario_parse(
                  "simulator = { devices = (\n"
                  "  { kind = \"imu\"; name = \"imu\"; trigger = \"imu-trig\"; sampling-frequency = 1000;\n"
                  "    rate-divider = 5; delivery-delay = 0.002; },\n"
                  "  { kind = \"baro\"; name = \"baro\"; trigger = \"baro-trig\"; sampling-frequency = 100;\n"
                  "    delivery-delay = 0.004; },\n"
                  "  { kind = \"motors\"; name = \"esc\"; trigger = \"esc-trig\"; sampling-frequency = 200; },\n"
                  "  { kind = \"motors\"; name = \"late\"; trigger = \"late-trig\"; sampling-frequency = 200;\n"
                  "    delivery-delay = 0.003; } ); };",
                  &s, &error),
              0)
        << error;
    auto server = sim::iiod_server::start(s, {}, &error);
    ASSERT_TRUE(server) << error;
    // Only the timestamp channel is opened: 8-byte scans holding the stamp.
    struct row {
        const char *device, *trigger, *mask;
        size_t scans;      // per refill: the IMU's whole batch
        int64_t delay_ns;  // the least time between the newest stamp and the refill's return
    };
    const row rows[] = {
        {"iio:device0", "trigger0", "00000080", 5, 2000000}, // a batch waits for its last scan's delay
        {"iio:device1", "trigger1", "00000004", 1, 4000000}, // polled: -EAGAIN until delivered
        {"iio:device2", "trigger2", "00008000", 1, 500000},  // the motor controller: a tenth of 5 ms
        {"iio:device3", "trigger3", "00008000", 1, 3000000},
    };
    wire control(server->port());
    for (const row &r : rows) {
        SCOPED_TRACE(r.device);
        EXPECT_EQ(control.ask(std::string("SETTRIG ") + r.device + " " + r.trigger + "\r\n"), "0\n");
        wire buffer(server->port());
        EXPECT_EQ(buffer.ask(std::string("OPEN ") + r.device + " " + std::to_string(r.scans) + " " + r.mask + "\r\n"),
                  "0\n");
        const std::string refill = std::string("READBUF ") + r.device + " " + std::to_string(8 * r.scans) + "\r\n";
        int64_t previous = 0;
        int refills = 0;
        for (int tries = 0; refills < 8 && tries < 2000; tries++) {
            const std::string reply = buffer.ask(refill);
            if (reply == "-11\n") {
                usleep(1000);
                continue;
            }
            ASSERT_EQ(reply, std::to_string(8 * r.scans) + "\n");
            EXPECT_EQ(buffer.line(), std::string(r.mask) + "\n");
            const std::string data = buffer.read_exact(8 * r.scans);
            timespec ts;
            clock_gettime(CLOCK_MONOTONIC, &ts);
            const int64_t returned = ts.tv_sec * 1000000000LL + ts.tv_nsec;
            int64_t newest;
            std::memcpy(&newest, data.data() + data.size() - 8, 8);
            // The stamp stays the sampling time; delivery comes after it.
            EXPECT_GE(returned - newest, r.delay_ns) << "refill " << refills;
            EXPECT_GT(newest, previous);
            previous = newest;
            refills++;
        }
        EXPECT_EQ(refills, 8);
    }
}

TEST_F(IiodServer, RestartsOnTheSamePortAfterADisconnect)
{
    const uint16_t port = server_->port();
    wire w(port);
    EXPECT_EQ(w.ask("TIMEOUT 2500\r\n"), "0\n");
    ASSERT_EQ(server_->inject({0, sim::fault_kind::disconnect, "", 0, 0, 1, 0.2}), 0);
    EXPECT_TRUE(w.closed_by_peer());
    bool back = false;
    for (int i = 0; i < 300 && !back; i++) {
        try {
            wire again(port);
            back = again.ask("TIMEOUT 2500\r\n") == "0\n";
        } catch (const std::exception &) {
            usleep(10000);
        }
    }
    EXPECT_TRUE(back);
    EXPECT_EQ(server_->port(), port);
}

} // namespace
