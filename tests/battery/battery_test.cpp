// SPDX-License-Identifier: Apache-2.0
// The smart battery module against real attribute files under a private root.
#include <gmock/gmock.h>
#include <sensors/battery.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "platform/failpoint.h"
#include "platform/shm_telemetry.h"
#include "platform/time_helpers.h"
#include "support/alloc_counter.h"
#include "support/test_env.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr const char *kDir = "/sys/class/power_supply/smartbattery";

class Battery : public ::testing::Test {
protected:
    void SetUp() override { put_all(); }
    void TearDown() override { battery_destroy(battery_); }

    // Every attribute file as a healthy pack's driver writes it.
    void put_all()
    {
        for (const auto &[name, text] : files_)
            put(name, text);
    }
    void put(const std::string &name, const std::string &text) { root_.write(std::string(kDir) + "/" + name, text); }
    void remove(const std::string &name) { std::filesystem::remove(root_.at(std::string(kDir) + "/" + name)); }

    battery_ctx *create(int frequency = 20)
    {
        config_.frequency = frequency;
        battery_ = battery_new(&config_, &data_);
        return battery_;
    }

    // A full read: waits out the read period of the 20 Hz module first.
    int full_read()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(51));
        updated_ = 0;
        return battery_read(battery_, &updated_);
    }

    test_root root_;
    log_capture log_;
    std::map<std::string, std::string> files_{
        {"name", "smartbattery\n"}, {"present", "1\n"}, {"manufacturer_name", "Orlune\n"},
        {"model_name", "ORL-2S\n"}, {"voltage_now", "8100\n"}, {"current_now", "-1500\n"},
        {"rsoc", "90\n"}, {"soh", "97\n"}, {"cycle_count", "12\n"}, {"temperature", "2981\n"},
        {"avg_time_to_empty", "45\n"}, {"full_charge_cap", "2700\n"}, {"remaining_cap", "2430\n"},
        {"alerts", "0 0\n"}, {"authenticated", "1\n"}, {"usb_peer", "0 0 0\n"},
        {"cell_voltage", "2 3900 3895\n"}, {"anomaly", "0\n"},
    };
    sensors_battery_config config_{1, 0, kDir, 1, 0};
    sensors_battery_data data_{};
    battery_ctx *battery_ = nullptr;
    uint32_t updated_ = 0;
};

TEST_F(Battery, ArgumentsAreCheckedSilently)
{
    sensors_battery_config no_device{1, 0, nullptr, 1, 0};
    sensors_battery_config slow{1, 0, kDir, 0, 0};
    EXPECT_EQ(battery_new(nullptr, &data_), nullptr);
    EXPECT_EQ(battery_new(&no_device, &data_), nullptr);
    EXPECT_EQ(battery_new(&slow, &data_), nullptr);
    EXPECT_EQ(battery_new(&config_, nullptr), nullptr);
    EXPECT_THAT(log_.texts("battery"), IsEmpty());
    uint32_t mask = 0;
    EXPECT_EQ(battery_read(nullptr, &mask), -EINVAL);
    EXPECT_EQ(battery_tlm_push(nullptr), -EINVAL);
    EXPECT_EQ(battery_is_present(nullptr), 0);
    battery_destroy(nullptr);
}

TEST_F(Battery, EachCreationFailureSaysWhy)
{
    const std::string dir = root_.at(kDir);
    const std::string start = "5 EVT:SMARTBATTERY;type='start';cell_voltage_0=3900;cell_voltage_1=3895";
    const std::string frequency = "6 Battery frequency=20 Hz\n";
    auto arm = [](const char *point) { return [point] { failpoint_arm(point, -ENOMEM); }; };
    // Each row spoils one file, or arms a fail point of the telemetry, which
    // the world rarely refuses: nothing said after the pack's report. The
    // messages as "<priority> <text>": a pack that is not there, or not
    // ours, is a warning; a driver that does not serve it is an error.
    const struct row {
        const char *what;
        std::function<void()> spoil;
        std::vector<std::string> messages;
    } rows[] = {
        {"no name", [&] { remove("name"); }, {"3 Cannot open " + dir + "/name: No such file or directory"}},
        {"another driver", [&] { put("name", "bq27000\n"); }, {"4 Smartbattery Driver not present"}},
        {"no present", [&] { remove("present"); }, {"3 Cannot open " + dir + "/present: No such file or directory"}},
        {"no pack", [&] { put("present", "0\n"); }, {"4 Smartbattery not present"}},
        {"no model_name", [&] { remove("model_name"); },
         {"3 battery: cannot access to \"model_name\"\n", "3 Mismatch between Smartbattery Driver and Libvigil"}},
        {"no alerts", [&] { remove("alerts"); },
         {"3 battery: cannot access to \"alerts\"\n", "3 Mismatch between Smartbattery Driver and Libvigil"}},
        {"no usb_peer", [&] { remove("usb_peer"); }, {}},
        {"three cells", [&] { put("cell_voltage", "3 3900 3895 3890\n"); },
         {"3 Cannot log cell voltage (cell count=3 max=2)"}},
        {"no cells", [&] { put("cell_voltage", "\n"); }, {"3 Cannot log cell voltage (cell count=-1 max=2)"}},
        {"shm_producer_create", arm("shm_producer_create"), {start, frequency}},
        {"shm_producer_register_struct", arm("shm_producer_register_struct"), {start, frequency}},
        {"shm_producer_complete", arm("shm_producer_complete"), {start, frequency}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        put_all();
        r.spoil();
        EXPECT_EQ(create(), nullptr);
        failpoint_disarm_all();
        std::vector<std::string> said;
        for (const log_record &m : log_.take())
            if (m.tag == "battery")
                said.push_back(std::to_string(m.priority) + " " + m.text);
        EXPECT_EQ(said, r.messages);
    }
}

TEST_F(Battery, CreationReportsThePackAndSizesTheSection)
{
    remove("anomaly"); // older drivers have none
    for (auto [frequency, samples, period] : {std::tuple{1, 2u, 1000000u}, {4, 8u, 250000u}}) {
        SCOPED_TRACE(frequency);
        battery_destroy(battery_);
        ASSERT_NE(create(frequency), nullptr);
        EXPECT_THAT(log_.texts("battery"),
                    ElementsAre("EVT:SMARTBATTERY;type='start';cell_voltage_0=3900;cell_voltage_1=3895",
                                "Battery frequency=" + std::to_string(frequency) + " Hz\n",
                                "Smartbattery operational\n"));
        tlm_section_view view{};
        ASSERT_EQ(tlm_view_open("sensors_battery", &view), 0);
        EXPECT_EQ(view.sample_count, samples);
        EXPECT_EQ(view.period_us, period);
        tlm_view_close(&view);
        EXPECT_EQ(battery_is_present(battery_), 0);
    }
}

TEST_F(Battery, FirstFullReadConvertsAndMarksEveryField)
{
    put("voltage_now", "010\n"); // base 0: octal
    ASSERT_NE(create(), nullptr);
    log_.take();
    ASSERT_EQ(battery_read(battery_, &updated_), 0);
    EXPECT_EQ(updated_, SENSORS_UPDATED_BATTERY);
    EXPECT_EQ(battery_is_present(battery_), 1);
    EXPECT_EQ(data_.present, 1u);
    EXPECT_FLOAT_EQ(data_.voltage, 0.008f);
    EXPECT_FLOAT_EQ(data_.current, -1.5f);
    EXPECT_EQ(data_.rsoc, 90u);
    EXPECT_EQ(data_.soh, 97u);
    EXPECT_EQ(data_.cycle_count, 12u);
    EXPECT_EQ(data_.temperature, 298.0f);
    EXPECT_EQ(data_.avg_time_to_empty, 2700u);
    EXPECT_FLOAT_EQ(data_.full_charge_cap, 2.7f);
    EXPECT_FLOAT_EQ(data_.remaining_cap, 2.43f);
    EXPECT_FLOAT_EQ(data_.cell_voltage[0], 3.9f);
    EXPECT_FLOAT_EQ(data_.cell_voltage[1], 3.895f);
    EXPECT_EQ(data_.changed_mask, 0x2FFu | SENSORS_BATTERY_CHANGED_CELL_VOLTAGES);
    EXPECT_THAT(log_.texts("battery"), ElementsAre("EVT:SMARTBATTERY;soh=97", "EVT:SMARTBATTERY;authenticated='yes'"));

    // Every full read publishes, changed or not; no read or push allocates.
    put("voltage_now", "7900\n");
    tlm_section_view view{};
    ASSERT_EQ(tlm_view_open("sensors_battery", &view), 0);
    EXPECT_EQ(tlm_view_written(&view), 1u);
    alloc_count allocations;
    ASSERT_EQ(full_read(), 0);
    EXPECT_EQ(data_.changed_mask, SENSORS_BATTERY_CHANGED_VOLTAGE);
    EXPECT_FLOAT_EQ(data_.voltage, 7.9f);
    EXPECT_EQ(tlm_view_written(&view), 2u);
    ASSERT_EQ(full_read(), 0);
    EXPECT_EQ(updated_, 0u);
    EXPECT_EQ(tlm_view_written(&view), 3u);
    ASSERT_EQ(battery_read(battery_, &updated_), 0); // within the period
    ASSERT_EQ(battery_tlm_push(battery_), 0);
    EXPECT_EQ(tlm_view_written(&view), 4u);
    EXPECT_EQ(allocations.value(), 0);
    tlm_view_close(&view);
    EXPECT_THAT(log_.texts("battery"), IsEmpty());
}

TEST_F(Battery, CallsWithinThePeriodReadNoFile)
{
    put("avg_time_to_empty", "65535\n"); // a pack at rest: minutes whose seconds need 22 bits
    ASSERT_NE(create(), nullptr);
    ASSERT_EQ(battery_read(battery_, &updated_), 0);
    const sensors_battery_data first = data_;
    put("voltage_now", "7900\n");
    put("present", "0\n");
    updated_ = 0;
    ASSERT_EQ(battery_read(battery_, &updated_), 0);
    EXPECT_EQ(updated_, 0u);
    EXPECT_EQ(data_.changed_mask, 0u);
    EXPECT_EQ(data_.voltage, first.voltage);
    EXPECT_EQ(data_.avg_time_to_empty, 3932100u);
    EXPECT_GT(timespec_compare(&data_.timestamp, &first.timestamp), 0);
    // The pack has gone: -ENODEV at the next full read, and at once within its period.
    EXPECT_EQ(full_read(), -ENODEV);
    EXPECT_EQ(battery_is_present(battery_), 0);
    put("present", "1\n");
    EXPECT_EQ(battery_read(battery_, &updated_), -ENODEV);
    EXPECT_EQ(full_read(), 0);
    EXPECT_EQ(battery_is_present(battery_), 1);
    tlm_section_view view{};
    ASSERT_EQ(tlm_view_open("sensors_battery", &view), 0);
    EXPECT_EQ(tlm_view_written(&view), 2u); // failed reads publish nothing
    tlm_view_close(&view);
}

TEST_F(Battery, AnUnreadablePresentIsAnIoError)
{
    // "present" of a driver instance that goes away: a /proc file of a child
    // process reads "1" while the child lives and fails once it is reaped.
    pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    write_file("/proc/" + std::to_string(child) + "/oom_score_adj", "1");
    remove("present");
    std::filesystem::create_symlink("/proc/" + std::to_string(child) + "/oom_score_adj", root_.at(kDir) + "/present");
    ASSERT_NE(create(), nullptr);
    ASSERT_EQ(battery_read(battery_, &updated_), 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(full_read(), -EIO);
    EXPECT_EQ(battery_is_present(battery_), 0);
}

TEST_F(Battery, TransitionsBecomeEvents)
{
    put("temperature", "3131\n"); // 313 K, 40 degrees Celsius
    put("authenticated", "0\n");
    ASSERT_NE(create(), nullptr);
    ASSERT_EQ(battery_read(battery_, &updated_), 0);
    // The first read reports the authentication as it finds it, "no" too.
    EXPECT_THAT(log_.texts("battery"), Contains("EVT:SMARTBATTERY;authenticated='no'"));
    // Successive attribute contents, each with the events of its full read.
    const struct event_step {
        const char *file;
        const char *content;
        std::vector<std::string> events;
    } steps[] = {
        {"alerts", "3 0\n", {"EVT:SMARTBATTERY;fault='charger'"}},
        {"alerts", "3 0\n", {}},
        {"alerts", "9 1\n",
         {"EVT:SMARTBATTERY;fault='unknown'", "EVT:SMARTBATTERY;temperature_alert='high critical';temperature=40"}},
        {"alerts", "256 4\n", {"EVT:SMARTBATTERY;fault='none'", "EVT:SMARTBATTERY;temperature_alert='low warning';temperature=40"}},
        {"alerts", "0 7\n", {"EVT:SMARTBATTERY;temperature_alert='unknown';temperature=40"}},
        {"usb_peer", "1 1 0\n", {"EVT:SMARTBATTERY;data_role='HOST';power_role='SOURCE'"}},
        {"usb_peer", "1 0 1\n", {"EVT:SMARTBATTERY;data_role='DEVICE';power_role='SINK'"}},
        {"usb_peer", "1 2 0\n", {}},
        {"usb_peer", "0 1 1\n", {"EVT:SMARTBATTERY;data_role='NONE';power_role='NONE'"}},
        {"anomaly", "0x5\n", {"EVT:SMARTBATTERY;anomaly='not_detected'", "EVT:SMARTBATTERY;anomaly='controller'"}},
        {"anomaly", "0x5\n", {"EVT:SMARTBATTERY;anomaly='not_detected'", "EVT:SMARTBATTERY;anomaly='controller'"}},
        {"anomaly", "0x60\n", {"EVT:SMARTBATTERY;anomaly='usb'"}},
        {"anomaly", "\n", {}},
        {"authenticated", "2\n", {"EVT:SMARTBATTERY;authenticated='no'"}},
        {"soh", "0\n", {"EVT:SMARTBATTERY;soh=0", "No State-Of-Health"}},
    };
    for (const event_step &s : steps) {
        SCOPED_TRACE(std::string(s.file) + " " + s.content);
        put(s.file, s.content);
        ASSERT_EQ(full_read(), 0);
        EXPECT_EQ(log_.texts("battery"), s.events);
    }
    // A code beyond the 8 bits kept compares as its low byte, but the
    // sub-record carries what the pack said.
    put("alerts", "256 0\n");
    ASSERT_EQ(full_read(), 0);
    EXPECT_EQ(data_.fault, 256);
    EXPECT_EQ(data_.changed_mask & SENSORS_BATTERY_CHANGED_ALERTS, SENSORS_BATTERY_CHANGED_ALERTS);
}

TEST_F(Battery, ZeroWarningsLatchForTheWholeProcess)
{
    for (const char *file : {"voltage_now", "rsoc", "avg_time_to_empty", "full_charge_cap", "remaining_cap"})
        put(file, "0\n");
    ASSERT_NE(create(), nullptr);
    log_.take();
    ASSERT_EQ(battery_read(battery_, &updated_), 0);
    EXPECT_THAT(log_.texts("battery"),
                ElementsAre("No voltage", "No capacity", "EVT:SMARTBATTERY;soh=97", "No Time To Empty",
                            "No full charge capacity", "No remaining capacity", "EVT:SMARTBATTERY;authenticated='yes'"));
    ASSERT_EQ(full_read(), 0);
    EXPECT_THAT(log_.texts("battery"), IsEmpty());
    // A new module inherits the latches and the reported alerts.
    put("alerts", "2 0\n");
    ASSERT_EQ(full_read(), 0);
    battery_destroy(battery_);
    ASSERT_NE(create(), nullptr);
    log_.take();
    ASSERT_EQ(full_read(), 0);
    EXPECT_THAT(log_.texts("battery"), ElementsAre("EVT:SMARTBATTERY;soh=97", "EVT:SMARTBATTERY;authenticated='yes'"));
    // A non-zero reading re-arms the warning.
    put("voltage_now", "7400\n");
    ASSERT_EQ(full_read(), 0);
    put("voltage_now", "0\n");
    ASSERT_EQ(full_read(), 0);
    EXPECT_THAT(log_.texts("battery"), ElementsAre("No voltage"));
}

TEST(BatteryAttributes, IntegersAndCellVoltagesParseAsTheDriverWritesThem)
{
    test_root root;
    const std::string path = root.path() + "/attribute";
    struct int_row {
        const char *text;
        int result;
        int32_t value;
    };
    for (const int_row &r : std::initializer_list<int_row>{{"010\n", 0, 8}, {"0x10\n", 0, 16}, {"4294967297\n", 0, 1}}) {
        SCOPED_TRACE(r.text);
        write_file(path, r.text);
        int fd = open(path.c_str(), O_RDONLY);
        int32_t v = 77;
        EXPECT_EQ(get_int(fd, &v), r.result);
        EXPECT_EQ(v, r.value);
        close(fd);
    }
    int32_t v;
    EXPECT_EQ(get_int(-1, &v), -EINVAL);

    struct cell_row {
        const char *text;
        int result;
        int count;
        uint16_t cells[2];
    };
    for (const cell_row &r : std::initializer_list<cell_row>{{"2 3900 3895\n", 0, 2, {3900, 3895}},
                                                             {"2 3900\n", -EINVAL, 2, {3900, 0}},
                                                             {"3 3900 3895 3890\n", -EINVAL, 3, {0, 0}},
                                                             {"x\n", -EINVAL, -1, {0, 0}},
                                                             {"2147483647\n", -EINVAL, 2147483647, {0, 0}},
                                                             {"-2\n", 0, -2, {0, 0}}}) {
        SCOPED_TRACE(r.text);
        write_file(path, r.text);
        int fd = open(path.c_str(), O_RDONLY);
        uint16_t cells[2] = {1, 1};
        int count = 0;
        EXPECT_EQ(get_cell_voltage(fd, cells, &count), r.result);
        EXPECT_EQ(count, r.count);
        EXPECT_THAT(cells, ElementsAre(r.cells[0], r.cells[1]));
        close(fd);
    }
    uint16_t cells[2];
    int count = 0;
    EXPECT_EQ(get_cell_voltage(-1, cells, &count), -EINVAL);
    EXPECT_EQ(count, -1);
}

} // namespace
