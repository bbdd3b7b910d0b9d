// Life of a plugin connection: connecting, the threads, closing, sending.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lumokit/plugin.h"
#include "lumokit/plugin_wire.h"
#include "plugin_impl.h"
#include "seqpacket.h"

namespace lumokit {

const char* plugin_error_kind_name(PluginError::Kind kind) noexcept {
  switch (kind) {
    case PluginError::Kind::Io: return "io";
    case PluginError::Kind::Timeout: return "timeout";
    case PluginError::Kind::Disconnected: return "disconnected";
    case PluginError::Kind::Protocol: return "protocol";
    case PluginError::Kind::Refused: return "refused";
    case PluginError::Kind::State: return "state";
    case PluginError::Kind::Invalid: return "invalid";
  }
  return "?";
}

bool info_success(const std::string& answer, std::string* value) {
  static const std::string kPrefix = "SUCCESS:";
  if (answer.compare(0, kPrefix.size(), kPrefix) == 0) {
    *value = answer.substr(kPrefix.size());
    return true;
  }
  *value = answer;
  return false;
}

Plugin::Plugin(PluginHooks hooks, PluginOptions options)
    : impl_(std::make_unique<Impl>(std::move(hooks), std::move(options))) {}

Plugin::~Plugin() { stop(); }

void Plugin::connect(const std::string& socket_path) {
  if (impl_->started.exchange(true)) {
    throw PluginError(PluginError::Kind::State, "the plugin is already connected");
  }
  std::string error;
  std::string warning;
  const int fd = seqpacket::connect_to(socket_path, &error, &warning);
  if (fd < 0) {
    impl_->started.store(false);
    throw PluginError(PluginError::Kind::Io, error);
  }
  if (!warning.empty()) impl_->log("warning: " + warning);
  impl_->log("connected to " + socket_path);
  impl_->start_threads(fd);
}

void Plugin::adopt(int fd) {
  if (impl_->started.exchange(true)) {
    throw PluginError(PluginError::Kind::State, "the plugin is already connected");
  }
  if (!seqpacket::is_seqpacket(fd)) {
    impl_->started.store(false);
    throw PluginError(PluginError::Kind::Invalid,
                      "descriptor " + std::to_string(fd) + " is not a local sequenced-packet socket");
  }
  std::string warning;
  if (!seqpacket::size_buffers(fd, &warning)) impl_->log("warning: " + warning);
  impl_->start_threads(fd);
}

void Plugin::Impl::start_threads(int connected_fd) {
  std::lock_guard<std::mutex> threads_lock(threads_mtx);
  {
    std::lock_guard<std::mutex> lock(send_mtx);
    fd = connected_fd;
  }
  events.start();
  receiver = std::thread([this, connected_fd] { receive_loop(connected_fd); });
}

void Plugin::stop() {
  Impl& impl = *impl_;
  if (!impl.started.load()) return;
  impl.stopping.store(true);
  {
    // Wakes the receive thread, which then closes the router.
    std::lock_guard<std::mutex> lock(impl.send_mtx);
    if (impl.fd >= 0) shutdown(impl.fd, SHUT_RDWR);
  }
  impl.router.close("the plugin was stopped");
  impl.events.stop();
  if (impl.events.on_queue_thread()) return;  // the destructor finishes the job
  std::lock_guard<std::mutex> threads_lock(impl.threads_mtx);
  if (impl.receiver.joinable()) impl.receiver.join();
  impl.events.join();
  std::lock_guard<std::mutex> lock(impl.send_mtx);
  if (impl.fd >= 0) {
    close(impl.fd);
    impl.fd = -1;
  }
}

bool Plugin::connected() const {
  if (!impl_->started.load()) return false;
  std::lock_guard<std::mutex> lock(impl_->closed_mtx);
  return !impl_->closed;
}

bool Plugin::wait_closed(std::chrono::milliseconds timeout) {
  if (!impl_->started.load()) return true;
  std::unique_lock<std::mutex> lock(impl_->closed_mtx);
  return impl_->closed_cv.wait_for(lock, timeout, [&] { return impl_->closed; });
}

int32_t Plugin::service_id() const { return impl_->service_id.load(); }

void Plugin::Impl::log(const std::string& line) {
  if (!options.log) return;
  std::lock_guard<std::mutex> lock(log_mtx);
  options.log(line);
}

void Plugin::Impl::send(const std::string& text) {
  std::lock_guard<std::mutex> lock(send_mtx);
  if (fd < 0) throw PluginError(PluginError::Kind::Disconnected, "the plugin is not connected");
  if (text.size() > send_limit) {
    throw PluginError(PluginError::Kind::Protocol,
                      "message of " + std::to_string(text.size()) +
                          " bytes exceeds what the manager reads at once (" +
                          std::to_string(send_limit) + " bytes)");
  }
  if (seqpacket::send_message(fd, text) < 0) {
    const int err = errno;
    if (err == EPIPE || err == ECONNRESET || err == ENOTCONN) {
      throw PluginError(PluginError::Kind::Disconnected,
                        std::string("the manager closed the connection: ") + std::strerror(err));
    }
    throw PluginError(PluginError::Kind::Io, std::string("send failed: ") + std::strerror(err));
  }
}

}  // namespace lumokit
