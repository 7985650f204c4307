// Runs the benchmarks through a reporter that also keeps every figure, then prints the ratios.

#include "bench_ratios.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

namespace qorbench {

namespace {

// Nanoseconds per iteration of one run, on both clocks.
struct Figure {
  double real = 0;
  double cpu = 0;
};

struct Figures {
  std::vector<Figure> runs;
  std::map<std::string, Figure> aggregates;  // "median", "mean", ...

  // The median of the repetitions when Google Benchmark reported one, else their mean, else the
  // mean of the runs themselves.
  bool summary(Figure& out) const {
    for (const char* name : {"median", "mean"}) {
      if (const auto found = aggregates.find(name); found != aggregates.end()) {
        out = found->second;
        return true;
      }
    }
    if (runs.empty()) return false;
    out = {};
    for (const Figure& run : runs) {
      out.real += run.real;
      out.cpu += run.cpu;
    }
    out.real /= static_cast<double>(runs.size());
    out.cpu /= static_cast<double>(runs.size());
    return true;
  }
};

// A benchmark's name without the parts that do not tell benchmarks apart: "/real_time" and the
// repetitions.
std::string keyOf(const benchmark::BenchmarkReporter::Run& run) {
  benchmark::BenchmarkName name = run.run_name;
  name.time_type.clear();
  name.repetitions.clear();
  return name.str();
}

// Passes everything on to the reporter of the chosen format and keeps each run's figures.
class RecordingReporter final : public benchmark::BenchmarkReporter {
 public:
  explicit RecordingReporter(std::unique_ptr<benchmark::BenchmarkReporter> inner)
      : inner_(std::move(inner)) {}

  bool ReportContext(const Context& context) override { return inner_->ReportContext(context); }

  void ReportRuns(const std::vector<Run>& reports) override {
    inner_->ReportRuns(reports);
    for (const Run& run : reports) {
      if (run.error_occurred || run.report_big_o || run.report_rms) continue;
      const double scale = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      const Figure figure{run.GetAdjustedRealTime() * scale, run.GetAdjustedCPUTime() * scale};
      Figures& figures = figures_[keyOf(run)];
      if (run.run_type == Run::RT_Aggregate) {
        // Only the aggregates of time: the spread ones (stddev, cv) are no figure to divide.
        if (run.aggregate_unit == benchmark::kTime) figures.aggregates[run.aggregate_name] = figure;
      } else {
        figures.runs.push_back(figure);
      }
    }
  }

  void Finalize() override { inner_->Finalize(); }

  const std::map<std::string, Figures>& figures() const { return figures_; }

 private:
  std::unique_ptr<benchmark::BenchmarkReporter> inner_;
  std::map<std::string, Figures> figures_;
};

std::string_view formatFlag(int argc, char** argv) {
  constexpr std::string_view kFlag = "--benchmark_format=";
  std::string_view format = "console";
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument(argv[i]);
    if (argument.starts_with(kFlag)) format = argument.substr(kFlag.size());
  }
  return format;
}

std::string timeText(double nanoseconds) {
  char text[32];
  if (nanoseconds >= 1e6) {
    std::snprintf(text, sizeof text, "%.2f ms", nanoseconds / 1e6);
  } else if (nanoseconds >= 1e3) {
    std::snprintf(text, sizeof text, "%.1f us", nanoseconds / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.0f ns", nanoseconds);
  }
  return text;
}

}  // namespace

int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
  // Read before Initialize, which removes the flags it knows from argv.
  const std::string format(formatFlag(argc, argv));
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  std::unique_ptr<benchmark::BenchmarkReporter> inner;
  if (format == "json") {
    inner = std::make_unique<benchmark::JSONReporter>();
  } else {
    inner = std::make_unique<benchmark::ConsoleReporter>();
  }
  RecordingReporter reporter(std::move(inner));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::ostream& out = format == "json" ? std::cerr : std::cout;
  std::size_t width = 0;
  for (const Ratio& ratio : ratios)
    width = std::max(width, ratio.label.size());
  bool headed = false;
  for (const Ratio& ratio : ratios) {
    const auto ours = reporter.figures().find(ratio.ours);
    const auto baseline = reporter.figures().find(ratio.baseline);
    Figure a;
    Figure b;
    if (ours == reporter.figures().end() || baseline == reporter.figures().end() ||
        !ours->second.summary(a) || !baseline->second.summary(b)) {
      continue;
    }
    const double x = ratio.clock == Clock::Real ? a.real : a.cpu;
    const double y = ratio.clock == Clock::Real ? b.real : b.cpu;
    if (y <= 0) continue;
    if (!headed) {
      out << "\nRatios, ours / baseline, both from this run:\n";
      headed = true;
    }
    char value[32];
    std::snprintf(value, sizeof value, "%6.3f", x / y);
    out << "  " << ratio.label << std::string(width - ratio.label.size(), ' ') << "  " << value
        << "  (" << timeText(x) << " / " << timeText(y)
        << (ratio.clock == Clock::Real ? ", real time)" : ", cpu time)") << '\n';
  }
  out.flush();
  return 0;
}

}  // namespace qorbench
