// RatioReporter: Google Benchmark's console output, then one line per pair "ours / peer" measured in the same
// run, so that a speed goal reads as a ratio to its peer. With --benchmark_repetitions the medians are compared;
// CPU times, or wall times for benchmarks that ask for them (UseRealTime: threads, waits on the disk).
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
  // Run names ("BM_X/depth:1"); goal: the largest ratio allowed.
  void addPair(std::string ours, std::string peer, double goal) { pairs_.emplace_back(ours, peer, goal); }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (!run.error_occurred && (run.run_type == Run::RT_Iteration || run.aggregate_name == "median"))
        ns_[run.run_name.str()] = (run.run_name.time_type.empty() ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime()) *
                                  1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
    ConsoleReporter::ReportRuns(runs);
  }
  int run(int argc, char** argv) {  // BENCHMARK_MAIN with the ratios at the end
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks(this);
    for (const auto& [ours, peer, goal] : pairs_)
      if (ns_.count(ours) != 0 && ns_.count(peer) != 0)
        std::printf("%-44s %9.0f ns | %-44s %9.0f ns | ratio %.2f (goal <= %.2f)\n", ours.c_str(), ns_[ours],
                    peer.c_str(), ns_[peer], ns_[ours] / ns_[peer], goal);
    benchmark::Shutdown();
    return 0;
  }

 private:
  std::vector<std::tuple<std::string, std::string, double>> pairs_;
  std::map<std::string, double> ns_;
};

}  // namespace bench
}  // namespace KQ

#endif  // KQ_BENCH_RATIO_REPORTER_H_
