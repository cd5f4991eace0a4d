// SPDX-License-Identifier: Apache-2.0
// The plug-in's own cost per acquisition cycle against the virtual vehicle,
// and the batch rate a host reaches beside what iio_readdev pulls from the
// same simulated IMU (the transport's limit).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <iio.h>
#include <sensors/imu.h>
#include <sensors/sensors.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "driver/driver_ctx.h"
#include "platform/log.h"
#include "sim/iiod_server.h"

extern char **environ;

namespace {

// A plug-in probed and started on a simulated IMU at rate Hz in batches of 5,
// with its files in a private temporary directory.
class bench_vehicle {
public:
    explicit bench_vehicle(int rate)
    {
        dir_ = std::filesystem::temp_directory_path() / ("orlune-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir_);
        setenv("ORLUNE_ROOT", dir_.c_str(), 1);
        setenv("ORLUNE_TLM_DIR", (dir_ / "tlm").c_str(), 1);
        log_set_levels("error");

        sim::scenario s = sim::default_scenario();
        s.devices.resize(1);
        s.devices[0].sampling_frequency = rate;
        s.devices[0].rate_divider = 5;
        std::string error;
        server_ = sim::iiod_server::start(s, {}, &error);
        if (!server_)
            return;
        setenv("IIOD_REMOTE", server_->uri().c_str(), 1);

        std::string cfg = (dir_ / "sensors.cfg").string();
        std::ofstream(cfg) << "imu = { enabled = true; device = \"orlune-imu\"; trigger = \"orlune-imu-trig\";\n"
                              "  sampling-frequency = "
                           << rate
                           << "; sampling-rate-div = 5;\n"
                              "  temperature = { sensitivity = 326.8; offset = 25.0; };\n"
                              "  accelero_scale = 0.0047884; gyro_scale = 0.0010653; };\n"
                              "barometer = { enabled = false; }; bldc = { enabled = false; }; gps = { enabled = false; };\n"
                              "magnetometer = { enabled = false; }; battery = { enabled = false; };\n"
                              "ultrasound = { enabled = false; }; carpet_detection = { enabled = false; };\n"
                              "vcam_position = { enabled = false; }; fstcam_position = { enabled = false; };\n"
                              "vcam_optical_flow = { enabled = false; };\n";
        setenv("LIBVIGIL_CFG_PATH", cfg.c_str(), 1);
        sensors_probe_header header{SENSORS_KIND_ALL, SENSORS_KIND_ALL};
        if (sensors_driver.probe(nullptr, &ctx_, nullptr, &header, &data_) == 0 && sensors_driver.start(ctx_) == 0)
            ok_ = true;
    }
    ~bench_vehicle()
    {
        if (ctx_) {
            sensors_driver.stop(ctx_);
            sensors_driver.shutdown(ctx_);
        }
        server_.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    bool ok() const { return ok_; }
    sensors_orlune_ctx *ctx() { return ctx_; }
    sensors_data &data() { return data_; }
    std::string uri() const { return server_->uri(); }

private:
    std::filesystem::path dir_;
    std::unique_ptr<sim::iiod_server> server_;
    sensors_orlune_ctx *ctx_ = nullptr;
    sensors_data data_{};
    bool ok_ = false;
};

// Converting, rotating and calibrating one batch of five samples.
void BM_ImuRead(benchmark::State &state)
{
    bench_vehicle v(1000);
    if (!v.ok() || imu_wait(v.ctx()->imu) != 0) {
        state.SkipWithError("no vehicle");
        return;
    }
    uint32_t mask = 0;
    for (auto _ : state)
        imu_read(v.ctx()->imu, &mask); // the same raw batch again: no wait
    benchmark::DoNotOptimize(mask);
}
BENCHMARK(BM_ImuRead);

// Telemetry write after an IMU cycle: one sample into "sensors_imu".
void BM_TlmWrite(benchmark::State &state)
{
    bench_vehicle v(1000);
    if (!v.ok() || sensors_driver.read(&v.data(), v.ctx()) != 0) {
        state.SkipWithError("no vehicle");
        return;
    }
    for (auto _ : state)
        sensors_driver.tlm_write(v.ctx());
}
BENCHMARK(BM_TlmWrite);

// The frame's own steps of read around the IMU (polls, battery fallback).
void BM_FrameReadWithoutImu(benchmark::State &state)
{
    bench_vehicle v(1000);
    if (!v.ok()) {
        state.SkipWithError("no vehicle");
        return;
    }
    v.ctx()->config->imu.enabled = 0;
    for (auto _ : state)
        sensors_driver.read(&v.data(), v.ctx());
    v.ctx()->config->imu.enabled = 1;
}
BENCHMARK(BM_FrameReadWithoutImu);

double seconds_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// A host's loop (read, telemetry write) and iio_readdev on the same simulated
// IMU, which runs at 100 kHz in batches of 5 so that the transport sets the
// pace. Reported: scans per second of each and their ratio.
void BM_HostVersusReaddev(benchmark::State &state)
{
    constexpr long kScans = 50000;
    for (auto _ : state) {
        double host_rate = 0;
        std::string uri;
        {
            bench_vehicle v(100000);
            if (!v.ok()) {
                state.SkipWithError("no vehicle");
                return;
            }
            uri = v.uri();
            long scans = 0;
            auto start = std::chrono::steady_clock::now();
            while (scans < kScans) {
                if (sensors_driver.read(&v.data(), v.ctx()) != 0) {
                    state.SkipWithError("read failed");
                    return;
                }
                sensors_driver.tlm_write(v.ctx());
                scans += v.data().imu.nb_samples;
            }
            host_rate = double(scans) / seconds_since(start);
        }

        sim::scenario s = sim::default_scenario();
        s.devices.resize(1);
        s.devices[0].sampling_frequency = 100000;
        s.devices[0].rate_divider = 5;
        std::string error;
        auto server = sim::iiod_server::start(s, {}, &error);
        uri = server->uri();
        const std::string count = std::to_string(kScans);
        const char *argv[] = {"/usr/bin/iio_readdev", "-u", uri.c_str(), "-t", "orlune-imu-trig", "-b", "5", "-s",
                              count.c_str(), "orlune-imu", nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        pid_t pid;
        auto start = std::chrono::steady_clock::now();
        if (posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char **>(argv), environ) != 0) {
            state.SkipWithError("iio_readdev cannot be started");
            return;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        double readdev_rate = double(kScans) / seconds_since(start);
        posix_spawn_file_actions_destroy(&actions);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("iio_readdev failed");
            return;
        }
        state.counters["host_scans_per_s"] = host_rate;
        state.counters["readdev_scans_per_s"] = readdev_rate;
        state.counters["host_over_readdev"] = host_rate / readdev_rate;
    }
}
BENCHMARK(BM_HostVersusReaddev)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

BENCHMARK_MAIN();
