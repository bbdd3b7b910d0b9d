#include <cutils/properties.h>
#include <lumokit/host_platform.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace {

std::mutex& store_mtx() {
  static std::mutex m;
  return m;
}

std::map<std::string, std::string>& store() {
  static auto* s = new std::map<std::string, std::string>();
  return *s;
}

bool lookup(const char* key, std::string* out) {
  std::lock_guard<std::mutex> lock(store_mtx());
  auto it = store().find(key);
  if (it == store().end()) return false;
  *out = it->second;
  return true;
}

}  // namespace

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
  std::string value;
  if (key == nullptr || !lookup(key, &value) || value.empty()) return default_value;
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(value.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return default_value;
  return static_cast<int32_t>(v);
}

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  std::string found;
  if (key == nullptr || !lookup(key, &found)) found = default_value ? default_value : "";
  size_t len = std::min(found.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
  memcpy(value, found.data(), len);
  value[len] = '\0';
  return static_cast<int>(len);
}

extern "C" int property_set(const char* key, const char* value) {
  if (key == nullptr || *key == '\0') return -1;
  if (value == nullptr) value = "";
  if (strlen(value) >= PROPERTY_VALUE_MAX) return -1;
  std::lock_guard<std::mutex> lock(store_mtx());
  store()[key] = value;
  return 0;
}

namespace lumokit::host {

void set_property(const std::string& name, const std::string& value) {
  std::lock_guard<std::mutex> lock(store_mtx());
  store()[name] = value;
}

std::string get_property(const std::string& name, const std::string& fallback) {
  std::string value;
  return lookup(name.c_str(), &value) ? value : fallback;
}

}  // namespace lumokit::host
