// SPDX-License-Identifier: Apache-2.0
// Scenario files, the vehicle's truth, and the device models' raw counts
// turned back into truth by the plug-in's forward conversion.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>
#include <tuple>

#include "sim/iio_devices.h"
#include "sim/iiod_server.h"
#include "sim/scenario.h"
#include "sim/thermal.h"
#include "sim/vehicle.h"
#include "support/test_env.h"

namespace {

std::string example(const char *name)
{
    const char *root = std::getenv("ORLUNE_TEST_DATA");
    return std::string(root ? root : ".") + "/examples/scenarios/" + name;
}

TEST(Scenario, DefaultFileMatchesTheBuiltInScenario)
{
    sim::scenario loaded;
    std::string error;
    ASSERT_EQ(sim::scenario_load(example("default.cfg").c_str(), &loaded, &error), 0) << error;
    const sim::scenario builtin = sim::default_scenario();
    EXPECT_EQ(std::tie(loaded.name, loaded.seed, loaded.ground_altitude_m, loaded.earth_field_gauss),
              std::tie(builtin.name, builtin.seed, builtin.ground_altitude_m, builtin.earth_field_gauss));
    const auto device = [](const sim::scenario_device &d) {
        return std::tie(d.kind, d.name, d.trigger, d.sampling_frequency, d.rate_divider, d.mount_matrix, d.noise_counts,
                        d.warm.rise_k, d.warm.time_constant_s, d.delivery_delay_s);
    };
    ASSERT_EQ(loaded.devices.size(), builtin.devices.size());
    for (size_t i = 0; i < loaded.devices.size(); i++)
        EXPECT_EQ(device(loaded.devices[i]), device(builtin.devices[i])) << i;
    const auto phase = [](const sim::scenario_phase &p) { return std::tie(p.duration_s, p.yaw_rate, p.climb_rate); };
    ASSERT_EQ(loaded.phases.size(), builtin.phases.size());
    for (size_t i = 0; i < loaded.phases.size(); i++)
        EXPECT_EQ(phase(loaded.phases[i]), phase(builtin.phases[i])) << i;
}

TEST(Scenario, FaultsFileScriptsEveryFaultKind)
{
    sim::scenario s;
    std::string error;
    ASSERT_EQ(sim::scenario_load(example("faults.cfg").c_str(), &s, &error), 0) << error;
    ASSERT_EQ(s.faults.size(), 6u);
    EXPECT_EQ(s.faults[5].kind, sim::fault_kind::motor_error);
    EXPECT_EQ(std::tie(s.faults[0].kind, s.faults[0].count), std::tuple(sim::fault_kind::refill_error, 2));
    EXPECT_EQ(std::tie(s.faults[1].kind, s.faults[1].scans), std::tuple(sim::fault_kind::short_batch, 3));
    EXPECT_EQ(std::tie(s.faults[3].kind, s.faults[3].duration_s), std::tuple(sim::fault_kind::stall, 3.0));
    EXPECT_EQ(s.faults[4].kind, sim::fault_kind::disconnect);
}

TEST(Scenario, RejectsWhatTheServerCouldNotServe)
{
    struct row {
        const char *text;
        const char *error;
    };
    const row rows[] = {
        {"nothing = 1;", "missing group 'simulator'"},
        {"simulator = { seed = ; };", "syntax error (line 1)"},
        {"simulator = { seed = 1e400; };", "'seed' must be from 0 to 2^64 - 1 (line 1)"},
        {"simulator = { devices = ( { kind = \"gps\"; name = \"g\"; trigger = \"t\"; } ); };",
         "unknown device kind 'gps' (line 1)"},
        {"simulator = { devices = ( { kind = \"imu\"; trigger = \"t\"; } ); };", "missing 'name' (line 1)"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"my imu\"; trigger = \"t\"; } ); };",
         "device and trigger names need 1-64 of [A-Za-z0-9._:-]: 'my imu', 't'"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"a\"; } ); };",
         "duplicate name 'a' or 'a'"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"trig\"; },\n"
         "  { kind = \"baro\"; name = \"b\"; trigger = \"trig2\"; } ); };",
         "trigger name 'trig' is a prefix of 'trig2'"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\"; sampling-frequency = 0; } ); };",
         "a: sampling-frequency must be 1..1000000 Hz"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\"; mount-matrix = [1.0, 0.0]; } ); };",
         "'mount-matrix' must be an array of 9 numbers (line 1)"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\"; rate-divider = 2.0; } ); };",
         "'rate-divider' must be an integer (line 1)"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\";\n"
         "  mount-matrix = [1.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 0.0, 1.0]; } ); };",
         "a: mount-matrix cannot be inverted"},
        {"simulator = { devices = ( { kind = \"motors\"; name = \"a\"; trigger = \"t\"; delivery-delay = -0.001; } ); };",
         "a: delivery-delay must be >= 0 and below 1 s"},
        {"simulator = { devices = ( { kind = \"baro\"; name = \"a\"; trigger = \"t\"; delivery-delay = 1; } ); };",
         "a: delivery-delay must be >= 0 and below 1 s"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\"; delivery-delay = \"1ms\"; } ); };",
         "'delivery-delay' must be a number (line 1)"},
        {"simulator = { phases = ( { name = \"p\"; } ); };", "missing 'duration' (line 1)"},
        {"simulator = { faults = ( { at = 1; kind = \"explode\"; } ); };", "unknown fault kind 'explode' (line 1)"},
        {"simulator = { faults = ( { at = 1; kind = \"stall\"; device = \"orlune-gps\"; } ); };",
         "stall: unknown device 'orlune-gps'"},
        {"simulator = { repeat = 0; };", "'repeat' must be from 1 to 1000 (line 1)"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\";\n"
         "  drift = { gyro-bias = ( [0.1], [0.2], [0.3] ); }; } ); };",
         "missing 'temp-0' (line 2)"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\";\n"
         "  drift = { temp-0 = 300.0; pressure-bias = [1.0]; }; } ); };",
         "'drift' of a device of kind 'imu' has no key 'pressure-bias' (line 2)"},
        {"simulator = { devices = ( { kind = \"imu\"; name = \"a\"; trigger = \"t\";\n"
         "  drift = { temp-0 = 300.0; accel-bias = ( [0.1], [0.2] ); }; } ); };",
         "'accel-bias' must be a list of 3 polynomials (line 2)"},
        {"simulator = { devices = ( { kind = \"magneto\"; name = \"a\"; trigger = \"t\";\n"
         "  drift = { temp-0 = 300.0; field-bias = ( [0.1], [], [0.3] ); }; } ); };",
         "'field-bias' needs polynomials of 1 to 8 coefficients, each in [ ] (line 2)"},
    };
    sim::scenario s;
    std::string error;
    for (const row &r : rows) {
        EXPECT_EQ(sim::scenario_parse(r.text, &s, &error), -EINVAL) << r.text;
        EXPECT_EQ(error, r.error) << r.text;
    }
    EXPECT_EQ(sim::scenario_load("/nonexistent/scenario.cfg", &s, &error), -ENOENT);
}

TEST(Vehicle, TruthFollowsThePhases)
{
    sim::scenario s = sim::default_scenario();
    s.phases = {{"hover", 1.0, 0, 0, 0, 0},
                {"climb", 2.0, 0, 0, 0, 2.0},
                {"turn", 1.0, 0, 0, 0.5, 0},
                {"pitch", 1.0, 0, 0.3, 0, 0}};
    const sim::vehicle v(s);
    const double g = sim::kGravity;
    struct row {
        double t;
        sim::vec3 attitude, rates, force;
        double altitude;
    };
    const row rows[] = {
        {0.5, {0, 0, 0}, {0, 0, 0}, {0, 0, -g}, 100.0},
        {2.0, {0, 0, 0}, {0, 0, 0}, {0, 0, -g}, 102.0},
        {3.5, {0, 0, 0.25}, {0, 0, 0.5}, {0, 0, -g}, 104.0},
        {4.5, {0, 0.15, 0.5}, {0, 0.3, 0}, {g * std::sin(0.15), 0, -g * std::cos(0.15)}, 104.0},
        {9.0, {0, 0.3, 0.5}, {0, 0, 0}, {g * std::sin(0.3), 0, -g * std::cos(0.3)}, 104.0},
    };
    for (const row &r : rows) {
        const sim::truth t = v.at(r.t);
        for (int i = 0; i < 3; i++) {
            EXPECT_NEAR(t.attitude[i], r.attitude[i], 1e-9) << "t=" << r.t << " axis " << i;
            EXPECT_NEAR(t.rates[i], r.rates[i], 1e-9) << "t=" << r.t << " axis " << i;
            EXPECT_NEAR(t.specific_force[i], r.force[i], 1e-9) << "t=" << r.t << " axis " << i;
        }
        EXPECT_NEAR(t.altitude_m, r.altitude, 1e-9) << "t=" << r.t;
    }
    // Heading turns the earth's field in the body: north rotates to -y at +90 degrees.
    s.phases = {{"turn", 1.0, 0, 0, M_PI / 2, 0}};
    const sim::truth turned = sim::vehicle(s).at(2.0);
    EXPECT_NEAR(turned.magnetic_field[0], 0.0, 1e-9);
    EXPECT_NEAR(turned.magnetic_field[1], -s.earth_field_gauss[0], 1e-9);
    EXPECT_NEAR(turned.magnetic_field[2], s.earth_field_gauss[2], 1e-9);
}

TEST(Vehicle, PressureFallsWithAltitudeAndDiesWarmUp)
{
    EXPECT_NEAR(sim::pressure_at_altitude(0), 101325.0, 1e-6);
    EXPECT_NEAR(sim::pressure_at_altitude(1000), 89874.6, 0.5);
    const sim::vehicle v(sim::default_scenario());
    const sim::warm_up warm{10.0, 60.0};
    EXPECT_DOUBLE_EQ(v.die_temperature_k(warm, 0), 293.15);
    EXPECT_NEAR(v.die_temperature_k(warm, 60), 293.15 + 10 * (1 - std::exp(-1.0)), 1e-9);
    EXPECT_LT(v.die_temperature_k(warm, 1e6), 303.15 + 1e-9);
}

TEST(DeviceModels, RawCountsConvertBackToTheTruth)
{
    sim::scenario s = sim::default_scenario();
    for (sim::scenario_device &d : s.devices)
        d.noise_counts = 0;
    s.phases = {{"turn", 10.0, 0.05, -0.03, 0.4, 1.0}};
    const sim::vehicle v(s);
    const double t = 3.7;
    const sim::truth truth = v.at(t);
    int64_t raw[8];

    auto imu = sim::make_device_model(s.devices[0], 1);
    imu->sample(v, t, 1, raw);
    const sim::mat3 &m = s.devices[0].mount_matrix;
    const sim::vec3 accel = sim::mat_mul(m, {raw[0] * 0.002394202, raw[1] * 0.002394202, raw[2] * 0.002394202});
    const sim::vec3 gyro = sim::mat_mul(m, {raw[3] * 0.001065264, raw[4] * 0.001065264, raw[5] * 0.001065264});
    for (int i = 0; i < 3; i++) {
        EXPECT_NEAR(accel[i], truth.specific_force[i], 0.0024) << i;
        EXPECT_NEAR(gyro[i], truth.rates[i], 0.0011) << i;
    }
    EXPECT_NEAR((raw[6] + 12420) * 0.002941176 + 273.15, v.die_temperature_k(s.devices[0].warm, t), 0.003);

    auto baro = sim::make_device_model(s.devices[1], 1);
    baro->sample(v, t, 1, raw);
    EXPECT_NEAR(raw[0] * 0.0000244140625 * 1000.0, truth.pressure_pa, 0.025);
    EXPECT_NEAR((raw[1] + 273.15 / 0.01) * 0.01, v.die_temperature_k(s.devices[1].warm, t), 0.01);

    auto magneto = sim::make_device_model(s.devices[2], 1);
    magneto->sample(v, t, 1, raw);
    const sim::vec3 field = sim::mat_mul(s.devices[2].mount_matrix,
                                         {raw[0] * 0.001 * 100, raw[1] * 0.001 * 100, raw[2] * 0.00125 * 100});
    for (int i = 0; i < 3; i++)
        EXPECT_NEAR(field[i], truth.magnetic_field[i] * 100, 0.13) << i;
    EXPECT_NEAR((raw[3] + 200 + 273149.9938964844 / 125) * 0.125, v.die_temperature_k(s.devices[2].warm, t), 0.13);
}

TEST(DeviceModels, ThermalInverseShiftsTheRawCountsAndNoiseIsSeeded)
{
    sim::scenario s = sim::default_scenario();
    sim::scenario_device baro = s.devices[1];
    baro.noise_counts = 0;
    const sim::vehicle v(s);
    auto plain = sim::make_device_model(baro, 1);
    auto biased = sim::make_device_model(baro, 1);
    // A calibration that subtracts 50 Pa: the sensor must read 50 Pa more.
    biased->thermal = [](std::span<double> values, double) { values[0] += 50.0; };
    int64_t a[2], b[2];
    plain->sample(v, 1.0, 1, a);
    biased->sample(v, 1.0, 1, b);
    EXPECT_NEAR(static_cast<double>(b[0] - a[0]), 50.0 / 0.0244140625, 1.0);

    // On the IMU, a bias on sensor x shows on the raw x count whatever the
    // mounting; in vehicle axes it lands on the axis the mounting maps it to.
    sim::scenario_device imu = s.devices[0];
    imu.noise_counts = 0;
    auto imu_plain = sim::make_device_model(imu, 1);
    auto imu_sensor = sim::make_device_model(imu, 1);
    auto imu_vehicle = sim::make_device_model(imu, 1);
    const auto bias_x = [](std::span<double> values, double) { values[0] += 0.5; };
    imu_sensor->thermal = bias_x;
    imu_sensor->thermal_in_sensor_axes = true;
    imu_vehicle->thermal = bias_x;
    int64_t r0[7], rs[7], rv[7];
    imu_plain->sample(v, 1.0, 1, r0);
    imu_sensor->sample(v, 1.0, 1, rs);
    imu_vehicle->sample(v, 1.0, 1, rv);
    EXPECT_NEAR(static_cast<double>(rs[0] - r0[0]), 0.5 / 0.002394202, 1.0);
    EXPECT_EQ(rs[1], r0[1]);
    EXPECT_EQ(rv[0], r0[0]); // vehicle x is sensor y on this board
    EXPECT_NEAR(static_cast<double>(rv[1] - r0[1]), 0.5 / 0.002394202, 1.0);

    baro.noise_counts = 20;
    auto noisy = sim::make_device_model(baro, 9);
    auto same = sim::make_device_model(baro, 9);
    auto other = sim::make_device_model(baro, 10);
    int64_t n1[2], n2[2], n3[2];
    noisy->sample(v, 1.0, 77, n1);
    same->sample(v, 1.0, 77, n2);
    other->sample(v, 1.0, 77, n3);
    EXPECT_EQ(n1[0], n2[0]);
    EXPECT_NE(n1[0], n3[0]);
    // Over many scans the noise has the configured spread.
    double sum = 0, squares = 0;
    for (uint64_t k = 0; k < 4000; k++) {
        noisy->sample(v, 1.0, k, n1);
        const double d = static_cast<double>(n1[0] - a[0]);
        sum += d;
        squares += d * d;
    }
    EXPECT_NEAR(sum / 4000, 0.0, 1.5);
    EXPECT_NEAR(std::sqrt(squares / 4000), 20.0, 1.5);

    sim::scenario_device flat = s.devices[0];
    flat.mount_matrix = {1, 0, 0, 1, 0, 0, 0, 0, 1};
    EXPECT_EQ(sim::make_device_model(flat, 1), nullptr) << "a singular mount matrix has no inverse";
}

// A unit's own drift replaces the inverse of the calibration files, which
// the plug-in reads: with the example set under the root, the IMU still
// reads S(T) truth + b(T) and the barometer its own bias; a device without
// a drift keeps the files' inverse. The list of phases repeats.
TEST(Scenario, UnitDriftIsTheScenariosNotTheFiles)
{
    test_root root;
    for (const char *file :
         {"/factory/flight_imu_thermal_bias", "/factory/flight_baro_thermal_bias", "/factory/flight_magneto_thermal_bias"})
        root.write(file, read_file(example("../calibration") + file));
    sim::scenario s;
    std::string error;
    ASSERT_EQ(sim::scenario_parse(R"(simulator = {
  repeat = 3;
  devices = (
    { kind = "imu"; name = "imu"; trigger = "imu-trig";
      drift = { temp-0 = 300.0;
                gyro-bias = ( [0.01, 0.001], [0.0], [-0.02, 0.0, 1.0e-4] );
                accel-scale = ( [1.1], [0.0], [0.0], [0.0], [1.0], [0.0], [0.05, 0.01], [0.0], [0.9] ); }; },
    { kind = "baro"; name = "baro"; trigger = "baro-trig"; drift = { temp-0 = 300; pressure-bias = [5, 2]; }; },
    { kind = "magneto"; name = "mag"; trigger = "mag-trig"; }
  );
  phases = ( { name = "hold"; duration = 1.0; }, { name = "turn"; duration = 0.5; roll-rate = 1.0; } );
};)",
                                  &s, &error),
              0)
        << error;
    ASSERT_EQ(s.phases.size(), 6u);
    EXPECT_EQ(s.phases[4].name, "hold");
    EXPECT_EQ(s.phases[5].roll_rate, 1.0);

    auto server = sim::iiod_server::start(s, {}, &error);
    ASSERT_TRUE(server) << error;
    ASSERT_EQ(sim::install_thermal_inverses(*server, s, &error), 0) << error;
    // accel x y z, gyro x y z at 310 K: x = 10.
    std::array<double, 6> imu{1.0, 2.0, 3.0, 0.5, 0.25, 0.125};
    server->model("imu")->thermal(imu, 310.0);
    const std::array<double, 6> expected{1.1, 2.0, (0.05 + 0.1) * 1.0 + 0.9 * 3.0, 0.5 + 0.02, 0.25,
                                         0.125 - 0.02 + 0.01};
    for (size_t i = 0; i < 6; i++)
        EXPECT_NEAR(imu[i], expected[i], 1e-12) << i;
    std::array<double, 1> pressure{1000.0};
    server->model("baro")->thermal(pressure, 310.0);
    EXPECT_NEAR(pressure[0], 1025.0, 1e-9);
    // No drift: the example file's inverse adds its bias, 3.52 - 0.084 x uT
    // on x with x = 310 - 318.15.
    std::array<double, 3> field{10.0, 0.0, 0.0};
    server->model("mag")->thermal(field, 310.0);
    EXPECT_NEAR(field[0], 10.0 + 3.52 + 0.084 * 8.15, 1e-9);
}

} // namespace
