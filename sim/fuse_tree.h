// SPDX-License-Identifier: Apache-2.0
// A directory tree served as a kernel's sysfs answers, over the tree itself:
// a FUSE mount over a directory whose files stay where they are beneath it
// (the owner reaches them through backing(), which the mount does not
// cover). Reads give the files' contents; a write is judged by the owner
// at once, the write's result being the judgement, and stored in the file
// only when accepted; a file or directory cannot be created (EACCES, as a
// missing attribute) nor removed or renamed (EPERM); a file the owner says
// is read-only refuses to open for writing (EACCES). Names beginning with a
// dot are the owner's own and not shown.
//
// The owner drives it from its own thread: it polls fd() and calls serve()
// when it is readable, so that the judgements run where its other work on
// the tree does.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace sim {

class fuse_tree {
public:
  // Judges a write of value to the file at path (relative to the tree's
  // root, "iio:device0/buffer/enable"): 0 to accept it, or a negative
  // errno that the writer gets.
  using judge_fn =
      std::function<int(const std::string &path, const std::string &value)>;
  // Whether the file at path takes writes.
  using writable_fn = std::function<bool(const std::string &path)>;

  // Opens the directory at dir for the owner and mounts the tree over it.
  // Null with *error set when it cannot be mounted here (the directory is
  // then unchanged, and the owner reaches it as before).
  static std::unique_ptr<fuse_tree> mount(const std::string &dir,
                                          judge_fn judge,
                                          writable_fn writable,
                                          std::string *error);
  // Unmounts (lazily) and closes.
  ~fuse_tree();
  fuse_tree(const fuse_tree &) = delete;
  fuse_tree &operator=(const fuse_tree &) = delete;

  // The directory beneath the mount, for the owner's own reads and writes.
  const std::string &backing() const;
  // Readable when requests wait.
  int fd() const;
  // Answers the requests that wait. False once the mount is gone.
  bool serve();

  struct impl;

private:
  explicit fuse_tree(std::unique_ptr<impl> p);
  std::unique_ptr<impl> impl_;
};

} // namespace sim
