// SPDX-License-Identifier: Apache-2.0
// One FUSE mount and its connection to the kernel, without a library: the
// kernel's requests for the files under the mount come in on fd(), and the
// owner answers each with reply(). The session answers the requests every
// file system has (INIT, FLUSH, DESTROY, the forgets) itself, in handle().
// Mounting needs /dev/fuse and the privilege to mount (root in
// scripts/board.sh's namespace).
#pragma once

#include <linux/fuse.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace sim {

class fuse_session {
public:
  // Mounts over path: the mount's root is a directory over a directory,
  // else a regular file (over a FIFO too).
  // Null with *error set when it cannot be mounted here.
  static std::unique_ptr<fuse_session> mount(const std::string &path,
                                             std::string *error);
  // Unmounts lazily (a file still open then fails with ENODEV) and closes
  // the connection.
  ~fuse_session();
  fuse_session(const fuse_session &) = delete;
  fuse_session &operator=(const fuse_session &) = delete;

  // The connection: readable when a request waits; hung up once unmounted.
  int fd() const { return fd_; }

  // A request as the kernel sent it: its header and its argument.
  struct request {
    fuse_in_header in;
    const char *arg;
    size_t arg_len;
  };
  // The next request: false when none waits or the mount is gone (gone()
  // tells). The argument lives until the next call.
  bool next(request *r);
  bool gone() const { return gone_; }

  // Answers the requests every file system has; false for the others,
  // which are the owner's.
  bool handle(const request &r);

  void reply(uint64_t unique, int error, const void *payload = nullptr,
             size_t bytes = 0) const;
  void reply_attr(uint64_t unique, uint64_t node, const struct stat &st) const;
  // Wakes the poll() that left the kernel handle kh.
  void notify_poll(uint64_t kh) const;

  // Takes away the mounts that an earlier process left over path (one
  // killed before it could unmount): the number taken away.
  static int unmount_stale(const std::string &path);

private:
  fuse_session(std::string path, int fd);
  std::string path_;
  int fd_;
  bool gone_ = false;
  std::vector<char> buf_;
};

// The attributes of a node as FUSE carries them.
fuse_attr fuse_attr_of(uint64_t node, const struct stat &st);

} // namespace sim
