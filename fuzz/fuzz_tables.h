// Consistency checks over the manager's tables, shared by the fuzzers.
#pragma once

#include <string>

// Empty when the tables agree with each other, else what is wrong.
std::string check_table_consistency();
