// Controls of the host platform layer for embedding programs and tests:
// seeding and reading properties, choosing where the log goes, capturing it.
#pragma once

#include <functional>
#include <string>

namespace lumokit::host {

void set_property(const std::string& name, const std::string& value);
// The value, or `fallback` when the property was never set.
std::string get_property(const std::string& name, const std::string& fallback = "");

// Log records go to stderr until a file is chosen; false when it can't be opened.
bool set_log_file(const std::string& path);
void set_log_to_stderr();
// Records below this priority are not written (capture hooks still see them).
void set_log_min_priority(int prio);

// Called for every record with (priority, tag, formatted message), after the
// record is written. Returns an id for remove_log_hook, which waits until no
// hook call is running (so it must not be called from inside a hook).
using LogHook = std::function<void(int prio, const std::string& tag, const std::string& msg)>;
int add_log_hook(LogHook hook);
void remove_log_hook(int id);

}  // namespace lumokit::host
