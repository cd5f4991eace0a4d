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

// When to ask a device whose refills wait for its next scan. A board's own
// iiod holds a polled device's refill until the device samples again, where
// the simulator answers at once that nothing is new: asked every cycle,
// each cycle would wait up to a period of the device. Such a device is
// asked only when its next scan is about to come: the last scan's stamp,
// plus the device's period (or the shorter one its stamps show), plus the
// shortest delay seen between a scan's stamp and its taking here (which
// takes in any offset between the device's clock and this machine's), less
// an eighth of a period. The gate holds only while the scans keep this
// machine's pace (over each kPaceScans scans, their stamps and their
// takings advance alike, within an eighth and a period: not while a reader
// falls behind or catches up); a refill that answers at once that nothing
// is new ends it for good, as asking costs no wait there.
struct due_gate {
    int64_t period_ns;     // 0: not known, every cycle asks
    int64_t step_ns;       // between two stamps, as the last window showed; at most period_ns
    int64_t lag_ns;        // shortest stamp-to-taking delay, creeping up slowly to follow a drifting clock
    int64_t next_ns;       // when the next scan is about to come
    int64_t pace_stamp_ns; // the stamp and the taking of the first scan of the pace's window
    int64_t pace_now_ns;
    uint32_t pace_scans;   // scans taken since it
    bool paced;            // the last window kept the pace: the gate is in force
    bool lag_known;
    bool answers_at_once;  // a refill answered that nothing was new
};
inline constexpr uint32_t kPaceScans = 8;
inline bool gate_in_force(const due_gate &g)
{
    return g.period_ns != 0 && g.paced && !g.answers_at_once;
}
inline bool gate_open(const due_gate &g, int64_t now_ns)
{
    return !gate_in_force(g) || now_ns >= g.next_ns;
}
// A refill answered that nothing was new.
inline void gate_empty(due_gate *g)
{
    g->answers_at_once = true;
}
// A scan stamped stamp_ns was taken at now_ns.
void gate_scan(due_gate *g, int64_t stamp_ns, int64_t now_ns);

// What the cycle's one poll found on a polled buffer.
struct source {
    int fd;           // the buffer's descriptor where it tells (a board's); -1 elsewhere
    ready_hint hint;  // on fd
    due_gate gate;    // where no descriptor tells: read by request
};
// The source of a buffer just made, of a device sampling every period_us
// (0: its own rate, not known). Only a board's character device says
// whether a scan waits: over the network a socket is silent until asked,
// and where the server holds a refill, the device's period says when.
void watch(source *s, iio_buffer *buffer, uint32_t period_us);
// One refill of the polled buffer: the byte count of a new scan, 0 when no
// scan was waiting (-EAGAIN, an empty refill, the cycle's poll found none,
// or, where refills wait, the next scan is not about to come), else the
// negative errno.
int poll(iio_buffer *buffer, source *s);
// The new scan's stamp, once decoded: when the next one is about to come.
void arrived(source *s, const timespec &stamp);
// The device's stream starts afresh (its buffer enabled): every cycle asks
// until its scans have kept the pace again.
void restart(source *s);

// Creates the producer of section, registers record with layout_of(kind),
// completes it. Each failure is logged under tag as its module's own
// message, naming function: "failed to create <section> tlm",
// "<function>:<line>: <register_op> err=..." or
// "<function>:<line>: producer_complete err=...". Null on failure.
shm_producer *make_producer(const log_tag &tag, const char *function, const char *section, uint32_t period,
                            const void *record, tlm_kind kind, const char *register_op);

} // namespace polled
