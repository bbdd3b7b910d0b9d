// Start-up and the plugin socket server: takes the init-provided socket,
// announces readiness, and hands every accepted plugin to its own thread.
#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/sockets.h>

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "LumoManager.h"
#include "Service.h"

namespace {
constexpr int kListenBacklog = 20;
constexpr socklen_t kPeerAddressLength = 110;
constexpr const char* kReadyProperty = "vendor.lumokit.ready";
}  // namespace

int32_t LumoServiceManagerServer::init_manager() {
  int server_fd = android_get_control_socket("lumo");
  if (server_fd < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Failed to connect to socket, error - %s",
                        strerror(errno));
    return -1;
  }
  if (listen(server_fd, kListenBacklog) < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "FAILED to listen to socket, error - %s",
                        strerror(errno));
    close(server_fd);
    return -1;
  }
  if (property_get_int32(kReadyProperty, 0) == 0) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "setting %s", kReadyProperty);
    property_set(kReadyProperty, "1");
  }

  for (;;) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "WAITING to get connected by client");
    struct sockaddr_un peer;
    socklen_t peer_len = kPeerAddressLength;
    int fd = accept(server_fd, reinterpret_cast<struct sockaddr*>(&peer), &peer_len);
    if (fd < 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Failed to accept packet over socket");
      close(server_fd);
      return -1;
    }
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "Connected to Client");
    auto* handle = new pthread_t;
    if (pthread_create(handle, nullptr, svc_hal_handler_thread,
                       reinterpret_cast<void*>(static_cast<intptr_t>(fd))) != 0) {
      // Both sockets stay open: the supervisor restarts the whole process.
      delete handle;
      return -1;
    }
    pthread_detach(*handle);
    delete handle;
  }
}
