// KQSceneGraph: the frame tree. The faults looked for: a walk that visits
// nodes or edges out of order (the interpolating visitor learns which object
// an edge belongs to from that order), ids that stay reachable after their
// subtree is gone, edges and payloads that are never released, and failures
// that call the visitor anyway.
#include "spatial/scene_graph.h"

#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/path_visitor.h"

namespace KQ {
namespace {

// Writes down every call a walk makes, edges tagged with their concrete kind.
class RecordingVisitor : public GraphVisitor {
 public:
  void startVisit() override { calls.push_back("start"); }
  void stopVisit() override { calls.push_back("stop"); }
  void onNode(int id, std::shared_ptr<GraphNodeData> /*data*/) override {
    calls.push_back("node " + std::to_string(id));
  }
  void onDownEdge(int from, int to, Displacement&) override { xEdge("down", from, to, "fixed"); }
  void onDownEdge(int from, int to, KQMotionDisplacement&) override { xEdge("down", from, to, "motion"); }
  void onDownEdge(int from, int to, KQOdometryDisplacement&) override { xEdge("down", from, to, "odometry"); }
  void onUpEdge(int from, int to, Displacement&) override { xEdge("up", from, to, "fixed"); }
  void onUpEdge(int from, int to, KQMotionDisplacement&) override { xEdge("up", from, to, "motion"); }
  void onUpEdge(int from, int to, KQOdometryDisplacement&) override { xEdge("up", from, to, "odometry"); }

  std::vector<std::string> calls;

 private:
  void xEdge(const char* way, int from, int to, const char* kind) {
    calls.push_back(std::string(way) + " " + std::to_string(from) + "->" + std::to_string(to) + " " + kind);
  }
};

class Payload : public GraphNodeData {};

std::shared_ptr<Displacement> fixedEdge(std::vector<float> quaternion = {1, 0, 0, 0},
                                        std::vector<float> translation = {0, 0, 0}) {
  return std::make_shared<Displacement>(quaternion, translation);
}

//   0 World
//   |-- a
//   |   `-- c
//   |       `-- e
//   `-- b
//       `-- d
class SceneGraphTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, graph.addNode(a, fixedEdge({1, 0, 0, 0}, {1, 0, 0}), 0));
    ASSERT_EQ(0, graph.addNode(b, fixedEdge({1, 0, 0, 0}, {0, 1, 0}), 0));
    ASSERT_EQ(0, graph.addNode(c, fixedEdge({1, 0, 0, 0}, {0, 0, 1}), a));
    ASSERT_EQ(0, graph.addNode(d, fixedEdge(), b));
    ASSERT_EQ(0, graph.addNode(e, fixedEdge(), c));
  }

  std::vector<std::string> walk(int from, int to) {
    RecordingVisitor visitor;
    EXPECT_EQ(0, graph.visitPath(visitor, from, to));
    return visitor.calls;
  }

  // Attaches a payload only the graph holds, to watch it being released.
  std::weak_ptr<GraphNodeData> payloadOn(int id) {
    auto payload = std::make_shared<Payload>();
    graph.setNodeData(id, payload);
    return payload;
  }

  KQSceneGraph graph;
  int a = -1, b = -1, c = -1, d = -1, e = -1;
};

TEST(SceneGraphFreshTest, HoldsOnlyTheRoot) {
  KQSceneGraph graph;
  // Case: the root exists from construction, without children, parent or payload.
  EXPECT_EQ(0, graph.isNodePresent(0));
  int parent = -1;
  EXPECT_NE(0, graph.getParent(parent, 0));
  EXPECT_EQ(nullptr, graph.getNodeData(0));

  // Case: adding under an absent parent, or with no edge, creates nothing.
  int id = 77;
  EXPECT_EQ(KQSceneGraph::kParentNotFound, graph.addNode(id, fixedEdge(), 5));
  EXPECT_EQ(KQSceneGraph::kNullEdge, graph.addNode(id, nullptr, 0));
  EXPECT_EQ(1, graph.size());

  // Case: every code has a text, unknown ones too.
  EXPECT_EQ("Node not found", graph.getErrorMessage(KQSceneGraph::kNodeNotFound));
  EXPECT_EQ("Parent node not found", graph.getErrorMessage(KQSceneGraph::kParentNotFound));
  EXPECT_EQ("Unknown error 99", graph.getErrorMessage(99));
}

TEST_F(SceneGraphTest, WalksThePathInOrder) {
  // Case: up from e to the common ancestor 0, each node before the edge
  // that leaves it, then down to d, each edge before the node it reaches.
  EXPECT_EQ((std::vector<std::string>{"start", "node 5", "up 5->3 fixed", "node 3", "up 3->1 fixed", "node 1",
                                      "up 1->0 fixed", "node 0", "down 0->2 fixed", "node 2", "down 2->4 fixed",
                                      "node 4", "stop"}),
            walk(e, d));

  // Case: to a node below the start: no up edge at all.
  EXPECT_EQ((std::vector<std::string>{"start", "node 1", "down 1->3 fixed", "node 3", "down 3->5 fixed", "node 5",
                                      "stop"}),
            walk(a, e));

  // Case: siblings: exactly one up edge, then one down edge.
  EXPECT_EQ((std::vector<std::string>{"start", "node 1", "up 1->0 fixed", "node 0", "down 0->2 fixed", "node 2",
                                      "stop"}),
            walk(a, b));

  // Case: a node to itself: its node once, no edge.
  EXPECT_EQ((std::vector<std::string>{"start", "node 3", "stop"}), walk(c, c));

  // Case: an absent end refuses without calling the visitor at all.
  RecordingVisitor visitor;
  EXPECT_EQ(KQSceneGraph::kNodeNotFound, graph.visitPath(visitor, e, 99));
  EXPECT_EQ(KQSceneGraph::kNodeNotFound, graph.visitPath(visitor, 99, e));
  EXPECT_TRUE(visitor.calls.empty());
}

TEST_F(SceneGraphTest, EdgesDispatchToTheirOwnKind) {
  // Case: each live edge reaches the handler of its own class, from and to unchanged.
  //   0 -- odometry --> r -- motion --> t
  int r = -1, t = -1;
  ASSERT_EQ(0, graph.addNode(r, std::make_shared<KQOdometryDisplacement>(nullptr), 0));
  ASSERT_EQ(0, graph.addNode(t, std::make_shared<KQMotionDisplacement>(nullptr, "Torso", 2), r));
  const std::string rs = std::to_string(r), ts = std::to_string(t);
  EXPECT_EQ((std::vector<std::string>{"start", "node " + ts, "up " + ts + "->" + rs + " motion", "node " + rs,
                                      "up " + rs + "->0 odometry", "node 0", "down 0->1 fixed", "node 1", "stop"}),
            walk(t, a));
}

TEST_F(SceneGraphTest, WalksPathsDeeperThanTheStackBuffer) {
  // Case: a chain of 40 under e: every node once, in order.
  std::vector<int> chain{e};
  for (int i = 0; i < 40; ++i) {
    int id = -1;
    ASSERT_EQ(0, graph.addNode(id, fixedEdge(), chain.back()));
    chain.push_back(id);
  }
  std::vector<std::string> down{"start", "node 0", "down 0->1 fixed", "node 1", "down 1->3 fixed", "node 3",
                                "down 3->5 fixed", "node 5"};
  for (std::size_t i = 1; i < chain.size(); ++i) {
    down.push_back("down " + std::to_string(chain[i - 1]) + "->" + std::to_string(chain[i]) + " fixed");
    down.push_back("node " + std::to_string(chain[i]));
  }
  down.push_back("stop");
  EXPECT_EQ(down, walk(0, chain.back()));
}

TEST_F(SceneGraphTest, RemovesWholeSubtrees) {
  std::weak_ptr<GraphNodeData> payloadOfE = payloadOn(e);
  std::weak_ptr<EdgeInterface> edgeOfC;
  {
    auto edge = fixedEdge();
    edgeOfC = edge;
    ASSERT_EQ(0, graph.setDisplacement(a, c, edge));
  }

  // Case: removing a takes c and e with it, and lets go of their edges and payloads.
  EXPECT_EQ(0, graph.removeNode(a));
  for (int gone : {a, c, e}) EXPECT_NE(0, graph.isNodePresent(gone)) << gone;
  EXPECT_TRUE(payloadOfE.expired());
  EXPECT_TRUE(edgeOfC.expired());
  EXPECT_EQ(3, graph.size());
  std::vector<int> children;
  EXPECT_EQ(0, graph.getChildren(children, 0));
  EXPECT_EQ(std::vector<int>{b}, children);

  // Case: the removed ids answer like any absent id.
  EXPECT_EQ(nullptr, graph.getNodeData(e));
  RecordingVisitor visitor;
  EXPECT_NE(0, graph.visitPath(visitor, e, 0));
  EXPECT_TRUE(visitor.calls.empty());

  // Case: a node added after the removal starts empty, whatever id it gets.
  int fresh = -1;
  ASSERT_EQ(0, graph.addNode(fresh, fixedEdge(), d));
  EXPECT_EQ(nullptr, graph.getNodeData(fresh));

  // Case: the root cannot be removed.
  EXPECT_EQ(KQSceneGraph::kIsRoot, graph.removeNode(0));
  EXPECT_EQ(0, graph.isNodePresent(0));
}

TEST_F(SceneGraphTest, ClearGraphKeepsOnlyTheRoot) {
  std::weak_ptr<GraphNodeData> rootPayload = payloadOn(0), leafPayload = payloadOn(d);

  // Case: every other id is gone and every edge and payload released, the root's too.
  graph.clearGraph();
  EXPECT_EQ(0, graph.isNodePresent(0));
  for (int gone : {a, b, c, d, e}) EXPECT_NE(0, graph.isNodePresent(gone)) << gone;
  EXPECT_TRUE(rootPayload.expired());
  EXPECT_TRUE(leafPayload.expired());
  EXPECT_EQ(1, graph.size());

  // Case: the cleared graph builds up again from the root.
  int again = -1;
  ASSERT_EQ(0, graph.addNode(again, fixedEdge(), 0));
  EXPECT_EQ(2, graph.size());
}

TEST_F(SceneGraphTest, ReplacesEdgesBetweenParentAndChildOnly) {
  std::weak_ptr<EdgeInterface> old;
  {
    auto edge = fixedEdge({0, 1, 0, 0}, {9, 9, 9});
    old = edge;
    ASSERT_EQ(0, graph.setDisplacement(b, d, edge));
  }
  // Case: the new edge's values come back exactly and the old edge is released.
  const std::vector<float> rotation{0.5f, 0.5f, 0.5f, 0.5f}, shift{1.25f, -2.5f, 3.75f};
  ASSERT_EQ(0, graph.setDisplacement(b, d, fixedEdge(rotation, shift)));
  EXPECT_TRUE(old.expired());
  std::vector<float> q, t;
  ASSERT_EQ(0, graph.getDisplacement(q, t, b, d));
  EXPECT_EQ(rotation, q);
  EXPECT_EQ(shift, t);

  // Case: a pair that is not parent and child, an absent node, no edge: refused, nothing replaced.
  EXPECT_EQ(KQSceneGraph::kNotAChild, graph.setDisplacement(a, d, fixedEdge()));
  EXPECT_EQ(KQSceneGraph::kNodeNotFound, graph.setDisplacement(b, 99, fixedEdge()));
  EXPECT_EQ(KQSceneGraph::kNullEdge, graph.setDisplacement(b, d, nullptr));
  ASSERT_EQ(0, graph.getDisplacement(q, t, b, d));
  EXPECT_EQ(rotation, q);
  EXPECT_EQ(shift, t);
}

TEST_F(SceneGraphTest, ComposesTheExactPoseBetweenAnyTwoNodes) {
  // Case: a turned parent: c is a quarter turn about z from a, e is 1 m along c's x,
  // so e lies 1 m along a's y and, seen from e, a lies 1 m along e's -y.
  //   a --(quarter turn about z)--> c --(1, 0, 0)--> e
  std::vector<float> q, t;
  const float h = std::sqrt(0.5f);
  ASSERT_EQ(0, graph.setDisplacement(a, c, fixedEdge({h, 0, 0, h}, {0, 0, 0})));
  ASSERT_EQ(0, graph.setDisplacement(c, e, fixedEdge({1, 0, 0, 0}, {1, 0, 0})));
  ASSERT_EQ(0, graph.getDisplacement(q, t, a, e));
  EXPECT_NEAR(0.0f, t[0], 1e-6f);
  EXPECT_NEAR(1.0f, t[1], 1e-6f);
  ASSERT_EQ(0, graph.getDisplacement(q, t, e, a));
  EXPECT_NEAR(h, q[0], 1e-6f);
  EXPECT_NEAR(-h, q[3], 1e-6f);
  EXPECT_NEAR(-1.0f, t[0], 1e-6f);
  EXPECT_NEAR(0.0f, t[1], 1e-6f);

  // Case: across the root: e (at a + (0, 1, 0) turned) to d (at (0, 1, 0)).
  ASSERT_EQ(0, graph.getDisplacement(q, t, d, e));
  EXPECT_NEAR(1.0f, t[0], 1e-6f);
  EXPECT_NEAR(0.0f, t[1], 1e-6f);
  EXPECT_NEAR(0.0f, t[2], 1e-6f);

  // Case: an absent end, or an edge that carries no pose, is an error.
  EXPECT_EQ(KQSceneGraph::kNodeNotFound, graph.getDisplacement(q, t, 99, e));
  class BareEdge : public EdgeInterface {
   public:
    void acceptOnUpEdge(int, int, GraphVisitor&) override {}
    void acceptOnDownEdge(int, int, GraphVisitor&) override {}
  };
  ASSERT_EQ(0, graph.setDisplacement(b, d, std::make_shared<BareEdge>()));
  EXPECT_EQ(KQSceneGraph::kNotADisplacement, graph.getDisplacement(q, t, 0, d));
}

TEST_F(SceneGraphTest, ListsFamilyAndWalksBreadthFirst) {
  // Case: children are the direct ones only; descendants all below, not the node itself.
  std::vector<int> out{99};
  ASSERT_EQ(0, graph.getChildren(out, a));
  EXPECT_EQ(std::vector<int>{c}, out);
  ASSERT_EQ(0, graph.getDescendants(out, a));
  EXPECT_EQ((std::vector<int>{c, e}), out);
  ASSERT_EQ(0, graph.getDescendants(out, e));
  EXPECT_TRUE(out.empty());

  // Case: breadth first from the root: each edge crossed before the node it
  // reaches, each node after its parent, level by level.
  RecordingVisitor visitor;
  ASSERT_EQ(0, graph.visitBFS(visitor, 0));
  EXPECT_EQ((std::vector<std::string>{"start", "node 0", "down 0->1 fixed", "node 1", "down 0->2 fixed", "node 2",
                                      "down 1->3 fixed", "node 3", "down 2->4 fixed", "node 4", "down 3->5 fixed",
                                      "node 5", "stop"}),
            visitor.calls);
}

TEST_F(SceneGraphTest, WalksRunFromSeveralThreadsAtOnce) {
  // Case: const walks share the graph (the owner holds only its shared lock);
  // every thread gets the same pose as a walk made alone.
  PathVisitor alone;
  ASSERT_EQ(0, graph.visitPath(alone, e, d));
  std::vector<float> expectedQ, expectedT;
  alone.getDisplacement(expectedQ, expectedT);

  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n) {
    threads.emplace_back([&, n] {
      for (int i = 0; i < 2000; ++i) {
        PathVisitor visitor;
        std::vector<float> q, t;
        if (graph.visitPath(visitor, e, d) != 0) ++mismatches[n];
        visitor.getDisplacement(q, t);
        if (q != expectedQ || t != expectedT) ++mismatches[n];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), mismatches);
}

}  // namespace
}  // namespace KQ
