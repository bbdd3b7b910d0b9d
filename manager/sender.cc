// The per-plugin outbound queue and the thread that drains it, so that
// clients never write to a plugin socket themselves and order is kept.
#include <android/log.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "LumoManager.h"
#include "Service.h"

void add_msg_to_queue(std::shared_ptr<Service> service, std::string message) {
  if (!service || service->get_svc_hal_died()) return;
  {
    std::lock_guard<std::mutex> lock(*service->get_svc_hal_mtx());
    service->get_svc_hal_queue()->push_back(std::move(message));
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
  const int fd = svc->get_servicehal_socket_fd();

  std::unique_lock<std::mutex> lock(*mtx);
  for (;;) {
    cv->wait(lock, [&] { return !queue->empty() || svc->get_svc_hal_died(); });
    // Whatever is still queued goes with the record.
    if (svc->get_svc_hal_died()) break;
    const std::string& text = queue->front();
    // Sent straight from the queued text: as a C string, cut to the largest
    // message a plugin accepts. The send stays under the lock so that queue
    // order is socket order.
    size_t len = std::min(text.size(), static_cast<size_t>(kPluginSendMax));
    if (const void* nul = memchr(text.data(), '\0', len)) {
      len = static_cast<size_t>(static_cast<const char*>(nul) - text.data());
    }
    if (sendto(fd, text.data(), len, MSG_NOSIGNAL, nullptr, 0) == -1) {
      __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Manager not able to send msg, error - %s",
                          strerror(errno));
    }
    queue->pop_front();
  }
  return nullptr;
}
