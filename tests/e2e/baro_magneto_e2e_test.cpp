// SPDX-License-Identifier: Apache-2.0
// The barometer and the magnetometer end to end: orlune-sim serves a still
// vehicle whose sensors drift as the example factory calibration says, and
// the "sensors_barometer" and "sensors_magnetometer" sections that
// orlune-host's plug-in publishes must carry the truth again.
#include <gtest/gtest.h>
#include <sensors/data.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <thread>

#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "flight.h"

using namespace std::chrono_literals;

namespace {

// The vehicle hovers level at 500 m, heading 0.7 rad, in a field of
// (0.21, 0, 0.43) gauss north-east-down.
constexpr double kAltitudeM = 500.0;
constexpr double kHeadingRad = 0.7;
constexpr double kNorthUt = 21.0;
constexpr double kDownUt = 43.0;
// The barometer's die warms by 25 K within a few seconds, the
// magnetometer's stays at ambient. The example magnetometer calibration
// moves its bias by about 0.084, 0.056 and 0.11 uT per kelvin, so a field
// corrected at the magnetometer's own temperature instead of the
// barometer's comes out 1.4 to 3.8 uT off: far outside kFieldTolerance.
constexpr double kAmbientK = 293.15;
constexpr double kBaroRiseK = 25.0;

// Means over the last samples: the pressure noise (20 counts of 0.024 Pa)
// averages to a few hundredths of a pascal, the field noise (1.5 counts of
// 0.1 uT) to a few hundredths of a microtesla; what remains is the
// calibration round trip.
constexpr double kPressureTolerance = 0.5; // Pa, about 4 cm of altitude
constexpr double kFieldTolerance = 0.3;    // uT
constexpr double kTemperatureTolerance = 0.05; // K: 0.01 K per count, and the warm-up's tail
constexpr double kRateTolerance = 0.05;    // relative

const char *const kScenario = R"(simulator = {
  name = "e2e-baro-magneto";
  seed = 7;
  ambient-temperature = 293.15;
  ground-altitude = 500.0;
  initial-heading = 0.7;
  earth-field = [0.21, 0.0, 0.43];
  devices = (
    { kind = "imu"; name = "orlune-imu"; trigger = "orlune-imu-trig";
      sampling-frequency = 1000; rate-divider = 5;
      mount-matrix = [0.0, 1.0, 0.0, 1.0, 0.0, 0.0, 0.0, 0.0, -1.0]; noise = 2.0; },
    { kind = "baro"; name = "orlune-lps22hb"; trigger = "orlune-baro-trig";
      sampling-frequency = 75; noise = 20.0;
      warm-up-rise = 25.0; warm-up-time-constant = 0.5; },
    { kind = "magneto"; name = "orlune-magneto"; trigger = "orlune-magneto-trig";
      sampling-frequency = 100;
      mount-matrix = [-1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, -1.0]; noise = 1.5; }
  );
  phases = ( { name = "hover"; duration = 60.0; } );
};
)";

class BaroMagnetoEndToEnd : public flight {
protected:
    std::unique_ptr<process> start_host(double duration_s)
    {
        configure({{"barometer", kBarometerSection}, {"magnetometer", kMagnetometerSection}});
        return host({"--duration", std::to_string(duration_s)});
    }

    // The last n samples of a section, and the mean interval between them (s).
    template <typename Record>
    double last_samples(const tlm_section_view &view, uint64_t n, std::vector<Record> *out)
    {
        const uint64_t first = tlm_view_written(&view) - n;
        timespec stamps[2]{};
        for (uint64_t i = first; i < first + n; i++) {
            Record r{};
            timespec stamp{};
            EXPECT_EQ(tlm_view_read(&view, i, &r, sizeof r, &stamp), 0) << i;
            EXPECT_EQ(timespec_compare(&stamp, &r.timestamp), 0);
            stamps[i == first ? 0 : 1] = stamp;
            out->push_back(r);
        }
        return (double(stamps[1].tv_sec - stamps[0].tv_sec) + double(stamps[1].tv_nsec - stamps[0].tv_nsec) / 1e9) /
               double(n - 1);
    }
};

TEST_F(BaroMagnetoEndToEnd, SectionsCarryTheTruthAtTheirConfiguredRates)
{
    std::filesystem::copy(example("calibration/factory"), root_.path() + "/factory",
                          std::filesystem::copy_options::recursive);
    start_sim(kScenario);
    auto host = start_host(8);

    // Four seconds in, the barometer's die has settled (eight time constants).
    tlm_section_view magneto_view{}, baro_view{};
    wait_for("sensors_magnetometer", 200, &magneto_view, *host);
    wait_for("sensors_barometer", 300, &baro_view, *host);

    std::vector<sensors_baro_data> baro;
    std::vector<sensors_magneto_data> magneto;
    EXPECT_NEAR(last_samples(baro_view, 75, &baro), 1.0 / 75, kRateTolerance / 75);
    EXPECT_NEAR(last_samples(magneto_view, 50, &magneto), 1.0 / 50, kRateTolerance / 50);
    tlm_view_close(&baro_view);
    tlm_view_close(&magneto_view);

    double pressure = 0, baro_temp = 0;
    for (const sensors_baro_data &b : baro) {
        pressure += b.pressure / double(baro.size());
        baro_temp += b.temperature / double(baro.size());
        EXPECT_EQ(b.flags, 3u);
    }
    const double true_pressure = 101325.0 * std::pow(1.0 - 2.25577e-5 * kAltitudeM, 5.25588);
    EXPECT_NEAR(pressure, true_pressure, kPressureTolerance);
    EXPECT_NEAR(baro_temp, kAmbientK + kBaroRiseK, kTemperatureTolerance);

    // The Earth's field in the body frame of a level vehicle turned by the heading.
    const double truth[3] = {kNorthUt * std::cos(kHeadingRad), -kNorthUt * std::sin(kHeadingRad), kDownUt};
    double field[3] = {}, magneto_temp = 0;
    for (const sensors_magneto_data &m : magneto) {
        for (int a = 0; a < 3; a++)
            field[a] += m.field[a] / double(magneto.size());
        magneto_temp += m.temperature / double(magneto.size());
    }
    for (int a = 0; a < 3; a++)
        EXPECT_NEAR(field[a], truth[a], kFieldTolerance) << "axis " << a;
    // Its own die stays at ambient (0.125 K per count): the correction above
    // was made at the barometer's temperature, 25 K warmer.
    EXPECT_NEAR(magneto_temp, kAmbientK, 0.2);

    ASSERT_EQ(host->wait(15s), 0) << host->err();
    const std::string log = host_log();
    EXPECT_EQ(log.find("barometer read failed"), std::string::npos) << log;
    EXPECT_EQ(log.find("magnetometer read failed"), std::string::npos) << log;
}

} // namespace
