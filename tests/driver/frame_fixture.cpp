// SPDX-License-Identifier: Apache-2.0
#include "frame_fixture.h"

#include <stdlib.h>

void FrameTest::SetUp()
{
    setenv("ORLUNE_TLM_DIR", (root_.path() + "/tlm").c_str(), 1);
    log_set_levels("info");
}

void FrameTest::TearDown()
{
    if (ctx_) {
        drv_.stop(ctx_);
        drv_.shutdown(ctx_);
    }
    server_.reset();
    unsetenv("IIOD_REMOTE");
    unsetenv("LIBVIGIL_CFG_PATH");
}

void FrameTest::start_server(const sim::scenario &s)
{
    std::string error;
    server_ = sim::iiod_server::start(s, sim::server_options{}, &error);
    ASSERT_TRUE(server_) << error;
    setenv("IIOD_REMOTE", server_->uri().c_str(), 1);
}

void FrameTest::configure(const cfg_text &text)
{
    std::string path = root_.path() + "/sensors.cfg";
    write_file(path, text.str());
    setenv("LIBVIGIL_CFG_PATH", path.c_str(), 1);
}

cfg_text::entries FrameTest::imu_section(int div)
{
    return {{"enabled", "true"},
            {"device", "\"orlune-imu\""},
            {"trigger", "\"orlune-imu-trig\""},
            {"sampling-frequency", "1000"},
            {"sampling-rate-div", std::to_string(div)},
            {"temperature.sensitivity", "326.8"},
            {"temperature.offset", "25.0"},
            {"accelero_scale", "0.0047884"},
            {"gyro_scale", "0.0010653"}};
}

int FrameTest::probe(uint32_t mask)
{
    sensors_probe_header header{mask, mask};
    return drv_.probe(nullptr, &ctx_, nullptr, &header, &data_);
}

std::vector<std::string> FrameTest::frame_messages()
{
    return cap_.texts("sensors_orlune");
}
