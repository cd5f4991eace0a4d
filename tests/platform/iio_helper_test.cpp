// SPDX-License-Identifier: Apache-2.0
// iio_helper over the genuine libiio network backend, against the virtual
// vehicle's iiod server started in this process on an ephemeral port.
#include "platform/iio_helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/telemetry_test_util.h"
#include "sim/iiod_server.h"
#include "support/alloc_counter.h"
#include "support/sim_iio.h"
#include "support/test_env.h"

namespace {

constexpr std::array<const char *, 8> kImuChannels{"accel_x",   "accel_y",   "accel_z", "anglvel_x",
                                                   "anglvel_y", "anglvel_z", "temp0",   "timestamp"};

class IioHelper : public ::testing::Test {
protected:
    void start(sim::scenario s = sim::default_scenario())
    {
        s.faults.clear();
        ASSERT_EQ(connect_sim(s, &server_, &ctx_), "") << "errno " << errno;
    }
    void SetUp() override { start(); }
    void TearDown() override
    {
        device_deinit(imu_, imu_trigger_, imu_buffer_);
        ctx_.reset();
        server_.reset();
        unsetenv("IIOD_REMOTE");
    }

    // The IMU as the IMU module sets it up: batches of five, blocking.
    void open_imu()
    {
        imu_ = device_init(ctx_.get(), "orlune-imu", 1);
        ASSERT_TRUE(imu_);
        imu_trigger_ = trigger_init(ctx_.get(), "orlune-imu-trig", imu_);
        ASSERT_TRUE(imu_trigger_);
        std::array<iio_channel_binding, 8> bindings;
        for (size_t i = 0; i < bindings.size(); i++)
            bindings[i] = {kImuChannels[i], &channels_[i]};
        imu_buffer_ = buffer_create(imu_, bindings.data(), bindings.size(), 25, 5, 1);
        ASSERT_TRUE(imu_buffer_);
        ASSERT_GE(device_enable(imu_, imu_trigger_, imu_buffer_), 0);
    }

    std::unique_ptr<sim::iiod_server> server_;
    iio_ptr ctx_;
    iio_device *imu_ = nullptr;
    iio_device *imu_trigger_ = nullptr;
    iio_buffer *imu_buffer_ = nullptr;
    std::array<iio_channel *, 8> channels_{};
};

TEST_F(IioHelper, DeviceInitFindsDevicesRequiresScanElementsAndTheMonotonicClock)
{
    struct row {
        const char *name;
        int buffered;
        bool found;
    };
    for (const row &r : {row{"orlune-imu", 1, true}, row{"orlune-lps22hb", 1, true}, row{"iio:device2", 1, true},
                         row{"orlune-imu-trig", 0, true}, row{"orlune-imu-trig", 1, false}, row{"orlune-gps", 0, false}})
        EXPECT_EQ(device_init(ctx_.get(), r.name, r.buffered) != nullptr, r.found) << r.name << " " << r.buffered;
    log_capture cap;
    EXPECT_EQ(device_init(ctx_.get(), "orlune-gps", 1), nullptr);
    EXPECT_EQ(cap.texts("iio_helper"), std::vector<std::string>{"IIO device orlune-gps not found"});

    // A streaming device stamps on the monotonic clock once set up, whatever
    // it used before (a kernel starts on realtime).
    iio_device *imu = iio_context_find_device(ctx_.get(), "orlune-imu");
    if (kernel_transport()) {
        ASSERT_GT(iio_device_attr_write(imu, "current_timestamp_clock", "realtime"), 0);
    }
    ASSERT_TRUE(device_init(ctx_.get(), "orlune-imu", 1));
    char clock[32] = "";
    ASSERT_GT(iio_device_attr_read(imu, "current_timestamp_clock", clock, sizeof clock), 0);
    EXPECT_EQ(std::string(clock, std::strcspn(clock, "\n")), "monotonic");
    // One whose clock nobody can choose is refused.
    const std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?><context name=\"xml\">"
                            "<device id=\"iio:device0\" name=\"old\"><channel id=\"timestamp\" type=\"input\">"
                            "<scan-element index=\"0\" format=\"le:s64/64&gt;&gt;0\" /></channel></device></context>";
    iio_ptr old{iio_create_xml_context_mem(xml.c_str(), xml.size())};
    ASSERT_TRUE(old);
    log_capture refused;
    EXPECT_EQ(device_init(old.get(), "old", 1), nullptr);
    EXPECT_EQ(refused.texts("iio_helper"),
              std::vector<std::string>{"IIO device old: no current_timestamp_clock: the clock of its timestamps is unknown"});
}

TEST_F(IioHelper, TriggerInitAttachesTheTriggerToTheDevice)
{
    iio_device *baro = device_init(ctx_.get(), "orlune-lps22hb", 1);
    ASSERT_TRUE(baro);
    // None attached reads as a kernel's empty current_trigger.
    const iio_device *current = baro;
    EXPECT_EQ(iio_device_get_trigger(baro, &current), -EIO);

    iio_device *trigger = trigger_init(ctx_.get(), "orlune-baro-trig", baro);
    ASSERT_TRUE(trigger);
    ASSERT_EQ(iio_device_get_trigger(baro, &current), 0);
    EXPECT_EQ(current, trigger);
    EXPECT_STREQ(iio_device_get_name(current), "orlune-baro-trig");

    // Without a device the trigger is only looked up (the motor controller's use).
    EXPECT_EQ(trigger_init(ctx_.get(), "orlune-imu-trig", nullptr), iio_context_find_device(ctx_.get(), "orlune-imu-trig"));
    EXPECT_EQ(trigger_init(ctx_.get(), "orlune-magneto", baro), nullptr); // a device, not a trigger
    EXPECT_EQ(trigger_init(ctx_.get(), "orlune-gps-trig", baro), nullptr);

    device_deinit(baro, trigger, nullptr);
    // Detached again. The sysfs stand-in's file holds the empty name as
    // libiio wrote it, where a kernel shows nothing.
    const int rc = iio_device_get_trigger(baro, &current);
    if (board_transport() && !kernel_transport()) {
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(current, nullptr);
    } else {
        EXPECT_EQ(rc, -EIO);
    }
}

TEST_F(IioHelper, AttrReadFindsScalesAndMountMatricesByFileName)
{
    iio_device *imu = device_init(ctx_.get(), "orlune-imu", 1);
    iio_device *baro = device_init(ctx_.get(), "orlune-lps22hb", 1);
    iio_device *magneto = device_init(ctx_.get(), "orlune-magneto", 1);
    // Several attributes in one call are read by the IMU batch test below.
    const struct {
        iio_device *device;
        const char *name;
        double expected;
    } values[] = {{imu, "in_anglvel_scale", 0.001065264},   {imu, "in_accel_scale", 0.002394202},
                  {imu, "in_temp0_scale", 0.002941176},     {imu, "in_temp0_offset", 12420},
                  {imu, "sampling_frequency", 1000},        {baro, "in_pressure0_scale", 0.0000244140625},
                  {baro, "in_temp1_scale", 10},             {magneto, "in_magn_z_scale", 0.00125}};
    double got = 0;
    for (const auto &v : values) {
        const iio_attr_double attr{v.name, &got};
        ASSERT_EQ(attr_read_doubles(v.device, &attr, 1), 0) << v.name;
        EXPECT_DOUBLE_EQ(got, v.expected) << v.name;
    }

    float imu_accel[9] = {}, imu_gyro[3][3] = {}, magneto_matrix[9] = {};
    ASSERT_EQ(attr_read_matrix(imu, "in_accel_mount_matrix", imu_accel), 0);
    ASSERT_EQ(attr_read_matrix(imu, "in_anglvel_mount_matrix", imu_gyro), 0);
    ASSERT_EQ(attr_read_matrix(magneto, "in_mount_matrix", magneto_matrix), 0);
    const float imu_expected[9] = {0, 1, 0, 1, 0, 0, 0, 0, -1};
    const float magneto_expected[9] = {-1, 0, 0, 0, 1, 0, 0, 0, -1};
    for (int i = 0; i < 9; i++) {
        EXPECT_EQ(imu_accel[i], imu_expected[i]) << i;
        EXPECT_EQ(imu_gyro[i / 3][i % 3], imu_expected[i]) << i;
        EXPECT_EQ(magneto_matrix[i], magneto_expected[i]) << i;
    }
    EXPECT_EQ(attr_read_matrix(baro, "in_mount_matrix", imu_accel), -ENOENT);

    // A missing file stops the list there: the IMU has no magnetometer scale.
    log_capture cap;
    double untouched = -1;
    const iio_attr_double missing[] = {{"in_accel_scale", &got}, {"in_magn_x_scale", &untouched}};
    EXPECT_EQ(attr_read_doubles(imu, missing, 2), -ENOENT);
    EXPECT_EQ(untouched, -1);
    EXPECT_EQ(cap.texts("iio_helper"), std::vector<std::string>{"orlune-imu: no attribute in_magn_x_scale"});
    EXPECT_EQ(attr_read_doubles(nullptr, missing, 2), -EINVAL);

    // A device tree that reports a scale of 0, or a value that is no finite
    // number: refused, so that no reading is ever divided by 0 or made NaN.
    sim::scenario odd = sim::default_scenario();
    odd.devices[0].attributes = {{"in_accel_scale", "0"}, {"in_anglvel_scale", "nan"}, {"in_temp0_offset", "inf"}};
    odd.devices[1].attributes = {{"in_temp1_scale", "-0.0"}, {"in_pressure0_scale", "-inf"}};
    ctx_.reset();
    start(odd);
    imu = device_init(ctx_.get(), "orlune-imu", 1);
    baro = device_init(ctx_.get(), "orlune-lps22hb", 1);
    struct row {
        iio_device *device;
        iio_attr_double attr;
        int result;
        const char *message;
    };
    double value = 0;
    for (const row &r : {row{imu, {"in_accel_scale", &value, true}, -EINVAL, "orlune-imu: in_accel_scale is 0, not a usable scale"},
                         row{imu, {"in_accel_scale", &value}, 0, nullptr}, // 0 is a value, not a scale
                         row{imu, {"in_anglvel_scale", &value, true}, -EINVAL, "orlune-imu: in_anglvel_scale is nan, not a usable scale"},
                         row{imu, {"in_temp0_offset", &value}, -EINVAL, "orlune-imu: in_temp0_offset is inf, not a usable value"},
                         row{baro, {"in_temp1_scale", &value, true}, -EINVAL, "orlune-lps22hb: in_temp1_scale is -0, not a usable scale"},
                         row{baro, {"in_pressure0_scale", &value, true}, -EINVAL, "orlune-lps22hb: in_pressure0_scale is -inf, not a usable scale"}}) {
        SCOPED_TRACE(r.attr.name);
        EXPECT_EQ(attr_read_doubles(r.device, &r.attr, 1), r.result);
        EXPECT_EQ(cap.texts("iio_helper"), r.message ? std::vector<std::string>{r.message} : std::vector<std::string>{});
    }
    odd.devices[1].attributes = {{"in_no_such_scale", "1"}};
    ctx_.reset();
    std::string error;
    EXPECT_FALSE(sim::iiod_server::start(odd, sim::server_options{}, &error));
    EXPECT_EQ(error, "orlune-lps22hb: no attribute in_no_such_scale to set");
}

TEST(IioHelperMatrix, ParsesNineNumbersInRowsAndRejectsAnythingElse)
{
    struct row {
        const char *text;
        int rc;
        std::array<float, 9> expected;
    };
    const row rows[] = {
        {"1, 0, 0; 0, 1, 0; 0, 0, 1", 0, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"0,1,0;1,0,0;0,0,-1\n", 0, {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"0.5, -0.866025, 0; 0.866025, 0.5, 0; 0, 0, 1", 0, {0.5f, -0.866025f, 0, 0.866025f, 0.5f, 0, 0, 0, 1}},
        {"1, 0, 0; 0, 1, 0; 0, 0", -EINVAL, {}},
        {"1, 0, 0, 0, 1, 0, 0, 0, 1", -EINVAL, {}},
        {"1; 0; 0; 0; 1; 0; 0; 0; 1", -EINVAL, {}},
        {"1, 0, 0; 0, 1, 0; 0, 0, 1; 4", -EINVAL, {}},
        {"a, 0, 0; 0, 1, 0; 0, 0, 1", -EINVAL, {}},
        // Every rotated reading would carry these.
        {"nan, 0, 0; 0, 1, 0; 0, 0, 1", -EINVAL, {}},
        {"1, 0, 0; 0, 1, 0; 0, 0, -inf", -EINVAL, {}},
        {"1e39, 0, 0; 0, 1, 0; 0, 0, 1", -EINVAL, {}},
        {"", -EINVAL, {}},
    };
    for (const row &r : rows) {
        std::array<float, 9> m;
        m.fill(7.0f);
        EXPECT_EQ(matrix_parse(r.text, m.data()), r.rc) << r.text;
        if (r.rc == 0) {
            EXPECT_EQ(m, r.expected) << r.text;
        } else {
            EXPECT_EQ(m[0], 7.0f) << "written on failure: " << r.text;
        }
    }
}

TEST(IioHelperRotate, MultipliesTheRowMajorMatrixWithTheColumnVector)
{
    struct row {
        std::array<float, 9> m;
        std::array<float, 3> in, out;
    };
    const row rows[] = {
        {{1, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 2, 3}, {1, 2, 3}},
        {{0, 1, 0, 1, 0, 0, 0, 0, -1}, {1, 2, 3}, {2, 1, -3}},
        {{0, -1, 0, 1, 0, 0, 0, 0, 1}, {1, 0, 0}, {0, 1, 0}}, // +90 degrees about z
        {{1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 1, 1}, {6, 15, 24}},
    };
    for (const row &r : rows) {
        std::array<float, 3> v = r.in;
        vector_rotate(v.data(), r.m.data());
        EXPECT_EQ(v, r.out);
    }
}

// One full IMU batch: five scans one period apart, whose values turned back
// into vehicle axes with the device's own scales and mount matrix are the
// vehicle's truth at their timestamps.
TEST_F(IioHelper, ImuBatchRecoversTheTruthThroughScalesAndMountMatrix)
{
    ASSERT_NO_FATAL_FAILURE(open_imu());
    double accel_scale = 0, gyro_scale = 0, temp_scale = 0, temp_offset = 0;
    const iio_attr_double attrs[] = {{"in_accel_scale", &accel_scale},
                                     {"in_anglvel_scale", &gyro_scale},
                                     {"in_temp0_scale", &temp_scale},
                                     {"in_temp0_offset", &temp_offset}};
    ASSERT_EQ(attr_read_doubles(imu_, attrs, 4), 0);
    float accel_m[9], gyro_m[9];
    ASSERT_EQ(attr_read_matrix(imu_, "in_accel_mount_matrix", accel_m), 0);
    ASSERT_EQ(attr_read_matrix(imu_, "in_anglvel_mount_matrix", gyro_m), 0);

    for (int batch = 0; batch < 3; batch++) {
        ASSERT_EQ(iio_buffer_refill(imu_buffer_), 5 * 24);
        EXPECT_EQ(iio_buffer_step(imu_buffer_), 24);
        const ptrdiff_t step = iio_buffer_step(imu_buffer_);
        const char *start = static_cast<const char *>(iio_buffer_first(imu_buffer_, channels_[0]));
        const char *end = static_cast<const char *>(iio_buffer_end(imu_buffer_));
        ptrdiff_t offset[8];
        for (int c = 0; c < 8; c++)
            offset[c] = static_cast<const char *>(iio_buffer_first(imu_buffer_, channels_[c])) - start;
        EXPECT_EQ(offset[6], 12);
        EXPECT_EQ(offset[7], 16);
        std::vector<int64_t> stamps;
        for (const char *scan = start; scan < end; scan += step) {
            auto at = [&](int channel) { return scan + offset[channel]; };
            float accel[3], gyro[3];
            for (int i = 0; i < 3; i++) {
                accel[i] = static_cast<float>(channel_convert_float(channels_[i], at(i)) * accel_scale);
                gyro[i] = static_cast<float>(channel_convert_float(channels_[3 + i], at(3 + i)) * gyro_scale);
            }
            vector_rotate(accel, accel_m);
            vector_rotate(gyro, gyro_m);
            const int64_t stamp = channel_convert_int(channels_[7], at(7));
            stamps.push_back(stamp);
            const double t = static_cast<double>(stamp - server_->epoch_ns()) / 1e9;
            const sim::truth truth = server_->truth().at(t);
            for (int i = 0; i < 3; i++) {
                EXPECT_NEAR(accel[i], truth.specific_force[i], 0.05) << "axis " << i;
                EXPECT_NEAR(gyro[i], truth.rates[i], 0.02) << "axis " << i;
            }
            const double temp_c = (channel_convert_float(channels_[6], at(6)) + temp_offset) * temp_scale;
            EXPECT_NEAR(temp_c + 273.15, server_->truth().die_temperature_k(sim::default_scenario().devices[0].warm, t),
                        0.01);
        }
        ASSERT_EQ(stamps.size(), 5u);
        for (size_t i = 1; i < stamps.size(); i++)
            EXPECT_EQ(stamps[i] - stamps[i - 1], 1000000) << "1000 Hz";
        timespec first{};
        ASSERT_EQ(buffer_first_timestamp(imu_buffer_, channels_[7], &first), 0);
        EXPECT_EQ(first.tv_sec * 1000000000LL + first.tv_nsec, stamps[0]);
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        EXPECT_LE(stamps.back(), now.tv_sec * 1000000000LL + now.tv_nsec) << "scans are not from the future";
    }

    // A board's device opens once: a second reader (a capture beside a
    // flying host) is refused, where iiod streams to each of its clients.
    // Its reads hand out whole scans only.
    if (board_transport()) {
        const std::string node = std::string("/dev/") + iio_device_get_id(imu_);
        errno = 0;
        const int fd = open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_EQ(fd, -1) << node;
        EXPECT_EQ(errno, EBUSY) << node;
        if (fd >= 0)
            close(fd);
        char byte;
        errno = 0;
        EXPECT_EQ(read(iio_buffer_get_poll_fd(imu_buffer_), &byte, 1), -1);
        EXPECT_EQ(errno, EINVAL);

        // Its attribute files judge a write at once: none for a name the
        // device does not have (EACCES), and no change of the scan while the
        // buffer runs (EBUSY).
        const std::string dir = std::string("/sys/bus/iio/devices/") + iio_device_get_id(imu_);
        auto write_file = [](const std::string &path, const char *text) {
            errno = 0;
            // As libiio writes an attribute.
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            const bool written = fd >= 0 && write(fd, text, strlen(text)) == ssize_t(strlen(text));
            const int err = written ? 0 : errno;
            if (fd >= 0)
                close(fd);
            return err;
        };
        EXPECT_EQ(write_file(dir + "/no_such_attribute", "1"), EACCES);
        EXPECT_EQ(write_file(dir + "/scan_elements/in_accel_x_en", "0"), EBUSY);
        EXPECT_EQ(iio_device_buffer_attr_write(imu_, "length", "8"), -EBUSY);
        EXPECT_EQ(iio_buffer_refill(imu_buffer_), 5 * 24) << "the stream runs on";
    }
}

TEST_F(IioHelper, AcquisitionCyclesAllocateNothing)
{
    if (!alloc_counting_available())
        GTEST_SKIP() << "the sanitizer owns the allocator";
    ASSERT_NO_FATAL_FAILURE(open_imu());
    ASSERT_EQ(iio_buffer_refill(imu_buffer_), 120);
    const float matrix[9] = {0, 1, 0, 1, 0, 0, 0, 0, -1};
    float sum = 0;
    long refill_allocations = 0;
    alloc_count conversions;
    conversions.pause();
    for (int cycle = 0; cycle < 100; cycle++) {
        alloc_count refill;
        const ssize_t r = iio_buffer_refill(imu_buffer_);
        refill_allocations += refill.value();
        if (r != 120)
            break;
        conversions.resume();
        float v[3] = {buffer_first_float(imu_buffer_, channels_[0]), buffer_first_float(imu_buffer_, channels_[1]),
                      buffer_first_float(imu_buffer_, channels_[2])};
        vector_rotate(v, matrix);
        timespec ts;
        buffer_first_timestamp(imu_buffer_, channels_[7], &ts);
        sum += v[2] + channel_convert_float(channels_[6], iio_buffer_first(imu_buffer_, channels_[6]));
        conversions.pause();
    }
    EXPECT_NE(sum, 0.0f);
    EXPECT_EQ(conversions.value(), 0) << "iio_helper's conversions";
    std::printf("libiio network refill: %ld allocations in 100 refills\n", refill_allocations);
}

TEST_F(IioHelper, PolledBarometerAnswersEagainUntilItsNextScan)
{
    sim::scenario s = sim::default_scenario();
    s.devices[1].sampling_frequency = 5; // 200 ms between scans
    TearDown();
    start(s);
    iio_device *baro = device_init(ctx_.get(), "orlune-lps22hb", 1);
    iio_device *trigger = trigger_init(ctx_.get(), "orlune-baro-trig", baro);
    iio_channel *pressure = nullptr, *temp = nullptr, *stamp = nullptr;
    const iio_channel_binding bindings[] = {{"pressure0", &pressure}, {"temp1", &temp}, {"timestamp", &stamp}};
    iio_buffer *buffer = buffer_create(baro, bindings, 3, 8, 1, 0);
    ASSERT_TRUE(buffer);
    ASSERT_GE(device_enable(baro, trigger, buffer), 0);

    ssize_t r = -EAGAIN;
    eventually([&] { return (r = iio_buffer_refill(buffer)) != -EAGAIN; }, std::chrono::seconds(2));
    ASSERT_EQ(r, 16);
    EXPECT_EQ(iio_buffer_refill(buffer), -EAGAIN) << "the next scan is 200 ms away";

    timespec ts{};
    ASSERT_EQ(buffer_first_timestamp(buffer, stamp, &ts), 0);
    const double t = static_cast<double>(ts.tv_sec * 1000000000LL + ts.tv_nsec - server_->epoch_ns()) / 1e9;
    const double pa = buffer_first_float(buffer, pressure) * 0.0000244140625 * 1000.0;
    EXPECT_NEAR(pa, server_->truth().at(t).pressure_pa, 2.0);
    const double kelvin = buffer_first_float(buffer, temp) * 10 / 1000.0 + 273.15;
    EXPECT_NEAR(kelvin, server_->truth().die_temperature_k(s.devices[1].warm, t), 0.01);
    device_deinit(baro, trigger, buffer);
}

TEST_F(IioHelper, BufferCreateRefusesUnknownChannelsAndStorageItCannotReadAndLeavesNoneEnabled)
{
    iio_device *imu = device_init(ctx_.get(), "orlune-imu", 1);
    iio_channel *a = nullptr, *b = nullptr;
    const iio_channel_binding bindings[] = {{"accel_x", &a}, {"magn_x", &b}};
    EXPECT_EQ(buffer_create(imu, bindings, 2, 8, 1, 1), nullptr);
    EXPECT_EQ(a, nullptr);
    EXPECT_FALSE(iio_channel_is_enabled(iio_device_find_channel(imu, "accel_x", false)));

    // A device tree may describe a channel with other storage than the
    // reader converts to: refused before anything is enabled.
    const std::pair<const char *, const char *> formats[] = {
        {"c16", "le:s16/16>>0"},     {"c32", "le:s16/32>>0"},     {"c24", "be:u24/24>>0"},
        {"twice", "le:s16/16X2>>0"}, {"wide", "le:s32/16>>0"},    {"far", "le:u8/16>>12"},
        {"none", "le:s0/16>>0"},     {"be12", "be:s12/16>>4"},    {"never", "le:s16/16X0>>0"},
        {"s32", "le:s32/32>>0"},     {"bytes12", "le:s12/14>>0"},
        // Plain formats, which a decoder converts inline.
        {"u12", "le:u12/16>>4"},     {"s12", "le:s12/16>>4"},     {"S12", "le:S12/16>>4"},
        {"u8", "le:u8/8>>0"},        {"s7", "le:s7/8>>1"},        {"s64", "le:s64/64>>0"},
        {"U32", "le:U32/32>>0"},     {"s24", "le:s24/32>>8"},     {"u1", "le:u1/8>>7"},
        {"u64", "le:u40/64>>3"},     {"w16", "le:u16/16>>0"},     {"s8", "le:s8/8>>0"},
        {"u32", "le:u32/32>>0"},     {"n64", "le:u64/64>>0"},     {"S8", "le:S8/8>>0"},
    };
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                      "<context name=\"xml\"><device id=\"iio:device0\" name=\"odd\">";
    for (size_t i = 0; i < std::size(formats); i++)
        xml += std::string("<channel id=\"") + formats[i].first + "\" type=\"input\"><scan-element index=\"" +
               std::to_string(i) + "\" format=\"" + formats[i].second + "\" /></channel>";
    xml += "</device></context>";
    iio_ptr odd{iio_create_xml_context_mem(xml.c_str(), xml.size())};
    ASSERT_TRUE(odd);
    iio_device *dev = iio_context_find_device(odd.get(), "odd");
    ASSERT_TRUE(dev);
    struct row {
        const char *channel;
        unsigned storage_bits;
        const char *message; // null: the format is accepted (the XML backend then makes no buffer)
    };
    for (const row &r : {row{"c16", 16, nullptr}, row{"c32", 0, nullptr},
                         row{"c32", 16, "odd: channel c32 has 32-bit storage, 16-bit expected"},
                         row{"c24", 0, "odd: channel c24 has 24-bit storage, 8, 16, 32 or 64 expected"},
                         row{"twice", 16, "odd: channel twice repeats its value 2 times in a scan, once expected"},
                         row{"never", 0, "odd: channel never repeats its value 0 times in a scan, once expected"},
                         // Value bits that, shifted into place, would not lie in the storage.
                         row{"wide", 0, "odd: channel wide has 32 value bits shifted by 0 in 16-bit storage"},
                         row{"far", 16, "odd: channel far has 8 value bits shifted by 12 in 16-bit storage"},
                         row{"none", 0, "odd: channel none has 0 value bits shifted by 0 in 16-bit storage"},
                         row{"be12", 16, nullptr}}) {
        SCOPED_TRACE(r.channel);
        log_capture cap;
        iio_channel *c = nullptr, *good = nullptr;
        const iio_channel_binding two[] = {{"c16", &good, 16}, {r.channel, &c, r.storage_bits}};
        EXPECT_EQ(buffer_create(dev, two, 2, 8, 1, 1), nullptr);
        const std::vector<std::string> texts = cap.texts("iio_helper");
        ASSERT_EQ(texts.size(), 1u);
        if (r.message)
            EXPECT_EQ(texts[0], r.message);
        else
            EXPECT_EQ(texts[0].rfind("odd: can't create buffer", 0), 0u) << texts[0];
        EXPECT_FALSE(iio_channel_is_enabled(iio_device_find_channel(dev, "c16", false)));
    }
    // Converting bits that lie outside the storage's whole bytes gives 0
    // rather than reaching outside the sample; the others are swapped,
    // shifted and sign-extended.
    const unsigned char sample[8] = {0x80, 0x10, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff};
    for (const auto &[id, value] : {std::pair<const char *, int64_t>{"wide", 0}, {"far", 0}, {"none", 0}, {"bytes12", 0},
                                    {"be12", -2047}, {"s32", -8449920}, {"c16", 4224}})
        EXPECT_EQ(channel_convert_int(iio_device_find_channel(dev, id, false), sample), value) << id;

    // A decoder gives what the general conversion gives, on every format,
    // inline for the plain ones.
    std::mt19937_64 random(7);
    for (const auto &[id, format] : formats) {
        SCOPED_TRACE(format);
        const iio_channel *c = iio_device_find_channel(dev, id, false);
        const channel_decoder d = channel_decoder_of(c);
        const std::string_view general[] = {"c24", "twice", "wide", "far", "none", "be12", "never", "bytes12"};
        EXPECT_EQ(d.bytes == 0, std::find(std::begin(general), std::end(general), id) != std::end(general));
        for (int i = 0; i < 200; i++) {
            uint64_t bytes[2] = {random(), random()};
            if (i < 8) // the extremes: all ones, all zeros, one bit
                bytes[0] = i == 0 ? ~0ull : i == 1 ? 0 : 1ull << (8 * i - 1);
            ASSERT_EQ(channel_decode(d, bytes), channel_convert_int(c, bytes)) << std::hex << bytes[0];
        }
    }
}

TEST_F(IioHelper, SeveralDevicesStreamAtOnce)
{
    ASSERT_NO_FATAL_FAILURE(open_imu());
    iio_device *magneto = device_init(ctx_.get(), "orlune-magneto", 1);
    iio_device *trigger = trigger_init(ctx_.get(), "orlune-magneto-trig", magneto);
    iio_channel *x = nullptr, *y = nullptr, *z = nullptr, *stamp = nullptr;
    const iio_channel_binding bindings[] = {{"magn_x", &x}, {"magn_y", &y}, {"magn_z", &z}, {"timestamp", &stamp}};
    iio_buffer *buffer = buffer_create(magneto, bindings, 4, 8, 1, 0);
    ASSERT_TRUE(buffer);
    ASSERT_GE(device_enable(magneto, trigger, buffer), 0);
    int magneto_scans = 0;
    for (int i = 0; i < 10; i++) { // 50 ms of IMU batches; the magnetometer runs at 100 Hz
        ASSERT_EQ(iio_buffer_refill(imu_buffer_), 120);
        const ssize_t r = iio_buffer_refill(buffer);
        ASSERT_TRUE(r == 16 || r == -EAGAIN) << r;
        magneto_scans += r == 16;
    }
    EXPECT_GE(magneto_scans, 3);
    device_deinit(magneto, trigger, buffer);
}

// Each fault of the stream reaches the caller once; the next refill brings
// a whole batch again, the connection in step.
TEST_F(IioHelper, StreamFaultsReachTheCallerOnceAndTheStreamResumesInStep)
{
    ASSERT_EQ(iio_context_set_timeout(ctx_.get(), 1000), 0); // the server answers within 500 ms
    ASSERT_NO_FATAL_FAILURE(open_imu());
    ASSERT_EQ(iio_buffer_refill(imu_buffer_), 120);
    ASSERT_EQ(server_->inject({0, sim::fault_kind::refill_error, "orlune-imu", EIO, 0, 1, 0}), 0);
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), -EIO);
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), 120);

    ASSERT_EQ(server_->inject({0, sim::fault_kind::short_batch, "orlune-imu", 0, 3, 1, 0}), 0);
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), 72);
    EXPECT_EQ(static_cast<const char *>(iio_buffer_end(imu_buffer_)) -
                  static_cast<const char *>(iio_buffer_start(imu_buffer_)),
              72);
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), 120);

    ASSERT_EQ(server_->inject({0, sim::fault_kind::stall, "orlune-imu", 0, 0, 1, 0.8}), 0);
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), -ETIMEDOUT) << "not -EPIPE: the client did not give up";
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), 120);

    ASSERT_GE(device_disable(imu_, imu_trigger_), 0);
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), -ETIMEDOUT);
    EXPECT_GT(device_enable(imu_, imu_trigger_, imu_buffer_), 0) << "the byte count of the enable write";
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), 120);

    EXPECT_EQ(server_->inject({0, sim::fault_kind::stall, "orlune-gps", 0, 0, 1, 1.0}), -ENODEV);
    EXPECT_EQ(device_enable(nullptr, imu_trigger_, imu_buffer_), -EINVAL);
    EXPECT_EQ(device_disable(nullptr, imu_trigger_), -EINVAL);
}

TEST_F(IioHelper, ServerDisconnectFailsTheRefillAndANewContextWorksAfterRestart)
{
    // libiio writes to the dead socket when the buffer is destroyed: a host
    // must ignore SIGPIPE to survive a lost iiod.
    std::signal(SIGPIPE, SIG_IGN);
    ASSERT_NO_FATAL_FAILURE(open_imu());
    ASSERT_EQ(iio_buffer_refill(imu_buffer_), 120);
    ASSERT_EQ(server_->inject({0, sim::fault_kind::disconnect, "", 0, 0, 1, 0.3}), 0);
    // A board's kernel hands out the batches it had queued before the
    // refill fails; the network has none.
    int queued = 0;
    ssize_t refill;
    while ((refill = iio_buffer_refill(imu_buffer_)) > 0 && queued < 64)
        queued++;
    EXPECT_LT(refill, 0);
    if (!board_transport()) {
        EXPECT_EQ(queued, 0);
    }
    device_deinit(imu_, imu_trigger_, imu_buffer_);
    imu_ = imu_trigger_ = nullptr;
    imu_buffer_ = nullptr;
    ctx_.reset();

    ASSERT_TRUE(eventually([&] {
        ctx_.reset(iio_create_default_context());
        return bool(ctx_);
    }, std::chrono::seconds(3))) << "the server listens again on the same port";
    ASSERT_NO_FATAL_FAILURE(open_imu());
    EXPECT_EQ(iio_buffer_refill(imu_buffer_), 120);
}

} // namespace
