// Consistency of the manager's tables, read from its diagnostic snapshot and
// the set of registered pairs; shared by the fuzzers and the tests.
#pragma once

#include <string>

// Empty when the tables agree with each other, else the first contradiction.
// Meaningful only while no plugin or client is acting.
std::string check_table_consistency();
