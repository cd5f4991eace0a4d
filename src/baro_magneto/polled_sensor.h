// SPDX-License-Identifier: Apache-2.0
// What the barometer and the magnetometer share: both are IIO devices polled
// once per acquisition cycle through a non-blocking buffer of one scan per
// refill, both publish their sub-record to a telemetry section holding two
// seconds of samples.
#pragma once

#include <iio.h>

#include <cstdint>

#include "platform/log.h"
#include "platform/ready_poll.h"
#include "platform/sensor_tlm_layouts.h"
#include "platform/shm_telemetry.h"

namespace polled {

// The kernel buffer holds 8 scans; each refill hands over one.
inline constexpr size_t kKernelLength = 8;
inline constexpr size_t kScansPerRefill = 1;
// Highest rate whose period is still a whole microsecond.
inline constexpr int32_t kMaxFrequencyHz = 1000000;
inline constexpr uint32_t kTlmHistoryUs = 2000000;

// Telemetry period of a rate, in microseconds (truncated), and the number of
// samples that make two seconds of it.
inline uint32_t period_us(int32_t frequency_hz)
{
    return uint32_t(1000000 / frequency_hz);
}
inline uint32_t sample_count(uint32_t period)
{
    return kTlmHistoryUs / period;
}

// The device's name for messages; its id when it has no name.
const char *device_name(const iio_device *device);

// Start and stop report success as 0 whatever byte count the attribute
// write returned.
int as_status(int r);

// What the cycle's one poll found on a polled buffer.
struct source {
    int fd;          // the buffer's descriptor where it tells (a board's); -1 elsewhere
    ready_hint hint; // on fd
};
// The source of a buffer just made. Only a board's character device says
// whether a scan waits: over the network a socket is silent until asked.
void watch(source *s, iio_buffer *buffer);
// One refill of the polled buffer: the byte count of a new scan, 0 when no
// scan was waiting (-EAGAIN, an empty refill, or the cycle's poll found
// none), else the negative errno.
int poll(iio_buffer *buffer, source *s);

// Creates the producer of section, registers record with layout_of(kind),
// completes it. Each failure is logged under tag as its module's own
// message, naming function: "failed to create <section> tlm",
// "<function>:<line>: <register_op> err=..." or
// "<function>:<line>: producer_complete err=...". Null on failure.
shm_producer *make_producer(const log_tag &tag, const char *function, const char *section, uint32_t period,
                            const void *record, tlm_kind kind, const char *register_op);

} // namespace polled
