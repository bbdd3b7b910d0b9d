// The figures of a whole run (medians per scenario and scheduling), the
// targets checked against them, and the curves and peer comparisons that
// the report and the picture are made of.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "scenarios.h"

namespace bench {

inline const char* const kModes[] = {"default", "pinned"};

using Table = std::map<std::string, std::map<std::string, Result>>;  // scenario -> mode -> median

// A figure of the table; -1 when it was not measured or failed.
double fig(const Table& t, const std::string& scenario, const std::string& mode,
           double Result::*field);
// Point `i` of a scenario's curve; -1 when absent.
double point(const Table& t, const std::string& scenario, const std::string& mode, size_t i);

struct Target {
  std::string tag;  // a few words for the picture
  std::string what;
  std::string mode;
  double value = -1;
  double limit = -1;
  bool at_least = false;  // value must reach the limit instead of staying under it
  std::string unit;
  bool known() const { return value >= 0 && limit >= 0; }
  bool met() const { return known() && (at_least ? value >= limit : value <= limit); }
};

std::vector<Target> targets(const Table& t);

// The curves (x and, per path and scheduling, y) as the report keeps them.
Json::Value curves(const Table& t);
// The peers next to our end-to-end path: latency, CPU per call, ratios.
Json::Value peers(const Table& t);

}  // namespace bench
