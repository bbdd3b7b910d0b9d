#include <cutils/sockets.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

extern "C" int android_get_control_socket(const char* name) {
  if (name == nullptr) return -1;
  const std::string var = std::string("ANDROID_SOCKET_") + name;
  const char* text = getenv(var.c_str());
  if (text == nullptr || *text == '\0') return -1;

  errno = 0;
  char* end = nullptr;
  long fd = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || fd < 0 || fd > INT_MAX) return -1;

  struct stat st;
  if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode)) return -1;
  return static_cast<int>(fd);
}
