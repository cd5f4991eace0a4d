// SPDX-License-Identifier: Apache-2.0
#include "host_record.h"

#include <cerrno>
#include <cstring>

namespace {

// Large enough that the acquisition loop writes to the disk a few times a
// second at most (a row is about 300 bytes).
constexpr size_t kBufferBytes = 1 << 20;

constexpr const char kHeader[] =
    "t,updated,imu_n,imu_t0,imu_t1,gyro_x,gyro_y,gyro_z,accel_x,accel_y,accel_z,imu_temp,"
    "baro_p,baro_temp,mag_x,mag_y,mag_z,"
    "motor_speed0,motor_speed1,motor_speed2,motor_speed3,"
    "motor_error0,motor_error1,motor_error2,motor_error3,motor_voltage,motor_spinning,"
    "us_alt,us_status,gps_lat,gps_lon,gps_alt,gps_updated,"
    "bat_present,bat_voltage,bat_current,bat_rsoc,bat_temp,bat_fault,bat_temp_alert,"
    "vis_x,vis_y,vis_z,vis_status,flow_quality,flow_defective,gimbal_count";

double seconds(const timespec &t)
{
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

} // namespace

const char *host_record::header()
{
    return kHeader;
}

std::unique_ptr<host_record> host_record::open(const std::string &path, std::string *error)
{
    FILE *f = fopen(path.c_str(), "w");
    if (!f) {
        *error = "cannot create the recording '" + path + "': " + strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<host_record>(new host_record(f, true));
}

host_record::host_record(FILE *stream) : host_record(stream, false) {}

host_record::host_record(FILE *stream, bool owns) : out_(stream), owns_(owns)
{
    if (owns_)
        setvbuf(out_, nullptr, _IOFBF, kBufferBytes);
    fputs(kHeader, out_);
    fputc('\n', out_);
}

host_record::~host_record()
{
    if (owns_)
        fclose(out_);
    else
        fflush(out_);
}

bool host_record::flush()
{
    return fflush(out_) == 0 && !ferror(out_);
}

void host_record::row(const timespec &at, const sensors_data &d)
{
    FILE *f = out_;
    fprintf(f, "%.6f,0x%x,", seconds(at), d.updated_sensors);

    // IMU: the batch's span and its means. An empty batch leaves the
    // timestamps empty; the means then are those of no sample: empty too.
    const sensors_imu_data &imu = d.imu;
    const unsigned n = imu.nb_samples < SENSORS_IMU_MAX_SAMPLES ? imu.nb_samples : SENSORS_IMU_MAX_SAMPLES;
    if (n == 0) {
        fprintf(f, "0,,,,,,,,,,");
    } else {
        double g[3] = {}, a[3] = {}, temp = 0;
        for (unsigned i = 0; i < n; i++) {
            for (int k = 0; k < 3; k++) {
                g[k] += imu.gyro[i][k];
                a[k] += imu.accel[i][k];
            }
            temp += imu.temperature[i];
        }
        fprintf(f, "%u,%.6f,%.6f,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,", n, seconds(imu.timestamps[0]),
                seconds(imu.timestamps[n - 1]), g[0] / n, g[1] / n, g[2] / n, a[0] / n, a[1] / n, a[2] / n,
                temp / n);
    }

    fprintf(f, "%.2f,%.2f,%.4g,%.4g,%.4g,", d.baro.pressure, d.baro.temperature, d.magneto.field[0],
            d.magneto.field[1], d.magneto.field[2]);

    const sensors_motors_data &m = d.motors;
    fprintf(f, "%u,%u,%u,%u,%u,%u,%u,%u,%.3f,%u,", m.motor[0].speed, m.motor[1].speed, m.motor[2].speed,
            m.motor[3].speed, m.error[0], m.error[1], m.error[2], m.error[3], m.voltage, m.spinning);

    fprintf(f, "%.3f,%u,%.7f,%.7f,%.2f,0x%x,", d.us.altitude, d.us.status, d.gps.loc_values[0], d.gps.loc_values[1],
            d.gps.loc_values[2], d.gps.updated);

    // An unknown state of charge is an empty field rather than 4294967295.
    const sensors_battery_data &b = d.battery;
    fprintf(f, "%u,%.3f,%.3f,", b.present, b.voltage, b.current);
    if (b.rsoc != SENSORS_BATTERY_RSOC_UNKNOWN)
        fprintf(f, "%u", b.rsoc);
    fprintf(f, ",%.1f,%d,%d,", b.temperature, b.fault, b.temperature_alert);

    fprintf(f, "%.3f,%.3f,%.3f,%d,%.3f,%u,%u\n", d.vision_position.x, d.vision_position.y, d.vision_position.z,
            d.vision_position.status, d.optical_flow.quality_indicator, d.optical_flow.defective,
            d.fcam_gimbal.count);
    rows_++;
}
