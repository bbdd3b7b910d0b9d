#include "state_view.h"

#include "ipc/json_text.h"

namespace lumokitd {

bool parse_state(const std::string& dump, Json::Value* out, std::string* error) {
  if (!lumokit::ipc::parse_json(dump, out, error)) return false;
  if (!out->isObject() || !(*out)["sessions"].isArray() || !(*out)["plugins"].isArray()) {
    *error = "state dump lacks the \"plugins\" and \"sessions\" arrays";
    return false;
  }
  return true;
}

}  // namespace lumokitd
