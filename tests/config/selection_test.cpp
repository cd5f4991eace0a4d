// SPDX-License-Identifier: Apache-2.0
// Which file is read, how parse failures are reported, the debug section
// switches, the life of the record, and the shipped example files.
#include <gmock/gmock.h>

#include "config/sensorscfg.h"
#include "config_fixture.h"
#include "platform/failpoint.h"

using ::testing::HasSubstr;

namespace {

// A valid file whose gps flag tells which file was read.
std::string marked(bool gps)
{
    return cfg_text::all_disabled().set("gps", "enabled", gps ? "true" : "false").str();
}

struct selection_case {
    const char *name;
    const char *revision;           // of the hardware "board"; null: no properties at all
    std::vector<std::string> files; // written under /etc/sensors
    const char *checked;            // first name tried
    const char *loaded = nullptr;   // name loaded, when not the one tried first
};

class Selection : public ConfigTest, public ::testing::WithParamInterface<selection_case> {};

TEST_P(Selection, PicksTheFileFromHardwareNameAndRevision)
{
    const selection_case &c = GetParam();
    root_.properties(c.revision ? std::string("ro.hardware=board\nro.revision=") + c.revision + "\n" : "");
    for (const std::string &f : c.files)
        root_.write("/etc/sensors/" + f, cfg_text::all_disabled().str());
    config_ptr config = load_selected();
    ASSERT_TRUE(config);
    std::vector<std::string> t = texts();
    const std::string dir = root_.at("/etc/sensors/");
    ASSERT_GE(t.size(), 2u);
    EXPECT_EQ(t[0], "check config file: '" + dir + c.checked + "'");
    EXPECT_EQ(t[1], "load config from '" + dir + (c.loaded ? c.loaded : c.checked) + "'");
}

INSTANTIATE_TEST_SUITE_P(
    Config, Selection,
    ::testing::Values(
        selection_case{"RevisionFileFirst", "4", {"board.hw04.cfg", "board.cfg"}, "board.hw04.cfg"},
        selection_case{"NameFileWhenNoRevisionFile", "4", {"board.cfg"}, "board.hw04.cfg", "board.cfg"},
        selection_case{"TwoDigitRevision", "12", {"board.hw12.cfg"}, "board.hw12.cfg"},
        selection_case{"ThreeDigitRevision", "123", {"board.hw123.cfg"}, "board.hw123.cfg"},
        selection_case{"NonNumericRevisionIsZero", "rev-b", {"board.hw00.cfg"}, "board.hw00.cfg"},
        selection_case{"NoPropertiesAtAll", nullptr, {".hw00.cfg"}, ".hw00.cfg"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(ConfigTest, OverrideWinsOverTheProperties)
{
    root_.properties("ro.hardware=board\nro.revision=4\n");
    root_.write("/etc/sensors/board.hw04.cfg", marked(false));
    config_ptr config = load(marked(true));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->gps.enabled, 1);
    std::vector<log_record> m = messages();
    ASSERT_GE(m.size(), 3u);
    EXPECT_EQ(m[0].priority, LOG_NOTICE);
    EXPECT_EQ(m[0].text, "Using cfg file '" + override_path() + "'");
    EXPECT_EQ(m[1].text, "check config file: '" + override_path() + "'");
    EXPECT_EQ(m[2].text, "load config from '" + override_path() + "'");
}

TEST_F(ConfigTest, MissingOverrideFallsBackToTheNamelessFile)
{
    root_.properties("ro.hardware=board\n");
    setenv("LIBVIGIL_CFG_PATH", root_.at("/nowhere.cfg").c_str(), 1);
    root_.write("/etc/sensors/.cfg", marked(true));
    config_ptr config = load_selected();
    ASSERT_TRUE(config);
    EXPECT_EQ(config->gps.enabled, 1);
    EXPECT_TRUE(has(messages(), LOG_INFO, "load config from '" + root_.at("/etc/sensors/.cfg") + "'"));
}

// No file anywhere, or one that does not parse: the path, the line and the parser's text.
TEST_F(ConfigTest, ParseFailuresNamePathLineAndParserText)
{
    root_.properties("ro.hardware=board\nro.revision=4\n");
    EXPECT_FALSE(load_selected());
    std::vector<log_record> m = messages();
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().priority, LOG_ERR);
    EXPECT_EQ(m.back().text,
              "can't read configuration: " + root_.at("/etc/sensors/board.cfg") + ":0 file I/O error");

    EXPECT_FALSE(load("gps = { enabled = true; };\nbldc = { enabled = ; };\n"));
    EXPECT_EQ(texts().back(), "can't read configuration: " + override_path() + ":2 syntax error");

    // A matrix row that mixes floats and integers never reaches the matrix reader.
    EXPECT_FALSE(load(cfg_text::complete().set("imu", "rotation-matrix", "([1.0, 0], [0.0, 1.0, 0.0], [0.0, 0.0, 1.0])")));
    EXPECT_THAT(texts().back(), HasSubstr("can't read configuration: " + override_path() + ":"));
}

class DebugSections : public ConfigTest {};

// Every candidate section is in the file with its own device name; only the
// selected one is read.
TEST_F(DebugSections, PropertySelectsTheSectionRead)
{
    cfg_text text = cfg_text::complete();
    for (const char *s : {"barometer", "alt_baro", "tds_baro", "magnetometer", "alt_magneto", "tds_magneto"})
        text.section(s, {{"enabled", "true"}, {"device", std::string("\"") + s + "\""}, {"trigger", "\"t\""}});
    const struct {
        const char *properties;
        const char *baro;
        const char *magneto;
    } rows[] = {
        {"", "barometer", "magnetometer"},
        {"persist.dbg.flight_baro=0\npersist.dbg.flight_magneto=0\n", "barometer", "magnetometer"},
        {"persist.dbg.flight_baro=1\n", "alt_baro", "magnetometer"},
        {"persist.dbg.flight_baro=2\npersist.dbg.flight_magneto=1\n", "tds_baro", "alt_magneto"},
        {"persist.dbg.flight_baro=21\npersist.dbg.flight_magneto=2\n", "tds_baro", "tds_magneto"},
        {"persist.dbg.flight_baro=3\npersist.dbg.flight_magneto=x\n", "barometer", "magnetometer"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.properties);
        root_.properties(r.properties);
        config_ptr config = load(text);
        ASSERT_TRUE(config);
        EXPECT_STREQ(config->baro.device, r.baro);
        EXPECT_STREQ(config->magneto.device, r.magneto);
        // None of them has a matrix.
        EXPECT_EQ(config->magneto.matrix_from_device_tree, 1);
        EXPECT_TRUE(has(messages(), LOG_DEBUG,
                        std::string(r.magneto) + ".rotation-matrix will be retrieved from device-tree"));
    }
}

TEST_F(ConfigTest, AlternativeSectionKeysAreNamedInErrors)
{
    root_.properties("persist.dbg.flight_baro=2\n");
    cfg_text text = cfg_text::complete().section("tds_baro", {{"enabled", "true"}, {"device", "\"lps22hb-tds\""}});
    EXPECT_FALSE(load(text));
    EXPECT_EQ(texts().back(), "'tds_baro.trigger' not found or incorrect type");
}

TEST_F(ConfigTest, DestroyAcceptsNullAndHalfBuiltRecords)
{
    sensors_config_destroy(nullptr);

    // Never parsed, then parsed and failed: both release cleanly.
    auto *record = static_cast<sensors_config *>(calloc(1, sizeof(sensors_config)));
    ASSERT_NE(record, nullptr);
    sensors_config_destroy(record);

    record = static_cast<sensors_config *>(calloc(1, sizeof(sensors_config)));
    ASSERT_NE(record, nullptr);
    write_file(override_path(), cfg_text::complete().erase("battery", "device").str());
    setenv("LIBVIGIL_CFG_PATH", override_path().c_str(), 1);
    const sensors_probe_header header{SENSORS_KIND_ALL, SENSORS_KIND_ALL};
    EXPECT_EQ(sensorscfg_read(record, &header), -EINVAL);
    EXPECT_EQ(record->imu.thread_cfg_count, 3); // read before the failure, still owned
    sensors_config_destroy(record);
}

TEST_F(ConfigTest, AllocationFailuresGiveNoRecord)
{
    ASSERT_EQ(failpoint_arm(kFailRecordAlloc, -ENOMEM, 1), 0);
    EXPECT_FALSE(load(cfg_text::complete()));
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(failpoint_fired(kFailRecordAlloc), 1);

    // The flight IMU's name array: the whole configuration fails, silently.
    ASSERT_EQ(failpoint_arm(kFailThreadCfgAlloc, -ENOMEM, 1), 0);
    EXPECT_FALSE(load(cfg_text::complete()));
    for (const std::string &t : texts())
        EXPECT_THAT(t, ::testing::Not(HasSubstr("not found")));

    // The second IMU's: only that section is disabled.
    ASSERT_EQ(failpoint_arm(kFailThreadCfgAlloc, -ENOMEM, 1), 0);
    cfg_text text = cfg_text::complete().set("imu", "thread_cfg", "[]").set("imu_vcam", "thread_cfg", "[\"vcam\"]");
    config_ptr config = load(text);
    ASSERT_TRUE(config);
    EXPECT_EQ(failpoint_fired(kFailThreadCfgAlloc), 1);
    EXPECT_EQ(config->imu_vcam.enabled, 0);
    EXPECT_EQ(config->imu_vcam.thread_cfg_count, 0); // count and array agree
    EXPECT_EQ(config->imu_vcam.thread_cfg, nullptr);
    EXPECT_EQ(config->imu.enabled, 1);
    failpoint_disarm_all();
}

std::string source(const std::string &relative)
{
    const char *top = getenv("ORLUNE_TEST_DATA");
    if (!top)
        throw std::runtime_error("ORLUNE_TEST_DATA is not set");
    std::string text = read_file(std::string(top) + "/" + relative);
    if (text.empty())
        throw std::runtime_error("cannot read " + relative);
    return text;
}

TEST_F(ConfigTest, VirtualVehicleFileIsFoundByItsHardwareName)
{
    root_.properties("ro.hardware=orlune_sim\nro.revision=1\n");
    root_.write("/etc/sensors/orlune_sim.cfg", source("examples/config/orlune_sim.cfg"));
    config_ptr config = load_selected();
    ASSERT_TRUE(config);
    std::vector<std::string> t = texts();
    EXPECT_EQ(enabled_line(t), "enabled sensors: baro bldc gps imu magneto battery ultrasound fcam_gimbal "
                               "vcam_position vcam_optical_flow carpet_detection");
    EXPECT_EQ(t.back(), "enabled sensors: tof vertical");
    EXPECT_STREQ(config->imu.device, "orlune-imu");
    EXPECT_STREQ(config->battery.device, "/sys/class/power_supply/smartbattery");
}

TEST_F(ConfigTest, MinimalFileEnablesTheImuAlone)
{
    ASSERT_TRUE(load(source("examples/config/minimal.cfg")));
    EXPECT_EQ(texts().back(), "enabled sensors: imu");
}

// The reference's complete example, copied from the page as a user would.
TEST_F(ConfigTest, ReferenceExampleLoads)
{
    std::string page = source("docs/configuration.md");
    const std::string open = "```cfg\n";
    size_t begin = page.find(open);
    ASSERT_NE(begin, std::string::npos);
    begin += open.size();
    size_t end = page.find("```", begin);
    ASSERT_NE(end, std::string::npos);
    config_ptr config = load(page.substr(begin, end - begin));
    ASSERT_TRUE(config);
    EXPECT_EQ(enabled_line(texts()), "enabled sensors: baro bldc gps imu magneto battery");
}

} // namespace
