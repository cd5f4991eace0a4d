// SPDX-License-Identifier: Apache-2.0
#include "host_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host_motors.h"

namespace {

winsize terminal_size()
{
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) != 0 || ws.ws_row == 0 || ws.ws_col == 0) {
        ws.ws_row = 40;
        ws.ws_col = 120;
    }
    return ws;
}

// The live view draws on the terminal's alternate screen, as full-screen
// programs do: its frames stay out of the scrollback, and the summary lands
// on the normal screen below the command.
bool g_alternate_screen = false;

// Each line cut to the width, so that a narrow terminal never wraps a line
// and shifts the frame.
void append_line(std::string *out, const std::string &line, size_t width)
{
    out->append(line, 0, std::min(line.size(), width));
    out->append("\x1b[K\n");
}

} // namespace

void view_refresh(view_mode mode, const view_context &ctx)
{
    host_stats &st = *ctx.stats;
    if (mode == view_mode::none)
        return;
    if (mode == view_mode::lines) {
        printf("%8.1f s  cycles %llu (%.1f/s)  imu samples %llu lost %llu  imu age %s ms  read errors %llu\n",
               ctx.elapsed_s, (unsigned long long)st.cycles(), st.cycle_rate(), (unsigned long long)st.imu().samples(),
               (unsigned long long)st.imu().lost(), delay_ms(st.imu_age().at(0.5)).c_str(),
               (unsigned long long)st.failed_reads());
        fflush(stdout);
        return;
    }
    const winsize ws = terminal_size();
    const size_t width = ws.ws_col > 1 ? size_t(ws.ws_col) - 1 : 1;
    std::string out;
    if (!g_alternate_screen) {
        out += "\x1b[?1049h";
        g_alternate_screen = true;
    }
    out += "\x1b[H";
    char line[512];
    const size_t slash = ctx.plugin.rfind('/');
    const char *plugin = ctx.plugin.c_str() + (slash == std::string::npos ? 0 : slash + 1);
    snprintf(line, sizeof line, "orlune-host  %s  %.1f s  cycles %llu (%.1f/s)  read errors %llu", plugin,
             ctx.elapsed_s, (unsigned long long)st.cycles(), st.cycle_rate(),
             (unsigned long long)st.failed_reads());
    append_line(&out, line, width);
    append_line(&out, "scheduling: " + ctx.scheduling, width);
    append_line(&out, "", width);
    snprintf(line, sizeof line, "%-16s %9s  %-12s %s", "sensor", "rate Hz", "state", "latest");
    append_line(&out, line, width);
    int used = 3;
    const double now = host_stats::now_s();
    for (const sensor_row &row : st.rows()) {
        if (row.updates == 0)
            continue;
        snprintf(line, sizeof line, "%-16s %9.1f  %-12s %s", row.name, row.rate_hz,
                 host_stats::state(*ctx.data, row, now).c_str(), host_stats::latest(*ctx.data, row.bit).c_str());
        append_line(&out, line, width);
        used++;
    }
    if (ctx.data->carpet.active) {
        snprintf(line, sizeof line, "%-16s %9s  %-12s %s", "carpet", "-", "active",
                 host_stats::carpet(*ctx.data).c_str());
        append_line(&out, line, width);
        used++;
    }
    append_line(&out, "", width);
    snprintf(line, sizeof line, "imu: %llu samples, %llu lost, period %.3f ms",
             (unsigned long long)st.imu().samples(), (unsigned long long)st.imu().lost(), st.imu().period_s() * 1e3);
    append_line(&out, line, width);
    append_line(&out, st.ages(), width);
    used += 3;
    if (ctx.motor_keys) {
        snprintf(line, sizeof line, "motors: %s  (%u sent, %u failed)", kMotorKeysHelp, ctx.motor_commands,
                 ctx.motor_failures);
        append_line(&out, line, width);
        used++;
    }
    append_line(&out, "", width);
    append_line(&out, "-- log --", width);
    used += 2;
    const int room = int(ws.ws_row) - used - 1;
    if (room > 0)
        for (const std::string &l : ctx.log->last_lines(size_t(room)))
            append_line(&out, l, width);
    out += "\x1b[J"; // whatever the last frame had below this one
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
}

void view_summary(const view_context &ctx)
{
    host_stats &st = *ctx.stats;
    if (g_alternate_screen) {
        fputs("\x1b[?1049l", stdout);
        g_alternate_screen = false;
    }
    double t = ctx.elapsed_s > 0 ? ctx.elapsed_s : 1;
    printf("\n== orlune-host summary ==\n");
    printf("duration         %.2f s\n", ctx.elapsed_s);
    printf("scheduling       %s\n", ctx.scheduling.c_str());
    printf("cycles           %llu (%.1f/s)\n", (unsigned long long)st.cycles(), double(st.cycles()) / t);
    printf("failed reads     %llu", (unsigned long long)st.failed_reads());
    if (st.failed_reads())
        printf(" (last: %s)", strerror(-st.last_error()));
    printf("\n");
    printf("imu batches      %llu (%.1f/s)\n", (unsigned long long)st.imu_batches(), double(st.imu_batches()) / t);
    printf("imu samples      %llu (%.1f/s), lost %llu (judged by the timestamps)\n",
           (unsigned long long)st.imu().samples(), double(st.imu().samples()) / t,
           (unsigned long long)st.imu().lost());
    const delay_histogram &age = st.imu_age();
    if (age.count())
        printf("imu age          %s ms median, %s p99, %.2f max (read return minus the batch's last sample; "
               "10 us bins)\n",
               delay_ms(age.at(0.5)).c_str(), delay_ms(age.at(0.99)).c_str(), double(age.max_ns()) / 1e6);
    const delay_histogram &motor = st.motor_age();
    if (motor.count())
        printf("motor age        %s ms median, %s p99, %.2f max (at the batch's first IMU sample; negative: the "
               "motor sample is the newer)\n",
               delay_ms(motor.at(0.5)).c_str(), delay_ms(motor.at(0.99)).c_str(), double(motor.max_ns()) / 1e6);
    printf("\n%-16s %10s %10s\n", "sensor", "updates", "rate Hz");
    auto errors = ctx.log->errors_per_tag();
    for (const sensor_row &row : st.rows()) {
        if (row.updates == 0)
            continue;
        printf("%-16s %10llu %10.1f\n", row.name, (unsigned long long)row.updates, double(row.updates) / t);
    }
    printf("\nlatest values:\n");
    for (const sensor_row &row : st.rows())
        if (row.updates)
            printf("  %-14s %s\n", row.name, host_stats::latest(*ctx.data, row.bit).c_str());
    if (ctx.data->carpet.active)
        printf("  %-14s %s\n", "carpet", host_stats::carpet(*ctx.data).c_str());
    if (!errors.empty()) {
        printf("\nerror messages per log tag:\n");
        for (const auto &[tag, count] : errors)
            printf("  %-22s %u\n", tag.c_str(), count);
    }
    if (ctx.motor_commands)
        printf("motor commands   %u (%u failed)\n", ctx.motor_commands, ctx.motor_failures);
    if (ctx.restarts)
        printf("plug-in restarts %u (the IIO server's connection was lost)\n", ctx.restarts);
    printf("flight-log events %u", ctx.log->events());
    const char *sep = ": ";
    for (const auto &[kind, count] : ctx.log->events_per_kind()) {
        printf("%s%s %u", sep, kind.c_str(), count);
        sep = ", ";
    }
    printf("\n");
    fflush(stdout);
}
