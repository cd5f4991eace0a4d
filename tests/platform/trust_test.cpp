// SPDX-License-Identifier: Apache-2.0
// Another user of the vehicle tries to feed the flight loop: a section file
// planted in a shared directory, a telemetry directory made in advance, the
// GPS daemon's and the ultrasound service's names squatted before the
// service starts or after it dies. The attacker is a child that drops to a
// user id nobody uses (which needs root, as CI runs); nothing it sends may
// reach the sensor data record, and the sensor recovers when the trusted
// producer comes back.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include <sensors/gps_us.h>
#include <sensors/tlm_sensors.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "gps_us/gps_us_env.h"
#include "platform/telemetry_test_util.h"
#include "platform/trust.h"
#include "platform/ultrasound_service.h"
#include "tlm_sensors/tlm_producer.h"

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

uid_t unused_uid()
{
    for (uid_t uid = 47000; uid < 60000; uid++)
        if (!getpwuid(uid) && !getgrgid(gid_t(uid)))
            return uid;
    return uid_t(-1);
}

#define SKIP_UNLESS_ROOT()                                                                                        \
    do {                                                                                                          \
        if (geteuid() != 0)                                                                                       \
            GTEST_SKIP() << "acting as another user needs root (CI runs as root)";                                \
    } while (0)

// A child process that drops to an unused user id before it runs body.
std::unique_ptr<child_process> intruder(const std::function<int(const child_process::link &)> &body)
{
    return std::make_unique<child_process>([body](const child_process::link &link) {
        uid_t uid = unused_uid();
        if (setgroups(0, nullptr) != 0 || setgid(gid_t(uid)) != 0 || setuid(uid) != 0 || geteuid() != uid)
            return 90;
        return body(link);
    });
}

// A test root that every user may create files in, as /dev/shm is.
class shared_root : public test_root {
public:
    shared_root()
    {
        if (chmod(path().c_str(), 01777) != 0)
            throw std::runtime_error("shared directory");
    }
};

// ---- the policy ------------------------------------------------------------

TEST(TrustPolicy, OwnersAndModesOfFilesAndDirectories)
{
    SKIP_UNLESS_ROOT();
    test_root root;
    log_capture cap;
    const uid_t other = unused_uid();
    struct row {
        bool directory;
        mode_t mode;
        bool owned_by_other;
        const char *trusted_uids; // the property, null when unset
        const char *refusal;      // null: accepted
    } rows[] = {
        {false, 0644, false, nullptr, nullptr},
        {false, 0600, false, nullptr, nullptr},
        {false, 0664, false, nullptr, "writable by others \\(mode 0664\\)"},
        {false, 0646, false, nullptr, "writable by others \\(mode 0646\\)"},
        {false, 0644, true, nullptr, "owned by uid [0-9]+, not a trusted user"},
        {false, 0644, true, "12, x1, 47", "owned by uid [0-9]+, not a trusted user"},
        {false, 0644, true, "OTHER", nullptr}, // a producer that runs as a user of its own
        {false, 0644, true, "5 OTHER", nullptr},
        {true, 0755, false, nullptr, nullptr},
        {true, 0777, false, nullptr, "writable by others and not sticky \\(mode 0777\\)"},
        {true, 0775, false, nullptr, "writable by others and not sticky \\(mode 0775\\)"},
        {true, 01777, false, nullptr, nullptr},
        {true, 01777, true, nullptr, "owned by uid [0-9]+, not a trusted user"},
        {true, 0700, true, "OTHER", nullptr},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(testing::Message() << (r.directory ? "directory " : "file ") << std::oct << r.mode
                                        << (r.owned_by_other ? " of another user" : "") << " trusting "
                                        << (r.trusted_uids ? r.trusted_uids : "-"));
        std::string uids = r.trusted_uids ? r.trusted_uids : "";
        if (size_t at = uids.find("OTHER"); at != std::string::npos)
            uids.replace(at, 5, std::to_string(other));
        root.properties(r.trusted_uids ? std::string(kTrustedUidsProperty) + "=" + uids + "\n" : "");
        trust_policy policy;
        trust_policy_load(&policy);

        std::string path = root.at(r.directory ? "/judged" : "/judged.tlm");
        std::filesystem::remove_all(path);
        if (r.directory)
            ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
        else
            write_file(path, "x");
        ASSERT_EQ(chmod(path.c_str(), r.mode), 0);
        if (r.owned_by_other) {
            ASSERT_EQ(chown(path.c_str(), other, gid_t(other)), 0);
        }
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        char reason[kTrustReasonMax];
        int result = trust_check_fd(&policy, fd, r.directory, path.c_str(), reason, sizeof reason);
        close(fd);
        if (r.refusal) {
            EXPECT_EQ(result, -EPERM);
            EXPECT_THAT(std::string(reason), MatchesRegex(".*/judged(\\.tlm)? is " + std::string(r.refusal)));
        } else {
            EXPECT_EQ(result, 0) << reason;
        }
    }
    EXPECT_THAT(cap.texts("trust"), ElementsAre("ro.orlune.trusted_uids: \"x1\" is not a user id: ignored"));
}

// ---- telemetry sections ----------------------------------------------------

position_sample planted_position()
{
    position_sample s{};
    s.x = s.y = s.z = 666.0f;
    s.status = 1;
    return s;
}

// Publishes one planted sample of vcam_position in the telemetry directory
// and leaves the file behind.
int plant_position(const child_process::link &link)
{
    auto fields = position_fields();
    tlm_struct_desc desc{0, fields.size(), fields.data()};
    position_sample sample = planted_position();
    shm_producer *p = producer_create("vcam_position", 4, 10000);
    timespec t{90, 0};
    if (!p || producer_register_struct(p, &sample, nullptr, &desc) != 0 || producer_complete(p) != 0 ||
        producer_put_sample(p, &t) != 0)
        return 91;
    link.signal();
    return 0;
}

class TelemetryAttack : public ::testing::Test {
protected:
    void SetUp() override { SKIP_UNLESS_ROOT(); }
    void start(const std::string &dir)
    {
        setenv(kTlmDirEnv, dir.c_str(), 1);
        memset(&pos_, 0, sizeof pos_);
        vp_ = vision_position_new(&pos_, "vcam_position", SENSORS_UPDATED_VISION_POSITION);
        ASSERT_NE(vp_, nullptr);
        ASSERT_EQ(vision_position_start(vp_), 0);
    }
    void TearDown() override
    {
        vision_position_destroy(vp_);
        unsetenv(kTlmDirEnv);
    }
    // A few cycles that must leave the sub-record as it was.
    void expect_nothing_read()
    {
        sensors_vision_position_data before = pos_;
        for (int cycle = 0; cycle < 3; cycle++) {
            uint32_t updated = 0;
            EXPECT_EQ(vision_position_read(vp_, &updated), 0);
            EXPECT_EQ(updated, 0u);
        }
        EXPECT_EQ(memcmp(&before, &pos_, sizeof pos_), 0);
    }
    // The trusted producer publishes; the module reads it.
    void expect_trusted_read()
    {
        test_producer<position_sample> vision("vcam_position", position_fields());
        vision.record.x = 1.25f;
        vision.put({100, 0});
        uint32_t updated = 0;
        EXPECT_EQ(vision_position_read(vp_, &updated), 0);
        EXPECT_EQ(updated, uint32_t(SENSORS_UPDATED_VISION_POSITION));
        EXPECT_EQ(pos_.x, 1.25f);
        EXPECT_THAT(cap_.texts("shm_telemetry"), ElementsAre("section \"vcam_position\" read again: its producer is "
                                                             "trusted"));
    }

    shared_root shm_;
    log_capture cap_;
    sensors_vision_position_data pos_{};
    vision_position_ctx *vp_ = nullptr;
};

TEST_F(TelemetryAttack, ASectionPlantedInASharedDirectoryIsRefused)
{
    start(shm_.path());
    auto planter = intruder(plant_position);
    ASSERT_TRUE(planter->wait_step());

    expect_nothing_read();
    EXPECT_THAT(cap_.texts("shm_telemetry"),
                ElementsAre(MatchesRegex("section \"vcam_position\" refused: .*/vcam_position.tlm is owned by uid "
                                         "[0-9]+, not a trusted user")));
    expect_trusted_read();
}

TEST_F(TelemetryAttack, ADirectoryMadeInAdvanceByAnotherUserIsNeitherWrittenNorRead)
{
    const std::string dir = shm_.path() + "/orlune-tlm";
    auto preparer = intruder([&dir](const child_process::link &link) {
        if (mkdir(dir.c_str(), 0777) != 0 || chmod(dir.c_str(), 0777) != 0)
            return 91;
        link.signal();
        return 0;
    });
    ASSERT_TRUE(preparer->wait_step());

    // A section file of the trusted producer (in the root's own telemetry
    // directory), moved there: the directory's owner could as well have
    // swapped it for an old one.
    {
        test_producer<position_sample> vision("vcam_position", position_fields());
        vision.record = planted_position();
        vision.put({90, 0});
        std::filesystem::copy_file(shm_.at("/tlm/vcam_position.tlm"), dir + "/vcam_position.tlm");
    }
    start(dir);
    expect_nothing_read();
    const std::string refusal = "directory " + dir + " is owned by uid [0-9]+, not a trusted user";
    EXPECT_THAT(cap_.texts("shm_telemetry"), ElementsAre(MatchesRegex("section \"vcam_position\" refused: " + refusal)));

    // The producer does not publish there either.
    shm_producer *p = producer_create("vcam_position", 4, 10000);
    auto fields = position_fields();
    tlm_struct_desc desc{0, fields.size(), fields.data()};
    position_sample sample{};
    ASSERT_EQ(producer_register_struct(p, &sample, nullptr, &desc), 0);
    EXPECT_EQ(producer_complete(p), -EPERM);
    producer_destroy(p);
    EXPECT_THAT(cap_.texts("shm_telemetry"),
                ElementsAre(MatchesRegex("cannot publish section \"vcam_position\": " + refusal)));

    // An administrator removes it; the trusted producer makes it anew.
    std::filesystem::remove_all(dir);
    expect_trusted_read();
}

// ---- the services' sockets -------------------------------------------------

struct service_case {
    const char *name;                               // the abstract name
    std::function<void(msg_frame *, double)> build; // a data message carrying value
};

const service_case kServices[] = {
    {"gps", [](msg_frame *f, double v) { message_build(f, 0, "%lf%lf%lf%lf%lu", v, v, v, v, uint64_t(5)); }},
    {kUltrasoundSocketName, [](msg_frame *f, double v) { message_build(f, kUsMsgMeasurement, "%f%f%u%u", v, v, 0u, 0u); }},
};

// The module of a service, driven the same way for both.
class service_module {
public:
    explicit service_module(const char *name) : gps_(strcmp(name, "gps") == 0)
    {
        if (gps_) {
            g_ = gps_new(&gps_data_);
            EXPECT_EQ(gps_start(g_), 0);
        } else {
            u_ = us_new(&us_data_);
            EXPECT_EQ(us_start(u_), 0);
        }
    }
    ~service_module()
    {
        gps_destroy(g_);
        us_destroy(u_);
    }
    uint32_t read()
    {
        uint32_t mask = 0;
        EXPECT_EQ(gps_ ? gps_read(g_, &mask) : us_read(u_, &mask), 0);
        return mask;
    }
    // The value the last data message brought.
    double value() const { return gps_ ? gps_data_.loc_values[0] : double(us_data_.altitude); }

private:
    bool gps_;
    sensors_gps_data gps_data_{};
    sensors_us_data us_data_{};
    gps_ctx *g_ = nullptr;
    us_ctx *u_ = nullptr;
};

class ServiceAttack : public gps_us_env, public ::testing::WithParamInterface<service_case> {
protected:
    // Serves planted data under the service's name until killed.
    std::unique_ptr<child_process> squatter()
    {
        const service_case &svc = GetParam();
        auto c = intruder([&svc](const child_process::link &link) {
            msg_server *s = server_create(svc.name, [](msg_server *, int, msg_connection *, const msg_message *,
                                                         void *) {}, nullptr);
            if (!s)
                return 91;
            link.signal();
            msg_frame f;
            svc.build(&f, 66.0);
            for (;;) {
                server_process(s, 10);
                server_broadcast(s, &f);
            }
        });
        EXPECT_TRUE(c->wait_step());
        return c;
    }
    // Cycles through several reconnection attempts: nothing may change.
    void expect_nothing_read(service_module &m)
    {
        double before = m.value();
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(4 * kMsgRetryMs);
        while (std::chrono::steady_clock::now() < end) {
            EXPECT_EQ(m.read(), 0u);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_EQ(m.value(), before);
        std::string name = std::string("@") + getenv(kSocketPrefixEnv) + GetParam().name;
        EXPECT_THAT(cap_.texts("msg_socket"),
                    ElementsAre(MatchesRegex("refusing the server on " + name +
                                             ": process [0-9]+ runs as uid [0-9]+, not a trusted user")));
    }
    // The trusted service comes (back): its data is read.
    void expect_trusted_read(service_module &m, msg_server *&server, double value)
    {
        server = server_create(GetParam().name, [](msg_server *, int, msg_connection *, const msg_message *, void *) {},
                               nullptr);
        ASSERT_NE(server, nullptr);
        ASSERT_TRUE(eventually([&] {
            m.read();
            server_process(server, 0);
            return server_connection_count(server) == 1;
        }));
        msg_frame f;
        GetParam().build(&f, value);
        ASSERT_EQ(server_broadcast(server, &f), 1);
        ASSERT_TRUE(eventually([&] { return m.read() != 0; }));
        EXPECT_FLOAT_EQ(float(m.value()), float(value));
    }
};

TEST_P(ServiceAttack, ASquattedNameIsRefusedBeforeTheServiceStartsAndAfterItDies)
{
    SKIP_UNLESS_ROOT();
    service_module module(GetParam().name);
    for (double value : {1.5, 2.5}) {
        msg_server *server = nullptr;
        auto squatting = squatter();
        expect_nothing_read(module);
        squatting.reset();
        expect_trusted_read(module, server, value);
        server_destroy(server);
    }
}

void PrintTo(const service_case &svc, std::ostream *os)
{
    *os << svc.name;
}

INSTANTIATE_TEST_SUITE_P(Services, ServiceAttack, ::testing::ValuesIn(kServices),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
