// PathVisitor over a real scene graph, checked against the graph's exact
// composition, and the pose conversions. Faults looked for: edges composed in
// the wrong order or on the wrong side, an up edge not inverted, the kept
// up-edge rule "corrected", normalisation, one walk leaking into the next.
#include "spatial/path_visitor.h"

#include <cmath>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/pose_conversions.h"
#include "spatial/scene_graph.h"

namespace KQ {
namespace {

using V = std::vector<float>;
const float h = std::sqrt(0.5f);

void expectNear(const V& expected, const V& actual, float tolerance = 1e-6f) {
  ASSERT_EQ(expected.size(), actual.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(expected[i], actual[i], tolerance) << "at " << i;
}

// Rotation then translation in one list.
V pose(V q, const V& t) {
  q.insert(q.end(), t.begin(), t.end());
  return q;
}

TEST(PathVisitorTest, ComposesTheEdgesAlongThePath) {
  KQSceneGraph graph;  // node 0 is P below
  auto add = [&graph](int parent, const V& q, const V& t) {
    int id = -1;
    EXPECT_EQ(0, graph.addNode(id, std::make_shared<Displacement>(q, t), parent));
    return id;
  };
  const int n = add(0, {0.5f, 0.5f, 0.5f, 0.5f}, {1, 2, 3});  // 120 degrees about (1, 1, 1)
  const int a = add(0, {h, 0, 0, h}, {1, 0, 0}), b = add(0, {1, 0, 0, 0}, {0, 2, 0});  // a turns x to y
  const int g = add(a, {h, 0, 0, h}, {0, 0, 0}), f = add(a, {1, 0, 0, 0}, {0, 0, 5});
  const int s = add(0, {2, 0, 0, 0}, {1, 0, 0}), u = add(s, {2, 0, 0, 0}, {0, 1, 0});  // no turn, norm 2
  struct Row {  // exact: the graph's exact composition agrees
    int from, to;
    V q, t;
    bool exact;
    const char* why;
  } rows[] = {
      {n, 0, {0.5f, -0.5f, -0.5f, -0.5f}, {-2, -3, -1}, true, "child to parent: the edge inverted"},
      {a, b, {h, 0, 0, -h}, {2, 1, 0}, true, "siblings: b at (-1, 2, 0) in P, in a's turned axes"},
      {0, g, {0, 0, 0, 1}, {1, 0, 0}, true, "down two turned edges: exact at any depth"},
      {f, 0, {h, 0, 0, -h}, {0, 1, -5}, true, "up two edges, the first not turning: exact"},
      {g, 0, {0, 0, 0, -1}, {0, 1, 0}, false, "up past a turning edge: the kept rule, exact is (1, 0, 0)"},
      {0, u, {4, 0, 0, 0}, {1, 1, 0}, false, "nothing normalised: norms multiply, translations unscaled"},
      {s, 0, {0.5f, 0, 0, 0}, {-1, 0, 0}, false, "nothing normalised upwards either"},
  };
  // Case: one visitor serves every row, so each walk must start afresh.
  PathVisitor visitor;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    V q, t;
    ASSERT_EQ(0, graph.visitPath(visitor, row.from, row.to));
    visitor.getDisplacement(q, t);
    expectNear(pose(row.q, row.t), pose(q, t));
    if (!row.exact) continue;
    ASSERT_EQ(0, graph.getDisplacement(q, t, row.from, row.to));
    expectNear(pose(row.q, row.t), pose(q, t));
  }
}

TEST(PoseConversionsTest, RotationThroughTheLibraryTranslationCopied) {
  Math::Quaternion rotation;
  Math::Position3D translation;
  Math::Position6D back;
  // Case: a yaw alone is a turn about z: w = cos(yaw / 2), z = sin(yaw / 2).
  position6DToQuaternionTranslation(Math::Position6D(0, 0, 0, 0, 0, 1.0f), rotation, translation);
  expectNear({std::cos(0.5f), 0, 0, std::sin(0.5f)}, rotation.toVector());
  // Case: there and back: x, y, z bit for bit (copied), the angles to the library's precision.
  const Math::Position6D pose(123.456f, -0.000123f, 7.0e5f, 0.3f, -1.2f, 2.9f);
  position6DToQuaternionTranslation(pose, rotation, translation);
  quaternionTranslationToPosition6D(rotation, translation, back);
  EXPECT_EQ(V({pose.x, pose.y, pose.z}), V({back.x, back.y, back.z}));
  expectNear({pose.wx, pose.wy, pose.wz}, {back.wx, back.wy, back.wz}, 1e-5f);
  // Case: the translation given wins over the quaternion's; a non-unit quaternion turns as its unit form.
  quaternionTranslationToPosition6D(Math::Quaternion(2 * h, 2 * h, 0, 0), Math::Position3D(4.5f, -6.25f, 1e-3f), back);
  expectNear({4.5f, -6.25f, 1e-3f, 1.5707964f, 0, 0}, back.toVector());
}

}  // namespace
}  // namespace KQ
