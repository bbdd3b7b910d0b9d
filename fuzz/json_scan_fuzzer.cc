// Differential check of the one-pass JSON scanner against jsoncpp: whenever
// a scanner vouches for a text, jsoncpp (set up as each caller sets it up)
// must accept it and yield the same values, and a vouched task request must
// pass sanitising. Any disagreement aborts. The jsoncpp here is built with
// libstdc++; the device's is built with libc++, whose number conversion
// fails where strtod reports a range error, so a vouched text must hold no
// such number either.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "json_read.h"
#include "json_scan.h"
#include "session_tables.h"

namespace {

// The readers of the connection handler and perform_task.
Json::CharReader& lenient_reader() {
  static Json::CharReader* reader = [] {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    return builder.newCharReader();
  }();
  return *reader;
}

// The host daemon's reader of client messages.
Json::CharReader& strict_reader() {
  static Json::CharReader* reader = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["allowSpecialFloats"] = false;
    return builder.newCharReader();
  }();
  return *reader;
}

void check(bool ok) {
  if (!ok) abort();
}

// Every number in `value` converts as libc++'s jsoncpp would accept it.
void check_numbers_convert(const Json::Value& value, const char* text) {
  if (value.isNumeric()) {
    const std::string token(text + value.getOffsetStart(), text + value.getOffsetLimit());
    errno = 0;
    std::strtod(token.c_str(), nullptr);
    check(errno != ERANGE);
    return;
  }
  for (const Json::Value& child : value) check_numbers_convert(child, text);
}

Json::Value parse_or_abort(Json::CharReader& reader, const char* text, size_t size) {
  Json::Value root;
  std::string errors;
  check(parse_json_safely(reader, text, text + size, &root, &errors));
  check(root.isObject());
  check_numbers_convert(root, text);
  return root;
}

void check_plugin_message(const char* text, size_t size) {
  PluginMessageScan scan;
  if (!scan_plugin_message(text, size, &scan)) return;
  const Json::Value root = parse_or_abort(lenient_reader(), text, size);
  check(json_text(root, "req_type", "none") == scan.req_type);
  check(json_uint(root, "session_id", 0) == scan.session_id);
  check(json_uint(root, "transac_id", 0) == scan.transac_id);
}

void check_task_request(const char* text, size_t size) {
  TaskRequestScan scan;
  if (!scan_task_request(text, size, &scan)) return;
  const Json::Value root = parse_or_abort(lenient_reader(), text, size);
  check(sanitizingJson(root));
  const Json::Value& func = root["func"];
  check(root["session_id"].asUInt() == scan.session_id);
  check(root["transac_id"].asUInt() == scan.transac_id);
  check(root["opcode"].asString() == scan.opcode);
  check(root["subsys_id"].asUInt() == scan.subsys_id);
  check(func["name"].asString() == scan.name);
  check(func["num_of_args"].asUInt() == scan.num_of_args);
  const Json::Value& args = func["args"];
  check(args.size() == scan.arg_types.size());
  for (Json::ArrayIndex i = 0; i < args.size(); ++i) {
    check(args[i]["type"].asString() == scan.arg_types[i]);
  }
}

void check_flat_object(const char* text, size_t size) {
  JsonFlatMember members[] = {{"op"}, {"session_id"}, {"request"}};
  if (!scan_flat_object(text, size, members, 3)) return;
  const Json::Value root = parse_or_abort(strict_reader(), text, size);
  size_t present = 0;
  for (const JsonFlatMember& m : members) {
    const Json::Value* v = json_member(root, m.name);
    check((v != nullptr) == (m.kind != JsonFlatMember::kMissing));
    if (v == nullptr) continue;
    ++present;
    switch (m.kind) {
      case JsonFlatMember::kString: {
        check(v->isString());
        std::string decoded;
        json_decode_string(m.text, &decoded);
        check(decoded == v->asString());
        check(m.escaped || decoded == m.text);
        break;
      }
      case JsonFlatMember::kNumber: {
        check(v->isNumeric());
        uint32_t value = 0;
        if (json_plain_uint32(m.text, &value)) {
          check(v->isIntegral() && v->isUInt() && v->asUInt() == value);
        }
        break;
      }
      default:
        check(v->isBool() || v->isNull());
    }
  }
  check(root.size() == present);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  check_plugin_message(text, size);
  check_task_request(text, size);
  check_flat_object(text, size);
  return 0;
}
