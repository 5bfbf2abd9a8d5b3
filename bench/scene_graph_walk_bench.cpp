// Path walks over the frame tree, the core of every getPosition: the pose of
// an object 5 levels below "World" in the frame of "World" (down edges
// only) and the reverse (up edges only), and between two such objects on
// different branches, in a tree of 1,000 nodes. The goal: a 5-level walk
// with its PathVisitor well under 1 us, so that getPosition, with its locks
// and name lookups around it, stays under 1 us.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "spatial/edge_interface.h"
#include "spatial/path_visitor.h"
#include "spatial/scene_graph.h"

namespace {

using KQ::Displacement;
using KQ::KQSceneGraph;
using KQ::PathVisitor;

struct Tree {
  KQSceneGraph graph;
  int leafA = 0;
  int leafB = 0;
};

// Two branches 5 deep under the root, and 990 more nodes spread under the
// first levels, so that the nodes of a walk are not neighbours in memory.
Tree& tree() {
  static Tree* t = [] {
    auto* built = new Tree;
    auto edge = [] {
      return std::make_shared<Displacement>(std::vector<float>{0.5f, 0.5f, 0.5f, 0.5f},
                                            std::vector<float>{0.1f, 0.2f, 0.3f});
    };
    std::vector<int> branchA{0}, branchB{0};
    for (int level = 0; level < 5; ++level) {
      for (int spread = 0; spread < 99; ++spread) {
        int id = 0;
        built->graph.addNode(id, edge(), branchA[static_cast<std::size_t>(spread % (level + 1))]);
      }
      int a = 0, b = 0;
      built->graph.addNode(a, edge(), branchA.back());
      built->graph.addNode(b, edge(), branchB.back());
      branchA.push_back(a);
      branchB.push_back(b);
    }
    built->leafA = branchA.back();
    built->leafB = branchB.back();
    return built;
  }();
  return *t;
}

void walk(benchmark::State& state, int from, int to) {
  const KQSceneGraph& graph = tree().graph;
  std::vector<float> quaternion, translation;
  for (auto _ : state) {
    PathVisitor visitor;
    graph.visitPath(visitor, from, to);
    visitor.getDisplacement(quaternion, translation);
    benchmark::DoNotOptimize(quaternion.data());
    benchmark::DoNotOptimize(translation.data());
  }
}

void BM_WalkDownFiveLevels(benchmark::State& state) { walk(state, 0, tree().leafA); }
void BM_WalkUpFiveLevels(benchmark::State& state) { walk(state, tree().leafA, 0); }
void BM_WalkAcrossBranches(benchmark::State& state) { walk(state, tree().leafA, tree().leafB); }

BENCHMARK(BM_WalkDownFiveLevels);
BENCHMARK(BM_WalkUpFiveLevels);
BENCHMARK(BM_WalkAcrossBranches);

}  // namespace

BENCHMARK_MAIN();
