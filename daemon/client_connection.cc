#include "client_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "daemon_log.h"
#include "ipc/seqpacket.h"

namespace lumokitd {

ClientConnection::ClientConnection(int fd, uint64_t id, pid_t pid, uid_t uid)
    : fd_(fd), id_(id), pid_(pid), uid_(uid) {}

ClientConnection::~ClientConnection() { close(fd_); }

bool ClientConnection::deliver(std::string message) {
  std::lock_guard<std::mutex> lock(mtx_);
  if (closed_) return false;
  if (!draining_) {
    // Fast path: nothing queued ahead of us, so the socket may take it now.
    ssize_t n = send(fd_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n >= 0) return true;
    if (errno == EMSGSIZE) {
      log_error("client %llu: dropped a message of %zu bytes, too large for the socket",
                static_cast<unsigned long long>(id_), message.size());
      return false;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      log_info("client %llu: send failed (%s); closing", static_cast<unsigned long long>(id_),
               std::strerror(errno));
      closed_ = true;
      shutdown(fd_, SHUT_RDWR);
      return false;
    }
  }
  pending_bytes_ += message.size();
  pending_.push_back(std::move(message));
  if (pending_bytes_ > kMaxPendingBytes) {
    log_error("client %llu: %zu bytes of answers unread; disconnecting",
              static_cast<unsigned long long>(id_), pending_bytes_);
    closed_ = true;
    shutdown(fd_, SHUT_RDWR);
    return false;
  }
  if (!draining_) {
    draining_ = true;
    std::thread(&ClientConnection::drain, shared_from_this()).detach();
  }
  return true;
}

void ClientConnection::drain() {
  std::unique_lock<std::mutex> lock(mtx_);
  while (!pending_.empty() && !closed_) {
    // The front stays queued while it is written, so deliver() keeps order.
    const std::string& front = pending_.front();
    const char* data = front.data();
    size_t size = front.size();
    lock.unlock();
    bool ok = lumokit::ipc::send_message(fd_, data, size);
    int err = errno;
    lock.lock();
    if (!ok && err == EMSGSIZE) {
      log_error("client %llu: dropped a message of %zu bytes, too large for the socket",
                static_cast<unsigned long long>(id_), size);
    } else if (!ok) {
      log_info("client %llu: send failed (%s); closing", static_cast<unsigned long long>(id_),
               std::strerror(err));
      closed_ = true;
      shutdown(fd_, SHUT_RDWR);
      break;
    }
    pending_bytes_ -= size;
    pending_.pop_front();
  }
  pending_.clear();
  pending_bytes_ = 0;
  draining_ = false;
}

void ClientConnection::close_connection() {
  std::lock_guard<std::mutex> lock(mtx_);
  closed_ = true;
  shutdown(fd_, SHUT_RDWR);
}

bool ClientConnection::is_closed() {
  std::lock_guard<std::mutex> lock(mtx_);
  return closed_;
}

}  // namespace lumokitd
