// SPDX-License-Identifier: Apache-2.0
// orlune-host: a sensor host. Loads the plug-in, probes it, runs the
// acquisition loop (read, telemetry write) and shows what comes out.
#include <dlfcn.h>
#include <getopt.h>
#include <unistd.h>

#include <sensors/sensors.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host_log.h"
#include "host_motors.h"
#include "host_record.h"
#include "host_stats.h"
#include "host_view.h"
#include "platform/sched_config.h"
#include "platform/time_helpers.h"

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int)
{
    g_stop = true;
}

struct kind_name {
    const char *name;
    uint32_t bit;
};
constexpr kind_name kKinds[] = {
    {"magneto", SENSORS_KIND_MAGNETO},
    {"baro", SENSORS_KIND_BARO},
    {"imu", SENSORS_KIND_IMU},
    {"gps", SENSORS_KIND_GPS},
    {"bldc", SENSORS_KIND_BLDC},
    {"ultrasound", SENSORS_KIND_ULTRASOUND},
    {"battery", SENSORS_KIND_BATTERY},
    {"tof", SENSORS_KIND_TOF},
    {"carpet_detection", SENSORS_KIND_CARPET_DETECTION},
    {"vcam_position", SENSORS_KIND_VCAM_POSITION},
    {"vcam_optical_flow", SENSORS_KIND_VCAM_OPTICAL_FLOW},
    {"fcam_gimbal", SENSORS_KIND_FCAM_GIMBAL},
    {"fstcam_position", SENSORS_KIND_FSTCAM_POSITION},
    {"imu_vcam", SENSORS_KIND_IMU_VCAM},
};

struct options {
    std::string plugin = ORLUNE_DEFAULT_PLUGIN;
    uint32_t mask = SENSORS_KIND_ALL;
    double duration_s = 0;
    uint64_t max_cycles = 0;
    view_mode view = isatty(STDOUT_FILENO) ? view_mode::live : view_mode::lines;
    std::string log_file;
    std::vector<motor_step> motor_script;
    uint32_t activate = 0; // sensor kinds activated after start
    std::string record_file;
};

void usage(FILE *out)
{
    fprintf(out,
            "usage: orlune-host [options]\n"
            "  -p, --plugin PATH     plug-in library (default: %s)\n"
            "  -m, --mask KINDS      sensor kinds accepted at probe: a number (0x7) or names\n"
            "                        separated by commas (imu,baro,magneto); default: all\n"
            "  -d, --duration SEC    stop after SEC seconds (default: run until Ctrl-C)\n"
            "  -n, --cycles N        stop after N read cycles\n"
            "  -v, --view MODE       live, lines or none (default: live on a terminal, else lines)\n"
            "  -l, --log FILE        also write the plug-in's log to FILE\n"
            "  -M, --motors SCRIPT   motor commands at seconds after start, e.g.\n"
            "                        1:start,2.5:speeds=6000,4:speeds=5000/5000/6000/6000,6:stop\n"
            "                        (start, stop, stop=CODE, speeds=S or S0/S1/S2/S3, stall-on, stall-off);\n"
            "                        in the live view, keys send them too\n"
            "  -A, --activate KINDS  activate these kinds after start (carpet_detection is the one that acts);\n"
            "                        in the live view, the a key switches carpet detection\n"
            "  -r, --record FILE     write one CSV row per successful read to FILE (docs/recording.md)\n"
            "  -h, --help            this text\n"
            "kinds:",
            ORLUNE_DEFAULT_PLUGIN);
    for (const kind_name &k : kKinds)
        fprintf(out, " %s", k.name);
    fprintf(out, "\n");
}

bool parse_mask(const char *text, uint32_t *mask)
{
    char *end;
    unsigned long v = strtoul(text, &end, 0);
    if (*text && !*end) {
        *mask = uint32_t(v);
        return true;
    }
    uint32_t m = 0;
    std::string s = text;
    size_t pos = 0;
    while (pos <= s.size()) {
        size_t comma = s.find(',', pos);
        std::string item = s.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        bool found = false;
        for (const kind_name &k : kKinds)
            if (item == k.name) {
                m |= k.bit;
                found = true;
            }
        if (!found)
            return false;
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    *mask = m;
    return true;
}

bool parse_options(int argc, char **argv, options *o)
{
    static const option kLong[] = {
        {"plugin", required_argument, nullptr, 'p'}, {"mask", required_argument, nullptr, 'm'},
        {"duration", required_argument, nullptr, 'd'}, {"cycles", required_argument, nullptr, 'n'},
        {"view", required_argument, nullptr, 'v'}, {"log", required_argument, nullptr, 'l'},
        {"motors", required_argument, nullptr, 'M'}, {"activate", required_argument, nullptr, 'A'},
        {"record", required_argument, nullptr, 'r'}, {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "p:m:d:n:v:l:M:A:r:h", kLong, nullptr)) != -1) {
        switch (c) {
        case 'p':
            o->plugin = optarg;
            break;
        case 'm':
            if (!parse_mask(optarg, &o->mask)) {
                fprintf(stderr, "orlune-host: unknown sensor kind in '%s'\n", optarg);
                return false;
            }
            break;
        case 'd':
            o->duration_s = atof(optarg);
            break;
        case 'n':
            o->max_cycles = strtoull(optarg, nullptr, 10);
            break;
        case 'v':
            if (strcmp(optarg, "live") == 0)
                o->view = view_mode::live;
            else if (strcmp(optarg, "lines") == 0)
                o->view = view_mode::lines;
            else if (strcmp(optarg, "none") == 0)
                o->view = view_mode::none;
            else {
                fprintf(stderr, "orlune-host: unknown view '%s'\n", optarg);
                return false;
            }
            break;
        case 'l':
            o->log_file = optarg;
            break;
        case 'M': {
            std::string error;
            if (!parse_motor_script(optarg, &o->motor_script, &error)) {
                fprintf(stderr, "orlune-host: %s\n", error.c_str());
                return false;
            }
            break;
        }
        case 'A':
            if (!parse_mask(optarg, &o->activate)) {
                fprintf(stderr, "orlune-host: unknown sensor kind in '%s'\n", optarg);
                return false;
            }
            break;
        case 'r':
            o->record_file = optarg;
            break;
        case 'h':
            usage(stdout);
            exit(0);
        default:
            usage(stderr);
            return false;
        }
    }
    return true;
}

double seconds_since(const timespec &start)
{
    timespec now, d;
    monotonic_now(&now);
    timespec_diff(&now, &start, &d);
    return double(d.tv_sec) + double(d.tv_nsec) / 1e9;
}

const char *probe_hint(int err)
{
    switch (-err) {
    case EINVAL:
        return "no usable sensor configuration: set LIBVIGIL_CFG_PATH to a configuration file, or ro.hardware "
               "(and ro.revision) in the properties file so that /etc/sensors/<hardware>.cfg is found";
    case EIO:
        return "a device could not be opened: is the IIO server running and IIOD_REMOTE set "
               "(IIOD_REMOTE=ip:127.0.0.1:PORT for orlune-sim), and do the configured device names exist?";
    case EOPNOTSUPP:
        return "the probe header was refused";
    default:
        return "see the plug-in's messages above";
    }
}

// A read that fails with one of these has lost its IIO server for good: the
// network backend does not reconnect a context, so every later read would
// fail the same way. The host then starts the plug-in afresh.
bool connection_lost(int err)
{
    switch (-err) {
    case EPIPE:
    case ECONNRESET:
    case ENOTCONN:
    case ECONNREFUSED:
    case ESHUTDOWN:
        return true;
    default:
        return false;
    }
}

constexpr double kReprobeDelayS = 1.0; // between two attempts to start again

// The scheduling table's entry for the acquisition loop (this thread).
constexpr const char *kHostSchedName = "host";

// Makes this thread, which runs the acquisition loop, what the table's
// "host" entry says, and locks the memory: the threads the host starts
// afterwards (the reader of the plug-in's log, which the loop's log lines
// wait for when its pipe is full) inherit the policy. A table whose entry
// the system refuses (no privilege, a refused policy) is not handed to the
// plug-in either, whose modules would fail their set-up on it: the host
// flies without real-time priorities and *said says so. Returns what is in
// force, for the view and the summary.
std::string enter_realtime(sched_config **table, std::string *said)
{
    char now[64];
    const int r = *table ? sched_config_apply(*table, kHostSchedName) : -ENOENT;
    sched_describe_self(now, sizeof now);
    if (!*table)
        return std::string(now) + " (no scheduling table)";
    if (r == -ENOENT) {
        *said = std::string("orlune-host: the scheduling table has no \"host\" entry: the acquisition loop runs as ") +
                now;
        return std::string(now) + " (the table has no \"host\" entry)";
    }
    if (r < 0) {
        sched_config_destroy(*table);
        *table = nullptr;
        *said = std::string("orlune-host: running without real-time priorities: the scheduling table's \"host\" "
                            "entry was refused (") +
                strerror(-r) + "), so the table is not applied";
        return std::string(now) + " (without real-time priorities: " + strerror(-r) + ")";
    }
    char in_force[128];
    sched_lock_memory_and_describe(in_force, sizeof in_force);
    *said = std::string("orlune-host: acquisition loop at ") + in_force;
    return in_force;
}

} // namespace

int main(int argc, char **argv)
{
    options opt;
    if (!parse_options(argc, argv, &opt))
        return 2;
    // Before anything is loaded: a recording that cannot be written is a
    // mistake in the command line.
    std::unique_ptr<host_record> record;
    if (!opt.record_file.empty()) {
        std::string error;
        if (!(record = host_record::open(opt.record_file, &error))) {
            fprintf(stderr, "orlune-host: %s\n", error.c_str());
            return 2;
        }
    }
    // A lost IIO server must surface as a failed call, not kill the host.
    signal(SIGPIPE, SIG_IGN);

    void *lib = dlopen(opt.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "orlune-host: cannot load the plug-in '%s': %s\n", opt.plugin.c_str(), dlerror());
        return 2;
    }
    auto *driver = static_cast<const sensors_driver_table *>(dlsym(lib, SENSORS_DRIVER_SYMBOL));
    if (!driver || !driver->probe || !driver->read) {
        fprintf(stderr, "orlune-host: '%s' has no usable '%s' table: is it a sensors plug-in?\n", opt.plugin.c_str(),
                SENSORS_DRIVER_SYMBOL);
        dlclose(lib);
        return 2;
    }

    sched_config *sched = nullptr;
    if (sched_config_open_default(&sched) != 0) {
        fprintf(stderr, "orlune-host: the scheduling configuration could not be read (%s)\n", kSchedConfigEnv);
        dlclose(lib);
        return 2;
    }

    std::string said;
    const std::string scheduling = enter_realtime(&sched, &said);
    host_log log(opt.view != view_mode::live, opt.log_file);
    if (!said.empty())
        log.note(said);
    auto *data = static_cast<sensors_data *>(calloc(1, sizeof(sensors_data)));
    uint8_t spin_dir[64] = {};
    sensors_probe_header header{opt.mask, opt.mask};
    sensors_orlune_ctx *ctx = nullptr;

    int r = driver->probe(spin_dir, &ctx, sched, &header, data);
    if (r < 0) {
        log.stop();
        fprintf(stderr, "orlune-host: probe of '%s' failed: %s\n  %s\n", driver->name, strerror(-r), probe_hint(r));
        free(data);
        sched_config_destroy(sched);
        dlclose(lib);
        return 1;
    }
    r = driver->start(ctx);
    if (r < 0) {
        log.stop();
        fprintf(stderr, "orlune-host: start failed: %s\n", strerror(-r));
        driver->stop(ctx);
        driver->shutdown(ctx);
        free(data);
        sched_config_destroy(sched);
        dlclose(lib);
        return 1;
    }

    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    host_stats stats;
    timespec start, last_view;
    monotonic_now(&start);
    last_view = start;
    view_context view{opt.plugin, 0, data, &stats, &log};
    view.scheduling = scheduling;
    std::unique_ptr<key_reader> keys;
    if (opt.view == view_mode::live) {
        keys = std::make_unique<key_reader>();
        view.motor_keys = keys->active();
    }
    auto send_motor = [&](const sensors_motor_command &command) {
        if (!ctx) {
            view.motor_commands++;
            view.motor_failures++;
            log.note("orlune-host: motors " + motor_command_text(command) + ": the plug-in is restarting");
            return;
        }
        const int w = driver->write(&command, ctx);
        view.motor_commands++;
        if (w < 0)
            view.motor_failures++;
        log.note("orlune-host: motors " + motor_command_text(command) + (w < 0 ? std::string(": ") + strerror(-w) : ""));
    };
    // Carpet detection is switched by activate and deactivate while acquiring.
    bool carpet_on = false;
    auto switch_carpet = [&](bool on) {
        if (!ctx)
            return;
        const int a = on ? driver->activate(ctx, SENSORS_KIND_CARPET_DETECTION)
                         : driver->deactivate(ctx, SENSORS_KIND_CARPET_DETECTION);
        if (a == 0)
            carpet_on = on;
        log.note(std::string("orlune-host: carpet detection ") + (on ? "activated" : "deactivated") +
                 (a < 0 ? std::string(": ") + strerror(-a) : ""));
    };
    if (opt.activate) {
        const int a = driver->activate(ctx, opt.activate);
        if (a < 0)
            log.note(std::string("orlune-host: activate failed: ") + strerror(-a));
        else
            carpet_on = opt.activate & SENSORS_KIND_CARPET_DETECTION;
    }
    // After a lost connection: the plug-in is shut down, and probed and
    // started again every kReprobeDelayS until it acquires once more.
    unsigned restarts = 0;
    double next_probe_s = 0;
    auto restart = [&](double now_s) {
        if (now_s < next_probe_s)
            return;
        memset(data, 0, sizeof *data);
        int p = driver->probe(spin_dir, &ctx, sched, &header, data);
        if (p == 0 && (p = driver->start(ctx)) < 0) {
            driver->stop(ctx);
            driver->shutdown(ctx);
        }
        if (p < 0) {
            ctx = nullptr;
            next_probe_s = now_s + kReprobeDelayS;
            log.note(std::string("orlune-host: the plug-in did not start again: ") + strerror(-p) +
                     "; next attempt in 1 s");
            return;
        }
        log.note("orlune-host: the plug-in acquires again");
        if (opt.activate && driver->activate(ctx, opt.activate) < 0)
            log.note("orlune-host: activate failed after the restart");
        if (carpet_on && !(opt.activate & SENSORS_KIND_CARPET_DETECTION)) {
            carpet_on = false;
            switch_carpet(true);
        }
    };
    size_t next_step = 0;
    uint16_t key_speed = 0;
    int consecutive_failures = 0;
    while (!g_stop) {
        const double t = seconds_since(start);
        while (next_step < opt.motor_script.size() && opt.motor_script[next_step].at_s <= t)
            send_motor(opt.motor_script[next_step++].command);
        for (int key; keys && (key = keys->next()) >= 0;) {
            sensors_motor_command command;
            if (key == 'q')
                g_stop = true;
            else if (key == 'a')
                switch_carpet(!carpet_on);
            else if (motor_key(key, &key_speed, &command))
                send_motor(command);
        }
        if (!ctx) {
            restart(seconds_since(start));
            if (!ctx)
                usleep(10000);
        } else if ((r = driver->read(data, ctx)) < 0) {
            stats.read_failed(r);
            if (connection_lost(r)) {
                log.note(std::string("orlune-host: the IIO server's connection is lost (") + strerror(-r) +
                         "): restarting the plug-in");
                driver->stop(ctx);
                driver->shutdown(ctx);
                ctx = nullptr;
                restarts++;
                view.restarts = restarts;
                next_probe_s = seconds_since(start) + kReprobeDelayS;
            } else if (++consecutive_failures > 1) {
                // A read that fails at once must not spin the CPU.
                usleep(10000);
            }
        } else {
            // First thing after the return: the IMU batch's age is measured
            // against this time.
            timespec returned;
            monotonic_now(&returned);
            consecutive_failures = 0;
            if (record)
                record->row(returned, *data);
            stats.cycle(*data, returned);
            driver->tlm_write(ctx);
        }
        double since_view = seconds_since(last_view);
        if (since_view >= 0.25) {
            stats.update_rates(since_view);
            monotonic_now(&last_view);
            view.elapsed_s = seconds_since(start);
            view_refresh(opt.view, view);
        }
        if (opt.duration_s > 0 && seconds_since(start) >= opt.duration_s)
            break;
        if (opt.max_cycles && stats.cycles() + stats.failed_reads() >= opt.max_cycles)
            break;
    }
    view.elapsed_s = seconds_since(start);
    keys.reset();

    if (ctx) {
        driver->stop(ctx);
        driver->shutdown(ctx);
    }
    log.stop();
    view_summary(view);
    if (record) {
        if (record->flush())
            fprintf(stderr, "orlune-host: %llu rows recorded in %s\n", (unsigned long long)record->rows(),
                    opt.record_file.c_str());
        else
            fprintf(stderr, "orlune-host: writing the recording %s failed: %s\n", opt.record_file.c_str(),
                    strerror(errno));
        record.reset();
    }
    free(data);
    sched_config_destroy(sched);
    dlclose(lib);
    return 0;
}
