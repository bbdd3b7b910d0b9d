// What the tool's commands return to the shell, and the one way they report
// a bad command line.
#pragma once

#include <string>

namespace lumokit::cli {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Prints "lumokit: <message>" to stderr and returns kUsage.
int usage_error(const std::string& message);

}  // namespace lumokit::cli
