#include "soak_records.h"

#include <cstdio>

namespace lumokit::soak {

void FailureLog::add(const std::string& check, const std::string& detail) {
  std::lock_guard<std::mutex> lock(mtx_);
  items_[check].push_back(detail);
}

bool FailureLog::failed(const std::string& check) const {
  std::lock_guard<std::mutex> lock(mtx_);
  return items_.count(check) != 0;
}

size_t FailureLog::count() const {
  std::lock_guard<std::mutex> lock(mtx_);
  size_t n = 0;
  for (const auto& entry : items_) n += entry.second.size();
  return n;
}

void FailureLog::print(size_t per_check) const {
  std::lock_guard<std::mutex> lock(mtx_);
  for (const auto& entry : items_) {
    size_t shown = 0;
    for (const std::string& detail : entry.second) {
      if (shown++ == per_check) {
        std::fprintf(stderr, "soak: FAIL [%s] ... and %zu more\n", entry.first.c_str(),
                     entry.second.size() - per_check);
        break;
      }
      std::fprintf(stderr, "soak: FAIL [%s] %s\n", entry.first.c_str(), detail.c_str());
    }
  }
}

void FailureLog::write_all(const std::string& path) const {
  std::lock_guard<std::mutex> lock(mtx_);
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return;
  for (const auto& entry : items_) {
    for (const std::string& detail : entry.second) {
      std::fprintf(f, "[%s] %s\n", entry.first.c_str(), detail.c_str());
    }
  }
  std::fclose(f);
}

}  // namespace lumokit::soak
