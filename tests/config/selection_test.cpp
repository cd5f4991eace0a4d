// SPDX-License-Identifier: Apache-2.0
// Which file is read, how parse failures are reported, the debug section
// switches and the life of the record.
#include <gmock/gmock.h>

#include "config/sensorscfg.h"
#include "config_fixture.h"
#include "platform/failpoint.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// A valid file whose gps flag tells which file was read.
std::string marked(bool gps)
{
    return cfg_text::all_disabled().set("gps", "enabled", gps ? "true" : "false").str();
}

struct selection_case {
    const char *name;
    const char *properties;
    std::vector<std::string> files; // written under /etc/sensors
    const char *checked;            // first name tried
    const char *loaded;             // name loaded
};

class Selection : public ConfigTest, public ::testing::WithParamInterface<selection_case> {};

TEST_P(Selection, PicksTheFileFromHardwareNameAndRevision)
{
    const selection_case &c = GetParam();
    root_.properties(c.properties);
    for (const std::string &f : c.files)
        root_.write("/etc/sensors/" + f, cfg_text::all_disabled().str());
    config_ptr config = load_selected();
    ASSERT_TRUE(config);
    std::vector<std::string> t = texts();
    const std::string dir = root_.at("/etc/sensors/");
    ASSERT_GE(t.size(), 2u);
    EXPECT_EQ(t[0], "check config file: '" + dir + c.checked + "'");
    EXPECT_EQ(t[1], "load config from '" + dir + c.loaded + "'");
}

INSTANTIATE_TEST_SUITE_P(
    Config, Selection,
    ::testing::Values(
        selection_case{"RevisionFileFirst", "ro.hardware=board\nro.revision=4\n", {"board.hw04.cfg", "board.cfg"},
                       "board.hw04.cfg", "board.hw04.cfg"},
        selection_case{"NameFileWhenNoRevisionFile", "ro.hardware=board\nro.revision=4\n", {"board.cfg"},
                       "board.hw04.cfg", "board.cfg"},
        selection_case{"TwoDigitRevision", "ro.hardware=board\nro.revision=12\n", {"board.hw12.cfg"},
                       "board.hw12.cfg", "board.hw12.cfg"},
        selection_case{"ThreeDigitRevision", "ro.hardware=board\nro.revision=123\n", {"board.hw123.cfg"},
                       "board.hw123.cfg", "board.hw123.cfg"},
        selection_case{"NonNumericRevisionIsZero", "ro.hardware=board\nro.revision=rev-b\n", {"board.hw00.cfg"},
                       "board.hw00.cfg", "board.hw00.cfg"},
        selection_case{"NoPropertiesAtAll", "", {".hw00.cfg"}, ".hw00.cfg", ".hw00.cfg"}),
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

TEST_F(ConfigTest, NoFileAnywhereIsAParseFailure)
{
    root_.properties("ro.hardware=board\nro.revision=4\n");
    EXPECT_FALSE(load_selected());
    std::vector<log_record> m = messages();
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().priority, LOG_ERR);
    EXPECT_EQ(m.back().text,
              "can't read configuration: " + root_.at("/etc/sensors/board.cfg") + ":0 file I/O error");
}

TEST_F(ConfigTest, SyntaxErrorNamesPathLineAndParserText)
{
    EXPECT_FALSE(load("gps = { enabled = true; };\nbldc = { enabled = ; };\n"));
    std::vector<log_record> m = messages();
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().priority, LOG_ERR);
    EXPECT_EQ(m.back().text, "can't read configuration: " + override_path() + ":2 syntax error");
}

TEST_F(ConfigTest, MixedArrayIsASyntaxError)
{
    EXPECT_FALSE(load(cfg_text::complete().set("imu", "rotation-matrix", "([1.0, 0], [0.0, 1.0, 0.0], [0.0, 0.0, 1.0])")));
    EXPECT_THAT(texts().back(), HasSubstr("can't read configuration: " + override_path() + ":"));
}

struct debug_case {
    const char *property; // whole properties file
    const char *baro;
    const char *magneto;
};

class DebugSections : public ConfigTest, public ::testing::WithParamInterface<debug_case> {};

// Every candidate section is in the file with its own device name; only the
// selected one is read.
TEST_P(DebugSections, PropertySelectsTheSectionRead)
{
    const debug_case &c = GetParam();
    root_.properties(c.property);
    cfg_text text = cfg_text::complete();
    for (const char *s : {"barometer", "alt_baro", "tds_baro"})
        text.section(s, {{"enabled", "true"}, {"device", std::string("\"") + s + "\""}, {"trigger", "\"t\""}});
    for (const char *s : {"magnetometer", "alt_magneto", "tds_magneto"})
        text.section(s, {{"enabled", "true"}, {"device", std::string("\"") + s + "\""}, {"trigger", "\"t\""}});
    config_ptr config = load(text);
    ASSERT_TRUE(config);
    EXPECT_STREQ(config->baro.device, c.baro);
    EXPECT_STREQ(config->magneto.device, c.magneto);
    EXPECT_TRUE(has(messages(), LOG_DEBUG,
                    std::string(c.magneto) + ".rotation-matrix will be retrieved from device-tree"));
}

INSTANTIATE_TEST_SUITE_P(
    Config, DebugSections,
    ::testing::Values(debug_case{"", "barometer", "magnetometer"},
                      debug_case{"persist.dbg.flight_baro=0\npersist.dbg.flight_magneto=0\n", "barometer", "magnetometer"},
                      debug_case{"persist.dbg.flight_baro=1\n", "alt_baro", "magnetometer"},
                      debug_case{"persist.dbg.flight_baro=2\npersist.dbg.flight_magneto=1\n", "tds_baro", "alt_magneto"},
                      debug_case{"persist.dbg.flight_baro=21\npersist.dbg.flight_magneto=2\n", "tds_baro", "tds_magneto"},
                      debug_case{"persist.dbg.flight_baro=3\npersist.dbg.flight_magneto=x\n", "barometer", "magnetometer"}),
    [](const auto &info) {
        return case_name(std::string(info.param.baro) + "_" + info.param.magneto + "_" + std::to_string(info.index));
    });

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

} // namespace
