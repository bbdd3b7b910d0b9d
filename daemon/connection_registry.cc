#include "connection_registry.h"

#include <vector>

namespace lumokitd {

bool ConnectionRegistry::add(const std::shared_ptr<ClientConnection>& conn, bool admin) {
  std::lock_guard<std::mutex> lock(mtx_);
  if (stopping_) return false;
  live_.emplace(conn, admin);
  return true;
}

void ConnectionRegistry::remove(const std::shared_ptr<ClientConnection>& conn) {
  std::lock_guard<std::mutex> lock(mtx_);
  live_.erase(conn);
  cv_.notify_all();
}

bool ConnectionRegistry::stopping() {
  std::lock_guard<std::mutex> lock(mtx_);
  return stopping_;
}

size_t ConnectionRegistry::count(bool admin) {
  std::lock_guard<std::mutex> lock(mtx_);
  size_t n = 0;
  for (const auto& entry : live_) n += entry.second == admin ? 1 : 0;
  return n;
}

bool ConnectionRegistry::stop_all(std::chrono::milliseconds timeout) {
  std::vector<std::shared_ptr<ClientConnection>> to_close;
  {
    std::lock_guard<std::mutex> lock(mtx_);
    stopping_ = true;
    for (const auto& entry : live_) to_close.push_back(entry.first);
  }
  for (auto& conn : to_close) conn->close_connection();
  to_close.clear();
  std::unique_lock<std::mutex> lock(mtx_);
  return cv_.wait_for(lock, timeout, [this] { return live_.empty(); });
}

}  // namespace lumokitd
