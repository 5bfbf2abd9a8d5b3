// RatioReporter: Google Benchmark's console output, then one line per pair of
// benchmarks "ours / peer" measured in the same run, so that a speed goal is
// read as a ratio to its peer rather than as an absolute time that depends on
// the machine. With --benchmark_repetitions the medians are compared.
#ifndef KQ_BENCH_RATIO_REPORTER_H_
#define KQ_BENCH_RATIO_REPORTER_H_

#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <benchmark/benchmark.h>

namespace KQ {
namespace bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // ours and peer are run names ("BM_X/depth:1"); goal is the largest ratio allowed.
  void addPair(std::string ours, std::string peer, double goal) { pairs_.emplace_back(ours, peer, goal); }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (!run.error_occurred && (run.run_type == Run::RT_Iteration || run.aggregate_name == "median"))
        nanoseconds_[run.run_name.str()] = run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
    ConsoleReporter::ReportRuns(runs);
  }

  void printRatios() const {
    for (const auto& [ours, peer, goal] : pairs_) {
      const auto a = nanoseconds_.find(ours), b = nanoseconds_.find(peer);
      if (a == nanoseconds_.end() || b == nanoseconds_.end()) continue;
      std::printf("%-48s %10.0f ns | %-34s %10.0f ns | ratio %.2f (goal <= %.2f)\n", ours.c_str(), a->second,
                  peer.c_str(), b->second, a->second / b->second, goal);
    }
  }

 private:
  std::vector<std::tuple<std::string, std::string, double>> pairs_;
  std::map<std::string, double> nanoseconds_;
};

// BENCHMARK_MAIN with the ratios printed at the end.
inline int runWithRatios(int argc, char** argv, RatioReporter& reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
}  // namespace KQ

#endif  // KQ_BENCH_RATIO_REPORTER_H_
