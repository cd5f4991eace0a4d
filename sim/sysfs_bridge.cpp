// SPDX-License-Identifier: Apache-2.0
#include "sim/sysfs_bridge.h"

#include "sim/fuse_node.h"
#include "sim/fuse_session.h"
#include "sim/fuse_tree.h"
#include "sim/scan_stream.h"

#include <fcntl.h>
#include <iio.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <thread>
#include <vector>

namespace sim {

namespace {

namespace fs = std::filesystem;

constexpr const char *kDevicesDir = "/sys/bus/iio/devices";
// How often the attributes that the models change by themselves (the
// controller's flight time and last error) are read again from the server.
constexpr int kRefreshMs = 50;
// The largest FIFO asked for: a kernel buffer of this many bytes at most.
constexpr int kMaxPipeBytes = 1 << 20;

bool write_text(const std::string &path, const std::string &text) {
  FILE *f = std::fopen(path.c_str(), "we");
  if (!f)
    return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

// A new value at once: a reader sees the old file or the new one, whole.
bool replace_text(const std::string &path, const std::string &text) {
  const fs::path p(path);
  const std::string tmp =
      (p.parent_path() / ("." + p.filename().string() + ".new")).string();
  return write_text(tmp, text) && std::rename(tmp.c_str(), path.c_str()) == 0;
}

// A value as a client wrote it ("200\0") or as a kernel shows it ("200\n").
std::string read_value(const std::string &path) {
  std::string text;
  if (FILE *f = std::fopen(path.c_str(), "re")) {
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
      text.append(buf, n);
    std::fclose(f);
  }
  while (!text.empty() && (text.back() == '\0' || text.back() == '\n'))
    text.pop_back();
  return text;
}

std::string scan_type(const iio_data_format &f) {
  char text[64];
  int n = std::snprintf(text, sizeof text, "%ce:%c%u/%u", f.is_be ? 'b' : 'l',
                        f.is_signed ? 's' : 'u', f.bits, f.length);
  if (f.repeat > 1)
    n += std::snprintf(text + n, sizeof text - size_t(n), "X%u", f.repeat);
  std::snprintf(text + n, sizeof text - size_t(n), ">>%u\n", f.shift);
  return text;
}

bool remote_attr(iio_device *dev, const char *attr, std::string *out) {
  char value[1024];
  const ssize_t r = iio_device_attr_read(dev, attr, value, sizeof value);
  if (r < 0)
    return false;
  *out = value;
  return true;
}

// libiio's network backend cuts the text it is given at the port's colon:
// each context gets a copy of its own.
iio_context *create_context(const std::string &uri) {
  std::vector<char> text(uri.begin(), uri.end());
  text.push_back('\0');
  return iio_create_context_from_uri(text.data());
}

struct bridged_device {
  std::string id;
  std::string dir;
  iio_device *remote = nullptr; // in the control context
  bool trigger = false;
  std::vector<iio_channel *> scan_channels; // with an index, in index order
  int fifo = -1;                     // both ends, as a kernel keeps its buffer
  std::unique_ptr<fuse_node> node;   // the device's file, over the FIFO
  iio_context *stream_ctx = nullptr; // the streams' own connection, made once
  std::set<std::string> client_written;     // files the client has written
  std::map<std::string, std::string> shown; // device attributes as last shown
  std::unique_ptr<scan_stream> active; // scans from the server into the FIFO
};

enum class watch_kind { device, buffer, trigger_link };

struct watch {
  size_t device;
  watch_kind kind;
};

void log_line(const char *fmt, const std::string &a,
              const std::string &b = {}) {
  std::fprintf(stderr, "orlune-sim: sysfs: ");
  std::fprintf(stderr, fmt, a.c_str(), b.c_str());
  std::fputc('\n', stderr);
}

} // namespace

struct sysfs_bridge::impl {
  std::string uri;
  std::string root;
  iio_context *ctx = nullptr; // the watcher thread's
  std::vector<bridged_device> devices;
  std::map<int, watch> watches;
  int inotify_fd = -1;
  int stop_fd = -1;
  // The tree answered as a kernel's sysfs: writes judged at once. Without
  // it, the writes are followed a moment later (inotify).
  std::unique_ptr<fuse_tree> tree;
  std::thread watcher;
  bool stopped = false;

  ~impl() {
    if (inotify_fd >= 0)
      close(inotify_fd);
    if (stop_fd >= 0)
      close(stop_fd);
    for (bridged_device &d : devices) {
      d.node.reset(); // before the FIFO it reads
      if (d.fifo >= 0)
        close(d.fifo);
      if (d.stream_ctx)
        iio_context_destroy(d.stream_ctx);
    }
    if (ctx)
      iio_context_destroy(ctx);
  }

  // ---- the tree ----------------------------------------------------------
  bool build(std::string *error) {
    const std::string devices_dir = root + kDevicesDir;
    fuse_session::unmount_stale(devices_dir);
    std::error_code ec;
    // What an earlier bridge under this root left: a kernel's tree holds
    // only the devices there are.
    for (const auto &old : fs::directory_iterator(devices_dir, ec))
      fs::remove_all(old.path(), ec);
    for (const auto &old : fs::directory_iterator(root + "/dev", ec))
      if (old.path().filename().string().rfind("iio:device", 0) == 0) {
        fuse_session::unmount_stale(old.path().string());
        fs::remove(old.path(), ec);
      }
    ec.clear();
    fs::create_directories(devices_dir, ec);
    fs::create_directories(root + "/dev", ec);
    if (ec) {
      *error = "cannot create " + devices_dir + ": " + ec.message();
      return false;
    }
    const unsigned count = iio_context_get_devices_count(ctx);
    devices.resize(count);
    for (unsigned i = 0; i < count; i++) {
      bridged_device &d = devices[i];
      d.remote = iio_context_get_device(ctx, i);
      d.id = iio_device_get_id(d.remote);
      d.dir = devices_dir + "/" + d.id;
      d.trigger = iio_device_is_trigger(d.remote);
      fs::create_directories(d.dir, ec);
      if (const char *name = iio_device_get_name(d.remote))
        write_text(d.dir + "/name", std::string(name) + "\n");
      for (unsigned a = 0; a < iio_device_get_attrs_count(d.remote); a++) {
        const char *attr = iio_device_get_attr(d.remote, a);
        remote_attr(d.remote, attr, &d.shown[attr]);
        write_text(d.dir + "/" + attr, d.shown[attr] + "\n");
      }
      if (!d.trigger && !build_channels(d, error))
        return false;
    }
    return true;
  }

  bool build_channels(bridged_device &d, std::string *error) {
    std::error_code ec;
    for (unsigned c = 0; c < iio_device_get_channels_count(d.remote); c++) {
      iio_channel *ch = iio_device_get_channel(d.remote, c);
      for (unsigned a = 0; a < iio_channel_get_attrs_count(ch); a++) {
        const char *attr = iio_channel_get_attr(ch, a);
        char value[1024];
        if (iio_channel_attr_read(ch, attr, value, sizeof value) < 0)
          value[0] = '\0';
        write_text(d.dir + "/" + iio_channel_attr_get_filename(ch, attr),
                   std::string(value) + "\n");
      }
      if (iio_channel_is_scan_element(ch))
        d.scan_channels.push_back(ch);
    }
    if (d.scan_channels.empty())
      return true;
    std::sort(d.scan_channels.begin(), d.scan_channels.end(),
              [](iio_channel *a, iio_channel *b) {
                return iio_channel_get_index(a) < iio_channel_get_index(b);
              });
    fs::create_directories(d.dir + "/scan_elements", ec);
    fs::create_directories(d.dir + "/buffer", ec);
    fs::create_directories(d.dir + "/trigger", ec);
    for (iio_channel *ch : d.scan_channels) {
      const std::string base = d.dir + "/scan_elements/" +
                               (iio_channel_is_output(ch) ? "out_" : "in_") +
                               iio_channel_get_id(ch);
      write_text(base + "_en", "0\n");
      write_text(base + "_index",
                 std::to_string(iio_channel_get_index(ch)) + "\n");
      write_text(base + "_type", scan_type(*iio_channel_get_data_format(ch)));
    }
    write_text(d.dir + "/buffer/enable", "0\n");
    write_text(d.dir + "/buffer/length", "64\n");
    write_text(d.dir + "/buffer/watermark", "1\n");
    // None attached: an empty file (libiio: -EIO), as on a kernel.
    write_text(d.dir + "/trigger/current_trigger", "");
    // A connection of its own for the device's streams, made now: a
    // stream then starts as soon as the client enables the buffer.
    if (!(d.stream_ctx = create_context(uri))) {
      *error = "cannot reach " + uri + " for the streams of " + d.id + ": " +
               std::strerror(errno);
      return false;
    }
    iio_context_set_timeout(d.stream_ctx, 1000);
    const std::string node = root + "/dev/" + d.id;
    unlink(node.c_str());
    if (mkfifo(node.c_str(), 0600) != 0 ||
        (d.fifo = open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) < 0) {
      *error = "cannot make " + node + ": " + std::strerror(errno);
      return false;
    }
    // The device's file over the FIFO, answering as a kernel's does; where
    // none can be mounted, readers open the FIFO itself.
    std::string why;
    if (!(d.node = fuse_node::mount(node, d.fifo, &why)))
      log_line("%s: a plain FIFO, which opens more than once: %s", node, why);
    return !ec ||
           (*error = "cannot create the tree of " + d.id + ": " + ec.message(),
            false);
  }

  // Answers the tree as a kernel's sysfs where it can be mounted, from
  // then on reached beneath the mount; else follows the client's writes.
  bool serve_tree(std::string *error) {
    inotify_fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (inotify_fd < 0 || stop_fd < 0) {
      *error = std::string("inotify: ") + std::strerror(errno);
      return false;
    }
    const std::string devices_dir = root + kDevicesDir;
    std::string why;
    tree = fuse_tree::mount(
        devices_dir,
        [this](const std::string &path, const std::string &value) {
          return judge(path, value);
        },
        writable, &why);
    if (!tree) {
      log_line("%s: plain files, which take any write: %s", devices_dir, why);
      return watch_tree(error);
    }
    for (bridged_device &d : devices)
      d.dir = tree->backing() + "/" + d.id;
    return true;
  }

  bool watch_tree(std::string *error) {
    for (size_t i = 0; i < devices.size(); i++) {
      const bridged_device &d = devices[i];
      const std::pair<std::string, watch_kind> dirs[] = {
          {d.dir, watch_kind::device},
          {d.dir + "/buffer", watch_kind::buffer},
          {d.dir + "/trigger", watch_kind::trigger_link},
      };
      for (const auto &[dir, kind] : dirs) {
        if (!fs::is_directory(dir))
          continue;
        const int wd =
            inotify_add_watch(inotify_fd, dir.c_str(), IN_CLOSE_WRITE);
        if (wd < 0) {
          *error = "cannot watch " + dir + ": " + std::strerror(errno);
          return false;
        }
        watches[wd] = {i, kind};
      }
    }
    return true;
  }

  // ---- what the client writes -------------------------------------------
  // A write the client made; toggled: the enable file was written more than
  // once since the last look (only its last value can be read now).
  void on_write(const watch &w, const std::string &file, bool toggled) {
    bridged_device &d = devices[w.device];
    switch (w.kind) {
    case watch_kind::device:
      forward_attr(d, file, read_value(d.dir + "/" + file));
      break;
    case watch_kind::buffer:
      // length and watermark are read when the buffer is enabled; a 1
      // written over a 1 changes nothing, as in a kernel.
      if (file == "enable" && read_value(d.dir + "/buffer/enable") != "1")
        stop_stream(d);
      else if (file == "enable" && (toggled || !d.active))
        start_stream(d);
      break;
    case watch_kind::trigger_link:
      if (file == "current_trigger")
        set_trigger(d, read_value(d.dir + "/trigger/current_trigger"));
      break;
    }
  }

  // The server's answer to the write of an attribute: 0 or a negative errno.
  int forward_attr(bridged_device &d, const std::string &file,
                   const std::string &value) {
    if (file == "name")
      return -EACCES;
    d.client_written.insert(file);
    int r = -ENOENT;
    bool channel_attr = false;
    for (unsigned c = 0;
         c < iio_device_get_channels_count(d.remote) && !channel_attr; c++) {
      iio_channel *ch = iio_device_get_channel(d.remote, c);
      for (unsigned a = 0; a < iio_channel_get_attrs_count(ch); a++) {
        const char *attr = iio_channel_get_attr(ch, a);
        if (file == iio_channel_attr_get_filename(ch, attr)) {
          r = int(iio_channel_attr_write(ch, attr, value.c_str()));
          channel_attr = true;
          break;
        }
      }
    }
    if (!channel_attr)
      r = int(iio_device_attr_write(d.remote, file.c_str(), value.c_str()));
    if (r < 0)
      log_line("%s refused by the device: %s", d.id + "/" + file + "=" + value,
               std::strerror(-r));
    refresh(d);
    return r < 0 ? r : 0;
  }

  // A write to the tree, judged as a kernel judges it, and done when it is
  // accepted: 0, or the negative errno that the writer gets. Path is
  // relative to the devices' directory.
  int judge(const std::string &path, const std::string &written) {
    std::string value = written;
    while (!value.empty() && (value.back() == '\0' || value.back() == '\n'))
      value.pop_back();
    const size_t slash = path.find('/');
    auto d = std::find_if(devices.begin(), devices.end(),
                          [&](const bridged_device &b) {
                            return b.id == path.substr(0, slash);
                          });
    if (slash == std::string::npos || d == devices.end())
      return -EACCES;
    const std::string rest = path.substr(slash + 1);
    const size_t sub = rest.find('/');
    if (sub == std::string::npos)
      return forward_attr(*d, rest, value);
    const std::string dir = rest.substr(0, sub), file = rest.substr(sub + 1);
    const bool running = read_value(d->dir + "/buffer/enable") == "1";
    if (dir == "buffer" && file == "enable") {
      if (value != "0" && value != "1")
        return -EINVAL;
      if (value == "0") {
        stop_stream(*d);
        return 0;
      }
      if (running)
        return 0;
      // A kernel starts a buffer with a channel and its trigger only.
      if (enabled_channels(*d).empty() ||
          read_value(d->dir + "/trigger/current_trigger").empty())
        return -EINVAL;
      start_stream(*d);
      return 0;
    }
    if ((dir == "buffer" && (file == "length" || file == "watermark")) ||
        (dir == "scan_elements" && file.size() > 3 &&
         file.compare(file.size() - 3, 3, "_en") == 0))
      return running ? -EBUSY : 0;
    if (dir == "trigger" && file == "current_trigger") {
      if (running)
        return -EBUSY;
      set_trigger(*d, value);
      return 0;
    }
    return -EACCES;
  }

  // Whether the client may write the file at path: what a kernel shows as
  // read-only is refused at open.
  static bool writable(const std::string &path) {
    auto ends = [&](const char *tail) {
      const size_t n = std::strlen(tail);
      return path.size() >= n && path.compare(path.size() - n, n, tail) == 0;
    };
    const bool scan_element =
        path.find("/scan_elements/") != std::string::npos;
    return !ends("/name") &&
           !(scan_element && (ends("_index") || ends("_type")));
  }

  void set_trigger(bridged_device &d, const std::string &name) {
    iio_device *trigger = nullptr;
    for (const bridged_device &t : devices)
      if (t.trigger && !name.empty() &&
          name == (iio_device_get_name(t.remote) ? iio_device_get_name(t.remote)
                                                 : ""))
        trigger = t.remote;
    // As a kernel does, a name that is no trigger detaches the one there.
    if (!name.empty() && !trigger)
      log_line("%s: no trigger named %s: none attached", d.id, name);
    if (int r = iio_device_set_trigger(d.remote, trigger); r < 0)
      log_line("%s: the trigger cannot be set: %s", d.id, std::strerror(-r));
  }

  // Shows the device attributes that the server changes by itself, as a
  // kernel would at the next read; never a file the client writes.
  void refresh(bridged_device &d) {
    for (auto &[attr, shown] : d.shown) {
      if (d.client_written.count(attr))
        continue;
      std::string now;
      if (!remote_attr(d.remote, attr.c_str(), &now))
        return; // the server is gone or going: nothing new to show
      if (now != shown && replace_text(d.dir + "/" + attr, now + "\n"))
        shown = now;
    }
  }

  // ---- streams -------------------------------------------------------------
  std::vector<std::string> enabled_channels(const bridged_device &d) const {
    std::vector<std::string> enabled;
    for (iio_channel *ch : d.scan_channels) {
      const std::string en = d.dir + "/scan_elements/" +
                             (iio_channel_is_output(ch) ? "out_" : "in_") +
                             iio_channel_get_id(ch) + "_en";
      if (read_value(en) == "1")
        enabled.push_back(iio_channel_get_id(ch));
    }
    return enabled;
  }

  void drain(bridged_device &d) {
    char scratch[4096];
    while (read(d.fifo, scratch, sizeof scratch) > 0) {
    }
  }

  void start_stream(bridged_device &d) {
    stop_stream(d);
    drain(d); // a kernel buffer starts empty
    const std::vector<std::string> enabled = enabled_channels(d);
    const long length =
        std::max(1L, std::atol(read_value(d.dir + "/buffer/length").c_str()));
    // Batches as the trigger makes them: a blocking device releases a
    // whole batch at once.
    long batch = 1;
    const iio_device *trigger = nullptr;
    if (iio_device_get_trigger(d.remote, &trigger) == 0 && trigger) {
      long long divider = 0;
      if (iio_device_attr_read_longlong(trigger, "rate_divider", &divider) ==
              0 &&
          divider > 0)
        batch = long(divider);
    }
    if (enabled.empty()) {
      log_line("%s: no stream: %s", d.id, "no channel enabled");
      return;
    }
    scan_stream::setup setup;
    setup.ctx = d.stream_ctx;
    setup.device = d.id;
    setup.channels = enabled;
    setup.batch = size_t(batch);
    setup.label = "sysfs: " + d.id;
    d.active = scan_stream::start(
        std::move(setup),
        [this, &d, length, batch, sized = false](const char *scans,
                                                 size_t count,
                                                 size_t scan) mutable {
          // A kernel rounds the buffer's length up to a power of two.
          size_t scans_held = 1;
          while (scans_held < size_t(std::max(length, batch)))
            scans_held *= 2;
          const size_t capacity = scans_held * scan;
          if (!sized) {
            fcntl(d.fifo, F_SETPIPE_SZ,
                  int(std::min<size_t>(std::max<size_t>(capacity, 65536),
                                       kMaxPipeBytes)));
            if (d.node)
              d.node->set_scan_size(scan);
          }
          sized = true;
          feed(d, scans, count * scan, scan * size_t(batch), capacity);
        });
  }

  // Waits for the refill under way (a period of the device, at most half
  // the stream's timeout when nothing comes): cancelling it would close
  // the stream's connection.
  void stop_stream(bridged_device &d) {
    if (!d.active)
      return;
    d.active.reset();
    drain(d);
  }

  // Appends whole batches to the FIFO; when the reader has fallen behind by
  // the buffer's length, the newest find no room and are dropped, as a
  // kernel buffer keeps its oldest. A kernel keeps the scans of a batch that
  // fit, and wakes its reader at the watermark (a batch) whatever the
  // alignment; a FIFO wakes it at any byte, so a batch split there would
  // split every later one across two wakes: the stand-in drops it whole.
  void feed(bridged_device &d, const char *data, size_t bytes, size_t batch,
            size_t capacity) {
    int queued = 0;
    if (ioctl(d.fifo, FIONREAD, &queued) == 0)
      bytes = std::min(bytes, capacity > size_t(queued)
                                  ? (capacity - size_t(queued)) / batch * batch
                                  : 0);
    while (bytes > 0) {
      const ssize_t n = write(d.fifo, data, bytes);
      if (n <= 0)
        return; // full: the scans are dropped, as a kernel drops what finds no
                // room
      data += n;
      bytes -= size_t(n);
    }
  }

  // ---- the watcher ----------------------------------------------------------
  void run() {
    auto next_refresh = std::chrono::steady_clock::now();
    alignas(inotify_event) char events[8192];
    for (;;) {
      pollfd fds[3] = {{inotify_fd, POLLIN, 0},
                       {stop_fd, POLLIN, 0},
                       {tree ? tree->fd() : -1, POLLIN, 0}};
      poll(fds, 3, kRefreshMs);
      if (fds[1].revents)
        break;
      if (fds[2].revents && !tree->serve())
        tree.reset(); // unmounted from outside: nothing to answer
      std::vector<std::pair<watch, std::string>> writes;
      for (;;) {
        const ssize_t n = read(inotify_fd, events, sizeof events);
        if (n <= 0)
          break;
        for (ssize_t off = 0; off < n;) {
          const auto *ev =
              reinterpret_cast<const inotify_event *>(events + off);
          off += ssize_t(sizeof(inotify_event) + ev->len);
          auto w = watches.find(ev->wd);
          if (w == watches.end() || ev->len == 0 || ev->name[0] == '.')
            continue; // our own replacements are made under a dot name
          writes.emplace_back(w->second, ev->name);
        }
      }
      for (size_t i = 0; i < writes.size(); i++) {
        const auto &[w, file] = writes[i];
        size_t times = 0;
        for (const auto &[other, name] : writes)
          times +=
              other.device == w.device && other.kind == w.kind && name == file;
        on_write(w, file, times > 1);
      }
      if (std::chrono::steady_clock::now() >= next_refresh) {
        for (bridged_device &d : devices)
          refresh(d);
        next_refresh = std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(kRefreshMs);
      }
    }
    for (bridged_device &d : devices)
      stop_stream(d);
  }
};

sysfs_bridge::sysfs_bridge(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

std::unique_ptr<sysfs_bridge> sysfs_bridge::start(const std::string &uri,
                                                  const std::string &root,
                                                  std::string *error) {
  // A server that goes away closes the sockets under the bridge's writes:
  // that must end a stream, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  auto p = std::make_unique<impl>();
  p->uri = uri;
  p->root = root == "/" ? "" : root;
  p->ctx = create_context(uri);
  if (!p->ctx) {
    *error = "sysfs: cannot reach " + uri + ": " + std::strerror(errno);
    return nullptr;
  }
  if (!p->build(error) || !p->serve_tree(error))
    return nullptr;
  impl *raw = p.get();
  p->watcher = std::thread([raw] { raw->run(); });
  return std::unique_ptr<sysfs_bridge>(new sysfs_bridge(std::move(p)));
}

void sysfs_bridge::stop() {
  if (impl_->stopped)
    return;
  impl_->stopped = true;
  const uint64_t one = 1;
  (void)!write(impl_->stop_fd, &one, sizeof one);
  impl_->watcher.join();
}

sysfs_bridge::~sysfs_bridge() { stop(); }

} // namespace sim
