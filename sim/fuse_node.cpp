// SPDX-License-Identifier: Apache-2.0
#include "sim/fuse_node.h"

#include "sim/fuse_session.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

namespace sim {

namespace {

// The largest read the kernel asks for at once (32 pages).
constexpr size_t kMaxRead = 128 * 1024;

// A read that waits for scans: its request and the bytes it may take.
struct waiting_read {
  uint64_t unique;
  size_t bytes;
};

} // namespace

struct fuse_node::impl {
  int source = -1; // the FIFO, not owned
  int stop_fd = -1;
  std::unique_ptr<fuse_session> session;
  std::atomic<size_t> scan_size{0};
  std::thread server;
  // The server thread's own.
  bool open = false;
  bool poll_armed = false; // a poll() waits for the kernel handle below
  uint64_t poll_handle = 0;
  std::vector<waiting_read> waiting;
  std::vector<char> data = std::vector<char>(kMaxRead);

  ~impl() {
    if (server.joinable()) {
      const uint64_t one = 1;
      (void)!write(stop_fd, &one, sizeof one);
      server.join();
    }
    session.reset();
    if (stop_fd >= 0)
      close(stop_fd);
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

  void on_read(const fuse_in_header &in, const fuse_read_in &r) {
    const size_t scan = scan_size.load(std::memory_order_relaxed);
    size_t bytes = std::min<size_t>(r.size, kMaxRead);
    if (scan > 0)
      bytes = bytes / scan * scan;
    if (bytes == 0) {
      session->reply(in.unique, -EINVAL);
      return;
    }
    if (const size_t n = take(bytes)) {
      session->reply(in.unique, 0, data.data(), n);
      return;
    }
    if (r.flags & O_NONBLOCK)
      session->reply(in.unique, -EAGAIN);
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
    session->reply(in.unique, 0, &out, sizeof out);
  }

  // The FIFO has scans: the waiting reads take them, a waiting poll wakes.
  void on_scans() {
    while (!waiting.empty()) {
      const size_t n = take(waiting.front().bytes);
      if (n == 0)
        break;
      session->reply(waiting.front().unique, 0, data.data(), n);
      waiting.erase(waiting.begin());
    }
    if (poll_armed && readable()) {
      session->notify_poll(poll_handle);
      poll_armed = false;
    }
  }

  void on_request(const fuse_session::request &r) {
    const fuse_in_header &in = r.in;
    if (session->handle(r))
      return;
    auto argument = [&](auto *out) {
      if (r.arg_len < sizeof *out) {
        session->reply(in.unique, -EINVAL);
        return false;
      }
      std::memcpy(out, r.arg, sizeof *out);
      return true;
    };
    switch (in.opcode) {
    case FUSE_GETATTR:
    case FUSE_SETATTR: { // a truncation at open changes nothing of a device
      struct stat st {};
      st.st_mode = S_IFREG | 0600;
      st.st_nlink = 1;
      session->reply_attr(in.unique, 1, st);
      return;
    }
    case FUSE_OPEN: {
      if (open) {
        session->reply(in.unique, -EBUSY);
        return;
      }
      open = true;
      fuse_open_out out{};
      out.fh = 1;
      out.open_flags = FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE | FOPEN_STREAM;
      session->reply(in.unique, 0, &out, sizeof out);
      return;
    }
    case FUSE_READ: {
      fuse_read_in read_in;
      if (argument(&read_in))
        on_read(in, read_in);
      return;
    }
    case FUSE_POLL: {
      fuse_poll_in poll_in;
      if (argument(&poll_in))
        on_poll(in, poll_in);
      return;
    }
    case FUSE_INTERRUPT: {
      // A waiting read given up (a signal): answered as interrupted. An
      // interrupt has no answer of its own.
      fuse_interrupt_in what;
      if (r.arg_len < sizeof what)
        return;
      std::memcpy(&what, r.arg, sizeof what);
      for (size_t i = 0; i < waiting.size(); i++) {
        if (waiting[i].unique == what.unique) {
          session->reply(what.unique, -EINTR);
          waiting.erase(waiting.begin() + long(i));
          break;
        }
      }
      return;
    }
    case FUSE_RELEASE:
      open = false;
      poll_armed = false;
      for (const waiting_read &w : waiting)
        session->reply(w.unique, -EBADF);
      waiting.clear();
      session->reply(in.unique, 0);
      return;
    case FUSE_WRITE: // a buffer of inputs
      session->reply(in.unique, -EPERM);
      return;
    case FUSE_IOCTL: // none that this device knows
      session->reply(in.unique, -ENODEV);
      return;
    default:
      session->reply(in.unique, -ENOSYS);
      return;
    }
  }

  void run() {
    for (;;) {
      const bool want_scans = poll_armed || !waiting.empty();
      pollfd fds[3] = {{session->fd(), POLLIN, 0},
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
      fuse_session::request r;
      if (fds[0].revents & POLLIN) {
        if (session->next(&r))
          on_request(r);
        else if (session->gone())
          return;
      }
    }
  }
};

fuse_node::fuse_node(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

fuse_node::~fuse_node() = default;

void fuse_node::set_scan_size(size_t bytes) {
  impl_->scan_size.store(bytes, std::memory_order_relaxed);
}

std::unique_ptr<fuse_node> fuse_node::mount(const std::string &path,
                                            int source, std::string *error) {
  auto p = std::make_unique<impl>();
  p->source = source;
  p->stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (p->stop_fd < 0) {
    *error = std::string("eventfd: ") + std::strerror(errno);
    return nullptr;
  }
  if (!(p->session = fuse_session::mount(path, error)))
    return nullptr;
  impl *raw = p.get();
  p->server = std::thread([raw] { raw->run(); });
  return std::unique_ptr<fuse_node>(new fuse_node(std::move(p)));
}

} // namespace sim
