// SPDX-License-Identifier: Apache-2.0
// Sections and keys: required keys and their types, defaults, the host
// filter and the "enabled sensors:" line.
#include <gmock/gmock.h>

#include "config_fixture.h"

using ::testing::ElementsAreArray;

namespace {

struct required_case {
    const char *section;
    const char *key;
    const char *wrong; // a value of another type
    int priority = LOG_ERR; // of the report
};

// Every required key of the complete file: missing and mistyped, each is
// fatal with the full key named, and nothing after it is read.
class RequiredKey : public ConfigTest, public ::testing::WithParamInterface<required_case> {
protected:
    void expect_fatal(const cfg_text &text)
    {
        const required_case &c = GetParam();
        EXPECT_FALSE(load(text));
        std::vector<log_record> m = messages();
        ASSERT_FALSE(m.empty());
        EXPECT_EQ(m.back().text, std::string("'") + c.section + "." + c.key + "' not found or incorrect type");
        EXPECT_EQ(m.back().priority, c.priority);
    }
};

TEST_P(RequiredKey, MissingIsFatal)
{
    expect_fatal(cfg_text::complete().erase(GetParam().section, GetParam().key));
}

TEST_P(RequiredKey, WrongTypeIsFatal)
{
    expect_fatal(cfg_text::complete().set(GetParam().section, GetParam().key, GetParam().wrong));
}

INSTANTIATE_TEST_SUITE_P(
    Config, RequiredKey,
    ::testing::ValuesIn(std::vector<required_case>{
        {"barometer", "enabled", "1"}, {"barometer", "device", "7"}, {"barometer", "trigger", "true"},
        {"barometer", "sampling-frequency", "75.0"},
        {"bldc", "enabled", "\"yes\""}, {"bldc", "device", "1.5"}, {"bldc", "trigger", "[\"t\"]"},
        {"gps", "enabled", "0"},
        {"imu", "enabled", "1", LOG_NOTICE}, {"imu", "device", "3"}, {"imu", "sampling-frequency", "1000.0"},
        {"imu", "trigger", "false"}, {"imu", "temperature.sensitivity", "326"}, {"imu", "temperature.offset", "25"},
        {"imu", "accelero_scale", "1"}, {"imu", "gyro_scale", "\"0.25\""},
        {"magnetometer", "enabled", "\"true\""}, {"magnetometer", "device", "0"},
        {"magnetometer", "trigger", "{ name = \"t\"; }"},
        {"battery", "enabled", "1.0"}, {"battery", "device", "false"},
        {"ultrasound", "enabled", "1"}, {"carpet_detection", "enabled", "\"on\""}, {"vcam_position", "enabled", "1"},
        {"fstcam_position", "enabled", "1"}, {"vcam_optical_flow", "enabled", "1"}}),
    [](const auto &info) { return case_name(std::string(info.param.section) + "_" + info.param.key); });

TEST_F(ConfigTest, CompleteFileFillsEveryField)
{
    config_ptr config = load(cfg_text::complete());
    ASSERT_TRUE(config);
    const sensors_config &c = *config;
    EXPECT_STREQ(c.baro.device, "lps22hb");
    EXPECT_STREQ(c.baro.trigger, "baro-trig");
    EXPECT_EQ(c.baro.sampling_frequency, 75);
    EXPECT_STREQ(c.bldc.device, "esc");
    EXPECT_STREQ(c.bldc.trigger, "esc-trig");
    EXPECT_EQ(c.bldc.tlm_frequency, 400);
    EXPECT_STREQ(c.magneto.device, "mag");
    EXPECT_STREQ(c.magneto.trigger, "mag-trig");
    EXPECT_EQ(c.magneto.matrix_from_device_tree, 0);
    EXPECT_THAT(c.magneto.rotation_matrix, ElementsAreArray({0.f, -1.f, 0.f, -1.f, 0.f, 0.f, 0.f, 0.f, -1.f}));
    EXPECT_EQ(c.magneto.sampling_frequency, 50);
    EXPECT_EQ(c.magneto.use_temperature, 1);
    EXPECT_STREQ(c.battery.device, "/sys/class/power_supply/pack");
    EXPECT_EQ(c.battery.frequency, 2);
    EXPECT_EQ(c.tof.enabled, 0);
    EXPECT_EQ(c.tof_lib.enabled, 0);
    std::vector<log_record> m = messages();
    EXPECT_TRUE(has(m, LOG_DEBUG, "magnetometer.rotation-matrix configuration retrieved from /etc/sensors"));
    // Every section enabled.
    EXPECT_TRUE(has(m, LOG_INFO,
                    "enabled sensors: baro bldc gps imu magneto battery ultrasound fcam_gimbal vcam_position "
                    "fstcam_position vcam_optical_flow carpet_detection imu_vcam"));
}

// Optional keys, absent or of another type, take their defaults.
TEST_F(ConfigTest, OptionalKeysTakeTheirDefaults)
{
    const std::pair<const char *, cfg_text> rows[] = {
        {"absent", cfg_text::complete()
                       .erase("bldc", "tlm_frequency")
                       .erase("battery", "frequency")
                       .erase("magnetometer", "sampling-frequency")
                       .erase("magnetometer", "use-temperature")
                       .drop("fcam_gimbal")},
        {"mistyped", cfg_text::complete()
                         .set("bldc", "tlm_frequency", "400.0")
                         .set("battery", "frequency", "\"2\"")
                         .set("magnetometer", "sampling-frequency", "50.0")
                         .set("magnetometer", "use-temperature", "1")
                         .set("fcam_gimbal", "enabled", "1")},
    };
    for (const auto &[name, text] : rows) {
        SCOPED_TRACE(name);
        config_ptr config = load(text);
        ASSERT_TRUE(config);
        EXPECT_EQ(config->bldc.tlm_frequency, 200);
        EXPECT_EQ(config->battery.frequency, 1);
        EXPECT_EQ(config->magneto.sampling_frequency, 0);
        EXPECT_EQ(config->magneto.use_temperature, 0);
        EXPECT_EQ(config->fcam_gimbal.enabled, 0);
        EXPECT_TRUE(has(messages(), LOG_INFO, "fcam_gimbal section missing, disabling"));
    }
}

TEST_F(ConfigTest, BarometerRateIsRequiredOnlyForTheLps22hb)
{
    cfg_text text = cfg_text::complete().set("barometer", "device", "\"bmp-baro\"").erase("barometer",
                                                                                          "sampling-frequency");
    config_ptr config = load(text);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->baro.sampling_frequency, 0);

    // Other devices are not read a rate even when the file gives one.
    config = load(text.set("barometer", "sampling-frequency", "25"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->baro.sampling_frequency, 0);

    EXPECT_FALSE(load(text.set("barometer", "device", "\"st-lps22hb-press\"").erase("barometer", "sampling-frequency")));
    EXPECT_EQ(texts().back(), "'barometer.sampling-frequency' not found or incorrect type");
}

TEST_F(ConfigTest, DisabledSectionsNeedNoOtherKey)
{
    config_ptr config = load(cfg_text::all_disabled());
    ASSERT_TRUE(config);
    EXPECT_EQ(config->bldc.device, nullptr);
    EXPECT_EQ(config->imu.device, nullptr);
    EXPECT_EQ(config->imu.tlm_section, std::string("sensors_imu"));
    EXPECT_EQ(config->imu.thread_cfg_count, 0);
    EXPECT_EQ(enabled_line(texts()), "enabled sensors:");
}

TEST_F(ConfigTest, FirstFatalErrorStopsTheReading)
{
    // bldc fails; the imu section after it is never read.
    EXPECT_FALSE(load(cfg_text::complete().erase("bldc", "device")));
    for (const std::string &t : texts())
        EXPECT_EQ(t.find("imu."), std::string::npos) << t;
}

// A malformed matrix keeps what was read before the bad element and is
// reported; the keys after it are still read.
TEST_F(ConfigTest, MalformedMatricesAreReportedNotFatal)
{
    config_ptr config = load(cfg_text::complete()
                                 .set("imu", "rotation-matrix", "([1.0, 0.0, 0.0], [0, 1, 0], [0, 0, 1])")
                                 .set("magnetometer", "rotation-matrix", "((0.5, 0.25, 1), [1.0, 1.0, 1.0])"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->imu.enabled, 1);
    EXPECT_EQ(config->imu.matrix_from_device_tree, 0);
    EXPECT_THAT(config->imu.rotation_matrix, ElementsAreArray({1.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f}));
    EXPECT_EQ(config->imu.rotation_after_calib, 1);
    EXPECT_EQ(config->magneto.matrix_from_device_tree, 0);
    EXPECT_THAT(config->magneto.rotation_matrix, ElementsAreArray({0.5f, 0.25f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f}));
    EXPECT_EQ(config->magneto.sampling_frequency, 50);
    std::vector<log_record> m = messages();
    for (const std::string section : {"imu", "magnetometer"}) {
        EXPECT_TRUE(has(m, LOG_ERR, "'" + section + ".rotation-matrix' not found or incorrect type"));
        EXPECT_FALSE(has(m, LOG_DEBUG, section + ".rotation-matrix configuration retrieved from /etc/sensors"));
        EXPECT_FALSE(has(m, LOG_DEBUG, section + ".rotation-matrix will be retrieved from device-tree"));
    }
}

class HostFilter : public ConfigTest {};

// Each section's kind bit alone: that section is the only one left enabled,
// and the line shows its word; the two rangefinder lists follow the tof bit.
TEST_F(HostFilter, OnlyTheAcceptedKindStaysEnabled)
{
    const std::pair<uint32_t, const char *> rows[] = {
        {0, ""}, {SENSORS_KIND_MAGNETO, " magneto"}, {SENSORS_KIND_BARO, " baro"}, {SENSORS_KIND_IMU, " imu"},
        {SENSORS_KIND_GPS, " gps"}, {SENSORS_KIND_BLDC, " bldc"}, {SENSORS_KIND_ULTRASOUND, " ultrasound"},
        {SENSORS_KIND_BATTERY, " battery"}, {SENSORS_KIND_TOF, ""},
        {SENSORS_KIND_CARPET_DETECTION, " carpet_detection"}, {SENSORS_KIND_VCAM_POSITION, " vcam_position"},
        {SENSORS_KIND_VCAM_OPTICAL_FLOW, " vcam_optical_flow"}, {SENSORS_KIND_FCAM_GIMBAL, " fcam_gimbal"},
        {SENSORS_KIND_FSTCAM_POSITION, " fstcam_position"}, {SENSORS_KIND_IMU_VCAM, " imu_vcam"},
        {SENSORS_KIND_BARO | SENSORS_KIND_IMU_VCAM | SENSORS_KIND_GPS, " baro gps imu_vcam"}};
    for (const auto &[mask, line] : rows) {
        SCOPED_TRACE(testing::Message() << "mask 0x" << std::hex << mask);
        config_ptr config = load(cfg_text::complete(), mask);
        ASSERT_TRUE(config);
        EXPECT_EQ(enabled_line(texts()), std::string("enabled sensors:") + line);
        // Values stay in the record even when the host refuses the sensor.
        EXPECT_STREQ(config->bldc.device, "esc");
        EXPECT_STREQ(config->imu_vcam.device, "vcam-imu");
        EXPECT_EQ(config->imu.thread_cfg_count, 3);
    }
}

TEST_F(ConfigTest, RefusedSectionIsStillValidated)
{
    EXPECT_FALSE(load(cfg_text::complete().erase("battery", "device"), SENSORS_KIND_ALL & ~SENSORS_KIND_BATTERY));
    EXPECT_EQ(texts().back(), "'battery.device' not found or incorrect type");
}

} // namespace
