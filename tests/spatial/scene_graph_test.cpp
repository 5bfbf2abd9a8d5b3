// KQSceneGraph and the NamesVisitor. Faults looked for: nodes or edges walked
// out of order (the visitors learn an edge's object from it), ids reachable
// after their subtree is gone, edges and payloads never released, refusals
// that change the graph or call the visitor, stale names kept.
#include "spatial/scene_graph.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/motion_displacement.h"
#include "spatial/names_visitor.h"
#include "spatial/odometry_displacement.h"
#include "storage/world_object.h"

namespace KQ {
namespace {

using Calls = std::vector<std::string>;

// Writes down every call a walk makes.
class RecordingVisitor : public GraphVisitor {
 public:
  void startVisit() override { calls.push_back("start"); }
  void stopVisit() override { calls.push_back("stop"); }
  void onNode(int id, std::shared_ptr<GraphNodeData>) override { calls.push_back("node " + std::to_string(id)); }
  void onDownEdge(int from, int to, Displacement&) override { edge("down ", from, to); }
  void onDownEdge(int from, int to, KQMotionDisplacement&) override { edge("down ", from, to); }
  void onDownEdge(int from, int to, KQOdometryDisplacement&) override { edge("down ", from, to); }
  void onUpEdge(int from, int to, Displacement&) override { edge("up ", from, to); }
  void onUpEdge(int from, int to, KQMotionDisplacement&) override { edge("up ", from, to); }
  void onUpEdge(int from, int to, KQOdometryDisplacement&) override { edge("up ", from, to); }
  void edge(const char* way, int f, int t) { calls.push_back(way + std::to_string(f) + "->" + std::to_string(t)); }
  Calls calls;
};

std::shared_ptr<Displacement> fixedEdge(float x = 0) {
  return std::make_shared<Displacement>(std::vector<float>{1, 0, 0, 0}, std::vector<float>{x, 0, 0});
}

std::shared_ptr<WorldObject> object(const std::string& name) {
  return std::make_shared<WorldObject>(name, std::shared_ptr<ObjectCategory>());
}

//   0 -- 1 a -- 3 c -- 5 e      fixed edges
//    `-- 2 b -- 4 d           b odometry, d motion (no body: at the identity)
class SceneGraphTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto [id, parent] : {std::pair{&a, 0}, {&b, 0}, {&c, 1}, {&d, 2}, {&e, 3}})
      ASSERT_EQ(0, graph.addNode(*id, fixedEdge(), parent));
    ASSERT_EQ(0, graph.setDisplacement(0, b, std::make_shared<KQOdometryDisplacement>(nullptr)));
    ASSERT_EQ(0, graph.setDisplacement(b, d, std::make_shared<KQMotionDisplacement>(nullptr, "Torso", 2)));
  }
  Calls walk(int from, int to) {  // from < 0: breadth first from `to`
    RecordingVisitor visitor;
    EXPECT_EQ(0, from < 0 ? graph.visitBFS(visitor, to) : graph.visitPath(visitor, from, to));
    return visitor.calls;
  }

  KQSceneGraph graph;
  int a = -1, b = -1, c = -1, d = -1, e = -1;
};

TEST_F(SceneGraphTest, WalksInOrder) {
  // Case: up to the common ancestor each node before the edge leaving it, then down each edge before its node.
  EXPECT_EQ((Calls{"start", "node 4", "up 4->2", "node 2", "up 2->0", "node 0", "down 0->1", "node 1", "down 1->3",
                   "node 3", "down 3->5", "node 5", "stop"}),
            walk(d, e));
  // Case: to an ancestor no down edge; a node to itself is met once.
  EXPECT_EQ((Calls{"start", "node 5", "up 5->3", "node 3", "up 3->1", "node 1", "stop"}), walk(e, a));
  EXPECT_EQ((Calls{"start", "node 3", "stop"}), walk(c, c));
  // Case: breadth first: each edge before the node it reaches, level by level.
  EXPECT_EQ((Calls{"start", "node 0", "down 0->1", "node 1", "down 0->2", "node 2", "down 1->3", "node 3", "down 2->4",
                   "node 4", "down 3->5", "node 5", "stop"}),
            walk(-1, 0));
  // Case: a path deeper than the walk's stack buffer (32) meets every node once, in order.
  std::vector<int> path{0, a, c, e};
  for (int i = 0, id = -1; i < 40; ++i, path.push_back(id)) ASSERT_EQ(0, graph.addNode(id, fixedEdge(), path.back()));
  SimplePathVisitor simple;
  ASSERT_EQ(0, graph.visitPath(simple, 0, path.back()));
  EXPECT_EQ(path, simple.getPath());
}

TEST_F(SceneGraphTest, RemovesWholeSubtreesAndReleasesThem) {
  auto payloadOfE = object("e"), payloadOfRoot = object("World");
  auto edgeOfC = fixedEdge();
  graph.setNodeData(e, payloadOfE);
  graph.setNodeData(0, payloadOfRoot);
  ASSERT_EQ(0, graph.setDisplacement(a, c, edgeOfC));
  // Case: removing a takes c and e with it and lets go of their edges and payloads.
  ASSERT_EQ(0, graph.removeNode(a));
  for (int gone : {a, c, e}) EXPECT_NE(0, graph.isNodePresent(gone)) << gone;
  EXPECT_EQ((std::vector<long>{1, 1}), (std::vector<long>{payloadOfE.use_count(), edgeOfC.use_count()}));
  std::vector<int> out;
  ASSERT_EQ(0, graph.getChildren(out, 0));
  EXPECT_EQ(std::vector<int>{b}, out);
  EXPECT_EQ(3, graph.size());
  // Case: a node added after the removal starts empty, whatever id it gets; descendants exclude the node itself.
  int fresh = -1;
  ASSERT_EQ(0, graph.addNode(fresh, fixedEdge(), d));
  EXPECT_EQ(nullptr, graph.getNodeData(fresh));
  ASSERT_EQ(0, graph.getDescendants(out, b));
  EXPECT_EQ((std::vector<int>{d, fresh}), out);
  // Case: names in walk order, nodes without payload passed over, the caller's stale names dropped.
  std::vector<std::string> names{"stale"};
  NamesVisitor namesVisitor(names);
  graph.setNodeData(d, object("d"));
  ASSERT_EQ(0, graph.visitBFS(namesVisitor, 0));
  EXPECT_EQ((std::vector<std::string>{"World", "d"}), names);
  // Case: clearing keeps the root alone, releasing its payload too, and the graph builds up again.
  graph.clearGraph();
  EXPECT_EQ(1, payloadOfRoot.use_count());
  EXPECT_NE(0, graph.isNodePresent(b));
  ASSERT_EQ(0, graph.addNode(fresh, fixedEdge(), 0));
  EXPECT_EQ(2, graph.size());
}

TEST_F(SceneGraphTest, RefusesWithoutChangingAnything) {
  ASSERT_EQ(0, graph.setDisplacement(b, d, fixedEdge(7)));
  std::vector<float> q, t;
  RecordingVisitor visitor;
  int id = -1;
  const std::pair<int, std::function<int()>> refusals[] = {
      {KQSceneGraph::kParentNotFound, [&] { return graph.addNode(id, fixedEdge(), 99); }},
      {KQSceneGraph::kNullEdge, [&] { return graph.addNode(id, nullptr, 0); }},
      {KQSceneGraph::kNotAChild, [&] { return graph.setDisplacement(a, d, fixedEdge()); }},
      {KQSceneGraph::kNodeNotFound, [&] { return graph.setDisplacement(b, 99, fixedEdge()); }},
      {KQSceneGraph::kNullEdge, [&] { return graph.setDisplacement(b, d, nullptr); }},
      {KQSceneGraph::kIsRoot, [&] { return graph.removeNode(0); }},
      {KQSceneGraph::kIsRoot, [&] { return graph.getParent(id, 0); }},
      {KQSceneGraph::kNodeNotFound, [&] { return graph.visitPath(visitor, e, 99); }},
      {KQSceneGraph::kNodeNotFound, [&] { return graph.visitPath(visitor, 99, e); }},
      {KQSceneGraph::kNodeNotFound, [&] { return graph.getDisplacement(q, t, 99, e); }},
  };
  for (const auto& [code, call] : refusals) EXPECT_EQ(code, call()) << graph.getErrorMessage(code);
  // Case: nothing was added or replaced, and no refused walk called the visitor.
  EXPECT_EQ(6, graph.size());
  EXPECT_TRUE(visitor.calls.empty());
  ASSERT_EQ(0, graph.getDisplacement(q, t, b, d));
  EXPECT_EQ((std::vector<float>{7, 0, 0}), t);
}

}  // namespace
}  // namespace KQ
