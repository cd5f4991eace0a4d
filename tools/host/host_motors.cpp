// SPDX-License-Identifier: Apache-2.0
#include "host_motors.h"

#include <sensors/motors.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool parse_number(const std::string &text, unsigned long max, unsigned long *out)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    const unsigned long v = strtoul(text.c_str(), &end, 10);
    if (*end || v > max)
        return false;
    *out = v;
    return true;
}

bool parse_command(const std::string &text, sensors_motor_command *c)
{
    *c = {};
    const size_t eq = text.find('=');
    const std::string name = text.substr(0, eq);
    const std::string arg = eq == std::string::npos ? "" : text.substr(eq + 1);
    unsigned long v = 0;
    if (name == "start" && eq == std::string::npos) {
        c->action = BLDC_ACTION_START;
    } else if (name == "stop" && eq == std::string::npos) {
        c->action = BLDC_ACTION_STOP;
    } else if (name == "stop") {
        if (!parse_number(arg, 255, &v))
            return false;
        c->action = BLDC_ACTION_STOP_CODE;
        c->stop_code = uint32_t(v);
    } else if (name == "speeds") {
        c->action = BLDC_ACTION_SET_SPEEDS;
        size_t pos = 0;
        int n = 0;
        for (;;) {
            const size_t slash = arg.find('/', pos);
            if (n == SENSORS_MOTOR_COUNT ||
                !parse_number(arg.substr(pos, slash == std::string::npos ? std::string::npos : slash - pos), 65535,
                              &v))
                return false;
            c->speeds[n++] = uint16_t(v);
            if (slash == std::string::npos)
                break;
            pos = slash + 1;
        }
        if (n == 1)
            std::fill(c->speeds + 1, c->speeds + SENSORS_MOTOR_COUNT, c->speeds[0]);
        else if (n != SENSORS_MOTOR_COUNT)
            return false;
    } else if (text == "stall-on") {
        c->action = BLDC_ACTION_SINGLE_STALL_ON;
    } else if (text == "stall-off") {
        c->action = BLDC_ACTION_SINGLE_STALL_OFF;
    } else {
        return false;
    }
    return true;
}

} // namespace

bool parse_motor_script(const std::string &text, std::vector<motor_step> *out, std::string *error)
{
    std::vector<motor_step> steps;
    size_t pos = 0;
    while (pos <= text.size()) {
        const size_t comma = text.find(',', pos);
        const std::string item = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        const size_t colon = item.find(':');
        char *end = nullptr;
        const std::string time = item.substr(0, colon);
        const double at = strtod(time.c_str(), &end);
        motor_step step{at, {}};
        if (colon == std::string::npos || time.empty() || *end || !(at >= 0) ||
            !parse_command(item.substr(colon + 1), &step.command)) {
            *error = "bad motor step '" + item + "' (want SECONDS:start|stop|stop=CODE|speeds=S|speeds=S0/S1/S2/S3|"
                     "stall-on|stall-off)";
            return false;
        }
        steps.push_back(step);
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    std::stable_sort(steps.begin(), steps.end(),
                     [](const motor_step &a, const motor_step &b) { return a.at_s < b.at_s; });
    *out = std::move(steps);
    return true;
}

std::string motor_command_text(const sensors_motor_command &c)
{
    char text[64];
    switch (c.action) {
    case BLDC_ACTION_START:
        return "start";
    case BLDC_ACTION_STOP:
        return "stop";
    case BLDC_ACTION_STOP_CODE:
        snprintf(text, sizeof text, "stop=%u", c.stop_code & 0xffu);
        return text;
    case BLDC_ACTION_SET_SPEEDS:
        snprintf(text, sizeof text, "speeds=%u/%u/%u/%u", c.speeds[0], c.speeds[1], c.speeds[2], c.speeds[3]);
        return text;
    case BLDC_ACTION_SINGLE_STALL_ON:
        return "stall-on";
    case BLDC_ACTION_SINGLE_STALL_OFF:
        return "stall-off";
    default:
        snprintf(text, sizeof text, "action %u", c.action);
        return text;
    }
}

bool motor_key(int key, uint16_t *speed, sensors_motor_command *out)
{
    *out = {};
    switch (key) {
    case 's':
        out->action = BLDC_ACTION_START;
        return true;
    case 'x':
        out->action = BLDC_ACTION_STOP;
        return true;
    case 'c':
        out->action = BLDC_ACTION_STOP_CODE;
        out->stop_code = 1;
        return true;
    case '+':
    case '-':
    case '0':
        *speed = key == '0' ? 0
                 : key == '+' ? uint16_t(std::min(65535, *speed + kSpeedStep))
                              : uint16_t(std::max(0, *speed - kSpeedStep));
        out->action = BLDC_ACTION_SET_SPEEDS;
        std::fill(out->speeds, out->speeds + SENSORS_MOTOR_COUNT, *speed);
        return true;
    case 'g':
        out->action = BLDC_ACTION_SINGLE_STALL_ON;
        return true;
    case 'G':
        out->action = BLDC_ACTION_SINGLE_STALL_OFF;
        return true;
    default:
        return false;
    }
}

key_reader::key_reader()
{
    if (!isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &saved_) != 0)
        return;
    termios raw = saved_;
    raw.c_lflag &= ~tcflag_t(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
}

key_reader::~key_reader()
{
    if (active_)
        tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
}

int key_reader::next()
{
    if (!active_)
        return -1;
    unsigned char c;
    return read(STDIN_FILENO, &c, 1) == 1 ? c : -1;
}
