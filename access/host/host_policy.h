// The JSON policy that drives the emulated system service: what it records,
// and the strict reader that turns a policy text into those records.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "lumo_sys.h"

namespace lumosys::host {

// What the emulated service knows of one app, matched by uid.
struct HostApp {
  std::string package;
  std::string cert_hash;
  bool foreground = false;
  std::set<std::string> granted;
};

struct HostPolicy {
  bool declared = true;
  std::vector<APIInfo> apis;  // in file order
  std::map<uint32_t, HostApp> apps;
};

// Parses `text`; `source` names it in errors ("<source>: <where>: <problem>").
// On failure `policy` is left untouched.
bool parse_policy(const std::string& text, const std::string& source, HostPolicy* policy,
                  std::string* error);

// Reads a whole file; errors read "<path>: cannot open: <reason>".
bool read_policy_file(const std::string& path, std::string* text, std::string* error);

}  // namespace lumosys::host
