#include "sdk_fake_manager.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace lumokit::test {

namespace {

bool wait_readable(int fd, std::chrono::milliseconds timeout) {
  pollfd p{fd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, static_cast<int>(timeout.count()));
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

// Room for the largest message either side sends.
void widen_send_buffer(int fd) {
  const int size = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

}  // namespace

Json::Value sdk_parse_json(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errs;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errs)) return Json::Value();
  return value;
}

SdkFakeManager::SdkFakeManager() {
  char templ[] = "/tmp/lumokit-sdk-XXXXXX";
  if (mkdtemp(templ) == nullptr) {
    std::perror("mkdtemp");
    return;
  }
  dir_ = templ;
  socket_path_ = dir_ + "/lumo";
  listen_fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket_path_.c_str());
  widen_send_buffer(listen_fd_);
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listen_fd_, 4) != 0) {
    std::perror("fake manager bind/listen");
  }
}

SdkFakeManager::~SdkFakeManager() {
  close_plugin();
  if (listen_fd_ >= 0) close(listen_fd_);
  if (!socket_path_.empty()) unlink(socket_path_.c_str());
  if (!dir_.empty()) rmdir(dir_.c_str());
}

bool SdkFakeManager::accept_plugin(std::chrono::milliseconds timeout) {
  if (!wait_readable(listen_fd_, timeout)) return false;
  plugin_fd_ = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (plugin_fd_ >= 0) widen_send_buffer(plugin_fd_);
  return plugin_fd_ >= 0;
}

std::optional<std::string> SdkFakeManager::receive(std::chrono::milliseconds timeout) {
  if (plugin_fd_ < 0 || !wait_readable(plugin_fd_, timeout)) return std::nullopt;
  std::vector<char> buffer(1 << 20);
  const ssize_t n = recv(plugin_fd_, buffer.data(), buffer.size(), 0);
  if (n <= 0) return std::nullopt;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

bool SdkFakeManager::send(const std::string& text) {
  return plugin_fd_ >= 0 && ::send(plugin_fd_, text.data(), text.size(), MSG_NOSIGNAL) ==
                                static_cast<ssize_t>(text.size());
}

void SdkFakeManager::close_plugin() {
  if (plugin_fd_ >= 0) close(plugin_fd_);
  plugin_fd_ = -1;
}

}  // namespace lumokit::test
