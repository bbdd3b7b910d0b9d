// One clock for the soak and its plugins: CLOCK_MONOTONIC is system-wide, so
// times written by plugin processes compare with the soak's own.
#pragma once

#include <time.h>

#include <cstdint>

namespace lumokit::soak {

inline int64_t mono_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

constexpr int64_t kMs = 1000000LL;
constexpr int64_t kSec = 1000000000LL;

}  // namespace lumokit::soak
