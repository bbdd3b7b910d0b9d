// The driver: runs every scenario in fresh processes, with default
// scheduling and pinned to one CPU, several times each; prints one table
// with the medians, checks the targets and writes the JSON report.
#pragma once

namespace bench {

int run_driver(int argc, char** argv);

}  // namespace bench
