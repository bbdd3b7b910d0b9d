// The figures the picture shows, as gnuplot data: blocks separated by two
// blank lines (gnuplot's "index"), in the order bench/bench.gp reads them;
// a value that was not measured is NaN, which gnuplot leaves out.
#pragma once

#include <string>

#include "targets.h"

namespace bench {

bool write_plot_data(const Table& t, const std::string& path);

}  // namespace bench
