// The per-plugin outbound queue and the thread that drains it, so that
// clients never write to a plugin socket themselves and order is kept.
#include <android/log.h>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "LumoManager.h"
#include "Service.h"
#include "message_tap.h"

namespace {

// How long the sender waits for room on a full socket before it looks
// again whether the plugin has gone.
constexpr int kFullSocketPollMs = 100;

size_t queued_cost(const std::string& text) { return text.size() + kPluginQueueEntryBytes; }

void log_failed_send(int error) {
  __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Manager not able to send msg, error - %s",
                      strerror(error));
}

}  // namespace

void add_msg_to_queue(std::shared_ptr<Service> service, std::string message) {
  if (!service || service->get_svc_hal_died()) return;
  // Nothing beyond this is ever sent; a longer text is not kept whole.
  if (message.size() > kPluginSendMax) message = message.substr(0, kPluginSendMax);
  const size_t cost = queued_cost(message);
  {
    std::lock_guard<std::mutex> lock(*service->get_svc_hal_mtx());
    std::deque<std::string>* queue = service->get_svc_hal_queue();
    size_t* bytes = service->get_svc_hal_queue_bytes();
    if (queue->empty()) *bytes = 0;  // the count is of what the queue holds
    if (*bytes + cost > kPluginQueueMaxBytes) {
      // A plugin that stopped reading: its queue does not grow further.
      log_failed_send(ENOBUFS);
      return;
    }
    *bytes += cost;
    queue->push_back(std::move(message));
  }
  service->get_svc_hal_cv()->notify_all();
}

void* manager_send(void* arg) {
  std::shared_ptr<Service> svc;
  {
    auto* holder = static_cast<std::shared_ptr<Service>*>(arg);
    svc = *holder;
    delete holder;
  }
  std::mutex* mtx = svc->get_svc_hal_mtx();
  std::condition_variable* cv = svc->get_svc_hal_cv();
  std::deque<std::string>* queue = svc->get_svc_hal_queue();
  size_t* bytes = svc->get_svc_hal_queue_bytes();
  const int fd = svc->get_servicehal_socket_fd();
  // Whether the tap has heard of the front message: a message retried on a
  // full socket is told of once.
  bool front_tapped = false;

  std::unique_lock<std::mutex> lock(*mtx);
  for (;;) {
    cv->wait(lock, [&] { return !queue->empty() || svc->get_svc_hal_died(); });
    // Whatever is still queued goes with the record.
    if (svc->get_svc_hal_died()) break;
    const std::string& text = queue->front();
    // Sent straight from the queued text, as a C string. The send stays
    // under the lock so that queue order is socket order, and never blocks
    // there: a plugin that stops reading holds up neither the threads that
    // queue to it nor its own teardown.
    size_t len = text.size();
    if (const void* nul = memchr(text.data(), '\0', len)) {
      len = static_cast<size_t>(static_cast<const char*>(nul) - text.data());
    }
    // Before the send, so that the tap hears of the message before the
    // plugin's answer to it.
    if (!front_tapped) {
      if (lumo_tap_observer tap = lumokit_message_tap()) {
        tap_plugin_message(tap, LUMO_TAP_TO_PLUGIN, svc->get_svc_id(), 0, 0, text.data(), len);
      }
      front_tapped = true;
    }
    if (sendto(fd, text.data(), len, MSG_NOSIGNAL | MSG_DONTWAIT, nullptr, 0) == -1) {
      const int error = errno;
      if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
        // The socket is full: wait for room without the lock, then send the
        // same message again, unless the plugin has gone meanwhile.
        lock.unlock();
        pollfd room{fd, POLLOUT, 0};
        poll(&room, 1, kFullSocketPollMs);
        lock.lock();
        continue;
      }
      log_failed_send(error);
    }
    *bytes -= std::min(*bytes, queued_cost(text));
    queue->pop_front();
    front_tapped = false;
  }
  return nullptr;
}
