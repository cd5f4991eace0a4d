// SPDX-License-Identifier: Apache-2.0
#include "sim/fuse_node.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

namespace sim {

namespace {

// The largest read the kernel asks for at once (32 pages), and room for a
// request: the kernel wants at least 8 KiB.
constexpr size_t kMaxRead = 128 * 1024;
constexpr size_t kRequestRoom = kMaxRead + 4096;

// A read that waits for scans: its request and the bytes it may take.
struct waiting_read {
  uint64_t unique;
  size_t bytes;
};

} // namespace

struct fuse_node::impl {
  std::string path;
  int source = -1;   // the FIFO, not owned
  int fuse_fd = -1;  // the connection to the kernel
  int stop_fd = -1;
  bool mounted = false;
  std::atomic<size_t> scan_size{0};
  std::thread server;
  // The server thread's own.
  bool open = false;
  bool poll_armed = false; // a poll() waits for the kernel handle below
  uint64_t poll_handle = 0;
  std::vector<waiting_read> waiting;
  std::vector<char> request = std::vector<char>(kRequestRoom);
  std::vector<char> data = std::vector<char>(kMaxRead);

  ~impl() {
    if (server.joinable()) {
      const uint64_t one = 1;
      (void)!write(stop_fd, &one, sizeof one);
      server.join();
    }
    if (mounted)
      umount2(path.c_str(), MNT_DETACH);
    if (fuse_fd >= 0)
      close(fuse_fd);
    if (stop_fd >= 0)
      close(stop_fd);
  }

  void reply(uint64_t unique, int error, const void *payload = nullptr,
             size_t bytes = 0) {
    fuse_out_header head{};
    head.len = uint32_t(sizeof head + bytes);
    head.error = error;
    head.unique = unique;
    iovec parts[2] = {{&head, sizeof head},
                      {const_cast<void *>(payload), bytes}};
    // The kernel takes a reply whole or not at all; one for a request that
    // was interrupted meanwhile is refused (ENOENT), which is fine.
    (void)!writev(fuse_fd, parts, payload ? 2 : 1);
  }

  void notify_poll() {
    fuse_notify_poll_wakeup_out wake{};
    wake.kh = poll_handle;
    fuse_out_header head{};
    head.len = uint32_t(sizeof head + sizeof wake);
    head.error = FUSE_NOTIFY_POLL;
    head.unique = 0;
    iovec parts[2] = {{&head, sizeof head}, {&wake, sizeof wake}};
    (void)!writev(fuse_fd, parts, 2);
    poll_armed = false;
  }

  bool readable() const {
    pollfd p{source, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
  }

  // Whole scans of at most bytes from the FIFO into data: their size, 0
  // when none is there.
  size_t take(size_t bytes) {
    const ssize_t n = ::read(source, data.data(), bytes);
    return n > 0 ? size_t(n) : 0;
  }

  void attributes(uint64_t unique) {
    fuse_attr_out out{};
    out.attr_valid = 1;
    out.attr.ino = 1;
    out.attr.mode = S_IFREG | 0600;
    out.attr.nlink = 1;
    out.attr.blksize = 4096;
    const time_t now = time(nullptr);
    out.attr.atime = out.attr.mtime = out.attr.ctime = uint64_t(now);
    reply(unique, 0, &out, sizeof out);
  }

  void on_read(const fuse_in_header &in, const fuse_read_in &r) {
    const size_t scan = scan_size.load(std::memory_order_relaxed);
    size_t bytes = std::min<size_t>(r.size, kMaxRead);
    if (scan > 0)
      bytes = bytes / scan * scan;
    if (bytes == 0) {
      reply(in.unique, -EINVAL);
      return;
    }
    if (const size_t n = take(bytes)) {
      reply(in.unique, 0, data.data(), n);
      return;
    }
    if (r.flags & O_NONBLOCK)
      reply(in.unique, -EAGAIN);
    else
      waiting.push_back({in.unique, bytes});
  }

  void on_poll(const fuse_in_header &in, const fuse_poll_in &p) {
    fuse_poll_out out{};
    if (readable()) {
      out.revents = POLLIN | POLLRDNORM;
    } else if (p.flags & FUSE_POLL_SCHEDULE_NOTIFY) {
      poll_armed = true;
      poll_handle = p.kh;
    }
    reply(in.unique, 0, &out, sizeof out);
  }

  // The FIFO has scans: the waiting reads take them, a waiting poll wakes.
  void on_scans() {
    while (!waiting.empty()) {
      const size_t n = take(waiting.front().bytes);
      if (n == 0)
        break;
      reply(waiting.front().unique, 0, data.data(), n);
      waiting.erase(waiting.begin());
    }
    if (poll_armed && readable())
      notify_poll();
  }

  void on_request(const char *buf, size_t len) {
    if (len < sizeof(fuse_in_header))
      return;
    fuse_in_header in;
    std::memcpy(&in, buf, sizeof in);
    const char *arg = buf + sizeof in;
    const size_t arg_len = len - sizeof in;
    auto fits = [&](size_t need) {
      if (arg_len >= need)
        return true;
      reply(in.unique, -EINVAL);
      return false;
    };
    switch (in.opcode) {
    case FUSE_INIT: {
      if (!fits(2 * sizeof(uint32_t)))
        return;
      fuse_init_in init{};
      std::memcpy(&init, arg, std::min(arg_len, sizeof init));
      if (init.major != FUSE_KERNEL_VERSION) {
        reply(in.unique, -EPROTO);
        return;
      }
      fuse_init_out out{};
      out.major = FUSE_KERNEL_VERSION;
      out.minor = std::min<uint32_t>(init.minor, FUSE_KERNEL_MINOR_VERSION);
      out.max_readahead = init.max_readahead;
      out.max_background = 16;
      out.congestion_threshold = 12;
      out.max_write = 4096;
      out.time_gran = 1;
      reply(in.unique, 0, &out, sizeof out);
      return;
    }
    case FUSE_GETATTR:
    case FUSE_SETATTR: // a truncation at open changes nothing of a device
      attributes(in.unique);
      return;
    case FUSE_OPEN: {
      if (open) {
        reply(in.unique, -EBUSY);
        return;
      }
      open = true;
      fuse_open_out out{};
      out.fh = 1;
      out.open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE | FOPEN_STREAM;
      reply(in.unique, 0, &out, sizeof out);
      return;
    }
    case FUSE_READ: {
      if (!fits(sizeof(fuse_read_in)))
        return;
      fuse_read_in r;
      std::memcpy(&r, arg, sizeof r);
      on_read(in, r);
      return;
    }
    case FUSE_POLL: {
      if (!fits(sizeof(fuse_poll_in)))
        return;
      fuse_poll_in p;
      std::memcpy(&p, arg, sizeof p);
      on_poll(in, p);
      return;
    }
    case FUSE_INTERRUPT: {
      // A waiting read given up (a signal): answered as interrupted.
      if (arg_len < sizeof(fuse_interrupt_in))
        return;
      fuse_interrupt_in what;
      std::memcpy(&what, arg, sizeof what);
      for (size_t i = 0; i < waiting.size(); i++) {
        if (waiting[i].unique == what.unique) {
          reply(what.unique, -EINTR);
          waiting.erase(waiting.begin() + long(i));
          break;
        }
      }
      return; // an interrupt has no answer of its own
    }
    case FUSE_RELEASE:
      open = false;
      poll_armed = false;
      for (const waiting_read &w : waiting)
        reply(w.unique, -EBADF);
      waiting.clear();
      reply(in.unique, 0);
      return;
    case FUSE_FLUSH:
    case FUSE_DESTROY:
      reply(in.unique, 0);
      return;
    case FUSE_WRITE: // a buffer of inputs
      reply(in.unique, -EPERM);
      return;
    case FUSE_IOCTL: // none that this device knows
      reply(in.unique, -ENODEV);
      return;
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
      return; // no answer
    default:
      reply(in.unique, -ENOSYS);
      return;
    }
  }

  void run() {
    for (;;) {
      const bool want_scans = poll_armed || !waiting.empty();
      pollfd fds[3] = {{fuse_fd, POLLIN, 0},
                       {stop_fd, POLLIN, 0},
                       {source, short(want_scans ? POLLIN : 0), 0}};
      if (::poll(fds, 3, -1) < 0 && errno != EINTR)
        return;
      if (fds[1].revents)
        return;
      if (fds[2].revents & POLLIN)
        on_scans();
      if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL))
        return; // unmounted
      if (fds[0].revents & POLLIN) {
        const ssize_t n = ::read(fuse_fd, request.data(), request.size());
        if (n < 0 && errno == ENODEV)
          return; // unmounted
        if (n > 0)
          on_request(request.data(), size_t(n));
      }
    }
  }
};

fuse_node::fuse_node(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

fuse_node::~fuse_node() = default;

void fuse_node::set_scan_size(size_t bytes) {
  impl_->scan_size.store(bytes, std::memory_order_relaxed);
}

int fuse_node::unmount_stale(const std::string &path) {
  int taken = 0;
  while (taken < 16 && umount2(path.c_str(), MNT_DETACH) == 0)
    taken++;
  return taken;
}

std::unique_ptr<fuse_node> fuse_node::mount(const std::string &path,
                                            int source, std::string *error) {
  auto p = std::make_unique<impl>();
  p->path = path;
  p->source = source;
  p->fuse_fd = open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (p->fuse_fd < 0) {
    *error = std::string("/dev/fuse: ") + std::strerror(errno);
    return nullptr;
  }
  p->stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (p->stop_fd < 0) {
    *error = std::string("eventfd: ") + std::strerror(errno);
    return nullptr;
  }
  char options[128];
  std::snprintf(options, sizeof options,
                "fd=%d,rootmode=%o,user_id=%u,group_id=%u,allow_other",
                p->fuse_fd, unsigned(S_IFREG), unsigned(getuid()),
                unsigned(getgid()));
  if (::mount("orlune-sim", path.c_str(), "fuse", MS_NOSUID | MS_NODEV | MS_NOEXEC,
              options) != 0) {
    *error = "cannot mount over " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  p->mounted = true;
  impl *raw = p.get();
  p->server = std::thread([raw] { raw->run(); });
  return std::unique_ptr<fuse_node>(new fuse_node(std::move(p)));
}

} // namespace sim
