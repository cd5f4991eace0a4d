// SPDX-License-Identifier: Apache-2.0
// orlune-tlm: the telemetry inspector. Lists the sections of the telemetry
// directory with their rates, prints the latest sample of one section field
// by field by its own layout, or follows a section sample by sample.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"

namespace {

constexpr const char *kUsage =
    "usage: orlune-tlm list\n"
    "       orlune-tlm show SECTION\n"
    "       orlune-tlm follow SECTION [--csv] [--count N] [--duration SECONDS]\n"
    "Sections are read from $ORLUNE_TLM_DIR (default /run/orlune-tlm).\n";

// At most this many samples are used to measure a section's rate.
constexpr uint64_t kRateWindow = 100;

std::string directory()
{
    char dir[256];
    if (tlm_dir(dir, sizeof dir) < 0)
        return kTlmDefaultDir;
    return dir;
}

// One section opened for the life of the object.
class section {
public:
    section() = default;
    section(const section &) = delete;
    section &operator=(const section &) = delete;
    ~section() { tlm_view_close(&view_); }

    int open_name(const char *name) { return load(tlm_view_open(name, &view_)); }
    int open_path(const char *path) { return load(tlm_view_open_path(path, &view_)); }

    const tlm_section_view &view() const { return view_; }
    // Why the last open was refused (-EPERM): a producer that is not trusted.
    const char *refusal() const { return view_.refusal; }
    const std::vector<tlm_field_info> &fields() const { return fields_; }

    // Sample number index into buf; 0 or -EAGAIN.
    int read(uint64_t index, std::vector<uint8_t> &buf, timespec *ts) const
    {
        buf.resize(view_.sample_size);
        return tlm_view_read(&view_, index, buf.data(), buf.size(), ts);
    }

    // The latest sample; its index, or a negative errno.
    int64_t latest(std::vector<uint8_t> &buf, timespec *ts) const
    {
        for (int attempt = 0; attempt < 4; attempt++) {
            uint64_t written = tlm_view_written(&view_);
            if (written == 0)
                return -EAGAIN;
            if (read(written - 1, buf, ts) == 0)
                return int64_t(written - 1);
        }
        return -EAGAIN;
    }

    // Samples per second over the last samples of the ring, or a negative value.
    double rate() const
    {
        uint64_t written = tlm_view_written(&view_);
        uint64_t held = std::min<uint64_t>(written, view_.sample_count);
        if (held < 3)
            return -1;
        uint64_t span = std::min<uint64_t>(held - 2, kRateWindow); // the oldest slot may be rewritten meanwhile
        std::vector<uint8_t> buf;
        timespec newest{};
        timespec oldest{};
        if (read(written - 1, buf, &newest) < 0 || read(written - 1 - span, buf, &oldest) < 0)
            return -1;
        double seconds = double(newest.tv_sec - oldest.tv_sec) + double(newest.tv_nsec - oldest.tv_nsec) / 1e9;
        return seconds > 0 ? double(span) / seconds : -1;
    }

private:
    int load(int r)
    {
        fields_.clear();
        if (r < 0)
            return r;
        for (uint32_t i = 0; i < view_.field_count; i++) {
            tlm_field_info f;
            if (tlm_view_field(&view_, i, &f) < 0)
                return -EBADMSG;
            fields_.push_back(f);
        }
        return 0;
    }

    tlm_section_view view_;
    std::vector<tlm_field_info> fields_;
};

double seconds_of(const timespec &t)
{
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

std::string format_time(const timespec &t)
{
    char text[48];
    snprintf(text, sizeof text, "%" PRId64 ".%09ld", int64_t(t.tv_sec), long(t.tv_nsec));
    return text;
}

// Age of a sample stamped on the monotonic clock, in seconds.
std::string format_age(const timespec &t)
{
    timespec now{};
    monotonic_now(&now);
    char text[32];
    snprintf(text, sizeof text, "%.3fs", seconds_of(now) - seconds_of(t));
    return text;
}

template <typename T>
T element(const uint8_t *p)
{
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

std::string format_element(uint32_t type, const uint8_t *p)
{
    char text[64];
    switch (type) {
    case TLM_TYPE_BOOL:
    case TLM_TYPE_UINT8:
        snprintf(text, sizeof text, "%u", unsigned(element<uint8_t>(p)));
        break;
    case TLM_TYPE_INT8:
        snprintf(text, sizeof text, "%d", int(element<int8_t>(p)));
        break;
    case TLM_TYPE_UINT16:
        snprintf(text, sizeof text, "%u", unsigned(element<uint16_t>(p)));
        break;
    case TLM_TYPE_INT16:
        snprintf(text, sizeof text, "%d", int(element<int16_t>(p)));
        break;
    case TLM_TYPE_INT32:
        snprintf(text, sizeof text, "%" PRId32, element<int32_t>(p));
        break;
    case TLM_TYPE_UINT32:
        snprintf(text, sizeof text, "%" PRIu32, element<uint32_t>(p));
        break;
    case TLM_TYPE_INT64:
        snprintf(text, sizeof text, "%" PRId64, element<int64_t>(p));
        break;
    case TLM_TYPE_UINT64:
        snprintf(text, sizeof text, "%" PRIu64, element<uint64_t>(p));
        break;
    case TLM_TYPE_FLOAT:
        snprintf(text, sizeof text, "%.9g", double(element<float>(p)));
        break;
    case TLM_TYPE_DOUBLE:
        snprintf(text, sizeof text, "%.17g", element<double>(p));
        break;
    case TLM_TYPE_TIMESPEC: {
        timespec t{};
        t.tv_sec = element<int64_t>(p);
        t.tv_nsec = long(element<int64_t>(p + 8));
        return format_time(t);
    }
    default:
        return "?";
    }
    return text;
}

// Text fields up to their first NUL, quoted, with anything unprintable escaped.
std::string format_text(const uint8_t *p, uint32_t room)
{
    std::string out = "\"";
    for (uint32_t i = 0; i < room && p[i]; i++) {
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < ' ' || c >= 0x7f) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

std::string format_field(const tlm_field_info &f, const uint8_t *sample)
{
    const uint8_t *p = sample + f.offset;
    if (f.type == TLM_TYPE_CHAR)
        return format_text(p, f.count);
    if (f.count == 1)
        return format_element(f.type, p);
    std::string out = "[";
    for (uint32_t i = 0; i < f.count; i++) {
        if (i)
            out += ", ";
        out += format_element(f.type, p + size_t(i) * f.size);
    }
    return out + "]";
}

int no_section(const char *name, int err, const section &s)
{
    if (err == -EPERM)
        fprintf(stderr, "orlune-tlm: section \"%s\" refused: %s\n", name, s.refusal());
    else if (err == -ENOENT)
        fprintf(stderr, "orlune-tlm: no section \"%s\" in %s\n", name, directory().c_str());
    else if (err == -EINVAL)
        fprintf(stderr, "orlune-tlm: \"%s\" is not a section name\n", name);
    else if (err == -EBADMSG)
        fprintf(stderr, "orlune-tlm: section \"%s\" in %s is not a valid section file\n", name, directory().c_str());
    else
        fprintf(stderr, "orlune-tlm: cannot open section \"%s\": %s\n", name, strerror(-err));
    return 1;
}

int cmd_list()
{
    std::string dir = directory();
    DIR *d = opendir(dir.c_str());
    if (!d) {
        printf("no sections (%s: %s)\n", dir.c_str(), strerror(errno));
        return 0;
    }
    std::vector<std::string> files;
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        size_t suffix = strlen(kTlmFileSuffix);
        if (name.size() > suffix && name.compare(name.size() - suffix, suffix, kTlmFileSuffix) == 0)
            files.push_back(name);
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    printf("%-32s %8s %10s %10s %9s %10s\n", "SECTION", "SAMPLE_B", "PERIOD_US", "WRITTEN", "RATE_HZ", "AGE");
    for (const std::string &file : files) {
        section s;
        int r = s.open_path((dir + "/" + file).c_str());
        std::string shown = file.substr(0, file.size() - strlen(kTlmFileSuffix));
        if (r == -EPERM) {
            printf("%-32s refused: %s\n", shown.c_str(), s.refusal());
            continue;
        }
        if (r < 0) {
            printf("%-32s invalid section file (%s)\n", shown.c_str(), strerror(-r));
            continue;
        }
        const tlm_section_view &v = s.view();
        std::vector<uint8_t> buf;
        timespec ts{};
        bool have = s.latest(buf, &ts) >= 0;
        double rate = s.rate();
        char rate_text[32] = "-";
        if (rate > 0)
            snprintf(rate_text, sizeof rate_text, "%.1f", rate);
        printf("%-32s %8u %10u %10" PRIu64 " %9s %10s%s\n", v.name, v.sample_size, v.period_us, tlm_view_written(&v),
               rate_text, have ? format_age(ts).c_str() : "-", tlm_view_closed(&v) ? "  (closed)" : "");
    }
    return 0;
}

int cmd_show(const char *name)
{
    section s;
    int r = s.open_name(name);
    if (r < 0)
        return no_section(name, r, s);
    std::vector<uint8_t> buf;
    timespec ts{};
    int64_t index = s.latest(buf, &ts);
    const tlm_section_view &v = s.view();
    printf("section %s: %u fields, %u-byte samples, ring of %u, period %u us, producer pid %u\n", v.name,
           v.field_count, v.sample_size, v.sample_count, v.period_us, v.producer_pid);
    if (index < 0) {
        printf("no sample written yet\n");
        return 0;
    }
    printf("sample %" PRId64 " at %s (age %s)\n", index, format_time(ts).c_str(), format_age(ts).c_str());
    for (const tlm_field_info &f : s.fields())
        printf("  %s = %s\n", f.name, format_field(f, buf.data()).c_str());
    return 0;
}

std::string csv_header(const section &s)
{
    std::string line = "time";
    for (const tlm_field_info &f : s.fields()) {
        if (f.count == 1 || f.type == TLM_TYPE_CHAR) {
            line += std::string(",") + f.name;
            continue;
        }
        for (uint32_t i = 0; i < f.count; i++)
            line += std::string(",") + f.name + "[" + std::to_string(i) + "]";
    }
    return line;
}

std::string csv_line(const section &s, const uint8_t *sample, const timespec &ts)
{
    std::string line = format_time(ts);
    for (const tlm_field_info &f : s.fields()) {
        if (f.count == 1 || f.type == TLM_TYPE_CHAR) {
            line += "," + format_field(f, sample);
            continue;
        }
        for (uint32_t i = 0; i < f.count; i++)
            line += "," + format_element(f.type, sample + f.offset + size_t(i) * f.size);
    }
    return line;
}

std::string text_line(const section &s, const uint8_t *sample, const timespec &ts)
{
    std::string line = format_time(ts);
    for (const tlm_field_info &f : s.fields())
        line += std::string(" ") + f.name + "=" + format_field(f, sample);
    return line;
}

int cmd_follow(const char *name, bool csv, long count, double duration)
{
    section s;
    int r = s.open_name(name);
    if (r < 0)
        return no_section(name, r, s);
    if (csv)
        printf("%s\n", csv_header(s).c_str());
    fflush(stdout);
    uint64_t next = tlm_view_written(&s.view()); // only samples to come
    long printed = 0;
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(duration);
    std::vector<uint8_t> buf;
    uint64_t generation = s.view().generation;
    while (count <= 0 || printed < count) {
        if (duration > 0 && std::chrono::steady_clock::now() >= end)
            break;
        if (tlm_view_closed(&s.view())) {
            section again;
            if (again.open_name(name) == 0 && !tlm_view_closed(&again.view()) &&
                again.view().generation != generation) {
                fprintf(stderr, "orlune-tlm: section \"%s\" restarted\n", name);
                if (s.open_name(name) < 0)
                    continue;
                generation = s.view().generation;
                next = 0;
                if (csv)
                    printf("%s\n", csv_header(s).c_str());
            }
        }
        uint64_t written = tlm_view_written(&s.view());
        if (written > next && written - next > s.view().sample_count)
            next = written - s.view().sample_count; // fell behind: what the ring no longer holds is gone
        bool any = false;
        for (; next < written && (count <= 0 || printed < count); next++) {
            timespec ts{};
            if (s.read(next, buf, &ts) < 0)
                continue;
            printf("%s\n", (csv ? csv_line(s, buf.data(), ts) : text_line(s, buf.data(), ts)).c_str());
            printed++;
            any = true;
        }
        if (any)
            fflush(stdout);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fputs(kUsage, stderr);
        return 2;
    }
    std::string cmd = argv[1];
    if (cmd == "-h" || cmd == "--help") {
        fputs(kUsage, stdout);
        return 0;
    }
    if (cmd == "list" && argc == 2)
        return cmd_list();
    if (cmd == "show" && argc == 3)
        return cmd_show(argv[2]);
    if (cmd == "follow" && argc >= 3) {
        bool csv = false;
        long count = 0;
        double duration = 0;
        for (int i = 3; i < argc; i++) {
            std::string opt = argv[i];
            if (opt == "--csv") {
                csv = true;
            } else if (opt == "--count" && i + 1 < argc) {
                count = strtol(argv[++i], nullptr, 10);
            } else if (opt == "--duration" && i + 1 < argc) {
                duration = strtod(argv[++i], nullptr);
            } else {
                fputs(kUsage, stderr);
                return 2;
            }
        }
        return cmd_follow(argv[2], csv, count, duration);
    }
    fputs(kUsage, stderr);
    return 2;
}
