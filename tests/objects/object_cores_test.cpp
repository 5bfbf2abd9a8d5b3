// The pure cores under the module's object operations, without the module:
// the pose between two stored rows, and the way from a name to a database.
#include <gtest/gtest.h>

#include <memory>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "objects/object_resolver.h"
#include "objects/pose_interpolation.h"
#include "spatial/edge_interface.h"
#include "support/checks.h"

namespace KQ {
namespace test {
namespace {

TEST(PoseInterpolationTest, BothTypesAcrossTheInterval) {
  // At 100 s: identity, (1, 0, 0); at 110 s: a quarter turn about z, (3, 0, 0).
  const std::vector<float> identity = {1, 0, 0, 0}, quarterTurn = {0.70710678f, 0, 0, 0.70710678f};
  const StoredPose earlier{100, Math::Quaternion(), Math::Position3D(1, 0, 0)};
  const StoredPose later{110, Math::Quaternion(quarterTurn), Math::Position3D(3, 0, 0)};
  // What the caller's rotation and translation held before the call.
  const std::vector<float> callersRotation = {0, 0, 1, 0}, callersTranslation = {9, 9, 9};
  using Result = InterpolationResult;
  const std::vector<std::tuple<int, int, Result, std::vector<float>, std::vector<float>>> cases = {
      // Case: nearest takes the nearer row's rotation (the later on a tie)
      // but the later row's translation whichever is nearer.
      {102, 0, Result::kDone, identity, {3, 0, 0}},
      {108, 0, Result::kDone, quarterTurn, {3, 0, 0}},
      {105, 0, Result::kDone, quarterTurn, {3, 0, 0}},
      // Case: linear moves the translation only; the caller's rotation stays.
      {105, 1, Result::kDone, callersRotation, {2, 0, 0}},
      {102, 1, Result::kDone, callersRotation, {1.4f, 0, 0}},
      // Case: any other type writes nothing.
      {105, 2, Result::kWrongType, callersRotation, callersTranslation},
      {105, -1, Result::kWrongType, callersRotation, callersTranslation}};
  for (const auto& [time, type, result, expectedRotation, expectedTranslation] : cases) {
    const std::string what = "at " + std::to_string(time) + ", type " + std::to_string(type);
    Math::Quaternion rotation(callersRotation);
    Math::Position3D translation(callersTranslation);
    EXPECT_EQ(result, interpolatePose(earlier, later, time, type, rotation, translation)) << what;
    expectFloatsNear(expectedRotation, rotation.toVector(), 1e-6f, what);
    expectFloatsNear(expectedTranslation, translation.toVector(), 1e-6f, what);
  }
}

TEST(ObjectResolverTest, NamesTheFirstMissingLink) {
  // Under the root: cup (Cups, which has a database), lamp (Lamps, which has
  // none), loose (no category), bare (no WorldObject).
  KQSceneGraph graph;
  std::map<std::string, int> objects;
  std::map<std::string, KQDatabaseManager> databases{{"Cups", KQDatabaseManager()}};
  for (const char* name : {"cup", "lamp", "loose", "bare"}) {
    auto edge = std::make_shared<Displacement>(std::vector<float>{1, 0, 0, 0}, std::vector<float>{0, 0, 0});
    ASSERT_EQ(0, graph.addNode(objects[name], edge, 0));
  }
  graph.setNodeData(objects["cup"], std::make_shared<WorldObject>("cup", std::make_shared<ObjectCategory>("Cups")));
  graph.setNodeData(objects["lamp"],
                    std::make_shared<WorldObject>("lamp", std::make_shared<ObjectCategory>("Lamps")));
  graph.setNodeData(objects["loose"], std::make_shared<WorldObject>("loose", nullptr));

  using Missing = ResolvedObject::Missing;
  const std::vector<std::tuple<std::string, Missing, std::string>> cases = {{"cup", Missing::kNothing, "Cups"},
                                                                            {"lamp", Missing::kDatabase, "Lamps"},
                                                                            {"loose", Missing::kCategory, ""},
                                                                            {"bare", Missing::kWorldObject, "None"},
                                                                            {"ghost", Missing::kObject, ""}};
  for (const auto& [name, missing, categoryName] : cases) {
    const ResolvedObject resolved = resolveObject(objects, graph, databases, name);
    EXPECT_EQ(missing, resolved.missing) << name;
    EXPECT_EQ(categoryName, resolved.categoryName) << name;
    // Case: the database only once every link before it is there.
    EXPECT_EQ(missing == Missing::kNothing ? &databases["Cups"] : nullptr, resolved.database) << name;
  }
  EXPECT_EQ(objects["cup"], resolveObject(objects, graph, databases, "cup").nodeId);
}

}  // namespace
}  // namespace test
}  // namespace KQ
