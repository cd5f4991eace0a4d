// SPDX-License-Identifier: Apache-2.0
#include "sim/fuse_session.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

// The largest read or write the kernel sends at once (32 pages), and room
// for a request's header: the kernel wants at least 8 KiB.
constexpr size_t kRequestRoom = 128 * 1024 + 4096;

} // namespace

fuse_attr fuse_attr_of(uint64_t node, const struct stat &st) {
  fuse_attr a{};
  a.ino = node;
  a.size = uint64_t(st.st_size);
  a.blocks = uint64_t(st.st_blocks);
  a.atime = uint64_t(st.st_atim.tv_sec);
  a.mtime = uint64_t(st.st_mtim.tv_sec);
  a.ctime = uint64_t(st.st_ctim.tv_sec);
  a.atimensec = uint32_t(st.st_atim.tv_nsec);
  a.mtimensec = uint32_t(st.st_mtim.tv_nsec);
  a.ctimensec = uint32_t(st.st_ctim.tv_nsec);
  a.mode = st.st_mode;
  a.nlink = uint32_t(st.st_nlink);
  a.uid = st.st_uid;
  a.gid = st.st_gid;
  a.blksize = 4096;
  return a;
}

fuse_session::fuse_session(std::string path, int fd)
    : path_(std::move(path)), fd_(fd), buf_(kRequestRoom) {}

fuse_session::~fuse_session() {
  umount2(path_.c_str(), MNT_DETACH);
  close(fd_);
}

std::unique_ptr<fuse_session> fuse_session::mount(const std::string &path,
                                                  std::string *error) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = path + ": " + std::strerror(errno);
    return nullptr;
  }
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *error = std::string("/dev/fuse: ") + std::strerror(errno);
    return nullptr;
  }
  char options[128];
  std::snprintf(options, sizeof options,
                "fd=%d,rootmode=%o,user_id=%u,group_id=%u,allow_other", fd,
                unsigned(S_ISDIR(st.st_mode) ? S_IFDIR : S_IFREG),
                unsigned(getuid()), unsigned(getgid()));
  if (::mount("orlune-sim", path.c_str(), "fuse",
              MS_NOSUID | MS_NODEV | MS_NOEXEC, options) != 0) {
    *error = "cannot mount over " + path + ": " + std::strerror(errno);
    close(fd);
    return nullptr;
  }
  return std::unique_ptr<fuse_session>(new fuse_session(path, fd));
}

int fuse_session::unmount_stale(const std::string &path) {
  int taken = 0;
  while (taken < 16 && umount2(path.c_str(), MNT_DETACH) == 0)
    taken++;
  return taken;
}

bool fuse_session::next(request *r) {
  const ssize_t n = ::read(fd_, buf_.data(), buf_.size());
  if (n < 0) {
    gone_ = errno == ENODEV;
    return false;
  }
  if (size_t(n) < sizeof(fuse_in_header))
    return false;
  std::memcpy(&r->in, buf_.data(), sizeof r->in);
  r->arg = buf_.data() + sizeof r->in;
  r->arg_len = size_t(n) - sizeof r->in;
  return true;
}

bool fuse_session::handle(const request &r) {
  switch (r.in.opcode) {
  case FUSE_INIT: {
    fuse_init_in init{};
    std::memcpy(&init, r.arg, std::min(r.arg_len, sizeof init));
    if (init.major != FUSE_KERNEL_VERSION) {
      reply(r.in.unique, -EPROTO);
      return true;
    }
    fuse_init_out out{};
    out.major = FUSE_KERNEL_VERSION;
    out.minor = std::min<uint32_t>(init.minor, FUSE_KERNEL_MINOR_VERSION);
    out.max_readahead = init.max_readahead;
    out.max_background = 16;
    out.congestion_threshold = 12;
    out.max_write = 128 * 1024;
    out.time_gran = 1;
    reply(r.in.unique, 0, &out, sizeof out);
    return true;
  }
  case FUSE_FLUSH:
  case FUSE_FSYNC:
  case FUSE_DESTROY:
    reply(r.in.unique, 0);
    return true;
  case FUSE_FORGET:
  case FUSE_BATCH_FORGET:
    return true; // no answer
  case FUSE_ACCESS: // the kernel's own permission checks stand
  case FUSE_GETXATTR:
  case FUSE_LISTXATTR:
  case FUSE_STATFS:
    reply(r.in.unique, -ENOSYS);
    return true;
  default:
    return false;
  }
}

void fuse_session::reply(uint64_t unique, int error, const void *payload,
                         size_t bytes) const {
  fuse_out_header head{};
  head.len = uint32_t(sizeof head + bytes);
  head.error = error;
  head.unique = unique;
  iovec parts[2] = {{&head, sizeof head},
                    {const_cast<void *>(payload), bytes}};
  // The kernel takes an answer whole or not at all; one to a request that
  // was interrupted meanwhile is refused (ENOENT), which is fine.
  (void)!writev(fd_, parts, payload ? 2 : 1);
}

void fuse_session::reply_attr(uint64_t unique, uint64_t node,
                              const struct stat &st) const {
  fuse_attr_out out{};
  out.attr = fuse_attr_of(node, st);
  reply(unique, 0, &out, sizeof out);
}

void fuse_session::notify_poll(uint64_t kh) const {
  fuse_notify_poll_wakeup_out wake{};
  wake.kh = kh;
  fuse_out_header head{};
  head.len = uint32_t(sizeof head + sizeof wake);
  head.error = FUSE_NOTIFY_POLL;
  iovec parts[2] = {{&head, sizeof head}, {&wake, sizeof wake}};
  (void)!writev(fd_, parts, 2);
}

} // namespace sim
