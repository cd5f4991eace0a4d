// SPDX-License-Identifier: Apache-2.0
// Another user of the vehicle tries to feed the flight loop: a section file
// planted in a shared directory, a telemetry directory made in advance, the
// GPS daemon's and the ultrasound service's names squatted before the
// service starts or after it dies. The attacker is a child that drops to a
// user id nobody uses (which needs root, as CI runs); nothing it sends may
// reach the sensor data record, and the sensor recovers when the trusted
// producer comes back.
#include <fcntl.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include <sensors/gps_us.h>
#include <sensors/tlm_sensors.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "gps_us/gps_us_env.h"
#include "platform/intruder.h"
#include "platform/telemetry_test_util.h"
#include "platform/trust.h"
#include "platform/ultrasound_service.h"
#include "tlm_sensors/tlm_producer.h"

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

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
        const char *trusted_gids = nullptr; // the property; set, the judged belongs to group OTHER
    } rows[] = {
        {false, 0644, false, nullptr, nullptr},
        {false, 0600, false, nullptr, nullptr},
        {false, 0664, false, nullptr, "writable by others \\(mode 0664\\)"},
        {false, 0646, false, nullptr, "writable by others \\(mode 0646\\)"},
        {false, 0644, true, nullptr, "owned by uid [0-9]+, not a trusted user"},
        {false, 0644, true, "12, x1, 47", "owned by uid [0-9]+, not a trusted user"},
        {false, 0644, true, "OTHER", nullptr}, // a producer that runs as a user of its own
        {false, 0644, true, "5 OTHER", nullptr},
        {false, 0644, true, "1 2 3 4 5 6 7 OTHER", nullptr}, // the eighth, the last one taken
        {true, 0755, false, nullptr, nullptr},
        {true, 0777, false, nullptr, "writable by others and not sticky \\(mode 0777\\)"},
        {true, 0775, false, nullptr, "writable by others and not sticky \\(mode 0775\\)"},
        {true, 01777, false, nullptr, nullptr},
        {true, 01777, true, nullptr, "owned by uid [0-9]+, not a trusted user"},
        {true, 0700, true, "OTHER", nullptr},
        {true, 02775, false, nullptr, nullptr, "OTHER"}, // the trusted producers' group
        {true, 0775, false, nullptr, "writable by others and not sticky \\(mode 0775\\)", "5"},
        {true, 0777, false, nullptr, "writable by others and not sticky \\(mode 0777\\)", "OTHER"},
        {false, 0664, false, nullptr, "writable by others \\(mode 0664\\)", "OTHER"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(testing::Message() << (r.directory ? "directory " : "file ") << std::oct << r.mode
                                        << (r.owned_by_other ? " of another user" : "") << " trusting "
                                        << (r.trusted_uids ? r.trusted_uids : "-"));
        auto listed = [other](const char *property, const char *ids) {
            std::string text = ids ? ids : "";
            if (size_t at = text.find("OTHER"); at != std::string::npos)
                text.replace(at, 5, std::to_string(other));
            return ids ? std::string(property) + "=" + text + "\n" : std::string();
        };
        root.properties(listed(kTrustedUidsProperty, r.trusted_uids) + listed(kTrustedGidsProperty, r.trusted_gids));
        trust_policy policy;
        trust_policy_load(&policy);

        std::string path = root.at(r.directory ? "/judged" : "/judged.tlm");
        std::filesystem::remove_all(path);
        if (r.directory)
            ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
        else
            write_file(path, "x");
        ASSERT_EQ(chmod(path.c_str(), r.mode), 0);
        if (r.owned_by_other || r.trusted_gids) {
            ASSERT_EQ(chown(path.c_str(), r.owned_by_other ? other : 0, gid_t(other)), 0);
            ASSERT_EQ(chmod(path.c_str(), r.mode), 0); // chown clears the set-group-id bit
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
        vision_position_destroy(vp_);
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
    // Nothing is read from the directory, for the reason refusal (a regular
    // expression), and the producer does not publish there either.
    void expect_refused_both_ways(const std::string &refusal)
    {
        expect_nothing_read();
        EXPECT_THAT(cap_.texts("shm_telemetry"),
                    ElementsAre(MatchesRegex("section \"vcam_position\" refused: " + refusal)));
        shm_producer *p = producer_create("vcam_position", 4, 10000);
        auto fields = position_fields();
        tlm_struct_desc desc{0, fields.size(), fields.data()};
        position_sample sample{};
        ASSERT_EQ(producer_register_struct(p, &sample, nullptr, &desc), 0);
        EXPECT_EQ(producer_complete(p), -EPERM);
        producer_destroy(p);
        EXPECT_THAT(cap_.texts("shm_telemetry"),
                    ElementsAre(MatchesRegex("cannot publish section \"vcam_position\": " + refusal)));
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
    expect_refused_both_ways("directory " + dir + " is owned by uid [0-9]+, not a trusted user");

    // An administrator removes it; the trusted producer makes it anew.
    std::filesystem::remove_all(dir);
    expect_trusted_read();
}

// The way to the directory: a link in the shared directory that leads to a
// directory of root's, or a directory of another user's on the way to one
// of root's, would let that user choose what is read and where the
// producers publish.
TEST_F(TelemetryAttack, TheWayToTheDirectoryFollowsNoLinkAndCrossesNoDirectoryOfAnotherUser)
{
    {
        test_producer<position_sample> trusted("vcam_position", position_fields()); // in root's <root>/tlm
        trusted.record = planted_position();
        trusted.put({90, 0});
        struct way {
            std::string dir;
            std::function<int()> make; // as the other user
            std::string refusal;
        };
        const std::string link = shm_.path() + "/orlune-tlm", theirs = shm_.path() + "/theirs";
        const std::string target = shm_.at("/tlm");
        const way ways[] = {
            {link, [&] { return symlink(target.c_str(), link.c_str()); },
             "directory component " + link + " is a symbolic link"},
            {theirs + "/tlm", [&] { return mkdir(theirs.c_str(), 0755); },
             "directory " + theirs + " is owned by uid [0-9]+, not a trusted user"},
        };
        for (const way &w : ways) {
            SCOPED_TRACE(w.dir);
            auto preparer = intruder([&w](const child_process::link &l) {
                if (w.make() != 0)
                    return 91;
                l.signal();
                return 0;
            });
            ASSERT_TRUE(preparer->wait_step());
            if (w.dir != link) // root's directory inside theirs, holding a section of root's
                std::filesystem::copy(target, w.dir);
            start(w.dir);
            expect_refused_both_ways(w.refusal);
        }
    }
}

// An attacker who alternates reasons (its own file, then a link) is
// reported a bounded number of times, not at every read.
TEST_F(TelemetryAttack, RefusalsAreBoundedWhateverTheReasons)
{
    start(shm_.path());
    const std::string file = shm_.path() + "/vcam_position.tlm";
    auto alternating = intruder([&file](const child_process::link &link) {
        for (int round = 0; round < 6; round++) {
            if (plant_position(link) != 0 || link.wait() != '.' || unlink(file.c_str()) != 0 ||
                symlink("/etc/passwd", file.c_str()) != 0)
                return 91;
            link.signal();
            if (link.wait() != '.')
                return 92;
        }
        return 0;
    });
    for (int step = 0; step < 12; step++) {
        ASSERT_TRUE(alternating->wait_step()) << step;
        expect_nothing_read();
        alternating->step();
    }
    EXPECT_EQ(alternating->join(), 0);
    const std::string owned = "section \"vcam_position\" refused: " + file + " is owned by uid [0-9]+, not a trusted user";
    EXPECT_THAT(cap_.texts("shm_telemetry"),
                ElementsAre(MatchesRegex(owned), "section \"vcam_position\" refused: " + file + " is a symbolic link",
                            MatchesRegex(owned),
                            "section \"vcam_position\": further refusals are not reported until it is read again"));
    expect_trusted_read();
}

// The default directory lies where only root can make it, and a board's
// start-up makes it writable by the trusted producers' group only: no
// ordinary user can make it first, plant a file in it or squat a producer's
// file name, and a trusted producer that is not root publishes there. In a
// shared sticky directory, the temporary file names of a producer cannot be
// foreseen and squatted.
TEST_F(TelemetryAttack, NoOrdinaryUserKeepsTheSectionsFromBeingPublished)
{
    const uid_t producer_uid = unused_uid(), group = gid_t(unused_uid(producer_uid + 1));
    const uid_t attacker_uid = unused_uid(group + 1);
    shm_.properties(std::string(kTrustedUidsProperty) + "=" + std::to_string(producer_uid) + "\n" +
                    kTrustedGidsProperty + "=" + std::to_string(group) + "\n");
    ASSERT_EQ(mkdir(shm_.at("/run").c_str(), 0755), 0);
    unsetenv(kTlmDirEnv);
    char dir[256];
    ASSERT_EQ(tlm_dir(dir, sizeof dir), 0);
    ASSERT_EQ(std::string(dir), shm_.at("/run/orlune-tlm"));
    const std::string name = std::string(dir) + "/vcam_position.tlm";
    auto attacker = [&] {
        return intruder([&name, &dir](const child_process::link &) {
            if (mkdir(dir, 0777) == 0 || (errno != EACCES && errno != EEXIST))
                return 91;
            if (open(name.c_str(), O_CREAT | O_WRONLY, 0644) >= 0 || (errno != EACCES && errno != ENOENT))
                return 92;
            return 0;
        }, attacker_uid);
    };
    EXPECT_EQ(attacker()->join(), 0); // before the start-up made it

    // The start-up: install -d -m 2775 -g <group> /run/orlune-tlm
    ASSERT_EQ(mkdir(dir, 02775), 0);
    ASSERT_EQ(chown(dir, 0, group), 0);
    ASSERT_EQ(chmod(dir, 02775), 0);
    EXPECT_EQ(attacker()->join(), 0);
    auto vision = intruder(plant_position, producer_uid, group);
    ASSERT_TRUE(vision->wait_step());
    start(dir);
    uint32_t updated = 0;
    EXPECT_EQ(vision_position_read(vp_, &updated), 0);
    EXPECT_EQ(updated, uint32_t(SENSORS_UPDATED_VISION_POSITION));
    EXPECT_EQ(pos_.x, 666.0f);

    // A shared sticky directory: the names the producer will use for its
    // temporary file, were they foreseeable, are taken first.
    start(shm_.path());
    auto late = intruder([](const child_process::link &link) { return link.wait() == '.' ? plant_position(link) : 93; },
                         producer_uid);
    const std::string prefix = shm_.path() + "/vcam_position.tlm.";
    auto squatter = intruder([&](const child_process::link &) {
        for (const std::string &tmp : {prefix + std::to_string(late->pid()) + ".tmp", prefix + "tmp"})
            if (open(tmp.c_str(), O_CREAT | O_WRONLY | O_EXCL, 0644) < 0)
                return 91;
        return 0;
    }, attacker_uid);
    ASSERT_EQ(squatter->join(), 0);
    late->step();
    ASSERT_TRUE(late->wait_step());
    EXPECT_EQ(vision_position_read(vp_, &updated), 0);
    EXPECT_EQ(updated, uint32_t(SENSORS_UPDATED_VISION_POSITION));
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
    std::unique_ptr<child_process> squatter(uid_t uid = unused_uid())
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
        }, uid);
        EXPECT_TRUE(c->wait_step());
        return c;
    }
    std::string name() const { return std::string("@") + getenv(kSocketPrefixEnv) + GetParam().name; }
    std::string refusal(uid_t uid) const
    {
        return "refusing the server on " + name() + ": process [0-9]+ runs as uid " + std::to_string(uid) +
               ", not a trusted user";
    }
    // Cycles through several reconnection attempts: nothing may change.
    void expect_nothing_read(service_module &m, int attempts = 4)
    {
        double before = m.value();
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(attempts * kMsgRetryMs);
        while (std::chrono::steady_clock::now() < end) {
            EXPECT_EQ(m.read(), 0u);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_EQ(m.value(), before);
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
        EXPECT_THAT(cap_.texts("msg_socket"), ElementsAre(MatchesRegex(refusal(unused_uid()))));
        squatting.reset();
        expect_trusted_read(module, server, value);
        server_destroy(server);
    }
    // Two users squat the name in turn: what they cost the log is bounded.
    const uid_t first = unused_uid(), second = unused_uid(first + 1);
    for (int turn = 0; turn < 4; turn++) {
        auto squatting = squatter(turn % 2 ? second : first);
        expect_nothing_read(module, 2);
    }
    EXPECT_THAT(cap_.texts("msg_socket"),
                ElementsAre(MatchesRegex(refusal(first)), MatchesRegex(refusal(second)), MatchesRegex(refusal(first)),
                            name() + ": further refusals are not reported until a trusted server is found"));
}

void PrintTo(const service_case &svc, std::ostream *os)
{
    *os << svc.name;
}

INSTANTIATE_TEST_SUITE_P(Services, ServiceAttack, ::testing::ValuesIn(kServices),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
