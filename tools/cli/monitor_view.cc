#include "monitor_view.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace lumokit::cli {

namespace {

// Bytes of text shown of a message without --full.
constexpr size_t kShownText = 120;

// Lenient, as the manager reads plugin messages: comments and trailing
// blanks are allowed.
bool parse_text(const std::string& text, Json::Value* out) {
  thread_local std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  try {
    return reader->parse(text.data(), text.data() + text.size(), out, &errors) && out->isObject();
  } catch (const std::exception&) {
    return false;
  }
}

bool number_text(const std::string& text, int base, uint32_t* out) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(text.c_str(), &end, base);
  if (errno != 0 || end == text.c_str() || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

// An opcode as the message's reader takes it: "0x" text is hexadecimal,
// other text decimal, except in task texts, whose "opcode" the manager
// always reads as hexadecimal.
void add_opcode(const Json::Value& v, bool task, std::vector<uint32_t>* out) {
  uint32_t value = 0;
  if (v.isUInt()) {
    out->push_back(v.asUInt());
    return;
  }
  if (!v.isString()) return;
  std::string text = v.asString();
  const bool prefixed = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (number_text(prefixed ? text.substr(2) : text, prefixed || task ? 16 : 10, &value)) {
    out->push_back(value);
  }
}

void collect_opcodes(const Json::Value& obj, bool task, std::vector<uint32_t>* out) {
  for (const char* key : {"Opcode", "opcode"}) {
    if (obj.isMember(key)) add_opcode(obj[key], task, out);
  }
  const Json::Value& list = obj["opcodes"];
  if (list.isArray()) {
    for (const Json::Value& entry : list) {
      if (!entry.isObject()) continue;
      add_opcode(entry.isMember("id") ? entry["id"] : entry["opcode"], task, out);
    }
  }
  // The capability report keeps its opcodes one level down.
  if (obj["capability"].isObject()) collect_opcodes(obj["capability"], task, out);
}

uint32_t session_member(const Json::Value& obj) {
  for (const char* key : {"session_id", "Session_Id"}) {
    const Json::Value& v = obj[key];
    uint32_t id = 0;
    if (v.isUInt()) return v.asUInt();
    if (v.isString() && number_text(v.asString(), 10, &id)) return id;
  }
  return 0;
}

// Control characters written out, so that an event stays on one line; a
// text cut here or by the daemon ends in "...".
void append_shown(std::string* out, const std::string& text, bool full, bool cut) {
  size_t end = text.size();
  if (!full && end > kShownText) {
    end = kShownText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  }
  for (size_t i = 0; i < end; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      *out += "\\n";
    } else if (c == '\r') {
      *out += "\\r";
    } else if (c == '\t') {
      *out += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof(hex), "\\x%02x", c);
      *out += hex;
    } else {
      out->push_back(static_cast<char>(c));
    }
  }
  if (end < text.size() || cut) *out += "...";
}

}  // namespace

EventFacts facts_of(const Json::Value& event) {
  EventFacts facts;
  const std::string dir = event["dir"].asString();
  facts.session = event["session_id"].asUInt();
  Json::Value text;
  const bool object = parse_text(event["text"].asString(), &text);
  const bool task = object && text.isMember("transac_id");
  if (object) {
    if (text["req_type"].isString()) facts.req_type = text["req_type"].asString();
    if (facts.session == 0) facts.session = session_member(text);
    collect_opcodes(text, task, &facts.opcodes);
  }
  if (dir == "call") {
    facts.kind = event["call"].asString();
    if (event.isMember("opcode")) facts.opcodes.push_back(event["opcode"].asUInt());
  } else if (dir == "callback") {
    facts.kind = "callback";
  } else if (!facts.req_type.empty()) {
    facts.kind = facts.req_type;
  } else {
    facts.kind = task && text.isMember("func") ? "task" : "-";
  }
  return facts;
}

bool matches(const MonitorFilter& filter, const Json::Value& event, const EventFacts& facts) {
  if (filter.by_plugin && event["service_id"].asInt() != filter.plugin) return false;
  if (filter.by_session && facts.session != filter.session) return false;
  if (filter.by_opcode) {
    bool named = false;
    for (uint32_t opcode : facts.opcodes) named = named || opcode == filter.opcode;
    if (!named) return false;
  }
  return filter.kind.empty() || facts.kind == filter.kind || facts.req_type == filter.kind;
}

std::string event_row(const Json::Value& event, const EventFacts& facts, bool full) {
  const std::string dir = event["dir"].asString();
  const bool to_manager = dir == "recv" || dir == "call";
  std::string party;
  if (dir == "call" || dir == "callback") {
    party = event.isMember("client") ? "client " + std::to_string(event["client"].asUInt64())
                                     : "client -";
  } else if (event.isMember("service_id")) {
    party = "plugin " + std::to_string(event["service_id"].asInt());
  } else {
    party = "conn " + std::to_string(event["connection"].asUInt());
  }
  const std::string session =
      facts.session != 0 ? "session " + std::to_string(facts.session) : "session -";
  const int64_t ns = event["time_ns"].asInt64();
  char head[160];
  std::snprintf(head, sizeof(head), "%" PRId64 ".%06" PRId64 " %s %-11s %-17s %-13s %9s  ",
                ns / 1000000000, (ns % 1000000000) / 1000, to_manager ? "<-" : "->",
                party.c_str(), facts.kind.c_str(), session.c_str(),
                (std::to_string(event["size"].asUInt64()) + " B").c_str());
  std::string row = head;
  if (dir == "callback") {
    row += "kind " + std::to_string(event["kind"].asInt()) + " error " +
           std::to_string(event["error"].asInt()) + " handle " +
           std::to_string(event["handle"].asUInt()) + ": ";
  } else if (event["call"] == "create_session") {
    row += "handle " + std::to_string(event["handle"].asUInt()) + " pid " +
           std::to_string(event["pid"].asInt()) + " uid " + std::to_string(event["uid"].asUInt()) +
           ": ";
  } else if (event["call"] == "cancel_session") {
    char pair[64];
    std::snprintf(pair, sizeof(pair), "opcode 0x%X subsys %u", event["opcode"].asUInt(),
                  event["subsys"].asUInt());
    row += pair;
  }
  append_shown(&row, event["text"].asString(), full, event["cut"].asBool());
  return row;
}

}  // namespace lumokit::cli
