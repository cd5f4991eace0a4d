// SPDX-License-Identifier: Apache-2.0
#include "soak_schedule.h"

#include <sensors/data.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>

namespace soak {
namespace {

// Every bit an acquisition cycle sets when its sensor has news: after the
// IMU was silent (stall, lost server) each of them must come back.
constexpr uint32_t kCycleBits = SENSORS_UPDATED_IMU | SENSORS_UPDATED_BARO | SENSORS_UPDATED_MAGNETO |
                                SENSORS_UPDATED_MOTORS | SENSORS_UPDATED_US | SENSORS_UPDATED_GPS |
                                SENSORS_UPDATED_VISION_POSITION | SENSORS_UPDATED_OPTICAL_FLOW |
                                SENSORS_UPDATED_FCAM_GIMBAL;
constexpr uint32_t kVisionBits =
    SENSORS_UPDATED_VISION_POSITION | SENSORS_UPDATED_OPTICAL_FLOW | SENSORS_UPDATED_FCAM_GIMBAL;

// Recovery bounds: one second covers a cycle's worth of every sensor (the
// slowest, the barometer at 75 Hz and vision at 30 Hz, deliver within 40 ms;
// the GPS position comes at 5 Hz). The GPS client retries its connection
// every 200 ms and the daemon sends at once. The pack is read once a second
// and its files are rewritten four times a second. A lost IIO server leaves
// the client a few seconds to notice and to open its buffers again.
constexpr std::array<fault_traits, kFaultTypes> kTraits{{
    {"imu-refill-error", true, 1.0, SENSORS_UPDATED_IMU, nullptr, nullptr},
    {"imu-short-batch", true, 1.0, SENSORS_UPDATED_IMU, nullptr, nullptr},
    {"baro-refill-error", false, 1.0, SENSORS_UPDATED_BARO, nullptr, nullptr},
    {"magneto-refill-error", false, 1.0, SENSORS_UPDATED_MAGNETO, nullptr, nullptr},
    {"imu-stall", true, 1.5, kCycleBits, nullptr, nullptr},
    {"motor-error", false, 1.0, SENSORS_UPDATED_MOTORS, "EVT:ESC;error_m", "motor\\([0-3]\\) error cleared"},
    {"server-restart", true, 5.0, kCycleBits, nullptr, nullptr},
    {"battery-removal", false, 2.5, 0, "EVT:SMARTBATTERY;event='absent'", "EVT:SMARTBATTERY;event='present'"},
    {"gps-restart", false, 2.0, SENSORS_UPDATED_GPS, "disconnected from gpsd", "connected to gpsd"},
    {"producer-restart", false, 1.0, kVisionBits, nullptr, nullptr},
    {"gimbal-stop", false, 1.0, SENSORS_UPDATED_FCAM_GIMBAL, "fcam_gimbal read failed", nullptr},
}};

// One cycle, in seconds from its start. The IIO faults come first, each
// after the previous one's recovery; the motors fly from 10 to 16 s and one
// of them fails at 13 s; the services' faults follow the server restart.
struct cycle_item {
    fault_type type;
    double at_s;
    double duration_s;
};
constexpr double kCycleS = 30.0;
constexpr double kFirstCycleS = 3.0; // after the host's start-up and first reads
constexpr std::array<cycle_item, kFaultTypes> kCycle{{
    {fault_type::imu_refill_error, 0.5, 0.0},
    {fault_type::imu_short_batch, 2.0, 0.0},
    {fault_type::baro_refill_error, 3.0, 0.0},
    {fault_type::magneto_refill_error, 3.5, 0.0},
    // Longer than the 2.5 s a refill waits before -ETIMEDOUT, shorter than
    // two of them: exactly one timed-out wait.
    {fault_type::imu_stall, 5.0, 3.5},
    {fault_type::motor_error, 13.0, 0.5},
    {fault_type::server_restart, 17.0, 2.0},
    {fault_type::battery_removal, 21.0, 3.0},
    {fault_type::gps_restart, 22.0, 1.5},
    {fault_type::producer_restart, 25.5, 0.0},
    // 2.5 s of failing reads, reported at most once a second: 3 reports.
    {fault_type::gimbal_stop, 27.0, 2.5},
}};
constexpr double kMotorStartS = 10.0;
constexpr double kMotorSpeedsS = 11.0;
constexpr double kMotorStopS = 16.0;
// The run ends this long after the last recovery bound it judges.
constexpr double kEndMarginS = 1.0;

std::string fmt(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", v);
    return text;
}

int count(const schedule &s, fault_type type)
{
    return int(std::count_if(s.windows.begin(), s.windows.end(), [&](const fault_window &w) { return w.type == type; }));
}

int count_motor(const schedule &s, int motor)
{
    return int(std::count_if(s.windows.begin(), s.windows.end(),
                             [&](const fault_window &w) { return w.type == fault_type::motor_error && w.motor == motor; }));
}

} // namespace

const fault_traits &traits(fault_type type)
{
    return kTraits[size_t(type) < kTraits.size() ? size_t(type) : 0];
}

bool fault_type_from_name(std::string_view name, fault_type *out)
{
    for (size_t i = 0; i < kTraits.size(); i++)
        if (name == kTraits[i].name) {
            *out = fault_type(i);
            return true;
        }
    return false;
}

schedule make_schedule(double duration_s, const std::vector<fault_type> &skip)
{
    schedule s;
    s.duration_s = duration_s;
    s.cycle_s = kCycleS;
    s.first_cycle_s = kFirstCycleS;
    const double last_judged = duration_s - kEndMarginS;
    for (int k = 0; kFirstCycleS + k * kCycleS < last_judged; k++) {
        const double base = kFirstCycleS + k * kCycleS;
        s.cycles = k + 1;
        for (const cycle_item &item : kCycle) {
            if (std::find(skip.begin(), skip.end(), item.type) != skip.end())
                continue;
            const double start = base + item.at_s;
            const double end = start + item.duration_s;
            if (end + traits(item.type).recover_s > last_judged)
                continue;
            if (item.type == fault_type::motor_error) {
                // The motors fly around the error and stop after it: the stop
                // must also end and bring the controller's flight time.
                if (base + kMotorStopS + traits(item.type).recover_s > last_judged)
                    continue;
                s.motors.push_back({base + kMotorStartS, "start"});
                s.motors.push_back({base + kMotorSpeedsS, "speeds=6000"});
                s.motors.push_back({base + kMotorStopS, "stop"});
            }
            s.windows.push_back({item.type, k, start, end, item.type == fault_type::motor_error ? k % 4 : -1});
        }
    }
    return s;
}

std::string scenario_text(const schedule &s)
{
    std::ostringstream iio, battery, gps, vision;
    for (const fault_window &w : s.windows) {
        const std::string at = "at = " + fmt(w.start_s) + "; ";
        const std::string lasting = "duration = " + fmt(w.end_s - w.start_s) + "; ";
        switch (w.type) {
        case fault_type::imu_refill_error:
            iio << "    { " << at << "kind = \"refill-error\"; device = \"orlune-imu\"; errno = 5; count = 2; },\n";
            break;
        case fault_type::imu_short_batch:
            iio << "    { " << at << "kind = \"short-batch\"; device = \"orlune-imu\"; scans = 3; count = 1; },\n";
            break;
        case fault_type::baro_refill_error:
            iio << "    { " << at << "kind = \"refill-error\"; device = \"orlune-lps22hb\"; errno = 5; count = 1; },\n";
            break;
        case fault_type::magneto_refill_error:
            iio << "    { " << at << "kind = \"refill-error\"; device = \"orlune-magneto\"; errno = 5; count = 1; },\n";
            break;
        case fault_type::imu_stall:
            iio << "    { " << at << "kind = \"stall\"; device = \"orlune-imu\"; " << lasting << "},\n";
            break;
        case fault_type::motor_error:
            iio << "    { " << at << "kind = \"motor-error\"; device = \"orlune-esc\"; motor = " << w.motor
                << "; code = 2; " << lasting << "},\n";
            break;
        case fault_type::server_restart:
            iio << "    { " << at << "kind = \"disconnect\"; " << lasting << "},\n";
            break;
        case fault_type::battery_removal:
            battery << "      { " << at << "kind = \"remove\"; },\n"
                    << "      { at = " << fmt(w.end_s) << "; kind = \"insert\"; },\n";
            break;
        case fault_type::gps_restart:
            gps << "      { " << at << "kind = \"restart\"; " << lasting << "},\n";
            break;
        case fault_type::producer_restart:
            vision << "      { " << at << "kind = \"restart\"; producer = \"all\"; },\n";
            break;
        case fault_type::gimbal_stop:
            vision << "      { " << at << "kind = \"stop\"; producer = \"gimbal\"; " << lasting << "},\n";
            break;
        }
    }
    // libconfig lists may not end with a comma: strip the last one.
    auto list = [](const std::ostringstream &items) {
        std::string text = items.str();
        const size_t comma = text.rfind(',');
        if (comma != std::string::npos)
            text.erase(comma, 1);
        return text;
    };
    std::ostringstream out;
    out << "# Generated by the soak runner: " << s.cycles << " fault cycle(s) of " << fmt(s.cycle_s)
        << " s from " << fmt(s.first_cycle_s) << " s, for a run of " << fmt(s.duration_s) << " s.\n"
        << "simulator = {\n"
           "  name = \"soak\";\n"
           "  seed = 11;\n"
           "  ground-altitude = 100.0;\n"
           "  devices = (\n"
           "    { kind = \"imu\"; name = \"orlune-imu\"; trigger = \"orlune-imu-trig\";\n"
           "      sampling-frequency = 1000; rate-divider = 5;\n"
           "      mount-matrix = [0.0, 1.0, 0.0, 1.0, 0.0, 0.0, 0.0, 0.0, -1.0];\n"
           "      noise = 2.0; warm-up-rise = 12.0; warm-up-time-constant = 90.0; },\n"
           "    { kind = \"baro\"; name = \"orlune-lps22hb\"; trigger = \"orlune-baro-trig\";\n"
           "      sampling-frequency = 75; noise = 20.0; warm-up-rise = 6.0; warm-up-time-constant = 120.0; },\n"
           "    { kind = \"magneto\"; name = \"orlune-magneto\"; trigger = \"orlune-magneto-trig\";\n"
           "      sampling-frequency = 100;\n"
           "      mount-matrix = [-1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, -1.0];\n"
           "      noise = 1.5; warm-up-rise = 4.0; warm-up-time-constant = 120.0; },\n"
           "    { kind = \"motors\"; name = \"orlune-esc\"; trigger = \"orlune-esc-trig\";\n"
           "      sampling-frequency = 200; supply-voltage = 12.6; flight-time = 3600; }\n"
           "  );\n"
           "  # Take off, climb to 3 m (within the ultrasound's range), turn, then hover.\n"
           "  phases = (\n"
           "    { name = \"ground\"; duration = 2.0; },\n"
           "    { name = \"climb\"; duration = 3.0; climb-rate = 1.0; },\n"
           "    { name = \"turn\"; duration = 6.0; yaw-rate = 0.3; },\n"
           "    { name = \"hover\"; duration = 1.0; }\n"
           "  );\n"
           "  faults = (\n"
        << list(iio)
        << "  );\n"
           "  battery = {\n"
           "    rate = 4.0;\n"
           "    events = (\n"
        << list(battery)
        << "    );\n"
           "  };\n"
           "  gps = {\n"
           "    faults = (\n"
        << list(gps)
        << "    );\n"
           "  };\n"
           "  ultrasound = { enabled = true; };\n"
           "  vision = {\n"
           "    faults = (\n"
        << list(vision)
        << "    );\n"
           "  };\n"
           "};\n";
    return out.str();
}

std::string motor_script(const schedule &s, double offset_s)
{
    std::string script;
    for (const motor_step &m : s.motors) {
        if (!script.empty())
            script += ",";
        script += fmt(std::max(0.0, m.at_s - offset_s)) + ":" + m.command;
    }
    return script;
}

std::vector<expected_message> expected_messages(const schedule &s)
{
    const int refill = count(s, fault_type::imu_refill_error);
    const int stalls = count(s, fault_type::imu_stall);
    const int removals = count(s, fault_type::battery_removal);
    const int gps = count(s, fault_type::gps_restart);
    const int restarts = count(s, fault_type::producer_restart);
    const int motor_errors = count(s, fault_type::motor_error);
    // A lost IIO server makes the host shut the plug-in down and probe it
    // again: every module is made afresh and says so once more.
    const int made = 1 + count(s, fault_type::server_restart);
    std::vector<expected_message> out = {
        {"battery start", "N battery: EVT:SMARTBATTERY;type='start';cell_voltage_0=\\d+;cell_voltage_1=\\d+$", made,
         made, "once each time the module is made (at probe, and again after each server restart)"},
        {"battery soh", "N battery: EVT:SMARTBATTERY;soh=96$", made, made,
         "first full read of each module; the pack's state of health never changes"},
        {"battery authenticated", "N battery: EVT:SMARTBATTERY;authenticated='yes'$", made, made,
         "first full read of each module; re-inserting the same pack changes nothing"},
        {"battery present", "N sensors_orlune: EVT:SMARTBATTERY;event='present'$", made + removals,
         made + removals, "first cycle of each probe, then once per re-insertion"},
        {"battery absent", "N sensors_orlune: EVT:SMARTBATTERY;event='absent'$", removals, removals,
         "once per removal"},
        {"esc first report", "N bldc: EVT:ESC;flight_time=\\d+;last_error='[a-z]+';device='orlune-esc'$", made, made,
         "first read of each module that gets a controller sample (after a motor error, last_error names it)"},
        {"esc flight time", "N bldc: EVT:ESC;flight_time=\\d+;device='orlune-esc'$", motor_errors, motor_errors,
         "once per stop request that ends"},
        {"esc error cleared", "I bldc: orlune-esc: motor\\([0-3]\\) error cleared$", motor_errors, motor_errors,
         "once per motor error, when the motor reports 0 again"},
        {"gps connected", "I gps: connected to gpsd$", made + gps, made + gps,
         "at each start of the plug-in, then after each daemon restart"},
        {"gps disconnected", "I gps: disconnected from gpsd$", gps, gps, "once per daemon restart"},
        {"imu refill error", "E sensors_orlune: imu wait failed: Input/output error$", 2 * refill, 2 * refill,
         "two refill errors per injection, one failed wait each"},
        {"imu refill error (imu)", "E imu: imu iio_buffer_refill\\(\\) failed : -5\\(Input/output error\\)$",
         2 * refill, 2 * refill, "as above, from the IMU module"},
        {"imu short batch", "W imu: samples count mismatch: nb_read:3, fifo_size:5$", count(s, fault_type::imu_short_batch),
         count(s, fault_type::imu_short_batch), "once per short batch"},
        {"baro refill error", "E sensors_orlune: barometer read failed: Input/output error$",
         count(s, fault_type::baro_refill_error), count(s, fault_type::baro_refill_error), "once per injection"},
        {"magneto refill error", "E sensors_orlune: magnetometer read failed: Input/output error$",
         count(s, fault_type::magneto_refill_error), count(s, fault_type::magneto_refill_error),
         "once per injection"},
        {"imu stall", "E sensors_orlune: imu wait failed: Connection timed out$", stalls, stalls,
         "one wait times out (2.5 s) during a 3.5 s stall"},
        {"imu stall (imu)", "E imu: imu iio_buffer_refill\\(\\) failed : -110\\(Connection timed out\\)$", stalls,
         stalls, "as above, from the IMU module"},
        // A restart removes the section and makes the new one at once; a
        // read that falls between the two finds nothing: at most one failure
        // per restart and reader.
        {"gimbal read failed", "fcam_gimbal read failed: ", 3 * count(s, fault_type::gimbal_stop),
         3 * count(s, fault_type::gimbal_stop) + restarts,
         "2.5 s of failures reported at most once a second: 3 per stop; a restart may add one"},
        {"vision position read failed", "E sensors_orlune: vcam_position read failed: ", 0, restarts,
         "only a read between a restart's close and reopen"},
        {"vision position read failed (module)", "E vision_position: vision_position_read:", 0, restarts, "as above, from the module"},
        {"optical flow unavailable", "W vision_optical_flow: Optical flow measure unavailable$", 0, restarts,
         "only a read between a restart's close and reopen"},
    };
    for (int m = 0; m < 4; m++) {
        const int n = count_motor(s, m);
        out.push_back({"esc error motor " + std::to_string(m),
                       "N bldc: EVT:ESC;error_m" + std::to_string(m) + "='stall';can_clear='yes';device='orlune-esc'$", n,
                       n, "once per error of this motor (it reports 0 in between)"});
    }
    return out;
}

} // namespace soak
