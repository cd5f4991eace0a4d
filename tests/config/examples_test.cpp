// SPDX-License-Identifier: Apache-2.0
// The shipped example files and the example of the configuration reference.
#include <gmock/gmock.h>

#include "config_fixture.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

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

    const sensors_config &c = *config;
    EXPECT_STREQ(c.imu.device, "orlune-imu");
    EXPECT_STREQ(c.imu.trigger, "orlune-imu-trig");
    EXPECT_EQ(c.imu.sampling_frequency, 1000);
    EXPECT_EQ(c.imu.sampling_rate_div, 5);
    EXPECT_EQ(c.imu.matrix_from_device_tree, 0);
    EXPECT_THAT(c.imu.rotation_matrix, ElementsAreArray({0.f, 1.f, 0.f, 1.f, 0.f, 0.f, 0.f, 0.f, -1.f}));
    ASSERT_EQ(c.imu.thread_cfg_count, 3);
    EXPECT_THAT(std::vector<std::string>(c.imu.thread_cfg, c.imu.thread_cfg + 3),
                ElementsAre("imu", "imu_spi", "imu_spi_ksoftirq"));
    EXPECT_STREQ(c.imu.tlm_section, "sensors_imu");
    EXPECT_STREQ(c.baro.device, "orlune-lps22hb");
    EXPECT_STREQ(c.baro.trigger, "orlune-baro-trig");
    EXPECT_EQ(c.baro.sampling_frequency, 75);
    EXPECT_STREQ(c.magneto.device, "orlune-magneto");
    EXPECT_STREQ(c.magneto.trigger, "orlune-magneto-trig");
    EXPECT_EQ(c.magneto.sampling_frequency, 50);
    EXPECT_EQ(c.magneto.use_temperature, 1);
    EXPECT_EQ(c.magneto.matrix_from_device_tree, 0);
    EXPECT_STREQ(c.bldc.device, "orlune-esc");
    EXPECT_STREQ(c.bldc.trigger, "orlune-esc-trig");
    EXPECT_STREQ(c.battery.device, "/sys/class/power_supply/smartbattery");
    EXPECT_EQ(c.imu_vcam.enabled, 0);
}

TEST_F(ConfigTest, MinimalFileEnablesTheImuAlone)
{
    config_ptr config = load(source("examples/config/minimal.cfg"));
    ASSERT_TRUE(config);
    std::vector<log_record> m = messages();
    EXPECT_EQ(m.back().text, "enabled sensors: imu");
    EXPECT_TRUE(has(m, LOG_NOTICE, "'imu_vcam.enabled' not found or incorrect type"));
    EXPECT_EQ(config->imu.sampling_rate_div, 0);
    EXPECT_EQ(config->imu.matrix_from_device_tree, 1);
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
