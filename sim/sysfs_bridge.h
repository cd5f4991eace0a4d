// SPDX-License-Identifier: Apache-2.0
// The board's view of the virtual vehicle's IIO devices. A board's libiio
// (the local backend) reads a kernel's sysfs tree and reads samples from
// /dev/iio:deviceN; the bridge presents the devices that the iiod server
// serves in that shape, under a root directory:
//
//   <root>/sys/bus/iio/devices/iio:deviceN/   name, device and channel
//       attributes, scan_elements/ (_en, _index, _type), buffer/ (enable,
//       length, watermark), trigger/current_trigger
//   <root>/sys/bus/iio/devices/triggerN/      name and the trigger's attributes
//   <root>/dev/iio:deviceN                     the device's file, answered
//       as a kernel's character device (sim/fuse_node.h) over a FIFO that
//       holds the scans; the FIFO itself where that cannot be mounted
//
// The tree is answered as a kernel's sysfs (sim/fuse_tree.h) where it can
// be mounted: each write is judged at once, the server's answer or the
// kernel's rule (EBUSY for the scan, the buffer's length and watermark or
// the trigger while the buffer runs; EINVAL for a buffer enabled without a channel or a
// trigger) being the write's result. Elsewhere the tree is plain files, and
// the bridge follows what the client wrote a moment later (inotify).
// Either way, attribute writes and the current trigger are forwarded to the
// server, and buffer/enable starts or stops a stream of the enabled
// channels' scans, taken from the server (the
// same models, truth, thermal inverses and faults as over the network) and
// written to the FIFO as they become available, in the kernel's scan layout.
// Like a kernel buffer, the FIFO starts empty at each enable, holds
// buffer/length scans rounded up to a power of two, and keeps its oldest
// scans when the reader falls behind.
//
// libiio's local backend reads the fixed paths /sys/bus/iio/devices and
// /dev: the root is "/" inside a private mount namespace (scripts/board.sh
// sets one up), or any directory for a look at the tree. Starting a bridge
// makes the process ignore SIGPIPE: a server that goes away ends its
// streams, not the process.
#pragma once

#include <memory>
#include <string>

namespace sim {

class sysfs_bridge {
public:
  // Builds the tree under root from the server at uri ("ip:127.0.0.1:PORT")
  // and starts following it. Null with *error set when the server cannot be
  // reached or the tree cannot be made.
  static std::unique_ptr<sysfs_bridge>
  start(const std::string &uri, const std::string &root, std::string *error);
  ~sysfs_bridge();
  sysfs_bridge(const sysfs_bridge &) = delete;
  sysfs_bridge &operator=(const sysfs_bridge &) = delete;

  // Stops the streams and the watcher; the tree stays. Idempotent.
  void stop();

  struct impl;

private:
  explicit sysfs_bridge(std::unique_ptr<impl> p);
  std::unique_ptr<impl> impl_;
};

} // namespace sim
