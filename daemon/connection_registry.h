// The live client and admin connections, so that shutdown can close them
// and wait for their threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

#include "client_connection.h"

namespace lumokitd {

class ConnectionRegistry {
 public:
  // Registers a connection whose thread is starting; false once stopping.
  bool add(const std::shared_ptr<ClientConnection>& conn, bool admin);
  // Called by the connection's thread as its last act.
  void remove(const std::shared_ptr<ClientConnection>& conn);
  bool stopping();
  size_t client_count() { return count(false); }
  size_t admin_count() { return count(true); }
  // Refuses new connections, closes the live ones and waits (bounded) for
  // their threads; true when all finished in time.
  bool stop_all(std::chrono::milliseconds timeout);

 private:
  size_t count(bool admin);
  std::mutex mtx_;
  std::condition_variable cv_;
  std::map<std::shared_ptr<ClientConnection>, bool> live_;  // value: admin connection
  bool stopping_ = false;
};

}  // namespace lumokitd
