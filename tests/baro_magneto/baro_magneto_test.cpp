// SPDX-License-Identifier: Apache-2.0
// The barometer and magnetometer modules against the virtual vehicle's
// devices, through genuine libiio. The vehicle is still and noiseless, so
// the raw counts, and hence the converted values, are known exactly.
#include <gmock/gmock.h>
#include <iio.h>
#include <sensors/baro_magneto.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "baro_magneto/polled_sensor.h"
#include "platform/sched_config.h"
#include "platform/shm_telemetry.h"
#include "support/device_fixture.h"

using ::testing::ElementsAre;
using namespace std::chrono_literals;

namespace {

using baro_ptr = std::unique_ptr<barometer_ctx, decltype(&barometer_destroy)>;
using magneto_ptr = std::unique_ptr<magneto_ctx, decltype(&magneto_destroy)>;

sim::scenario still_scenario()
{
    sim::scenario s;
    s.ambient_k = 298.15; // baro raw 2500 at 0.01 degree, magneto raw 0 (offset 200, 0.125 degree)
    // The standard atmosphere's altitude for 4 150 000 counts of 0.0244140625 Pa.
    s.ground_altitude_m = (1.0 - std::pow(4150000 * 0.0244140625 / 101325.0, 1.0 / 5.25588)) / 2.25577e-5;
    // Mounted as below, the sensor's axes see (0.01, 0.02, 0.03) gauss:
    // raw (10, 20, 24) at 0.001, 0.001 and 0.00125 gauss, that is (1, 2, 3) uT.
    s.earth_field_gauss = {-0.01, 0.02, -0.03};
    sim::scenario_device baro{sim::device_kind::baro, "orlune-lps22hb", "orlune-baro-trig", 75};
    sim::scenario_device magneto{sim::device_kind::magneto, "orlune-magneto", "orlune-magneto-trig", 100};
    magneto.mount_matrix = {-1, 0, 0, 0, 1, 0, 0, 0, -1};
    s.devices = {baro, magneto};
    s.phases = {{"hover", 1000.0}};
    return s;
}

class BaroMagnetoTest : public device_test {
protected:
    sim::scenario scenario() const override { return still_scenario(); }

    baro_ptr make_baro(sched_config *sched = nullptr)
    {
        return {barometer_new(&baro_config_, iio_.get(), sched, &baro_), barometer_destroy};
    }
    magneto_ptr make_magneto(sched_config *sched = nullptr)
    {
        return {magneto_new(&magneto_config_, iio_.get(), sched, &magneto_), magneto_destroy};
    }

    // Polls until a read stores a sample; its result.
    static int read_until_sample(const std::function<int()> &read)
    {
        const auto end = std::chrono::steady_clock::now() + 5s;
        int r = 0;
        while ((r = read()) == 0 && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(1ms);
        return r;
    }

    sensors_baro_config baro_config_{1, 0, "orlune-lps22hb", "orlune-baro-trig", 75};
    sensors_magneto_config magneto_config_{1, 0, "orlune-magneto", "orlune-magneto-trig", 0, {}, {1, 0, 0, 0, 1, 0, 0, 0, 1},
                                           50, 1};
    sensors_baro_data baro_{};
    sensors_magneto_data magneto_{};
};

TEST_F(BaroMagnetoTest, BarometerConvertsToPascalAndKelvinThenTakesOutTheBias)
{
    log_set_levels("info,baro=debug");
    baro_ptr baro = make_baro();
    ASSERT_TRUE(baro);
    // The single-precision 273.15 shows in the offset: 273.1499938964844 / 0.01.
    EXPECT_THAT(messages("baro"), ElementsAre("7 barometer pressure offset=0.000000 scale=0.024414",
                                              "7 barometer temperature offset=27314.999390 scale=0.010000"));
    ASSERT_EQ(barometer_start(baro.get()), 0);
    uint32_t mask = 0x40;
    EXPECT_GT(read_until_sample([&] { return barometer_read(baro.get(), &mask); }), 0);
    EXPECT_EQ(mask, 0x42u);
    EXPECT_EQ(baro_.pressure, 101318.359375f);
    EXPECT_EQ(baro_.temperature, 298.15f);
    EXPECT_EQ(baro_.flags, 3u);
    EXPECT_EQ(barometer_tlm_push(baro.get()), 0);
    EXPECT_EQ(barometer_stop(baro.get()), 0);
    baro.reset();

    // 12.5 + 0.5 x at x = 298.15 - 288.15 K: 17.5 Pa less.
    root_.write("/factory/flight_baro_thermal_bias",
                "Temp_0_K 288.15\nTemp_Min_Max_K 303.15 333.15\nPoly_Baro_bias_Pa_K 2 12.5 0.5\n");
    baro = make_baro();
    ASSERT_EQ(barometer_start(baro.get()), 0);
    EXPECT_GT(read_until_sample([&] { return barometer_read(baro.get(), &mask); }), 0);
    EXPECT_EQ(baro_.pressure, 101300.859375f);
}

TEST_F(BaroMagnetoTest, NoNewScanLeavesEverythingUntouched)
{
    baro_config_.sampling_frequency = 2;
    magneto_config_.sampling_frequency = 2;
    baro_ptr baro = make_baro();
    magneto_ptr magneto = make_magneto();
    ASSERT_EQ(barometer_start(baro.get()), 0);
    ASSERT_EQ(magneto_start(magneto.get()), 0);
    uint32_t mask = 0;
    ASSERT_GT(read_until_sample([&] { return barometer_read(baro.get(), &mask); }), 0);
    ASSERT_GT(read_until_sample([&] { return magneto_read(magneto.get(), &mask, 300.0f); }), 0);

    // The next scans are half a second away: both refills answer -EAGAIN.
    const sensors_baro_data baro_before = {1.0f, 2.0f, 0x10, 0, {3, 4}};
    const sensors_magneto_data magneto_before = {{5.0f, 6.0f, 7.0f}, 8.0f, {9, 10}};
    baro_ = baro_before;
    magneto_ = magneto_before;
    mask = 0x100;
    EXPECT_EQ(barometer_read(baro.get(), &mask), 0);
    EXPECT_EQ(magneto_read(magneto.get(), &mask, 300.0f), 0);
    EXPECT_EQ(mask, 0x100u);
    EXPECT_EQ(memcmp(&baro_, &baro_before, sizeof baro_), 0);
    EXPECT_EQ(memcmp(&magneto_, &magneto_before, sizeof magneto_), 0);
    // The flags keep what the host set and gain 0x3.
    ASSERT_GT(read_until_sample([&] { return barometer_read(baro.get(), &mask); }), 0);
    EXPECT_EQ(baro_.flags, 0x13u);
}

TEST_F(BaroMagnetoTest, SectionsHoldTwoSecondsAtTheConfiguredRate)
{
    const struct row {
        bool baro;
        int hz;
        uint32_t period_us, samples;
        long long device_hz; // the device's rate afterwards
    } rows[] = {
        {true, 75, 13333, 150, 75},
        {true, 25, 40000, 50, 25},
        {false, 0, 10000, 200, 100}, // the device keeps its own rate
        {false, 50, 20000, 100, 50},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(std::to_string(r.hz) + (r.baro ? " Hz baro" : " Hz magneto"));
        (r.baro ? baro_config_.sampling_frequency : magneto_config_.sampling_frequency) = r.hz;
        baro_ptr baro = r.baro ? make_baro() : baro_ptr(nullptr, barometer_destroy);
        magneto_ptr magneto = r.baro ? magneto_ptr(nullptr, magneto_destroy) : make_magneto();
        ASSERT_TRUE(baro || magneto);
        long long hz = 0;
        iio_device *device = iio_context_find_device(iio_.get(), r.baro ? "orlune-lps22hb" : "orlune-magneto");
        ASSERT_EQ(iio_device_attr_read_longlong(device, "sampling_frequency", &hz), 0);
        EXPECT_EQ(hz, r.device_hz);
        tlm_section_view view{};
        ASSERT_EQ(tlm_view_open(r.baro ? "sensors_barometer" : "sensors_magnetometer", &view), 0);
        EXPECT_EQ(view.period_us, r.period_us);
        EXPECT_EQ(view.sample_count, r.samples);
        tlm_view_close(&view);
    }
}

TEST_F(BaroMagnetoTest, FieldIsScaledRotatedThenCorrectedAtTheGivenTemperature)
{
    struct row {
        const char *what;
        bool from_device;
        float matrix[9];
        float temperature; // handed to the read
        float expected[3];
    };
    // Raw (1, 2, 3) uT on the sensor's axes; no calibration file.
    const row rows[] = {
        {"identity", false, {1, 0, 0, 0, 1, 0, 0, 0, 1}, 300, {1, 2, 3}},
        {"swap x and y, negate z", false, {0, 1, 0, 1, 0, 0, 0, 0, -1}, 300, {2, 1, -3}},
        {"device matrix", true, {}, 300, {-1, 2, -3}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        magneto_config_.matrix_from_device_tree = r.from_device;
        memcpy(magneto_config_.rotation_matrix, r.matrix, sizeof r.matrix);
        magneto_ptr magneto = make_magneto();
        ASSERT_EQ(magneto_start(magneto.get()), 0);
        uint32_t mask = 0x1;
        ASSERT_GT(read_until_sample([&] { return magneto_read(magneto.get(), &mask, r.temperature); }), 0);
        EXPECT_EQ(mask, 0x5u);
        EXPECT_THAT(magneto_.field, ElementsAre(r.expected[0], r.expected[1], r.expected[2]));
        EXPECT_EQ(magneto_.temperature, 298.15f);
        EXPECT_EQ(magneto_tlm_push(magneto.get()), 0);
        EXPECT_EQ(magneto_stop(magneto.get()), 0);
    }

    // x loses 5 - 0.2 (T - 300) uT on the vehicle's x axis, at the
    // temperature given, whatever the magnetometer's own (298.15 K), which
    // use-temperature off leaves as the host set it.
    root_.write("/factory/flight_magneto_thermal_bias",
                "Temp_0_K 300.0\nTemp_Min_Max_K 303.15 333.15\nPoly_MagX_bias_mG_K 2 50 -2\n");
    magneto_config_ = {1, 0, "orlune-magneto", "orlune-magneto-trig", 0, {}, {1, 0, 0, 0, 1, 0, 0, 0, 1}, 50, 0};
    magneto_.temperature = -1.0f;
    magneto_ptr magneto = make_magneto();
    ASSERT_EQ(magneto_start(magneto.get()), 0);
    for (auto [temperature, x] : {std::pair{310.0f, 1.0f - 3.0f}, {300.0f, 1.0f - 5.0f}, {0.0f, 1.0f - 65.0f}}) {
        uint32_t mask = 0;
        ASSERT_GT(read_until_sample([&] { return magneto_read(magneto.get(), &mask, temperature); }), 0);
        EXPECT_NEAR(magneto_.field[0], x, 1e-5) << temperature;
        EXPECT_EQ(magneto_.field[2], 3.0f);
    }
    EXPECT_EQ(magneto_.temperature, -1.0f);
}

TEST_F(BaroMagnetoTest, NullArgumentsAndHandles)
{
    EXPECT_FALSE(barometer_new(nullptr, iio_.get(), nullptr, &baro_));
    EXPECT_FALSE(barometer_new(&baro_config_, nullptr, nullptr, &baro_));
    EXPECT_FALSE(barometer_new(&baro_config_, iio_.get(), nullptr, nullptr));
    EXPECT_FALSE(magneto_new(nullptr, iio_.get(), nullptr, &magneto_));
    EXPECT_FALSE(magneto_new(&magneto_config_, nullptr, nullptr, &magneto_));
    EXPECT_FALSE(magneto_new(&magneto_config_, iio_.get(), nullptr, nullptr));
    uint32_t mask = 0;
    for (int r : {barometer_start(nullptr), barometer_stop(nullptr), barometer_read(nullptr, &mask),
                  barometer_tlm_push(nullptr), magneto_start(nullptr), magneto_stop(nullptr),
                  magneto_read(nullptr, &mask, 0.0f), magneto_tlm_push(nullptr)})
        EXPECT_EQ(r, -EINVAL);
    barometer_destroy(nullptr);
    magneto_destroy(nullptr);
    EXPECT_EQ(magneto_read(make_magneto().get(), nullptr, 0.0f), -EINVAL);
    for (const log_record &r : cap_.take())
        EXPECT_TRUE(r.tag != "baro" && r.tag != "magneto") << r.text;
}

// Every way creation can fail, with the message it leaves under the module's
// tag (none where iio_helper has already said what is missing); each leaves
// nothing behind.
TEST_F(BaroMagnetoTest, CreationFailures)
{
    sched_config *none = sched_config_new();
    sched_config *device_only = sched_config_new();
    sched_entry e{};
    ASSERT_EQ(sched_config_parse_line("magnetometer other 0 - self", &e), 0);
    ASSERT_EQ(sched_config_add(device_only, e), 0);
    const char *bad_calib = "Temp_0_K warm\n";
    const struct row {
        bool baro;
        std::function<void()> arrange;
        const char *message; // null: none
        sched_config *sched = nullptr;
    } rows[] = {
        {true, [&] { baro_config_.sampling_frequency = 0; },
         "3 invalid barometer sampling-frequency 0: must be positive"},
        {true, [&] { baro_config_.sampling_frequency = -75; },
         "3 invalid barometer sampling-frequency -75: must be positive"},
        {true, [&] { baro_config_.device = "missing"; }, nullptr},
        {true, [&] { baro_config_.trigger = "missing"; }, nullptr},
        {true, [&] { baro_config_.device = "orlune-magneto"; }, nullptr}, // no pressure0
        {true, [&] { baro_config_.sampling_frequency = 2000000; },
         "3 orlune-lps22hb: can't set barometer sampling frequency: Invalid argument"},
        {true, [] {}, "3 can't reconfigure thread orlune-lps22hb: No such file or directory", none},
        {true, [&] { root_.write("/factory/flight_baro_thermal_bias", bad_calib); }, "3 can't init calibration"},
        {true, [&] { failpoint_arm("shm_producer_create", -ENOMEM); }, "3 failed to create sensors_barometer tlm"},
        {true, [&] { failpoint_arm("shm_producer_register_struct", -ENOMEM); },
         "3 barometer_new:L: failed to register tlm baro struct err=12(Cannot allocate memory)"},
        {true, [&] { failpoint_arm("shm_producer_complete", -EACCES); },
         "3 barometer_new:L: producer_complete err=13(Permission denied)"},
        // The device refuses a negative rate, and says so through the write.
        {false, [&] { magneto_config_.sampling_frequency = -1; },
         "3 magneto_new:L: can't set magneto sampling frequency to -1 err=22(Invalid argument)"},
        {false, [&] { magneto_config_.device = "missing"; }, nullptr},
        {false, [&] { magneto_config_.trigger = "missing"; }, nullptr},
        {false, [&] { magneto_config_.sampling_frequency = 2000000; },
         "3 magneto_new:L: can't set magneto sampling frequency to 2000000 err=22(Invalid argument)"},
        // The highest rate the device takes has a whole microsecond's period,
        // but two seconds of it are more samples than a section holds.
        {false, [&] { magneto_config_.sampling_frequency = 1000000; }, "3 failed to create sensors_magnetometer tlm"},
        {false, [&] { magneto_config_.device = "orlune-lps22hb"; }, nullptr}, // no magn_x
        {false, [] {}, "3 orlune-magneto: can't reconfigure 'orlune-magneto' thread: No such file or directory", none},
        {false, [] {}, "3 orlune-magneto: can't reconfigure 'orlune-magneto-trig' thread: No such file or directory",
         device_only},
        {false, [&] { root_.write("/factory/flight_magneto_thermal_bias", bad_calib); }, "3 can't init calibration"},
        {false, [&] { failpoint_arm("shm_producer_create", -ENOMEM); }, "3 failed to create sensors_magnetometer tlm"},
        {false, [&] { failpoint_arm("shm_producer_register_struct", -ENOMEM); },
         "3 magneto_new:L: failed to register tlm magneto struct err=12(Cannot allocate memory)"},
        {false, [&] { failpoint_arm("shm_producer_complete", -EACCES); },
         "3 magneto_new:L: producer_complete err=13(Permission denied)"},
    };
    const sensors_baro_config good_baro = baro_config_;
    const sensors_magneto_config good_magneto = magneto_config_;
    for (const row &r : rows) {
        r.arrange();
        const bool made = r.baro ? bool(make_baro(r.sched)) : bool(make_magneto(r.sched));
        EXPECT_FALSE(made) << (r.message ? r.message : "");
        const auto texts = messages(r.baro ? "baro" : "magneto");
        EXPECT_EQ(texts, r.message ? std::vector<std::string>{r.message} : std::vector<std::string>{});
        baro_config_ = good_baro;
        magneto_config_ = good_magneto;
        failpoint_disarm_all();
        unlink(root_.at("/factory/flight_baro_thermal_bias").c_str());
        unlink(root_.at("/factory/flight_magneto_thermal_bias").c_str());
        tlm_section_view view{};
        EXPECT_EQ(tlm_view_open(r.baro ? "sensors_barometer" : "sensors_magnetometer", &view), -ENOENT);
    }
    // The devices were released each time: both can be made again.
    EXPECT_TRUE(make_baro() && make_magneto());
    sched_config_destroy(device_only);
    sched_config_destroy(none);
}

} // namespace

// Where a refill waits for the device's next scan (a board's iiod), a
// polled device is asked only when its next scan is about to come. Flown
// against a device whose scans arrive at their own pace on its own clock,
// and a cycle every 5 ms with jitter: every scan is taken, none later than
// the first cycle after it arrived (what asking every cycle of a server that
// answers at once gives), and a refill waits an eighth of a period or so,
// where asking every cycle would wait up to a period, also from a device
// that samples faster than it was told.
// A reader slower than the device, or a server that answers at once, is
// asked every cycle.
TEST(PolledDueGate, AsksAWaitingServerOnlyWhenTheNextScanIsAboutToCome)
{
    const struct row {
        const char *what;
        double rate_hz;      // the rate the gate is told
        double true_rate;    // the device's own, as a multiple of it
        double clock_s;      // the device's clock minus this machine's
        bool waits;          // a refill waits for the next scan
        int cycle_ms;        // the reader's cycle
        double mean_wait_ms; // a refill's mean wait, at most
    } rows[] = {
        {"barometer", 75, 1.0, 2.0, true, 5, 2.4},
        {"magnetometer", 100, 1.0, 0, true, 5, 1.9},
        {"a board's clock behind", 100, 1.0, -1000, true, 5, 1.9},
        {"a twentieth faster than its rate", 75, 1.05, 0, true, 5, 1.6},
        {"a tenth slower", 75, 0.9, 0, true, 5, 3.9},
        {"a quarter faster than its rate", 75, 1.25, 0, true, 5, 2.4},
        {"a reader slower than the device", 75, 1.0, 0, true, 20, 0},
        {"a server that answers at once", 75, 1.0, 0, false, 5, 0},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        const int64_t period = int64_t(1e9 / r.rate_hz);
        const int64_t true_period = int64_t(1e9 / (r.rate_hz * r.true_rate));
        const int64_t offset = int64_t(r.clock_s * 1e9);
        uint64_t lcg = 12345;
        const auto jitter = [&](int64_t range) { // uniform in [0, range)
            lcg = lcg * 6364136223846793005ULL + 1442695040888963407ULL;
            return int64_t((lcg >> 33) % uint64_t(range));
        };
        // Scan j is stamped on the device's clock and arrives here 0.2 to
        // 0.7 ms later.
        const size_t scans = 2000;
        std::vector<int64_t> stamp, arrival;
        for (size_t j = 0; j < scans; j++) {
            stamp.push_back(offset + 1'000'000'000 + int64_t(j) * true_period);
            arrival.push_back(stamp.back() - offset + 200'000 + jitter(500'000));
        }
        polled::due_gate gate{};
        gate.period_ns = gate.step_ns = period;
        size_t next = 0, asks = 0, warm = 0;
        int64_t waited = 0, now = 0;
        std::vector<int> taken(scans, -1);
        std::vector<int64_t> cycles;
        for (int c = 0; c < 20000 && next < scans && cycles.size() < 6000; c++) {
            cycles.push_back(1'000'000'000 + int64_t(c) * r.cycle_ms * 1'000'000 + jitter(300'000));
            // A refill that waits pushes the reader's clock on by its wait.
            now = std::max(now, cycles.back());
            if (!polled::gate_open(gate, now))
                continue;
            asks++;
            if (arrival[next] > now) {
                if (!r.waits) {
                    polled::gate_empty(&gate);
                    continue;
                }
                // Until the gate is in force, each refill waits as long as it takes.
                if (polled::gate_in_force(gate))
                    waited += arrival[next] - now;
                else
                    warm++;
                now = arrival[next];
            }
            polled::gate_scan(&gate, stamp[next], now + 50'000);
            taken[next++] = c;
        }
        if (r.cycle_ms * r.rate_hz > 1000) {
            // Behind its device, the reader takes a scan every cycle, as
            // by asking every cycle.
            EXPECT_EQ(asks, cycles.size()) << "asked every cycle";
            EXPECT_EQ(next, cycles.size()) << "a scan every cycle";
            EXPECT_FALSE(polled::gate_in_force(gate));
            continue;
        }
        for (size_t j = 0; j < next; j++) {
            const int first_after = int(std::lower_bound(cycles.begin(), cycles.end(), arrival[j]) - cycles.begin());
            ASSERT_LE(taken[j], first_after) << "scan " << j;
        }
        ASSERT_EQ(next, scans) << "every scan taken";
        if (r.waits) {
            EXPECT_EQ(asks, scans) << "each refill took a scan";
            EXPECT_LE(warm, 2 * polled::kPaceScans) << "refills before the gate came into force";
            EXPECT_LE(double(waited) / double(scans - warm) / 1e6, r.mean_wait_ms);
        } else {
            EXPECT_EQ(asks, cycles.size()) << "asked every cycle";
        }
    }
}
