// SPDX-License-Identifier: Apache-2.0
// A capture's IIO devices as models for the iiod server: the channels and
// attributes of the recorded description (parsed by libiio itself, so that
// channels are numbered as a client numbers them), the attribute values as
// recorded, and the recorded scans with their timestamps.
#include <iio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "sim/replay.h"

namespace sim {
namespace {

// Answers attribute reads with the value recorded last before the replay's
// current time, and takes any write to an attribute the device has (a motor
// command, a rate): the recorded streams go on as they were.
class recorded_model final : public device_model {
public:
    recorded_model(const scenario_device &setup, const replay_clock &clock, int64_t start, int64_t loop)
        : device_model(setup, 0), clock_(clock), start_(start), loop_(loop)
    {
    }

    void add_channel(channel_desc c) { channels_.push_back(std::move(c)); }
    void add_device_attr(const std::string &name) { device_attrs_.push_back(name); }
    void add_trigger_attr(const std::string &name) { trigger_attrs_.push_back(name); }
    void set_value(const std::string &file, const std::string &value)
    {
        for (auto &[name, v] : values_)
            if (name == file) {
                v = value;
                return;
            }
        add_value(file, value);
    }
    // A value recorded up to the start is the initial one; so is the first
    // one recorded after it when none was before (the capture began a little
    // after the device was set up). Later values are changes.
    void record_value(int64_t t, int64_t start, const std::string &file, const std::string &value)
    {
        bool known = false;
        for (const auto &[name, v] : values_)
            known = known || name == file;
        if (t <= start || !known)
            set_value(file, value);
        if (t > start)
            changes_.push_back({t, file, value});
    }
    void set_blocking(bool blocking) { blocking_ = blocking; }
    void set_loop(int64_t loop) { loop_ = loop; }

    void sample(const vehicle &, double, uint64_t, int64_t *raw) const override
    {
        std::fill(raw, raw + channels_.size(), 0);
    }
    int write_attr(const std::string &file, const std::string &, double) override
    {
        for (const auto &[name, v] : values_)
            if (name == file)
                return 0;
        return -EACCES;
    }
    bool read_attr(const std::string &file, double, std::string *value) const override
    {
        int64_t now = clock_.now();
        if (loop_ && now > start_)
            now = start_ + (now - start_) % loop_;
        bool found = false;
        for (const change &c : changes_) {
            if (c.t <= now && c.file == file) {
                *value = c.value;
                found = true;
            }
        }
        return found;
    }

private:
    struct change {
        int64_t t;
        std::string file;
        std::string value;
    };
    const replay_clock &clock_;
    int64_t start_, loop_;
    std::vector<change> changes_; // each file's in time order
};

struct context_deleter {
    void operator()(iio_context *c) const { iio_context_destroy(c); }
};

} // namespace

uint64_t replay_device::until(int64_t t) const
{
    const uint64_t n = per_pass();
    if (n == 0)
        return 0;
    const auto first = stamps.begin() + static_cast<ptrdiff_t>(base);
    uint64_t passes = 0;
    if (loop_ns && t >= *first) {
        passes = static_cast<uint64_t>((t - *first) / loop_ns);
        t -= static_cast<int64_t>(passes) * loop_ns;
    }
    return passes * n + static_cast<uint64_t>(std::upper_bound(first, stamps.end(), t) - first);
}

int replay_devices(const replay_capture &capture, const replay_clock &clock, int64_t start_ns, int64_t *loop,
                   std::vector<replay_device> *out, std::string *error)
{
    const int64_t loop_ns = *loop;
    std::vector<recorded_model *> models;
    const std::string &xml = capture.context_xml();
    if (xml.empty()) {
        *error = "replay: the capture has no IIO description";
        return -EINVAL;
    }
    std::unique_ptr<iio_context, context_deleter> ctx(iio_create_xml_context_mem(xml.data(), xml.size()));
    if (!ctx) {
        *error = "replay: the capture's IIO description does not parse";
        return -EINVAL;
    }
    for (const replay_capture::stream &st : capture.streams()) {
        if (st.kind != capture::stream_kind::iio_device)
            continue;
        const iio_device *dev = iio_context_find_device(ctx.get(), st.name.c_str());
        if (!dev || iio_device_is_trigger(dev))
            continue;
        replay_device d;
        d.id = st.name;
        scenario_device setup;
        const char *name = iio_device_get_name(dev);
        setup.name = name ? name : st.name;
        auto model = std::make_unique<recorded_model>(setup, clock, start_ns, loop_ns);

        // Channels in the client's numbering, attributes by file name.
        std::map<std::string, std::string> channel_file; // "in:accel_x/scale" -> "in_accel_scale"
        size_t recorded_size = 0;
        int timestamp = -1;
        for (unsigned i = 0; i < iio_device_get_channels_count(dev); i++) {
            const iio_channel *ch = iio_device_get_channel(dev, i);
            const iio_data_format *f = iio_channel_get_data_format(ch);
            channel_desc c;
            c.id = iio_channel_get_id(ch);
            c.format = {f->is_signed, f->bits, iio_channel_is_scan_element(ch) ? f->length / 8 : 0};
            const std::string prefix = std::string(iio_channel_is_output(ch) ? "out:" : "in:") + c.id + "/";
            for (unsigned a = 0; a < iio_channel_get_attrs_count(ch); a++) {
                const char *attr = iio_channel_get_attr(ch, a);
                const char *file = iio_channel_attr_get_filename(ch, attr);
                c.attrs.push_back({attr, file ? file : attr});
                channel_file[prefix + attr] = c.attrs.back().filename;
            }
            // The capture streamed every scan element: their places in a
            // recorded scan, by the client's rule (each aligned to its size).
            size_t offset = SIZE_MAX;
            if (c.format.storage_bytes) {
                const size_t len = c.format.storage_bytes;
                if (recorded_size % len)
                    recorded_size += len - recorded_size % len;
                offset = recorded_size;
                recorded_size += len;
                if (c.id == "timestamp" && len == 8)
                    timestamp = static_cast<int>(i);
            }
            d.offsets.push_back(offset);
            model->add_channel(std::move(c));
        }
        for (unsigned a = 0; a < iio_device_get_attrs_count(dev); a++)
            model->add_device_attr(iio_device_get_attr(dev, a));
        // Replayed scans are stamped on this machine's monotonic clock,
        // whatever the capture's device said.
        if (!iio_device_find_attr(dev, "current_timestamp_clock"))
            model->add_device_attr("current_timestamp_clock");

        // Attribute records: the values at the start, then the changes.
        std::string trigger;
        bool blocking = true;
        uint32_t scan_size = 0;
        for (const capture::record &r : st.records) {
            capture::attr_value a;
            capture::scan_layout layout;
            if (capture::parse_layout(r, &layout)) {
                // Every scan element was recorded: the description says how.
                if (layout.scan_size != recorded_size) {
                    *error = "replay: " + st.name + ": recorded scans of " + std::to_string(layout.scan_size) +
                             " bytes where its description gives " + std::to_string(recorded_size);
                    return -EINVAL;
                }
                scan_size = layout.scan_size;
            } else if (r.kind == capture::record_kind::scans && scan_size) {
                for (uint64_t at = 0; at + scan_size <= r.size; at += scan_size) {
                    int64_t stamp = r.time_ns;
                    if (timestamp >= 0)
                        std::memcpy(&stamp, r.payload + at + d.offsets[static_cast<size_t>(timestamp)], 8);
                    d.scans.push_back(r.payload + at);
                    d.stamps.push_back(stamp);
                }
            } else if (capture::parse_attr(r, &a)) {
                std::string file(a.name);
                if (a.scope == capture::attr_scope::channel) {
                    auto it = channel_file.find(std::string(a.channel) + "/" + std::string(a.name));
                    if (it == channel_file.end())
                        continue;
                    file = it->second;
                } else if (a.scope == capture::attr_scope::trigger) {
                    if (r.time_ns <= start_ns || trigger.empty())
                        trigger = a.value;
                    continue;
                } else if (a.scope == capture::attr_scope::observed) {
                    blocking = blocking && !(a.name == "blocking" && a.value == "0");
                    continue;
                } else if (a.scope != capture::attr_scope::device) {
                    continue;
                }
                if (file != "current_timestamp_clock")
                    model->record_value(r.time_ns, start_ns, file, std::string(a.value));
            }
        }
        model->set_value("current_timestamp_clock", "monotonic");
        // A scan is stamped before the capture gets it, and not long before
        // the capture began (the kernel holds a few): otherwise the device's
        // clock is not the capture's (a capture taken on another machine).
        if (!d.stamps.empty() &&
            (d.stamps.front() < capture.first_ns() - 2000000000 || d.stamps.back() > capture.last_ns())) {
            *error = "replay: " + st.name + ": its scans are stamped on another clock than the capture's (" +
                     std::to_string(d.stamps.front() / 1000000000) + " s against " +
                     std::to_string(capture.first_ns() / 1000000000) +
                     " s): capture on the vehicle itself, where the devices and the capture share a clock";
            return -EINVAL;
        }
        for (size_t i = 1; i < d.stamps.size(); i++)
            if (d.stamps[i] < d.stamps[i - 1]) {
                *error = "replay: " + st.name + ": its scans' timestamps go back at scan " + std::to_string(i);
                return -EINVAL;
            }
        model->set_blocking(blocking);
        d.timestamp = timestamp;
        d.base = static_cast<size_t>(std::upper_bound(d.stamps.begin(), d.stamps.end(), start_ns) - d.stamps.begin());
        d.loop_ns = loop_ns;
        d.trigger = trigger;
        if (!trigger.empty())
            if (const iio_device *t = iio_context_find_device(ctx.get(), trigger.c_str())) {
                d.trigger_id = iio_device_get_id(t);
                // A trigger's attributes are kept with its device's, by name.
                for (unsigned a = 0; a < iio_device_get_attrs_count(t); a++)
                    model->add_trigger_attr(iio_device_get_attr(t, a));
                for (const replay_capture::stream &ts : capture.streams())
                    if (ts.name == d.trigger_id)
                        for (const capture::record &r : ts.records) {
                            capture::attr_value a;
                            if (!capture::parse_attr(r, &a) || a.scope != capture::attr_scope::device)
                                continue;
                            model->record_value(r.time_ns, start_ns, std::string(a.name), std::string(a.value));
                        }
            }
        models.push_back(model.get());
        d.model = std::move(model);
        out->push_back(std::move(d));
    }
    if (out->empty()) {
        *error = "replay: the capture holds no IIO device that streams";
        return -EINVAL;
    }
    const replay_device *fastest = nullptr;
    for (const replay_device &d : *out)
        if (d.per_pass() >= 2 && (!fastest || d.per_pass() > fastest->per_pass()))
            fastest = &d;
    if (loop_ns && fastest) {
        const int64_t span = fastest->stamps.back() - fastest->stamps[fastest->base];
        const int64_t seam = span + span / static_cast<int64_t>(fastest->per_pass() - 1);
        *loop = std::min(loop_ns, std::max<int64_t>(seam, 1));
        for (replay_device &d : *out)
            d.loop_ns = *loop;
        for (recorded_model *m : models)
            m->set_loop(*loop);
    }
    return 0;
}

} // namespace sim
