// SPDX-License-Identifier: Apache-2.0
// orlune-calib: makes the thermal calibration files from a bench recording
// (the IMU's, and on request the barometer's and the magnetometer's), and
// checks a set of files.
//
//   orlune-calib fit RECORDING.csv --out DIR [--applied DIR] [--min-range K] [--max-degree N] [--gravity G]
//                    [--pressure PA | --altitude M] [--magneto]
//   orlune-calib check DIR [--recording RECORDING.csv] [--plot FILE.png]
#include <sys/stat.h>
#include <syslog.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <array>
#include <string>
#include <tuple>
#include <vector>

#include "calib/bench.h"
#include "calib/calib_sets.h"
#include "calib/fit.h"
#include "calib/recording.h"
#include "platform/log.h"

namespace {

// Exit statuses: a recording or a set the tool cannot use is 1, a command
// line it cannot follow 2.
constexpr int kRefused = 1;
constexpr int kUsage = 2;

void usage(FILE *out)
{
    std::fputs("usage: orlune-calib fit RECORDING.csv --out DIR [--applied DIR] [--min-range K] [--max-degree N]\n"
               "                        [--gravity M_S2] [--pressure PA | --altitude M] [--magneto]\n"
               "       orlune-calib check DIR [--recording RECORDING.csv] [--plot FILE.png]\n"
               "fit: the IMU's bias polynomials and scale and cross-axis matrix from a bench recording\n"
               "     (orlune-host --record), written as DIR/flight_imu_thermal_bias and DIR/flight_imu_thermal_ortho;\n"
               "     --applied DIR: the IMU files the plug-in applied while recording (none by default);\n"
               "     --min-range: the narrowest range of temperature to fit over (10 K); --max-degree: of the\n"
               "     polynomials (3); --gravity: the bench's local gravity (9.80665 m/s2);\n"
               "     --pressure PA or --altitude M: the bench's pressure, to fit the barometer's bias too\n"
               "     (DIR/flight_baro_thermal_bias); --magneto: the magnetometer's bias too\n"
               "     (DIR/flight_magneto_thermal_bias)\n"
               "check: what the files of DIR correct over temperature, and with --recording the biases and\n"
               "     scale errors left in a bench recording flown with them\n",
               out);
}

// International standard atmosphere, troposphere: the pressure at an
// altitude above mean sea level, Pa.
double standard_pressure(double altitude_m)
{
    return 101325.0 * std::pow(1.0 - 2.25577e-5 * altitude_m, 5.25588);
}

bool number_arg(const char *text, double *out)
{
    char *end;
    *out = std::strtod(text, &end);
    return *end == '\0' && std::isfinite(*out);
}

// Loads the IMU set of dir with the plug-in's own loader, printing what the
// loader says; null when it refuses the set. *warnings counts its warnings.
imu_calib *load_imu_set(const std::string &dir, int *warnings)
{
    const std::string bias = dir + "/flight_imu_thermal_bias", ortho = dir + "/flight_imu_thermal_ortho";
    struct stat st;
    if (stat(bias.c_str(), &st) != 0) {
        std::fprintf(stderr, "orlune-calib: no %s\n", bias.c_str());
        return nullptr;
    }
    log_capture_start();
    imu_calib *set = imu_calib_load({{bias.c_str(), nullptr}, {ortho.c_str(), nullptr}});
    *warnings = 0;
    for (const log_record &r : log_capture_take()) {
        if (r.priority <= LOG_WARNING)
            (*warnings)++;
        std::printf("loader: %s %s: %s\n", r.priority <= LOG_WARNING ? "warning" : "info", r.tag.c_str(),
                    r.text.c_str());
    }
    log_capture_stop();
    if (!set)
        std::fprintf(stderr, "orlune-calib: the plug-in refuses %s\n", bias.c_str());
    return set;
}

// Undoes on each batch mean the correction the plug-in applied with set:
// out = M (raw - b) at the batch's one temperature, so raw = M^-1 out + b.
bool unapply(const imu_calib &set, std::vector<calib::imu_row> *rows)
{
    for (calib::imu_row &r : *rows) {
        imu_calib_terms terms;
        imu_calib_terms_at(set, r.temp_k, &terms);
        for (auto [v, m, b] : {std::tuple{&r.gyro, &terms.gyro_matrix, terms.gyro_bias},
                               std::tuple{&r.accel, &terms.accel_matrix, terms.accel_bias}}) {
            const double(&a)[3][3] = *m;
            const double c00 = a[1][1] * a[2][2] - a[1][2] * a[2][1], c01 = a[1][2] * a[2][0] - a[1][0] * a[2][2],
                         c02 = a[1][0] * a[2][1] - a[1][1] * a[2][0];
            const double det = a[0][0] * c00 + a[0][1] * c01 + a[0][2] * c02;
            if (std::fabs(det) < 1e-9)
                return false;
            const double inv[3][3] = {
                {c00 / det, (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det, (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det},
                {c01 / det, (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det, (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det},
                {c02 / det, (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det, (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det}};
            const std::array<double, 3> out = *v;
            for (int i = 0; i < 3; i++)
                (*v)[size_t(i)] = inv[i][0] * out[0] + inv[i][1] * out[1] + inv[i][2] * out[2] + b[i];
        }
    }
    return true;
}

bool load_bench(const std::string &path, calib::bench *b, const imu_calib *applied = nullptr,
                calib::recording *rec = nullptr)
{
    calib::recording own;
    if (!rec)
        rec = &own;
    std::string error;
    if (!calib::read_recording(path, rec, &error)) {
        std::fprintf(stderr, "orlune-calib: %s\n", error.c_str());
        return false;
    }
    if (applied && !unapply(*applied, &rec->imu)) {
        std::fprintf(stderr, "orlune-calib: the applied set's matrix is singular: its correction cannot be undone\n");
        return false;
    }
    if (!calib::cut_bench(rec->imu, b, &error)) {
        std::fprintf(stderr, "orlune-calib: %s\n", error.c_str());
        return false;
    }
    return true;
}

int fit_main(int argc, char **argv)
{
    std::string recording, out_dir, applied_dir;
    calib::fit_options options;
    double reference_pa = 0; // the bench's pressure; 0: no barometer fit
    bool magneto = false;
    for (int i = 0; i < argc; i++) {
        const std::string arg = argv[i];
        double v;
        if (arg == "--out" && i + 1 < argc) {
            out_dir = argv[++i];
        } else if (arg == "--applied" && i + 1 < argc) {
            applied_dir = argv[++i];
        } else if (arg == "--min-range" && i + 1 < argc && number_arg(argv[i + 1], &v) && v > 0) {
            options.min_range_k = v;
            i++;
        } else if (arg == "--max-degree" && i + 1 < argc && number_arg(argv[i + 1], &v) && v >= 0 && v <= 3 &&
                   v == std::floor(v)) {
            options.max_degree = int(v);
            i++;
        } else if (arg == "--pressure" && i + 1 < argc && number_arg(argv[i + 1], &v) && v > 30000 && v < 120000) {
            reference_pa = v;
            i++;
        } else if (arg == "--altitude" && i + 1 < argc && number_arg(argv[i + 1], &v) && v > -500 && v < 9000) {
            reference_pa = standard_pressure(v);
            i++;
        } else if (arg == "--magneto") {
            magneto = true;
        } else if (arg == "--gravity" && i + 1 < argc && number_arg(argv[i + 1], &v) && v > 9.7 && v < 9.9) {
            options.gravity = v;
            i++;
        } else if (recording.empty() && !arg.starts_with("-")) {
            recording = arg;
        } else {
            usage(stderr);
            return kUsage;
        }
    }
    struct stat st;
    if (recording.empty() || out_dir.empty()) {
        usage(stderr);
        return kUsage;
    }
    if (stat(out_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "orlune-calib: '%s' is not a directory\n", out_dir.c_str());
        return kUsage;
    }
    imu_calib *applied = nullptr;
    int warnings;
    if (!applied_dir.empty() && !(applied = load_imu_set(applied_dir, &warnings)))
        return kRefused;
    calib::bench b;
    calib::recording rec;
    const bool loaded = load_bench(recording, &b, applied, &rec);
    imu_calib_destroy(applied);
    if (!loaded)
        return kRefused;
    // Every fit before any file, so that a refusal leaves none behind.
    calib::imu_fit f;
    calib::bias_fit baro, mag;
    std::string error;
    if (!calib::fit_imu(b, options, &f, &error) ||
        (reference_pa > 0 && !calib::fit_baro(rec.baro, reference_pa, options, &baro, &error)) ||
        (magneto && !calib::fit_magneto(rec.mag, options, &mag, &error)) ||
        !calib::write_imu_files(f, out_dir, &error) ||
        (reference_pa > 0 && !calib::write_baro_file(baro, out_dir, &error)) ||
        (magneto && !calib::write_magneto_file(mag, out_dir, &error))) {
        std::fprintf(stderr, "orlune-calib: %s\n", error.c_str());
        return kRefused;
    }
    auto degree = [](const calib::poly &p) { return int(p.size()) - 1; };
    std::printf("range %.2f to %.2f K, T0 %.2f K: %zu still windows on six faces, %zu turns", f.temp_min_k,
                f.temp_max_k, f.temp0_k, f.windows, f.turns);
    if (b.turns_with_lost_samples)
        std::printf(" (%zu more left out: samples were lost in them)", b.turns_with_lost_samples);
    std::printf("\n");
    std::printf("degrees: gyro bias %d %d %d, accel bias %d %d %d, gyro matrix %d, accel matrix %d\n",
                degree(f.gyro_bias[0]), degree(f.gyro_bias[1]), degree(f.gyro_bias[2]), degree(f.accel_bias[0]),
                degree(f.accel_bias[1]), degree(f.accel_bias[2]), degree(f.gyro_matrix[0]),
                degree(f.accel_matrix[0]));
    std::printf("residual rms: gyro %.2g rad/s, accel %.2g m/s², turns %.2g rad\n", f.gyro_rms, f.accel_rms,
                f.turn_rms);
    std::printf("wrote %s/flight_imu_thermal_bias and %s/flight_imu_thermal_ortho\n", out_dir.c_str(),
                out_dir.c_str());
    if (reference_pa > 0)
        std::printf("barometer: %zu readings against %.1f Pa, range %.2f to %.2f K, T0 %.2f K, degree %d, residual "
                    "rms %.2g Pa; wrote %s/flight_baro_thermal_bias\n",
                    baro.samples, reference_pa, baro.temp_min_k, baro.temp_max_k, baro.temp0_k, degree(baro.bias[0]),
                    baro.rms, out_dir.c_str());
    else if (!rec.baro.empty())
        std::printf("barometer: not fitted (give the bench's pressure: --pressure PA or --altitude M)\n");
    if (magneto)
        std::printf("magnetometer: %zu readings, range %.2f to %.2f K of the barometer's die, T0 %.2f K, degrees %d "
                    "%d %d; wrote %s/flight_magneto_thermal_bias\n",
                    mag.samples, mag.temp_min_k, mag.temp_max_k, mag.temp0_k, degree(mag.bias[0]),
                    degree(mag.bias[1]), degree(mag.bias[2]), out_dir.c_str());
    else if (!rec.mag.empty())
        std::printf("magnetometer: not fitted (--magneto)\n");
    return 0;
}

// The residuals of a recording flown with calibration files, per band of
// temperature: what is left of the gyro's bias (the unit is still, so all
// of its reading), of the accelerometer's bias and scale (from opposite
// faces) and of the gyro's scale (each turn is a quarter turn).
struct band {
    double gyro[3] = {};
    int gyro_n = 0;
    double face_sum[3][2][3] = {}; // axis, sign (0 -, 1 +), reading axis
    int face_n[3][2] = {};
    double turn_scale[3] = {};
    int turn_n[3] = {};
};

int residuals(const std::string &path, const calib_range &range)
{
    calib::bench b;
    if (!load_bench(path, &b))
        return kRefused;
    constexpr double kBand = 10.0; // K: both faces of an axis at rest in most bands
    const double first = std::floor(range.temp_min / kBand) * kBand;
    std::vector<band> bands(size_t(std::ceil((range.temp_max - first) / kBand)) + 1);
    auto at = [&](double t) -> band * {
        const double k = std::floor((t - first) / kBand);
        return k >= 0 && k < double(bands.size()) ? &bands[size_t(k)] : nullptr;
    };
    for (const calib::still_window &w : b.windows) {
        band *bd = at(w.temp_k);
        if (!bd)
            continue;
        for (int a = 0; a < 3; a++) {
            bd->gyro[a] += w.gyro[size_t(a)];
            bd->face_sum[w.face][w.sign > 0][a] += w.accel[size_t(a)];
        }
        bd->gyro_n++;
        bd->face_n[w.face][w.sign > 0]++;
    }
    for (const calib::turn &t : b.turns)
        if (band *bd = at(t.temp_k)) {
            bd->turn_scale[t.axis] += t.sign * t.angle[size_t(t.axis)] / (M_PI / 2) - 1;
            bd->turn_n[t.axis]++;
        }
    std::printf("\nresiduals of %s, per %.0f K band (still windows and turns in the band)\n", path.c_str(), kBand);
    std::printf("%-15s %-30s %-30s %-30s %-30s\n", "band K", "gyro bias x y z rad/s", "accel bias x y z m/s2",
                "accel scale error x y z", "gyro scale error x y z");
    double worst[4] = {};
    for (size_t i = 0; i < bands.size(); i++) {
        const band &bd = bands[i];
        if (bd.gyro_n == 0)
            continue;
        const double lo = first + double(i) * kBand;
        char label[32];
        std::snprintf(label, sizeof label, "%.0f-%.0f%s", lo, lo + kBand,
                      lo >= range.temp_min - 1e-9 && lo + kBand <= range.temp_max + 1e-9 ? "" : " (edge)");
        std::string cols[4];
        for (int a = 0; a < 3; a++) {
            char text[4][24];
            const double g = bd.gyro[a] / bd.gyro_n;
            std::snprintf(text[0], sizeof text[0], "%+.5f ", g);
            for (int c = 1; c < 4; c++)
                std::snprintf(text[c], sizeof text[c], "%-9s", "-");
            double vals[4] = {g, 0, 0, 0};
            bool known[4] = {true, false, false, false};
            if (bd.face_n[a][0] && bd.face_n[a][1]) {
                const double plus = bd.face_sum[a][1][a] / bd.face_n[a][1];
                const double minus = bd.face_sum[a][0][a] / bd.face_n[a][0];
                vals[1] = (plus + minus) / 2;
                vals[2] = (plus - minus) / (2 * calib::kGravity) - 1;
                known[1] = known[2] = true;
                std::snprintf(text[1], sizeof text[1], "%+.4f ", vals[1]);
                std::snprintf(text[2], sizeof text[2], "%+.5f ", vals[2]);
            }
            if (bd.turn_n[a]) {
                vals[3] = bd.turn_scale[a] / bd.turn_n[a];
                known[3] = true;
                std::snprintf(text[3], sizeof text[3], "%+.5f ", vals[3]);
            }
            for (int c = 0; c < 4; c++) {
                cols[c] += text[c];
                if (known[c] && std::string(label).find("edge") == std::string::npos)
                    worst[c] = std::max(worst[c], std::fabs(vals[c]));
            }
        }
        std::printf("%-15s %-30s %-30s %-30s %-30s\n", label, cols[0].c_str(), cols[1].c_str(), cols[2].c_str(),
                    cols[3].c_str());
    }
    std::printf("largest within the range: gyro bias %.2g rad/s, accel bias %.2g m/s², accel scale %.2g, gyro "
                "scale %.2g\n",
                worst[0], worst[1], worst[2], worst[3]);
    return 0;
}

bool plot(const std::string &data, const std::string &png, const calib_range &range)
{
    if (std::system("command -v gnuplot >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "orlune-calib: gnuplot is missing (Debian package gnuplot-nox): no plot, the numbers "
                             "only\n");
        return false;
    }
    const std::string script = data + ".gp";
    FILE *gp = std::fopen(script.c_str(), "we");
    if (!gp)
        return false;
    std::fprintf(gp,
                 "set terminal png noenhanced size 1400,900\nset output '%s'\nset multiplot layout 2,2\n"
                 "set key outside right\nset grid\nset xlabel 'temperature (K)'\n"
                 "set object 1 rect from %g, graph 0 to %g, graph 1 fc rgb '#eeeeee' behind\n"
                 "set title 'gyro bias (rad/s)'\nplot for [c=3:5] '%s' using 1:c with lines title columnhead\n"
                 "set title 'accel bias (m/s^2)'\nplot for [c=6:8] '%s' using 1:c with lines title columnhead\n"
                 "set title 'gyro matrix - identity'\nplot for [c=9:17] '%s' using 1:c with lines title columnhead\n"
                 "set title 'accel matrix - identity'\nplot for [c=18:26] '%s' using 1:c with lines title "
                 "columnhead\nunset multiplot\n",
                 png.c_str(), range.temp_min, range.temp_max, data.c_str(), data.c_str(), data.c_str(),
                 data.c_str());
    std::fclose(gp);
    const std::string command = "gnuplot '" + script + "'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "orlune-calib: gnuplot failed on %s\n", script.c_str());
        return false;
    }
    return true;
}

// The barometer's and the magnetometer's files of dir, when there: the bias
// each subtracts over its range and 10 K beyond. False when the plug-in
// would refuse one.
bool check_baro_magneto(const std::string &dir)
{
    const std::string baro_path = dir + "/flight_baro_thermal_bias", mag_path = dir + "/flight_magneto_thermal_bias";
    struct stat st;
    const bool has_baro = stat(baro_path.c_str(), &st) == 0, has_mag = stat(mag_path.c_str(), &st) == 0;
    if (!has_baro && !has_mag)
        return true;
    log_capture_start();
    baro_calib *baro = has_baro ? baro_calib_load(baro_path.c_str()) : nullptr;
    magneto_calib *mag = has_mag ? magneto_calib_load(mag_path.c_str()) : nullptr;
    int warnings = 0;
    for (const log_record &r : log_capture_take()) {
        if (r.priority <= LOG_WARNING)
            warnings++;
        std::printf("loader: %s %s: %s\n", r.priority <= LOG_WARNING ? "warning" : "info", r.tag.c_str(),
                    r.text.c_str());
    }
    log_capture_stop();
    const bool ok = (!has_baro || baro) && (!has_mag || mag);
    if (ok) {
        const calib_range range = baro ? baro->range : mag->range;
        std::printf("\n%s%s%s: fitted over %.2f to %.2f K of the barometer's die; %d loader warning%s\n",
                    has_baro ? "flight_baro_thermal_bias" : "", has_baro && has_mag ? " and " : "",
                    has_mag ? "flight_magneto_thermal_bias" : "", range.temp_min, range.temp_max, warnings,
                    warnings == 1 ? "" : "s");
        std::printf("%-8s %-3s %-12s %-30s\n", "T K", "in", "baro Pa", "mag bias x y z uT");
        for (int i = 0; i <= 20; i++) {
            const double t = range.temp_min - 10 + (range.temp_max - range.temp_min + 20) * i / 20;
            char b[24] = "-", m[64] = "-";
            if (baro)
                std::snprintf(b, sizeof b, "%+.2f", baro_calib_bias_at(*baro, t));
            if (mag) {
                double v[3];
                magneto_calib_bias_at(*mag, t, v);
                std::snprintf(m, sizeof m, "%+.3f %+.3f %+.3f", v[0], v[1], v[2]);
            }
            std::printf("%-8.2f %-3s %-12s %-30s\n", t, t >= range.temp_min && t <= range.temp_max ? "yes" : "no", b,
                        m);
        }
    } else {
        std::fprintf(stderr, "orlune-calib: the plug-in refuses %s\n", has_baro && !baro ? baro_path.c_str() : mag_path.c_str());
    }
    baro_calib_destroy(baro);
    magneto_calib_destroy(mag);
    return ok;
}

int check_main(int argc, char **argv)
{
    std::string dir, recording, png;
    for (int i = 0; i < argc; i++) {
        const std::string arg = argv[i];
        if (arg == "--recording" && i + 1 < argc)
            recording = argv[++i];
        else if (arg == "--plot" && i + 1 < argc)
            png = argv[++i];
        else if (dir.empty() && !arg.starts_with("-"))
            dir = arg;
        else {
            usage(stderr);
            return kUsage;
        }
    }
    if (dir.empty()) {
        usage(stderr);
        return kUsage;
    }
    int warnings;
    imu_calib *set = load_imu_set(dir, &warnings);
    if (!set)
        return kRefused;
    const calib_range range = set->range;
    std::printf("%s: T0 %.2f K, fitted over %.2f to %.2f K; %d loader warning%s\n", dir.c_str(), range.temp0,
                range.temp_min, range.temp_max, warnings, warnings == 1 ? "" : "s");

    // The corrections over the range and 10 K beyond it on each side.
    const std::string data = png.empty() ? "" : png + ".dat";
    FILE *table = data.empty() ? nullptr : std::fopen(data.c_str(), "we");
    if (table) {
        std::fprintf(table, "T in_range gyro_bx gyro_by gyro_bz acc_bx acc_by acc_bz");
        for (const char *s : {"g", "a"})
            for (const char *e : {"xx", "xy", "xz", "yx", "yy", "yz", "zx", "zy", "zz"})
                std::fprintf(table, " %s%s", s, e);
        std::fprintf(table, "\n");
    }
    std::printf("%-8s %-3s %-30s %-30s %-24s %-24s %-10s %-10s\n", "T K", "in", "gyro bias x y z rad/s",
                "accel bias x y z m/s2", "gyro scale x y z - 1", "accel scale x y z - 1", "gyro cross", "acc cross");
    const double lo = range.temp_min - 10, hi = range.temp_max + 10;
    for (int i = 0; i <= 40; i++) {
        const double t = lo + (hi - lo) * i / 40;
        imu_calib_terms terms;
        imu_calib_terms_at(*set, t, &terms);
        double cross[2] = {};
        for (int r = 0; r < 3; r++)
            for (int c = 0; c < 3; c++)
                if (r != c) {
                    cross[0] = std::max(cross[0], std::fabs(terms.gyro_matrix[r][c]));
                    cross[1] = std::max(cross[1], std::fabs(terms.accel_matrix[r][c]));
                }
        const bool in = t >= range.temp_min && t <= range.temp_max;
        char g[64], a[64], gs[64], as[64];
        std::snprintf(g, sizeof g, "%+.5f %+.5f %+.5f", terms.gyro_bias[0], terms.gyro_bias[1], terms.gyro_bias[2]);
        std::snprintf(a, sizeof a, "%+.4f %+.4f %+.4f", terms.accel_bias[0], terms.accel_bias[1],
                      terms.accel_bias[2]);
        std::snprintf(gs, sizeof gs, "%+.5f %+.5f %+.5f", terms.gyro_matrix[0][0] - 1, terms.gyro_matrix[1][1] - 1,
                      terms.gyro_matrix[2][2] - 1);
        std::snprintf(as, sizeof as, "%+.5f %+.5f %+.5f", terms.accel_matrix[0][0] - 1,
                      terms.accel_matrix[1][1] - 1, terms.accel_matrix[2][2] - 1);
        std::printf("%-8.2f %-3s %-30s %-30s %-24s %-24s %-10.5f %-10.5f\n", t, in ? "yes" : "no", g, a, gs, as,
                    cross[0], cross[1]);
        if (table) {
            std::fprintf(table, "%.3f %d %.9g %.9g %.9g %.9g %.9g %.9g", t, in, terms.gyro_bias[0],
                         terms.gyro_bias[1], terms.gyro_bias[2], terms.accel_bias[0], terms.accel_bias[1],
                         terms.accel_bias[2]);
            for (const auto *m : {&terms.gyro_matrix, &terms.accel_matrix})
                for (int r = 0; r < 3; r++)
                    for (int c = 0; c < 3; c++)
                        std::fprintf(table, " %.9g", (*m)[r][c] - (r == c ? 1.0 : 0.0));
            std::fprintf(table, "\n");
        }
    }
    imu_calib_destroy(set);
    if (table) {
        std::fclose(table);
        if (plot(data, png, range))
            std::printf("plot: %s\n", png.c_str());
    } else if (!png.empty()) {
        std::fprintf(stderr, "orlune-calib: cannot write %s\n", data.c_str());
    }
    if (!check_baro_magneto(dir))
        return kRefused;
    return recording.empty() ? 0 : residuals(recording, range);
}

} // namespace

int main(int argc, char **argv)
{
    // The loader's messages are the tool's to report.
    log_set_output("stderr");
    if (argc >= 2 && std::strcmp(argv[1], "fit") == 0)
        return fit_main(argc - 2, argv + 2);
    if (argc >= 2 && std::strcmp(argv[1], "check") == 0)
        return check_main(argc - 2, argv + 2);
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        usage(stdout);
        return 0;
    }
    usage(stderr);
    return kUsage;
}
