#include "runtime_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ipc/runtime_paths.h"
#include "ipc/seqpacket.h"

namespace lumokitd {

namespace {

using lumokit::ipc::runtime_file;

std::string errno_text(const std::string& what) { return what + ": " + std::strerror(errno); }

// mkdir -p; only the last component gets 0700 when this call creates it.
bool make_directory(const std::string& path, std::string* error) {
  for (size_t pos = 1; pos < path.size(); ++pos) {
    if (path[pos] != '/') continue;
    std::string parent = path.substr(0, pos);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) {
      *error = errno_text("cannot create directory " + parent);
      return false;
    }
  }
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = errno_text("cannot create runtime directory " + path);
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = errno_text("cannot inspect runtime directory " + path);
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    *error = "runtime directory " + path + " exists but is not a directory";
    return false;
  }
  // Whoever may write the folder may put sockets of their own in place of
  // ours, the admin socket (and so every monitor's view) included.
  if (st.st_uid != geteuid()) {
    *error = "runtime directory " + path + " belongs to uid " + std::to_string(st.st_uid) +
             ", not to this user";
    return false;
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    char mode[8];
    snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(st.st_mode & 07777));
    *error = "runtime directory " + path + " may be written by other users (mode " + mode + ")";
    return false;
  }
  return true;
}

int take_lock(const std::string& dir, std::string* error) {
  std::string lock_path = runtime_file(dir, lumokit::ipc::kLockFileName);
  int fd = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    *error = errno_text("cannot open lock file " + lock_path);
    return -1;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      *error = "another lumokitd is already running on " + dir;
    } else {
      *error = errno_text("cannot lock " + lock_path);
    }
    close(fd);
    return -1;
  }
  // The pid in the lock file is for people looking at the directory.
  std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || write(fd, pid.data(), pid.size()) < 0) {
    // Not fatal: the lock itself is what keeps a second daemon out.
  }
  return fd;
}

void close_fd(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// The handed-over socket for a role, or a fresh one bound in the directory.
int adopt_or_bind(int handed_fd, RuntimeDir* dir, const char* name, unsigned mode,
                  std::string* error) {
  if (handed_fd >= 0) return handed_fd;
  const std::string file = runtime_file(dir->path, name);
  int fd = lumokit::ipc::bind_seqpacket(file, mode, false, error);
  if (fd >= 0) dir->made_files.push_back(file);
  return fd;
}

}  // namespace

bool open_runtime_dir(const std::string& path_in, const HandedSockets& handed, RuntimeDir* out,
                      std::string* error) {
  std::string path = path_in;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  RuntimeDir dir;
  dir.path = path;
  if (!make_directory(path, error)) return false;
  dir.lock_fd = take_lock(path, error);
  if (dir.lock_fd < 0) return false;

  // Holding the lock means any socket file left here is stale.
  dir.plugin_fd =
      adopt_or_bind(handed.plugin_fd, &dir, lumokit::ipc::kPluginSocketName, 0666, error);
  if (dir.plugin_fd >= 0) {
    dir.client_fd =
        adopt_or_bind(handed.client_fd, &dir, lumokit::ipc::kClientSocketName, 0666, error);
  }
  if (dir.client_fd >= 0) {
    dir.admin_fd =
        adopt_or_bind(handed.admin_fd, &dir, lumokit::ipc::kAdminSocketName, 0600, error);
  }
  if (dir.admin_fd < 0) {
    close_fd(&dir.plugin_fd);
    close_runtime_dir(&dir);
    return false;
  }
  *out = dir;
  return true;
}

void close_runtime_dir(RuntimeDir* dir) {
  if (dir->lock_fd < 0) return;
  for (const std::string& file : dir->made_files) unlink(file.c_str());
  dir->made_files.clear();
  close_fd(&dir->client_fd);
  close_fd(&dir->admin_fd);
  // Unlink before releasing so a new daemon never sees our lock file.
  unlink(runtime_file(dir->path, lumokit::ipc::kLockFileName).c_str());
  close_fd(&dir->lock_fd);
}

}  // namespace lumokitd
