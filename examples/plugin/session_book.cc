#include "session_book.h"

namespace example {

void SessionBook::start(uint32_t session_id, const std::vector<lumokit::OpcodeSubsystem>& pairs) {
  std::lock_guard<std::mutex> lock(mtx_);
  sessions_[session_id].insert(pairs.begin(), pairs.end());
}

void SessionBook::end(uint32_t session_id) {
  std::lock_guard<std::mutex> lock(mtx_);
  sessions_.erase(session_id);
}

bool SessionBook::has(uint32_t session_id, const lumokit::OpcodeSubsystem& pair) const {
  std::lock_guard<std::mutex> lock(mtx_);
  auto it = sessions_.find(session_id);
  return it != sessions_.end() && it->second.count(pair) != 0;
}

}  // namespace example
