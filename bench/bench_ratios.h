#pragma once
// Runs the registered benchmarks and then prints each of our figures as a ratio of its baseline,
// both measured in the same run: the machine is shared and noisy, so only ratios are comparable.

#include <string>
#include <vector>

namespace qorbench {

// Which time of a run a ratio compares: the wall clock (an exchange waits for the server) or the
// benchmark thread's processor time (work done on that thread alone).
enum class Clock { Real, Cpu };

// One ratio of the summary: ours / baseline, named by the benchmarks' full names as Google
// Benchmark prints them ("BM_Exchange/http/5").
struct Ratio {
  std::string label;
  std::string ours;
  std::string baseline;
  Clock clock = Clock::Real;
};

// Initialises Google Benchmark with the command line, runs what it selects and prints the ratios
// whose two benchmarks both ran. With repetitions, each side is its median over the repetitions
// (or its mean when no median is reported). The report is the console's, or JSON with
// --benchmark_format=json, after which the summary goes to standard error so that standard output
// stays machine-readable. Returns the process's exit status.
int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios);

}  // namespace qorbench
