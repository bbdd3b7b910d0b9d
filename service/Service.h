// Service registry: the records of connected plugins and their subsystems,
// the map of plugins by service id, the registry of opcode/subsystem pairs,
// registration and removal of API definitions, session-start and crash
// notices, and the number conversions all JSON handling uses.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

using OpcodeSubsys = std::pair<unsigned int, unsigned int>;
using OpcodeSubsysSet = std::set<OpcodeSubsys>;

enum svc_hal_state : int32_t {
  SVC_HAL_GONE = 0,
  SVC_HAL_INITIALISED = 1,
  SVC_HAL_REGISTERED = 2,
  SVC_HAL_READY = 3,
};

class Sub_System {
 public:
  Sub_System(unsigned int subsystem_id, std::string functions);
  unsigned int get_subsystem_id() const { return subsystem_id; }
  bool get_subsystem_status() const { return subsystem_status.load(std::memory_order_acquire); }
  void set_subsystem_status(bool status) { subsystem_status.store(status, std::memory_order_release); }
  std::string get_functions() const { return functions; }
  const std::string& functions_text() const { return functions; }

 private:
  unsigned int subsystem_id;
  std::atomic<bool> subsystem_status;
  std::string functions;
};

class Service {
 public:
  Service(int svc_id, int socket_fd, svc_hal_state state);

  int get_svc_id() const { return svc_id; }
  void set_svc_id(int id) { svc_id = id; }
  int get_servicehal_socket_fd() const { return servicehal_socket_fd; }
  void set_servicehal_socket_fd(int fd) { servicehal_socket_fd = fd; }
  // The map itself; readers and writers hold svc_hal_mtx.
  std::map<OpcodeSubsys, Sub_System*>* get_subsystem_map() { return &subsystem_map; }
  std::mutex* get_svc_hal_mtx() { return &svc_hal_mtx; }
  std::condition_variable* get_svc_hal_cv() { return &svc_hal_cv; }
  std::deque<std::string>* get_svc_hal_queue() { return &svc_hal_queue; }
  // What the queue holds, as the sender's bound counts it; under svc_hal_mtx.
  size_t* get_svc_hal_queue_bytes() { return &svc_hal_queue_bytes; }

  // Plain flags in the original design; atomic here so that the threads that
  // read them without svc_hal_mtx see a consistent value.
  bool get_start_session_cv() const { return start_session_cv.load(); }
  void set_start_session_cv(bool v) { start_session_cv.store(v); }
  bool get_end_session_cv() const { return end_session_cv.load(); }
  void set_end_session_cv(bool v) { end_session_cv.store(v); }
  bool get_svc_hal_died() const { return svc_hal_died.load(); }
  void set_svc_hal_died(bool v) { svc_hal_died.store(v); }
  svc_hal_state get_svc_hal_state() const { return svc_hal_state_.load(); }
  void set_svc_hal_state(svc_hal_state s) { svc_hal_state_.store(s); }
  pthread_t* get_sending_thread() const { return sending_thread; }
  void set_sending_thread(pthread_t* t) { sending_thread = t; }

  // Adds the entry only when the key is absent; the caller holds svc_hal_mtx.
  void add_to_subsystem_map(unsigned int opcode, unsigned int subsystem, Sub_System* sub);
  // "[{0x1a, 1}{0x1a, 2}]" form, for log lines.
  std::string get_opcodes_subsystems_string();

  // Sessions started on this plugin; the caller holds svc_hal_mtx.
  OpcodeSubsysSet* find_in_session_started_map(unsigned int session_id);
  void add_to_session_started_map(unsigned int session_id, OpcodeSubsysSet* pairs);
  void delete_from_session_started_map(unsigned int session_id);
  std::vector<unsigned int>* get_keys_of_session_started_map();

 private:
  int svc_id;
  int servicehal_socket_fd;
  std::map<OpcodeSubsys, Sub_System*> subsystem_map;
  std::mutex svc_hal_mtx;
  std::condition_variable svc_hal_cv;
  std::deque<std::string> svc_hal_queue;
  size_t svc_hal_queue_bytes = 0;
  std::atomic<bool> start_session_cv{false};
  std::atomic<bool> end_session_cv{false};
  pthread_t* sending_thread = nullptr;
  std::atomic<bool> svc_hal_died{false};
  std::map<unsigned int, OpcodeSubsysSet*> session_started_map;
  std::atomic<svc_hal_state> svc_hal_state_;
};

// ---- Service map and opcode registry ----
extern std::map<int, std::shared_ptr<Service>>& service_map;
extern std::mutex& service_map_mtx;
extern std::mutex& service_id_mutex;

int generate_service_id();
void add_to_service_map(int svc_id, std::shared_ptr<Service> svc);
std::shared_ptr<Service> find_in_service_map(int svc_id);
void delete_from_service_map(unsigned int svc_id);
bool update_subsystem_status(int svc_id, unsigned int opcode, unsigned int subsystem, bool status);
// Every pair any plugin registered. Guarded by registered_opcode_subsys_set_mtx,
// a leaf lock taken after the registering plugin's svc_hal_mtx.
OpcodeSubsysSet* get_registered_opcode_subsys_set();
extern std::mutex& registered_opcode_subsys_set_mtx;

// ---- API definition registration and removal ----
int register_client(int svc_id, unsigned int opcode, Json::Value def);
int process_json(unsigned int opcode, Json::Value def, std::shared_ptr<Service> svc);
int de_register_client(int svc_id, std::shared_ptr<Service> svc);

// ---- Session-start and crash notices ----
using OpcodeMap = std::map<unsigned int, std::vector<unsigned int>*>;
OpcodeMap* set_to_map_converison(const OpcodeSubsysSet& pairs);
void free_opcode_map(OpcodeMap* map);
// Both return a copy of the pairs the plugin started for the session, owned by
// the caller, or null when it started none (refused, gone, or silent for 3 s).
OpcodeSubsysSet* get_response_for_start_session(int svc_id, OpcodeSubsysSet* pairs,
                                                unsigned int session_id);
OpcodeSubsysSet* start_session(std::shared_ptr<Service> svc, char* notice, unsigned int session_id);
std::string create_crash_response(std::map<unsigned int, std::vector<unsigned int>*> opcodes);
// The notice text alone (for the sender and for tests).
std::string build_start_session_notice(const std::shared_ptr<Service>& svc, const OpcodeMap& map,
                                       unsigned int session_id);

// ---- Number and hex-string conversions ----
int string_to_uint32_validation(std::string text, unsigned int* out);
bool isValidHexadecimalString(const std::string& text);
int hexadecimalstring_to_uint32_validation(std::string text, unsigned int* out);
std::string uint32_to_hexstring(unsigned int value);
namespace lumokit {
int toupper(int c);
}

// Log tags of the subsystems.
inline constexpr const char* kTagLink = "LUMOKIT_SESSION_MANAGER";
inline constexpr const char* kTagSession = "LUMOKIT_MANAGER";
