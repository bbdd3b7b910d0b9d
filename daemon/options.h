// Command line of lumokitd.
#pragma once

#include <android/log.h>

#include <cstddef>
#include <string>

#include "monitor_hub.h"

namespace lumokitd {

struct Options {
  std::string runtime_dir;  // filled with the default when not given
  std::string sys_policy;   // empty: the system service is not declared
  bool boot_completed = true;
  bool trust_client_ids = false;
  std::string log_file;     // empty: stderr
  int log_priority = ANDROID_LOG_INFO;  // records below it are not written
  size_t monitor_buffer = kDefaultMonitorBuffer;  // bytes of events kept for slow monitors
  bool help = false;
};

// False with `error` set for an unknown option, a missing value or a bad one.
bool parse_options(int argc, char** argv, Options* out, std::string* error);

const char* usage_text();

}  // namespace lumokitd
