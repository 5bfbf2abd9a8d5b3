// Speed of the world's position operations, measured through the module's
// own public calls on a real broker, with the scripted robot and the
// recording memory module, category databases in a temporary folder:
//  - getPosition of an object at depth 1, 5 and 20 in the frame of "World"
//    (1, 5, 20 edges), between two objects at those depths on two branches
//    (2, 10, 40 edges), and between two deep leaves of a 1,000-object tree;
//    goal: under 1 us at depth 5;
//  - updatePosition without and with its history row, each row its own
//    commit (no explicit transaction); goal: 50,000 saved updates a second;
//  - getPosition6DAtTime of an object with 1,000,000 history rows, nearest
//    and linear; goal: under 100 us per edge with history.
// The default run stays well under a minute, most of it writing the
// 1,000,000 rows (one transaction, rows a second apart on a manual clock).
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "middleware/broker.h"
#include "middleware/log.h"
#include "middleware/os.h"
#include "middleware/path.h"
#include "module/world_representation.h"
#include "support/manual_clock.h"
#include "support/recording_memory_module.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace {

using KQ::KQValue;
using KQ::KQWorldRepresentation;

const int kTreeObjects = 1000;
const int kHistoryRows = 1000000;

KQValue noAttributes() {
  KQValue empty;
  empty.arraySetSize(0);
  return empty;
}

std::vector<float> pose(float x, float y, float z, float yaw = 0.1f) { return {x, y, z, 0.0f, 0.0f, yaw}; }

// One running world for the whole program: start-up costs a few hundred
// milliseconds and every benchmark adds its own objects under their own names.
class BenchWorld {
 public:
  BenchWorld() {
    ko::log::setCategoryLevel("KQWorldRepresentation", ko::log::error);
    ko::path::setComponentDataPath("worldrepresentation", dir_.path());
    broker_ = std::make_shared<KQ::KQBroker>("kqbench");
    motion_ = KQ::KQModule::createModule<KQ::test::ScriptedMotionModule>(broker_, "KQMotion");
    motion_->setBodyNames({"Torso", "HeadYaw", "LShoulderPitch", "RShoulderPitch"});
    memory_ = KQ::KQModule::createModule<KQ::test::RecordingMemoryModule>(broker_, "KQMemory");
    world_ = KQ::KQModule::createModule<KQWorldRepresentation>(broker_, "KQWorldRepresentation");
    world_->createObjectCategory("Bench", false);
    world_->createObjectCategory("History", false);
  }

  KQWorldRepresentation& world() { return *world_; }
  // The recording memory module keeps every raised event; forgetting them
  // now and then keeps a long run's memory flat.
  KQ::test::RecordingMemoryModule& memory() { return *memory_; }

 private:
  KQ::test::TempDir dir_;
  std::shared_ptr<KQ::KQBroker> broker_;
  std::shared_ptr<KQ::test::ScriptedMotionModule> motion_;
  std::shared_ptr<KQ::test::RecordingMemoryModule> memory_;
  std::shared_ptr<KQWorldRepresentation> world_;
};

BenchWorld& bench() {
  // Never destroyed: exit and the final saves are not what is measured.
  static BenchWorld* world = new BenchWorld;
  return *world;
}

// Two branches under "World", `depth` objects each: <prefix>a1..ad, <prefix>b1..bd.
void buildBranches(const std::string& prefix, int depth) {
  KQWorldRepresentation& world = bench().world();
  if (world.findObject(prefix + "a1")) return;
  std::string parentA = "World", parentB = "World";
  for (int level = 1; level <= depth; ++level) {
    const std::string a = prefix + "a" + std::to_string(level);
    const std::string b = prefix + "b" + std::to_string(level);
    world.storeObject(a, parentA, pose(0.1f, 0.2f, 0.3f), "Bench", noAttributes());
    world.storeObject(b, parentB, pose(0.3f, 0.2f, 0.1f), "Bench", noAttributes());
    parentA = a;
    parentB = b;
  }
}

void BM_GetPositionAcrossBranches(benchmark::State& state) {
  const int depth = static_cast<int>(state.range(0));
  const std::string prefix = "d" + std::to_string(depth) + "_";
  buildBranches(prefix, depth);
  const std::string from = prefix + "a" + std::to_string(depth);
  const std::string to = prefix + "b" + std::to_string(depth);
  KQWorldRepresentation& world = bench().world();
  for (auto _ : state) {
    KQValue position = world.getPosition(from, to);
    benchmark::DoNotOptimize(position);
  }
  state.counters["edges"] = 2 * depth;
}
BENCHMARK(BM_GetPositionAcrossBranches)->Arg(1)->Arg(5)->Arg(20);

// The object at `depth` in the frame of "World": a walk of `depth` down edges.
void BM_GetPositionFromWorld(benchmark::State& state) {
  const int depth = static_cast<int>(state.range(0));
  const std::string prefix = "d" + std::to_string(depth) + "_";
  buildBranches(prefix, depth);
  const std::string to = prefix + "a" + std::to_string(depth);
  KQWorldRepresentation& world = bench().world();
  for (auto _ : state) {
    KQValue position = world.getPosition("World", to);
    benchmark::DoNotOptimize(position);
  }
  state.counters["edges"] = depth;
}
BENCHMARK(BM_GetPositionFromWorld)->Arg(1)->Arg(5)->Arg(20);

void BM_GetPosition6DAcrossBranches(benchmark::State& state) {
  const int depth = static_cast<int>(state.range(0));
  const std::string prefix = "d" + std::to_string(depth) + "_";
  buildBranches(prefix, depth);
  const std::string from = prefix + "a" + std::to_string(depth);
  const std::string to = prefix + "b" + std::to_string(depth);
  KQWorldRepresentation& world = bench().world();
  for (auto _ : state) {
    std::vector<float> position = world.getPosition6D(from, to);
    benchmark::DoNotOptimize(position.data());
  }
}
BENCHMARK(BM_GetPosition6DAcrossBranches)->Arg(5);

// A 1,000-object tree, each object under a parent drawn at random among the
// objects already there (fixed seed); the two deepest leaves that hang
// under different children of "World".
struct TreeLeaves {
  std::string first;
  std::string second;
  int edges = 0;
};

const TreeLeaves& treeLeaves() {
  static const TreeLeaves leaves = [] {
    KQWorldRepresentation& world = bench().world();
    std::mt19937 random(20261122);
    std::vector<std::string> names{"World"};
    std::vector<int> depth{0};
    std::vector<int> branch{-1};  // which child of "World" an object descends from
    std::vector<bool> hasChild{false};
    for (int i = 0; i < kTreeObjects; ++i) {
      const int parent = static_cast<int>(random() % names.size());
      const std::string name = "tree" + std::to_string(i);
      world.storeObject(name, names[static_cast<std::size_t>(parent)], pose(0.2f, -0.1f, 0.05f, 0.3f), "Bench",
                        noAttributes());
      names.push_back(name);
      depth.push_back(depth[static_cast<std::size_t>(parent)] + 1);
      branch.push_back(parent == 0 ? i : branch[static_cast<std::size_t>(parent)]);
      hasChild[static_cast<std::size_t>(parent)] = true;
      hasChild.push_back(false);
    }
    std::size_t deepest = 0;
    for (std::size_t i = 1; i < names.size(); ++i)
      if (!hasChild[i] && depth[i] > depth[deepest]) deepest = i;
    std::size_t other = 0;
    for (std::size_t i = 1; i < names.size(); ++i)
      if (!hasChild[i] && branch[i] != branch[deepest] && depth[i] > depth[other]) other = i;
    TreeLeaves found;
    found.first = names[deepest];
    found.second = names[other];
    found.edges = depth[deepest] + depth[other];
    return found;
  }();
  return leaves;
}

void BM_GetPositionBetweenLeavesOfALargeTree(benchmark::State& state) {
  const TreeLeaves& leaves = treeLeaves();
  KQWorldRepresentation& world = bench().world();
  for (auto _ : state) {
    KQValue position = world.getPosition(leaves.first, leaves.second);
    benchmark::DoNotOptimize(position);
  }
  state.counters["edges"] = leaves.edges;
}
BENCHMARK(BM_GetPositionBetweenLeavesOfALargeTree);

void updateLoop(benchmark::State& state, const std::string& name, bool save) {
  KQWorldRepresentation& world = bench().world();
  if (!world.findObject(name)) world.storeObject(name, "World", pose(0, 0, 0), "Bench", noAttributes());
  std::vector<float> position = pose(1, 2, 3);
  int64_t done = 0;
  for (auto _ : state) {
    position[0] = static_cast<float>(done & 1023) * 0.001f;
    benchmark::DoNotOptimize(world.updatePosition(name, position, save));
    if ((++done & 0x3fff) == 0) {
      state.PauseTiming();
      bench().memory().clearRecords();
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(done);
}

void BM_UpdatePositionWithoutHistory(benchmark::State& state) { updateLoop(state, "movedOnly", false); }
void BM_UpdatePositionWithHistoryRow(benchmark::State& state) { updateLoop(state, "movedAndSaved", true); }
BENCHMARK(BM_UpdatePositionWithoutHistory);
BENCHMARK(BM_UpdatePositionWithHistoryRow);

// "tracked" has kHistoryRows rows, one a second, ending one second before
// the real clock's present; written through updatePosition inside one
// transaction on a manual clock.
int64_t historyEnd() {
  static const int64_t end = [] {
    KQWorldRepresentation& world = bench().world();
    ko::os::timeval now;
    ko::os::gettimeofday(&now);
    const int64_t last = now.tv_sec - 1;
    {
      KQ::test::ManualClock clock(last - kHistoryRows + 1);
      world.storeObject("tracked", "World", pose(0, 0, 0), "History", noAttributes());
      world.beginTransaction("History");
      std::vector<float> position = pose(0, 0, 0);
      for (int i = 1; i < kHistoryRows; ++i) {
        clock.advanceSeconds(1);
        position[0] = static_cast<float>(i % 100) * 0.01f;
        position[5] = static_cast<float>(i % 7) * 0.1f;
        world.updatePosition("tracked", position, true);
        if ((i & 0xffff) == 0) bench().memory().clearRecords();
      }
      world.endTransaction("History");
      bench().memory().clearRecords();
    }
    return last;
  }();
  return end;
}

void historyQuery(benchmark::State& state, int type) {
  const int64_t end = historyEnd();
  KQWorldRepresentation& world = bench().world();
  ko::os::timeval now;
  ko::os::gettimeofday(&now);
  // Halfway through the history, counted back from the present second.
  const int secondsAgo = static_cast<int>(now.tv_sec - end) + kHistoryRows / 2;
  for (auto _ : state) {
    std::vector<float> position = world.getPosition6DAtTime("World", "tracked", secondsAgo, type);
    benchmark::DoNotOptimize(position.data());
  }
  state.counters["edges"] = 1;
}

void BM_HistoryQueryNearest(benchmark::State& state) { historyQuery(state, 0); }
void BM_HistoryQueryLinear(benchmark::State& state) { historyQuery(state, 1); }
BENCHMARK(BM_HistoryQueryNearest)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HistoryQueryLinear)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
