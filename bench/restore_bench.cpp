// Speed of a start with --restore: 100,000 objects in 20 categories (a fifth children of another, a tenth moved with
// save = true after the archive). Goal: at most 2 s. Beside it: a plain start, and restore_cpu_s, the starting
// thread's CPU time (the wall time of an idle machine; here the benchmark runs beside other work).
#include <chrono>
#include <ctime>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "middleware/broker.h"
#include "middleware/log.h"
#include "middleware/path.h"
#include "module/world_representation.h"
#include "support/recording_memory_module.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace {

void BM_RestoreStart(benchmark::State& state) {
  ko::log::setCategoryLevel("KQWorldRepresentation", ko::log::error);
  KQ::test::TempDir dir;
  ko::path::setComponentDataPath("worldrepresentation", dir.path());
  auto broker = std::make_shared<KQ::KQBroker>("kqbench");
  KQ::KQModule::createModule<KQ::test::ScriptedMotionModule>(broker, "KQMotion");
  KQ::KQModule::createModule<KQ::test::RecordingMemoryModule>(broker, "KQMemory");
  std::shared_ptr<KQ::KQWorldRepresentation> world;
  double cpu = 0.0;  // this thread's CPU seconds of the last start (init runs here)
  const auto cpuNow = [] {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
  };
  const auto start = [&](bool restore) {  // seconds to create the world; its exit is not measured
    if (world) world->exit();
    world.reset();  // its destructor saves once more: not measured either
    KQ::KQWorldRepresentation::setStartOptions({restore, 0});
    const auto begin = std::chrono::steady_clock::now();
    const double cpuBegin = cpuNow();
    world = KQ::KQModule::createModule<KQ::KQWorldRepresentation>(broker, "KQWorldRepresentation");
    cpu = cpuNow() - cpuBegin;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  };
  start(false);
  for (int c = 0; c < 20; ++c) {
    const std::string category = "cat" + std::to_string(c);
    world->createObjectCategory(category, false);
    world->beginTransaction(category);
    for (int i = c; i < 100000; i += 20)
      world->storeObject("o" + std::to_string(i), i % 5 == 4 ? "o" + std::to_string(i - 4) : "World",
                         {0.1f * c, 0.2f, 0.3f, 0, 0, 0.1f}, category, std::vector<KQ::KQValue>{});
    world->endTransaction(category);
  }
  world->save();
  for (int i = 0; i < 100000; i += 10) world->updatePosition("o" + std::to_string(i), {1, 2, 3, 0, 0, 0}, true);
  for (auto _ : state) {
    const double restored = start(true);
    state.SetIterationTime(restored);
    state.counters["restore_cpu_s"] = cpu;
    state.counters["objects"] = static_cast<double>(world->getObjectNames().size());
    const double plain = start(false);
    state.counters.insert(
        {{"restore_s", restored}, {"plain_start_s", plain}, {"restore_over_plain", restored / plain}});
  }
}  // the modules are left running: their exit and final saves are not measured
BENCHMARK(BM_RestoreStart)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
