// SPDX-License-Identifier: Apache-2.0
// A file whose opens, reads and polls this process answers: the sysfs
// stand-in's /dev/iio:deviceN, mounted over the FIFO that holds the device's
// scans (a FUSE mount whose root is the file itself). It answers as a
// kernel's IIO character device does where a FIFO cannot:
//
// - it opens once: a second open while the first is held fails with EBUSY;
// - a read hands out whole scans only (EINVAL for less than one); without
//   a scan there, O_NONBLOCK gives EAGAIN and a blocking read waits;
// - poll() wakes when scans come; a write fails with EPERM, an ioctl with
//   ENODEV (libiio then reads, as from a kernel buffer without the
//   high-speed interface).
//
// The scans are the FIFO's: whoever feeds it feeds the file's readers, and
// draining it empties the file. Mounting needs /dev/fuse and the privilege
// to mount (root in scripts/board.sh's namespace).
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace sim {

class fuse_node {
public:
  // Mounts the node over the FIFO at path, which must exist; source is
  // an open, non-blocking descriptor of that FIFO (kept open by the
  // caller for the node's life). Null with *error set when it cannot be
  // mounted here.
  static std::unique_ptr<fuse_node> mount(const std::string &path, int source,
                                          std::string *error);
  // Unmounts (a file still open then fails its reads with ENODEV, as a
  // device that went away) and stops answering.
  ~fuse_node();
  fuse_node(const fuse_node &) = delete;
  fuse_node &operator=(const fuse_node &) = delete;

  // The size of one scan of the stream feeding the FIFO: reads hand out
  // multiples of it. 0 (the start): any byte count.
  void set_scan_size(size_t bytes);

  struct impl;

private:
  explicit fuse_node(std::unique_ptr<impl> p);
  std::unique_ptr<impl> impl_;
};

} // namespace sim
