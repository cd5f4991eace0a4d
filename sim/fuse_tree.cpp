// SPDX-License-Identifier: Apache-2.0
#include "sim/fuse_tree.h"

#include "sim/fuse_session.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

namespace sim {

namespace {

// An open file or directory of a client: the node, the backing file open
// for reading (-1 for a write or a directory), a directory's entries.
struct open_node {
  uint64_t node;
  int fd = -1;
  std::vector<std::pair<std::string, unsigned char>> entries;
};

} // namespace

struct fuse_tree::impl {
  int backing_fd = -1; // the directory beneath the mount
  std::string backing; // a path to it that the mount does not cover
  std::unique_ptr<fuse_session> session;
  judge_fn judge;
  writable_fn writable;
  // Node n + 1 is paths[n], relative to the root; node 1 is the root ("").
  std::vector<std::string> paths{""};
  std::map<std::string, uint64_t> nodes{{"", 1}};
  std::map<uint64_t, open_node> opens;
  uint64_t next_handle = 1;

  ~impl() {
    session.reset();
    if (backing_fd >= 0)
      close(backing_fd);
  }

  const std::string *path_of(uint64_t node) const {
    return node >= 1 && node <= paths.size() ? &paths[node - 1] : nullptr;
  }
  // The file at path beneath the mount, reached from the directory's own
  // descriptor: the root itself for "".
  int stat_of(const std::string &path, struct stat *st) const {
    return fstatat(backing_fd, path.empty() ? "" : path.c_str(), st,
                   AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH);
  }
  int open_beneath(const std::string &path, int flags) const {
    return openat(backing_fd, path.empty() ? "." : path.c_str(),
                  flags | O_CLOEXEC);
  }
  uint64_t node_of(const std::string &path) {
    auto [at, added] = nodes.emplace(path, paths.size() + 1);
    if (added)
      paths.push_back(path);
    return at->second;
  }

  void lookup(const fuse_session::request &r, const std::string &dir) {
    const std::string name(r.arg, strnlen(r.arg, r.arg_len));
    struct stat st;
    if (name.empty() || name[0] == '.' ||
        stat_of(dir.empty() ? name : dir + "/" + name, &st) != 0) {
      session->reply(r.in.unique, -ENOENT);
      return;
    }
    const uint64_t node = node_of(dir.empty() ? name : dir + "/" + name);
    fuse_entry_out out{};
    out.nodeid = node;
    out.entry_valid = 1; // the tree's shape does not change
    out.attr = fuse_attr_of(node, st);
    session->reply(r.in.unique, 0, &out, sizeof out);
  }

  void open_file(const fuse_session::request &r, const std::string &path) {
    fuse_open_in in{};
    std::memcpy(&in, r.arg, std::min(r.arg_len, sizeof in));
    open_node o{r.in.nodeid};
    if ((in.flags & O_ACCMODE) != O_RDONLY) {
      if (!writable(path)) {
        session->reply(r.in.unique, -EACCES);
        return;
      }
    } else if ((o.fd = open_beneath(path, O_RDONLY)) < 0) {
      session->reply(r.in.unique, -errno);
      return;
    }
    const uint64_t handle = next_handle++;
    opens.emplace(handle, std::move(o));
    fuse_open_out out{};
    out.fh = handle;
    out.open_flags = FOPEN_DIRECT_IO; // each read asks, as sysfs's do
    session->reply(r.in.unique, 0, &out, sizeof out);
  }

  void open_dir(const fuse_session::request &r, const std::string &path) {
    const int fd = open_beneath(path, O_RDONLY | O_DIRECTORY);
    DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!dir) {
      session->reply(r.in.unique, -errno);
      if (fd >= 0)
        close(fd);
      return;
    }
    open_node o{r.in.nodeid};
    o.entries = {{".", DT_DIR}, {"..", DT_DIR}};
    while (const dirent *e = readdir(dir))
      if (e->d_name[0] != '.')
        o.entries.emplace_back(e->d_name, e->d_type);
    closedir(dir);
    const uint64_t handle = next_handle++;
    opens.emplace(handle, std::move(o));
    fuse_open_out out{};
    out.fh = handle;
    session->reply(r.in.unique, 0, &out, sizeof out);
  }

  void read(const fuse_session::request &r) {
    fuse_read_in in{};
    std::memcpy(&in, r.arg, std::min(r.arg_len, sizeof in));
    auto o = opens.find(in.fh);
    if (o == opens.end() || o->second.fd < 0) {
      session->reply(r.in.unique, -EBADF);
      return;
    }
    std::vector<char> data(in.size);
    const ssize_t n = pread(o->second.fd, data.data(), data.size(),
                            off_t(in.offset));
    if (n < 0)
      session->reply(r.in.unique, -errno);
    else
      session->reply(r.in.unique, 0, data.data(), size_t(n));
  }

  void read_dir(const fuse_session::request &r) {
    fuse_read_in in{};
    std::memcpy(&in, r.arg, std::min(r.arg_len, sizeof in));
    auto o = opens.find(in.fh);
    if (o == opens.end()) {
      session->reply(r.in.unique, -EBADF);
      return;
    }
    std::vector<char> out;
    for (size_t i = size_t(in.offset); i < o->second.entries.size(); i++) {
      const auto &[name, type] = o->second.entries[i];
      const size_t bytes = FUSE_DIRENT_ALIGN(FUSE_NAME_OFFSET + name.size());
      if (out.size() + bytes > in.size)
        break;
      const size_t at = out.size();
      out.resize(at + bytes, 0);
      fuse_dirent e{};
      e.ino = i + 2; // any number but 0 shows the entry
      e.off = i + 1;
      e.namelen = uint32_t(name.size());
      e.type = type;
      std::memcpy(out.data() + at, &e, FUSE_NAME_OFFSET);
      std::memcpy(out.data() + at + FUSE_NAME_OFFSET, name.data(),
                  name.size());
    }
    session->reply(r.in.unique, 0, out.data(), out.size());
  }

  void write(const fuse_session::request &r, const std::string &path) {
    fuse_write_in in{};
    if (r.arg_len < sizeof in) {
      session->reply(r.in.unique, -EINVAL);
      return;
    }
    std::memcpy(&in, r.arg, sizeof in);
    const size_t size = std::min<size_t>(in.size, r.arg_len - sizeof in);
    const std::string value(r.arg + sizeof in, size);
    if (const int refused = judge(path, value); refused < 0) {
      session->reply(r.in.unique, refused);
      return;
    }
    // Stored as written, as the stand-in's files always were.
    const int fd = open_beneath(path, O_WRONLY | O_TRUNC);
    const bool stored =
        fd >= 0 && ::write(fd, value.data(), value.size()) == ssize_t(size);
    if (fd >= 0)
      close(fd);
    if (!stored) {
      session->reply(r.in.unique, -EIO);
      return;
    }
    fuse_write_out out{};
    out.size = uint32_t(size);
    session->reply(r.in.unique, 0, &out, sizeof out);
  }

  void attributes(const fuse_session::request &r, const std::string &path) {
    struct stat st;
    if (stat_of(path, &st) != 0)
      session->reply(r.in.unique, -errno);
    else
      session->reply_attr(r.in.unique, r.in.nodeid, st);
  }

  void request(const fuse_session::request &r) {
    if (session->handle(r))
      return;
    const std::string *path = path_of(r.in.nodeid);
    if (!path && r.in.opcode != FUSE_RELEASE &&
        r.in.opcode != FUSE_RELEASEDIR && r.in.opcode != FUSE_INTERRUPT) {
      session->reply(r.in.unique, -ENOENT);
      return;
    }
    switch (r.in.opcode) {
    case FUSE_LOOKUP:
      lookup(r, *path);
      return;
    case FUSE_GETATTR:
      attributes(r, *path);
      return;
    case FUSE_SETATTR: {
      // The truncation of an open for writing: a write replaces the value
      // anyway. Nothing else of a file changes.
      fuse_setattr_in in{};
      std::memcpy(&in, r.arg, std::min(r.arg_len, sizeof in));
      if ((in.valid & ~(FATTR_SIZE | FATTR_FH | FATTR_LOCKOWNER)) != 0 ||
          ((in.valid & FATTR_SIZE) && in.size != 0)) {
        session->reply(r.in.unique, -EPERM);
        return;
      }
      attributes(r, *path);
      return;
    }
    case FUSE_OPEN:
      open_file(r, *path);
      return;
    case FUSE_OPENDIR:
      open_dir(r, *path);
      return;
    case FUSE_READ:
      read(r);
      return;
    case FUSE_READDIR:
      read_dir(r);
      return;
    case FUSE_WRITE:
      write(r, *path);
      return;
    case FUSE_RELEASE:
    case FUSE_RELEASEDIR: {
      fuse_release_in in{};
      std::memcpy(&in, r.arg, std::min(r.arg_len, sizeof in));
      if (auto o = opens.find(in.fh); o != opens.end()) {
        if (o->second.fd >= 0)
          close(o->second.fd);
        opens.erase(o);
      }
      session->reply(r.in.unique, 0);
      return;
    }
    case FUSE_READLINK: {
      char target[4096];
      const ssize_t n = readlinkat(backing_fd, path->c_str(), target,
                                   sizeof target);
      if (n < 0)
        session->reply(r.in.unique, -errno);
      else
        session->reply(r.in.unique, 0, target, size_t(n));
      return;
    }
    case FUSE_CREATE:
    case FUSE_MKNOD:
    case FUSE_MKDIR:
    case FUSE_SYMLINK:
    case FUSE_LINK:
      session->reply(r.in.unique, -EACCES);
      return;
    case FUSE_UNLINK:
    case FUSE_RMDIR:
    case FUSE_RENAME:
    case FUSE_RENAME2:
      session->reply(r.in.unique, -EPERM);
      return;
    case FUSE_INTERRUPT:
      return; // nothing here waits
    default:
      session->reply(r.in.unique, -ENOSYS);
      return;
    }
  }
};

fuse_tree::fuse_tree(std::unique_ptr<impl> p) : impl_(std::move(p)) {}

fuse_tree::~fuse_tree() = default;

const std::string &fuse_tree::backing() const { return impl_->backing; }

int fuse_tree::fd() const { return impl_->session->fd(); }

bool fuse_tree::serve() {
  fuse_session::request r;
  while (impl_->session->next(&r))
    impl_->request(r);
  return !impl_->session->gone();
}

std::unique_ptr<fuse_tree> fuse_tree::mount(const std::string &dir,
                                            judge_fn judge,
                                            writable_fn writable,
                                            std::string *error) {
  auto p = std::make_unique<impl>();
  p->judge = std::move(judge);
  p->writable = std::move(writable);
  p->backing_fd = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (p->backing_fd < 0) {
    *error = dir + ": " + std::strerror(errno);
    return nullptr;
  }
  p->backing = "/proc/self/fd/" + std::to_string(p->backing_fd);
  if (!(p->session = fuse_session::mount(dir, error)))
    return nullptr;
  return std::unique_ptr<fuse_tree>(new fuse_tree(std::move(p)));
}

} // namespace sim
