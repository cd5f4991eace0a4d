// SPDX-License-Identifier: Apache-2.0
// The soak's fault schedule: one cycle of about thirty seconds holding every
// kind of fault the virtual vehicle can inject, repeated to fill the run,
// turned into a scenario file for orlune-sim and a motor script for
// orlune-host, and kept as a list of windows that the checks judge the run
// against (which gaps are allowed where, what must come back and how fast,
// which messages each fault must produce).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace soak {

enum class fault_type {
    imu_refill_error,     // two IMU refills answer -EIO
    imu_short_batch,      // one IMU refill delivers 3 scans instead of 5
    baro_refill_error,    // one barometer refill answers -EIO
    magneto_refill_error, // one magnetometer refill answers -EIO
    imu_stall,            // the IMU trigger falls silent for longer than a refill's timeout
    motor_error,          // one spinning motor reports a stall
    server_restart,       // the IIO server drops every connection and listens again later
    battery_removal,      // the pack is pulled out, then put back
    gps_restart,          // the GPS daemon goes away and comes back
    producer_restart,     // every vision and gimbal producer remakes its section
    gimbal_stop,          // the gimbal section disappears for a while
};
inline constexpr size_t kFaultTypes = 11;

// What a fault must be followed by: these updated bits (all of them) and,
// when given, a log line matching after_end, within recover_s of the end of
// the window; a log line matching after_start within recover_s of its start.
struct fault_traits {
    const char *name;
    bool imu_gap_allowed; // the IMU may lose samples inside the window
    double recover_s;
    uint32_t bits;
    const char *after_start; // regular expression, or null
    const char *after_end;   // regular expression, or null
};
const fault_traits &traits(fault_type type);
// By name, as ORLUNE_SOAK_SKIP lists them; false for an unknown name.
bool fault_type_from_name(std::string_view name, fault_type *out);

// One injected fault, in scenario seconds (monotonic = SIM_EPOCH + seconds).
struct fault_window {
    fault_type type;
    int cycle;
    double start_s;
    double end_s;
    int motor = -1; // motor_error: the motor that fails
};

struct motor_step {
    double at_s; // scenario seconds
    std::string command; // start, speeds=6000, stop
};

struct schedule {
    double duration_s = 0;
    double cycle_s = 0;
    double first_cycle_s = 0; // scenario time at which the first cycle begins
    int cycles = 0;           // cycles begun (the last may be partial)
    std::vector<fault_window> windows;
    std::vector<motor_step> motors;
};

// The schedule of a run of duration_s seconds: cycles from first_cycle_s,
// every fault whose window and recovery time end before the run does, minus
// the skipped types.
schedule make_schedule(double duration_s, const std::vector<fault_type> &skip = {});

// The scenario file for orlune-sim: every device, a flight, the IIO faults,
// and the battery, GPS and vision groups with their own events.
std::string scenario_text(const schedule &s);

// The --motors script for orlune-host, whose times count from its own start,
// offset_s scenario seconds after the simulator's.
std::string motor_script(const schedule &s, double offset_s);

// A message the run must log, and how many times.
struct expected_message {
    std::string label;
    std::string pattern; // regular expression searched in the line's text
    int low;
    int high;
    std::string why;
};
std::vector<expected_message> expected_messages(const schedule &s);

} // namespace soak
