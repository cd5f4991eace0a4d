// SPDX-License-Identifier: Apache-2.0
// The two IMU sections, the rotation switch and the matrix reader.
#include <gmock/gmock.h>

#include <tuple>

#include "config/sensorscfg.h"
#include "config_fixture.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

TEST_F(ConfigTest, FlightImuFieldsAndMessages)
{
    config_ptr config = load(cfg_text::complete());
    ASSERT_TRUE(config);
    const sensors_imu_config &imu = config->imu;
    EXPECT_THAT(texts_of({imu.device, imu.trigger, imu.tlm_section}), ElementsAre("imu-dev", "imu-trig", "flight_imu"));
    EXPECT_EQ(std::tie(imu.temperature_sensitivity, imu.temperature_offset, imu.accelero_scale, imu.gyro_scale),
              std::make_tuple(326.8, 25.0, 0.5, 0.25));
    EXPECT_EQ(std::tie(imu.sampling_frequency, imu.sampling_rate_div, imu.matrix_from_device_tree,
                       imu.rotation_after_calib, imu.rotation_enabled),
              std::make_tuple(1000, 4, 0, 1, 1));
    EXPECT_THAT(imu.rotation_matrix, ElementsAreArray({1.f, 0.f, 0.f, 0.f, -1.f, 0.f, 0.f, 0.f, -1.f}));
    ASSERT_EQ(imu.thread_cfg_count, 3);
    EXPECT_THAT(std::vector<std::string>(imu.thread_cfg, imu.thread_cfg + 3),
                ElementsAre("imu", "imu_spi", "imu_spi_ksoftirq"));

    const sensors_imu_config &vcam = config->imu_vcam;
    EXPECT_THAT(texts_of({vcam.device, vcam.tlm_section}), ElementsAre("vcam-imu", "sensors_imu_vcam"));
    EXPECT_EQ(std::tie(vcam.sampling_rate_div, vcam.matrix_from_device_tree, vcam.rotation_after_calib,
                       vcam.thread_cfg_count),
              std::make_tuple(0, 1, 0, 0));
    EXPECT_EQ(vcam.thread_cfg, nullptr);

    std::vector<std::string> t = texts();
    auto at = [&](const std::string &text) { return std::find(t.begin(), t.end(), text) - t.begin(); };
    // The switch is reported before the matrix's origin.
    EXPECT_LT(at("imu.rotation-matrix is applied"), at("imu.rotation-matrix configuration retrieved from /etc/sensors"));
    EXPECT_LT(at("imu.rotation-matrix configuration retrieved from /etc/sensors"), long(t.size()));
    EXPECT_LT(at("imu_vcam.rotation-matrix will be retrieved from device-tree"), at("imu_vcam.rotation-matrix is applied"));
}

TEST_F(ConfigTest, MissingSecondImuIsANotice)
{
    config_ptr config = load(cfg_text::complete().drop("imu_vcam"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->imu_vcam.enabled, 0);
    EXPECT_STREQ(config->imu_vcam.tlm_section, "sensors_imu_vcam");
    std::vector<log_record> m = messages();
    EXPECT_TRUE(has(m, LOG_NOTICE, "'imu_vcam.enabled' not found or incorrect type"));
    EXPECT_EQ(enabled_line({m.back().text}),
              "enabled sensors: baro bldc gps imu magneto battery ultrasound fcam_gimbal vcam_position "
              "fstcam_position vcam_optical_flow carpet_detection");
}

TEST_F(ConfigTest, SecondImuErrorsOnlyDisableIt)
{
    for (const char *key : {"device", "sampling-frequency", "trigger", "temperature.offset", "gyro_scale"}) {
        SCOPED_TRACE(key);
        config_ptr config = load(cfg_text::complete().erase("imu_vcam", key));
        ASSERT_TRUE(config);
        EXPECT_EQ(config->imu_vcam.enabled, 0);
        EXPECT_EQ(config->fcam_gimbal.enabled, 1); // the reading went on
        EXPECT_TRUE(has(messages(), LOG_ERR, std::string("'imu_vcam.") + key + "' not found or incorrect type"));
    }
    config_ptr config = load(cfg_text::complete().set("imu_vcam", "thread_cfg", "(\"a\", 2)"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->imu_vcam.enabled, 0);
    EXPECT_EQ(config->imu_vcam.thread_cfg_count, 0); // count and array agree
    EXPECT_EQ(config->imu_vcam.thread_cfg, nullptr);
    EXPECT_TRUE(has(messages(), LOG_ERR, "'imu_vcam.thread_cfg' not found or incorrect type"));
}

TEST_F(ConfigTest, DisabledImuReadsOnlyFlagThreadsAndSection)
{
    cfg_text text = cfg_text::complete().section(
        "imu", {{"enabled", "false"}, {"thread_cfg", "(\"rt\")"}, {"tlm_section", "\"quiet_imu\""}, {"device", "9"}});
    config_ptr config = load(text);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->imu.enabled, 0);
    EXPECT_EQ(config->imu.device, nullptr);
    ASSERT_EQ(config->imu.thread_cfg_count, 1);
    EXPECT_STREQ(config->imu.thread_cfg[0], "rt");
    EXPECT_STREQ(config->imu.tlm_section, "quiet_imu");
    EXPECT_EQ(config->imu.rotation_enabled, 0); // the switch is not read either
}

class ThreadCfg : public ConfigTest {};

// Absent, empty or not an aggregate: no names; anything but strings in it is fatal.
TEST_F(ThreadCfg, NamesOrRefusal)
{
    const struct {
        const char *value; // null: key absent
        int64_t count;     // -1: refused
    } rows[] = {{nullptr, 0}, {"[]", 0}, {"()", 0}, {"\"imu\"", 0},
                {"(\"a\", \"b\")", 2}, {"{ a = \"x\"; b = \"y\"; }", 2}, {"[\"imu\", \"spi\", \"soft\", \"gps\"]", 4},
                {"[1, 2]", -1}, {"(\"imu\", 5)", -1}, {"(\"imu\", [\"spi\"])", -1}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.value ? r.value : "absent");
        cfg_text text = cfg_text::complete().erase("imu", "thread_cfg");
        if (r.value)
            text.set("imu", "thread_cfg", r.value);
        config_ptr config = load(text);
        if (r.count < 0) {
            EXPECT_FALSE(config);
            EXPECT_EQ(texts().back(), "'imu.thread_cfg' not found or incorrect type");
            continue;
        }
        ASSERT_TRUE(config);
        EXPECT_EQ(config->imu.thread_cfg_count, r.count);
        EXPECT_EQ(config->imu.thread_cfg == nullptr, r.count == 0);
    }
}

class RotationSwitch : public ConfigTest {};

TEST_F(RotationSwitch, OnlyALeadingLowercaseYDisables)
{
    const std::pair<const char *, uint8_t> rows[] = {{nullptr, 1}, {"yes", 0}, {"y", 0}, {"yolo", 0}, {"no", 1},
                                                     {"1", 1},     {"Yes", 1}, {"", 1},  {" yes", 1}};
    for (const auto &[env, enabled] : rows) {
        SCOPED_TRACE(env ? env : "unset");
        if (env)
            setenv("SENSORS_IMU_NO_ROTATION", env, 1);
        else
            unsetenv("SENSORS_IMU_NO_ROTATION");
        config_ptr config = load(cfg_text::complete());
        ASSERT_TRUE(config);
        EXPECT_EQ(config->imu.rotation_enabled, enabled);
        EXPECT_EQ(config->imu_vcam.rotation_enabled, enabled);
        std::vector<log_record> m = messages();
        const std::string state = enabled ? "applied" : "disabled";
        EXPECT_TRUE(has(m, LOG_INFO, "imu.rotation-matrix is " + state));
        EXPECT_TRUE(has(m, LOG_INFO, "imu_vcam.rotation-matrix is " + state));
    }
}

struct matrix_case {
    const char *text; // null: key absent
    int result;
    std::vector<float> expected;
};

class Matrix : public ::testing::TestWithParam<matrix_case> {};

TEST_P(Matrix, ReadsThreeRowsOfThreeFloats)
{
    ASSERT_EQ(log_set_levels("info,sensors_config=debug"), 0);
    std::string file = "other = 1;\n";
    if (GetParam().text)
        file += std::string("m = ") + GetParam().text + ";\n";
    config_t tree;
    config_init(&tree);
    ASSERT_EQ(config_read_string(&tree, file.c_str()), CONFIG_TRUE) << config_error_text(&tree);
    float matrix[9] = {9, 9, 9, 9, 9, 9, 9, 9, 9};
    log_capture cap;
    EXPECT_EQ(sensorscfg_get_matrix(&tree, "m", matrix), GetParam().result);
    EXPECT_THAT(matrix, ElementsAreArray(GetParam().expected));
    std::vector<std::string> t = cap.texts("sensors_config");
    if (GetParam().result < 0)
        EXPECT_THAT(t, ElementsAre("'m' not found or incorrect type"));
    else
        EXPECT_TRUE(t.empty());
    config_destroy(&tree);
}

const std::vector<float> kUntouched(9, 9.f);

INSTANTIATE_TEST_SUITE_P(
    Config, Matrix,
    ::testing::Values(
        matrix_case{nullptr, 1, kUntouched},
        matrix_case{"([1.0, 2.0, 3.0], [4.0, 5.0, 6.0], [7.0, 8.0, 9.5])", 0, {1, 2, 3, 4, 5, 6, 7, 8, 9.5}},
        // Rows as lists, outer as an array-free list: any aggregate.
        matrix_case{"((1.0, 2.0, 3.0), (4.0, 5.0, 6.0), (7.0, 8.0, 9.0))", 0, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        // Extra rows and columns are ignored.
        matrix_case{"([1.0, 2.0, 3.0, 3.5], [4.0, 5.0, 6.0], [7.0, 8.0, 9.0], [0.0])", 0, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        // Integers are refused; what was read before stays.
        matrix_case{"([1, 0, 0], [0, 1, 0], [0, 0, 1])", -EINVAL, kUntouched},
        matrix_case{"([1.0, 2.0, 3.0], (4.0, 5, 6.0), [7.0, 8.0, 9.0])", -EINVAL, {1, 2, 3, 4, 9, 9, 9, 9, 9}},
        matrix_case{"([1.0, 2.0, 3.0], [4.0, 5.0, 6.0])", -EINVAL, {1, 2, 3, 4, 5, 6, 9, 9, 9}},
        matrix_case{"([1.0, 2.0, 3.0], [4.0, 5.0], [7.0, 8.0, 9.0])", -EINVAL, {1, 2, 3, 4, 5, 9, 9, 9, 9}},
        matrix_case{"(1.0, 2.0, 3.0)", -EINVAL, kUntouched},
        matrix_case{"1.0", -EINVAL, kUntouched},
        matrix_case{"((\"1.0\", 2.0, 3.0), [4.0, 5.0, 6.0], [7.0, 8.0, 9.0])", -EINVAL, kUntouched}),
    [](const auto &info) { return "Row" + std::to_string(info.index); });

TEST(ConfigImu, UnknownKindIsRefused)
{
    config_t tree;
    config_init(&tree);
    sensors_imu_config imu{};
    const sensors_probe_header header{SENSORS_KIND_ALL, SENSORS_KIND_ALL};
    EXPECT_EQ(sensorscfg_read_imu(&imu, &tree, &header, 3), -EINVAL);
    EXPECT_EQ(sensorscfg_read_imu(&imu, &tree, &header, 0), -EINVAL);
    config_destroy(&tree);
}

} // namespace
