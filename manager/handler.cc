// One thread per plugin connection: receives the plugin's messages, answers
// its requests directly, wakes the client threads waiting on it, and tears
// its registrations down when it leaves or dies.
#include <android/log.h>

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

#include "LumoManager.h"
#include "LumoSysAccess.h"
#include "Service.h"
#include "json_read.h"
#include "json_scan.h"
#include "message_tap.h"
#include "session_tables.h"
#include "token_verify.h"

namespace {

// Enough for the largest queued message to fit in one seqpacket send.
constexpr int kPluginSocketBuffer = 1 << 20;

// Plugin connections are numbered for the message tap, which names a
// connection by its number until its "INIT" gives it a service id.
std::atomic<uint32_t> last_connection_number{0};

struct Connection {
  int fd;
  uint32_t number = 0;
  std::unique_ptr<char[]> buffer;
  uint32_t limit = kPluginRecvInitial;
  bool grown = false;
  std::shared_ptr<Service> current;
  int current_id = 0;
  int32_t redy_count = 0;
  // Records this connection made before its latest "INIT": torn down with it
  // so that a plugin that says "INIT" twice leaves nothing behind.
  std::vector<std::pair<std::shared_ptr<Service>, int>> earlier;
  std::set<const Service*> senders;  // records whose sender thread runs
  std::string reply;  // reused for every direct reply
};

int32_t tap_service_id(const Connection& c) { return c.current ? c.current_id : 0; }

// Direct replies carry one trailing blank; a failed reply is not retried.
// The tap hears of a reply before it is sent, so that it comes before
// anything the plugin does on receiving it.
void send_reply(Connection& c, uint32_t session_id = 0) {
  c.reply.push_back(' ');
  if (lumo_tap_observer tap = lumokit_message_tap()) {
    tap_plugin_message(tap, LUMO_TAP_REPLY, tap_service_id(c), c.number, session_id,
                       c.reply.data(), c.reply.size());
  }
  sendto(c.fd, c.reply.data(), c.reply.size(), MSG_NOSIGNAL, nullptr, 0);
}

// The reply to "AUTH", "REGS" and "REDY": the opcode as received and the result.
void set_opcode_reply(Connection& c, const char* kind, const std::string& opcode_text, int result) {
  c.reply = "{\"req_type\": \"";
  c.reply += kind;
  c.reply += "\",\"opcode\": \"";
  c.reply += opcode_text;
  c.reply += "\", \"result\": ";
  c.reply += std::to_string(result);
  c.reply += "}";
}

// An "Opcode" that cannot be read as text (an array or object) is invalid
// like one that is no number; its text is then empty.
bool read_opcode(const Json::Value& root, std::string* text, unsigned int* opcode) {
  if (!json_read_text(root, "Opcode", "0", text) ||
      string_to_uint32_validation(*text, opcode) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Opcode is not valid: %s", text->c_str());
    return false;
  }
  return true;
}

// Each item as the library's text conversion reads it (null "", 5 "5");
// an item that is an array or object reads as an empty name, which nothing
// matches.
std::vector<std::string> read_string_array(const Json::Value& root, const char* key) {
  std::vector<std::string> items;
  const Json::Value* array = json_member(root, key);
  if (array == nullptr || !array->isArray()) return items;
  items.reserve(array->size());
  for (const Json::Value& item : *array) {
    items.emplace_back();
    json_value_text(item, &items.back());
  }
  return items;
}

void handle_init(Connection& c) {
  const int id = generate_service_id();
  bool taken;
  {
    std::lock_guard<std::mutex> lock(service_map_mtx);
    taken = service_map.count(id) != 0;
  }
  c.reply = "{\"req_type\": \"INIT\", \"service_id\": ";
  if (taken) {
    c.reply += "-1}";
  } else {
    auto svc = std::make_shared<Service>(id, c.fd, SVC_HAL_INITIALISED);
    add_to_service_map(id, svc);
    if (c.current) c.earlier.emplace_back(std::move(c.current), c.current_id);
    c.current = std::move(svc);
    c.current_id = id;
    c.reply += std::to_string(id);
    c.reply += "}";
  }
  send_reply(c);
}

// The message is handed over to the registration, which takes it by value:
// moved, the token text and definitions are not copied.
void handle_auth(Connection& c, Json::Value& root) {
  std::string opcode_text;
  unsigned int opcode = 0;
  const bool valid = read_opcode(root, &opcode_text, &opcode);
  const uint32_t service_id = json_uint(root, "Service_Id", 0);
  int result = -1;
  if (valid) {
    if (verify_registration_token(root) != 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                          "Failed to authenticate the LUMOKIT ONE token.");
    } else {
      result = register_client(static_cast<int>(service_id), opcode, std::move(root));
    }
  }
  set_opcode_reply(c, "AUTH", opcode_text, result);
  send_reply(c);
}

void handle_regs(Connection& c, Json::Value& root) {
  __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                      "Warning: Recieved useage of lumo_svc_register.API will be deprecated in "
                      "favor of lumo_svc_register_auth API");
  std::string opcode_text;
  unsigned int opcode = 0;
  const bool valid = read_opcode(root, &opcode_text, &opcode);
  const uint32_t service_id = json_uint(root, "Service_Id", 0);
  const int result =
      valid ? register_client(static_cast<int>(service_id), opcode, std::move(root)) : -1;
  set_opcode_reply(c, "REGS", opcode_text, result);
  send_reply(c);
}

void handle_redy(Connection& c, const Json::Value& root) {
  // Every REDY counts, refused or not: only the connection's very first one
  // may start the sender.
  if (c.redy_count < INT32_MAX) ++c.redy_count;
  const int service_id = json_int(root, "Service_Id", 0);
  std::string opcode_text;
  unsigned int opcode = 0;
  const bool valid = read_opcode(root, &opcode_text, &opcode);
  std::shared_ptr<Service> found = find_in_service_map(service_id);

  int result = -1;
  if (valid && found && c.current && c.current->get_svc_hal_state() >= SVC_HAL_REGISTERED) {
    std::vector<unsigned int> subsystems;
    {
      std::lock_guard<std::mutex> lock(*found->get_svc_hal_mtx());
      auto* map = found->get_subsystem_map();
      for (auto it = map->lower_bound(OpcodeSubsys(opcode, 0));
           it != map->end() && it->first.first == opcode; ++it) {
        subsystems.push_back(it->first.second);
      }
    }
    for (unsigned int subsystem : subsystems) {
      if (update_subsystem_status(service_id, opcode, subsystem, true)) {
        std::lock_guard<std::mutex> lock(opcodesubsys_svcid_map_mtx);
        opcodesubsys_svcid_map.emplace(OpcodeSubsys(opcode, subsystem), service_id);
      }
    }
    result = 0;
  }

  set_opcode_reply(c, "REDY", opcode_text, result);

  if (result == 0 && c.redy_count == 1) {
    auto* handle = new pthread_t;
    auto* holder = new std::shared_ptr<Service>(c.current);
    if (pthread_create(handle, nullptr, manager_send, holder) != 0) {
      delete holder;
      c.reply = "-1";
    } else {
      c.senders.insert(c.current.get());
    }
    c.current->set_sending_thread(handle);
    c.current->set_svc_hal_state(SVC_HAL_READY);
  }
  send_reply(c);
}

// The opcode "id" of a start_session answer is hexadecimal text.
bool parse_hex_opcode(const std::string& text, unsigned int* opcode) {
  try {
    *opcode = static_cast<unsigned int>(std::stoul(text, nullptr, 16) & 0xFFFFFFFFul);
    return true;
  } catch (...) {
    return false;
  }
}

void handle_start_session(Connection& c, const Json::Value& root) {
  if (!c.current) return;
  Service& svc = *c.current;
  std::lock_guard<std::mutex> lock(*svc.get_svc_hal_mtx());
  if (json_text(root, "Result", "-1") == "Success") {
    const uint32_t session_id = json_uint(root, "session_id", 0);
    auto* pairs = new OpcodeSubsysSet();
    const Json::Value* opcodes = json_member(root, "opcodes");
    if (opcodes != nullptr && opcodes->isArray()) {
      for (const Json::Value& entry : *opcodes) {
        unsigned int opcode = 0;
        if (!parse_hex_opcode(json_text(entry, "id", ""), &opcode)) continue;
        const Json::Value* subsystems = json_member(entry, "subsystems");
        if (subsystems == nullptr || !subsystems->isArray()) continue;
        for (const Json::Value& sub : *subsystems) pairs->emplace(opcode, json_uint(sub, "id", 0));
      }
    }
    const bool fresh = svc.find_in_session_started_map(session_id) == nullptr;
    svc.add_to_session_started_map(session_id, pairs);
    if (!fresh) delete pairs;  // merged into the stored set
  }
  svc.set_start_session_cv(true);
  svc.get_svc_hal_cv()->notify_all();
  if (!c.grown && svc.get_svc_hal_state() == SVC_HAL_READY) {
    c.buffer.reset(new char[kPluginRecvGrown]);
    c.limit = kPluginRecvGrown;
    c.grown = true;
  }
}

void handle_end_session(Connection& c, const Json::Value& root) {
  if (!c.current) return;
  Service& svc = *c.current;
  std::lock_guard<std::mutex> lock(*svc.get_svc_hal_mtx());
  if (json_text(root, "Result", "none") == "Success") {
    svc.set_end_session_cv(true);
    svc.get_svc_hal_cv()->notify_all();
  }
}

void handle_exec_task(Connection& c, uint32_t session_id, uint32_t transac_id, size_t received) {
  lumo_callback callback = find_session_callback(session_id);
  if (callback == nullptr) return;
  const size_t len = strnlen(c.buffer.get(), received);
  call_client(callback, tap_service_id(c), LUMO_RESPONSE_TASK, session_id,
              std::string(c.buffer.get(), len), 0, transac_id);
}

bool read_session_id(const Json::Value& root, unsigned int* session_id) {
  std::string text;
  if (!json_read_text(root, "Session_Id", "0", &text) ||
      string_to_uint32_validation(text, session_id) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Invalid session is %s", text.c_str());
    return false;
  }
  return true;
}

void handle_permission(Connection& c, const Json::Value& root) {
  unsigned int session_id = 0;
  if (!read_session_id(root, &session_id)) {
    c.reply = "{\"req_type\":\"PERMISSION\",\"status\": -1}";
    send_reply(c);
    return;
  }
  std::vector<bool> results;
  checkPermissionFromPackage(session_id, read_string_array(root, "Permissions"), &results);
  c.reply = "{\"req_type\":\"PERMISSION\",\"status\": 0,\"PermRes\":[";
  for (size_t i = 0; i < results.size(); ++i) {
    if (i != 0) c.reply += ",";
    c.reply += results[i] ? "\"1\"" : "\"0\"";
  }
  c.reply += "]}";
  send_reply(c, session_id);
}

void handle_info_query(Connection& c, const Json::Value& root) {
  unsigned int session_id = 0;
  const bool valid = read_session_id(root, &session_id);
  std::vector<std::string> items = read_string_array(root, "QueryInfos");
  std::vector<std::string> results;
  __android_log_print(ANDROID_LOG_INFO, kTagLink, "size of queried info array: %d",
                      static_cast<int>(items.size()));
  for (size_t i = 0; i < items.size(); ++i) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "i = %d, queried info: %s",
                        static_cast<int>(i), items[i].c_str());
  }
  if (valid) {
    const size_t asked = items.size();
    queryInfo(session_id, std::move(items), &results);
    if (asked != 0 && results.size() != asked) results.assign(asked, "ERROR:Internal errors");
  } else {
    // An unreadable session id is answered like an unknown one, item by item.
    results.assign(items.empty() ? 1 : items.size(), "ERROR:Invalid session ID");
  }
  c.reply = "{\"req_type\":\"INFO_QUERY\",\"QueryInfosRes\":";
  c.reply += vector_to_string_with_qutoes(std::move(results));
  c.reply += "}";
  send_reply(c, session_id);
}

// Stops a record's sender and marks it gone.
void stop_record(Connection& c, Service& svc) {
  {
    std::lock_guard<std::mutex> lock(*svc.get_svc_hal_mtx());
    svc.set_svc_hal_died(true);
  }
  svc.get_svc_hal_cv()->notify_all();
  svc.set_svc_hal_state(SVC_HAL_GONE);
  pthread_t* handle = svc.get_sending_thread();
  if (handle != nullptr) {
    if (c.senders.count(&svc) != 0) pthread_join(*handle, nullptr);
    svc.set_sending_thread(nullptr);
    delete handle;
  }
}

void release_earlier_records(Connection& c) {
  for (auto& record : c.earlier) {
    if (record.first->get_svc_hal_state() == SVC_HAL_GONE && record.first->get_svc_hal_died() &&
        !find_in_service_map(record.second)) {
      continue;
    }
    stop_record(c, *record.first);
    de_register_client(record.second, record.first);
  }
  c.earlier.clear();
}

void handle_dint(Connection& c, const Json::Value& root) {
  const bool had_record = static_cast<bool>(c.current);
  if (had_record) {
    stop_record(c, *c.current);
    de_register_client(json_int(root, "Service_Id", 0), c.current);
    release_earlier_records(c);
  }
  c.reply = had_record ? "1" : "0";
  send_reply(c);
}

void handle_death(Connection& c) {
  if (c.current) {
    const std::string pairs = c.current->get_opcodes_subsystems_string();
    __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                        "LUMOKIT has detected a Service Plugin crash: %s. LUMOKIT continues to run",
                        pairs.c_str());
    stop_record(c, *c.current);
    de_register_client(c.current_id, c.current);
    release_earlier_records(c);
  } else {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink,
                        "LUMOKIT has detected a Service Plugin crash. LUMOKIT continues to run");
  }
}

void configure_socket(int fd) {
  int size = kPluginSocketBuffer;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size));
  }
}

}  // namespace

void* svc_hal_handler_thread(void* arg) {
  Connection c;
  c.fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
  c.number = ++last_connection_number;
  c.buffer.reset(new (std::nothrow) char[kPluginRecvInitial]);
  // Default settings: comments are kept, so that an API definition is
  // digested and stored with them.
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!c.buffer || !reader) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "Can not allocate memory for either msg or reader");
    return nullptr;
  }
  configure_socket(c.fd);
  c.reply.reserve(256);
  Json::Value root;

  for (;;) {
    __android_log_print(ANDROID_LOG_INFO, kTagLink, "Manager waiting to receive");
    ssize_t n = recvfrom(c.fd, c.buffer.get(), c.limit, 0, nullptr, nullptr);
    if (n <= 0) {
      // Nothing received: a plugin that is gone makes the probe fail with EPIPE.
      static const char kProbe[] = "PING ";
      if (sendto(c.fd, kProbe, sizeof(kProbe) - 1, MSG_NOSIGNAL, nullptr, 0) < 0) {
        if (errno == EPIPE) {
          handle_death(c);
          break;
        }
      } else if (lumo_tap_observer tap = lumokit_message_tap()) {
        // Only a probe that went out: the plugin answers none, so telling
        // of it after the send keeps the order.
        tap_plugin_message(tap, LUMO_TAP_REPLY, tap_service_id(c), c.number, 0, kProbe,
                           sizeof(kProbe) - 1);
      }
      continue;
    }
    const size_t received = static_cast<size_t>(n);
    const char* begin = c.buffer.get();
    if (lumo_tap_observer tap = lumokit_message_tap()) {
      tap_plugin_message(tap, LUMO_TAP_FROM_PLUGIN, tap_service_id(c), c.number, 0, begin,
                         received);
    }
    // Task results are the bulk of the traffic: a plain one is read in one
    // pass. Everything else, and anything unusual, goes to the JSON library.
    PluginMessageScan scan;
    if (scan_plugin_message(begin, received, &scan) && scan.req_type == "exec_task") {
      handle_exec_task(c, scan.session_id, scan.transac_id, received);
      continue;
    }
    root = Json::Value();
    std::string errors;
    if (!parse_json_safely(*reader, begin, begin + received, &root, &errors)) {
      __android_log_print(ANDROID_LOG_WARN, kTagLink, "Parsing failed!!");
      continue;
    }
    const std::string kind = json_text(root, "req_type", "none");
    if (kind == "INIT") {
      handle_init(c);
    } else if (kind == "AUTH") {
      handle_auth(c, root);
    } else if (kind == "REGS") {
      handle_regs(c, root);
    } else if (kind == "REDY") {
      handle_redy(c, root);
    } else if (kind == "start_session") {
      handle_start_session(c, root);
    } else if (kind == "end_session") {
      handle_end_session(c, root);
    } else if (kind == "exec_task") {
      handle_exec_task(c, json_uint(root, "session_id", 0), json_uint(root, "transac_id", 0),
                       received);
    } else if (kind == "PERMISSION") {
      handle_permission(c, root);
    } else if (kind == "INFO_QUERY") {
      handle_info_query(c, root);
    } else if (kind == "DINT") {
      handle_dint(c, root);
      break;
    }
  }
  close(c.fd);
  return nullptr;
}
