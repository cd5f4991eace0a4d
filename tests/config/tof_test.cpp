// SPDX-License-Identifier: Apache-2.0
// The rangefinder lists "tofs" and "tofs_lib".
#include <gmock/gmock.h>

#include <tuple>

#include "config/sensorscfg.h"
#include "config_fixture.h"

using ::testing::ElementsAre;

namespace {

const std::string kTofElement = "{ enabled = true; device = \"tof-dev\"; trigger = \"tof-trig\";"
                                " calib = \"/factory/tof.bin\"; sampling-frequency = 30; type = \"vertical\";"
                                " min_distance = 0.05; max_distance = 4.0; min_amplitude = 12.5; }";

const std::string kTofLibElement = "{ enabled = true; device = \"/dev/i2c-3\"; calib = \"/factory/tof_lib.bin\";"
                                   " type = \"vertical\"; i2c_addr = 0x29; hw_type = \"vl53\"; gpio = \"tof_reset\";"
                                   " flags = 3; min_distance = 0.1; max_distance = 2.5; min_amplitude = 1.5; }";

std::string with_key(std::string element, const std::string &key, const char *value)
{
    size_t at = element.find(" " + key + " = ");
    if (at != std::string::npos)
        element.erase(at, element.find(';', at) + 1 - at);
    if (value)
        element.insert(element.rfind('}'), key + " = " + value + "; ");
    return element;
}

TEST_F(ConfigTest, TofElementsAreRead)
{
    config_ptr config = load(cfg_text::complete().raw("tofs = (" + kTofElement + ");\ntofs_lib = (" +
                                                      kTofLibElement + ");\n"));
    ASSERT_TRUE(config);
    const sensors_tof_config &tof = config->tof;
    EXPECT_THAT(texts_of({tof.device, tof.trigger, tof.calib}), ElementsAre("tof-dev", "tof-trig", "/factory/tof.bin"));
    EXPECT_EQ(std::tie(tof.sampling_frequency, tof.type_index, tof.min_distance, tof.max_distance, tof.min_amplitude),
              std::make_tuple(30, 0, 0.05f, 4.0f, 12.5f));

    const sensors_tof_lib_config &lib = config->tof_lib;
    EXPECT_THAT(texts_of({lib.device, lib.calib, lib.type, lib.hw_type, lib.gpio}),
                ElementsAre("/dev/i2c-3", "/factory/tof_lib.bin", "vertical", "vl53", "tof_reset"));
    EXPECT_EQ(lib.calib_per_design, nullptr);
    EXPECT_EQ(std::tie(lib.enabled, lib.i2c_addr, lib.flags, lib.type_index, lib.min_distance, lib.max_distance,
                       lib.min_amplitude),
              std::make_tuple(1, 0x29, 3, 0, 0.1f, 2.5f, 1.5f));

    // The rangefinder's own line: enabled, and its type.
    std::vector<log_record> m = messages();
    ASSERT_GE(m.size(), 2u);
    EXPECT_EQ(m.back().priority, LOG_INFO);
    EXPECT_EQ(m.back().text, "enabled sensors: tof vertical");
}

TEST_F(ConfigTest, TofDefaultsAndOptionalKeys)
{
    std::string tof = with_key(kTofElement, "sampling-frequency", nullptr);
    std::string lib = with_key(kTofLibElement, "calib_per_design", "\"/factory/design.bin\"");
    config_ptr config = load(cfg_text::complete().raw("tofs = (" + tof + ");\ntofs_lib = (" + lib + ");\n"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->tof.sampling_frequency, 0);
    EXPECT_STREQ(config->tof_lib.calib_per_design, "/factory/design.bin");
}

struct list_case {
    const char *name;
    std::string raw;
    bool ok;
    std::vector<std::string> tail; // last messages of the reader, in order
};

class TofList : public ConfigTest, public ::testing::WithParamInterface<list_case> {};

TEST_P(TofList, ListRules)
{
    const list_case &c = GetParam();
    config_ptr config = load(cfg_text::complete().raw(c.raw));
    EXPECT_EQ(bool(config), c.ok);
    std::vector<std::string> t = texts();
    ASSERT_GE(t.size(), c.tail.size());
    EXPECT_EQ(std::vector<std::string>(t.end() - long(c.tail.size()), t.end()), c.tail);
    if (config) {
        EXPECT_EQ(config->tof.enabled, 0);
        EXPECT_EQ(config->tof_lib.enabled, 0);
    }
}

const std::string kLine = "enabled sensors: baro bldc gps imu magneto battery ultrasound fcam_gimbal vcam_position "
                          "fstcam_position vcam_optical_flow carpet_detection imu_vcam";

INSTANTIATE_TEST_SUITE_P(
    Config, TofList,
    ::testing::Values(
        list_case{"EmptyList", "tofs = ();\ntofs_lib = ();\n", true, {kLine}},
        list_case{"OnlyDisabled", "tofs = ({ enabled = false; });\n", true, {kLine}},
        list_case{"NoEnabledFlag", "tofs = ({ device = \"d\"; });\n", true,
                  {"tof section missing, disabling", kLine}},
        list_case{"LibNoEnabledFlag", "tofs_lib = ({ enabled = 1; });\n", true,
                  {"tof section missing, disabling", kLine}},
        list_case{"NotAList", "tofs = { enabled = false; };\n", false, {"tofs should be a list"}},
        list_case{"ArrayIsNotAList", "tofs = [1, 2];\n", false, {"tofs should be a list"}},
        list_case{"LibNotAList", "tofs_lib = \"vertical\";\n", false, {"tofs should be a list"}},
        list_case{"TwoElements", "tofs = (" + kTofElement + ", { enabled = false; });\n", false,
                  {"tof count exceeds SENSORS_TOF_MAX (2 != 1)"}},
        list_case{"LibThreeElements", "tofs_lib = ({}, {}, {});\n", false,
                  {"tof count exceeds SENSORS_TOF_MAX (3 != 1)"}},
        list_case{"TypeIsCaseSensitive", "tofs = (" + with_key(kTofElement, "type", "\"Vertical\"") + ");\n", false,
                  {"unknown tof type: Vertical", "'tof.type' not found or incorrect type"}},
        // The type is checked before the range keys of tofs.
        list_case{"TypeBeforeRange",
                  "tofs = (" + with_key(with_key(kTofElement, "type", "\"side\""), "min_distance", nullptr) + ");\n",
                  false, {"unknown tof type: side", "'tof.type' not found or incorrect type"}},
        // ... and after them in tofs_lib.
        list_case{"LibTypeAfterRange",
                  "tofs_lib = (" + with_key(with_key(kTofLibElement, "type", "\"side\""), "min_amplitude", nullptr) +
                      ");\n",
                  false, {"'tof.min_amplitude' not found or incorrect type"}},
        list_case{"LibUnknownType", "tofs_lib = (" + with_key(kTofLibElement, "type", "\"side\"") + ");\n", false,
                  {"unknown tof type: side", "'tof.type' not found or incorrect type"}}),
    [](const auto &info) { return std::string(info.param.name); });

class TofElementKey : public ConfigTest {};

// Each required key of either list, missing or of another type.
TEST_F(TofElementKey, RequiredKeysAreNamedWithTheTofPrefix)
{
    const struct {
        bool lib;
        const char *key;
        const char *wrong;
    } rows[] = {{false, "device", "1"},        {false, "trigger", "true"},        {false, "calib", "2.0"},
                {false, "type", "0"},          {false, "min_distance", "1"},      {false, "max_distance", "\"4.0\""},
                {false, "min_amplitude", "12"},
                {true, "device", "1"},         {true, "calib", "false"},          {true, "type", "1"},
                {true, "i2c_addr", "41.0"},    {true, "hw_type", "1"},            {true, "gpio", "1"},
                {true, "flags", "\"3\""},      {true, "min_distance", "0"},       {true, "max_distance", "2"},
                {true, "min_amplitude", "true"}};
    for (const auto &r : rows) {
        const std::string list = r.lib ? "tofs_lib" : "tofs";
        SCOPED_TRACE(list + " " + r.key);
        const std::string &element = r.lib ? kTofLibElement : kTofElement;
        for (const char *value : {static_cast<const char *>(nullptr), r.wrong}) {
            EXPECT_FALSE(load(cfg_text::complete().raw(list + " = (" + with_key(element, r.key, value) + ");\n")));
            EXPECT_EQ(texts().back(), std::string("'tof.") + r.key + "' not found or incorrect type");
        }
    }
}

TEST_F(ConfigTest, TofOutsideTheHostMaskIsValidatedThenDisabled)
{
    config_ptr config = load(cfg_text::complete().raw("tofs = (" + kTofElement + ");\n"),
                             SENSORS_KIND_ALL & ~SENSORS_KIND_TOF);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->tof.enabled, 0);
    EXPECT_STREQ(config->tof.device, "tof-dev");
    for (const std::string &t : texts())
        EXPECT_NE(t, "enabled sensors: tof vertical");

    EXPECT_FALSE(load(cfg_text::complete().raw("tofs = (" + with_key(kTofElement, "calib", nullptr) + ");\n"),
                      SENSORS_KIND_ALL & ~SENSORS_KIND_TOF));
}

TEST(ConfigTof, TypeIndex)
{
    log_capture cap;
    EXPECT_EQ(sensorscfg_tof_index("vertical"), 0);
    EXPECT_TRUE(cap.texts("sensors_config").empty());
    EXPECT_EQ(sensorscfg_tof_index("vertical "), -1);
    EXPECT_EQ(sensorscfg_tof_index(""), -1);
    EXPECT_THAT(cap.texts("sensors_config"),
                ElementsAre("unknown tof type: vertical ", "unknown tof type: "));
}

} // namespace
