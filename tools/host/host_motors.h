// SPDX-License-Identifier: Apache-2.0
// Motor commands of the host: a timed script from the command line, and keys
// during the live view.
#pragma once

#include <sensors/driver.h>
#include <termios.h>

#include <cstdint>
#include <string>
#include <vector>

struct motor_step {
    double at_s; // seconds after start
    sensors_motor_command command;
};

// Parses "T:CMD[,T:CMD...]", times in seconds after start, commands:
// start, stop, stop=CODE (0..255), speeds=S (all four motors) or
// speeds=S0/S1/S2/S3, stall-on, stall-off. Steps come out in time order.
// False with *error set for anything else.
bool parse_motor_script(const std::string &text, std::vector<motor_step> *out, std::string *error);

// The command name and arguments, as the script writes them.
std::string motor_command_text(const sensors_motor_command &command);

// Keys of the live view: s start, x stop, c stop with code 1, + and - change
// the speeds of the four motors by kSpeedStep (and send them), 0 sends speeds
// 0, g and G switch single-motor-stall handling on and off. *speed is the
// speed the + and - keys move. False for any other key.
inline constexpr uint16_t kSpeedStep = 500;
bool motor_key(int key, uint16_t *speed, sensors_motor_command *out);
inline constexpr const char *kMotorKeysHelp =
    "keys: s start  x stop  c stop code 1  +/- speeds  0 speeds 0  g/G single-stall on/off  q quit";

// Reads single keys from a terminal without waiting: puts it in
// non-canonical mode for its life. Inactive (every read -1) when stdin is
// not a terminal.
class key_reader {
public:
    key_reader();
    ~key_reader();
    key_reader(const key_reader &) = delete;
    key_reader &operator=(const key_reader &) = delete;
    bool active() const { return active_; }
    // The next key pressed, or -1.
    int next();

private:
    bool active_ = false;
    termios saved_{};
};
