// InterPosVisitor on its own: a real scene graph and a real "positions"
// table in a temporary SQLite file, without the module around them, so that
// the per-edge rules and the database corner cases can be reached directly.
#include "objects/inter_pos_visitor.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "objects/objects_test_support.h"
#include "spatial/edge_interface.h"
#include "spatial/scene_graph.h"
#include "storage/database_manager.h"
#include "storage/world_object.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace KQ {
namespace test {
namespace {

const char* const kPositionsColumns =
    "\"ObjectName\" text, \"TimeS\" int, \"TimeUS\" int, \"ParentName\" text, \"QuatW\" float, \"QuatX\" float, "
    "\"QuatY\" float, \"QuatZ\" float, \"X\" float, \"Y\" float, \"Z\" float";

// A row as the module writes it; with `withX` false the "X" column stays
// NULL, which the module itself never writes.
KQValue historyRow(const std::string& object, int timeS, const std::vector<float>& q, const std::vector<float>& t,
                   bool withX = true) {
  std::vector<KQValue> pairs{fieldPair("ParentName", "World"), fieldPair("QuatW", q[0]), fieldPair("QuatX", q[1]),
                             fieldPair("QuatY", q[2]), fieldPair("QuatZ", q[3])};
  if (withX) pairs.push_back(fieldPair("X", t[0]));
  pairs.push_back(fieldPair("Y", t[1]));
  pairs.push_back(fieldPair("Z", t[2]));
  pairs.push_back(fieldPair("ObjectName", object));
  pairs.push_back(fieldPair("TimeS", timeS));
  pairs.push_back(fieldPair("TimeUS", 0));
  return KQValue(pairs);
}

const std::vector<float> kYaw90 = {0.70710678f, 0, 0, 0.70710678f};
const std::vector<float> kIdentity = {1, 0, 0, 0};

class InterPosVisitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // World
    // `-- cup     present edge (5, 0, 0), category Cups
    //             rows: 100 (1, 0, 0) identity, 110 (3, 0, 0) yaw pi/2
    cups_ = boost::make_shared<ObjectCategory>("Cups");
    KQDatabaseManager db(dir_.file("Cups.sqlite"), true);
    ASSERT_EQ(0, db.createTable("positions", kPositionsColumns));
    ASSERT_EQ(0, db.insertRow("positions", historyRow("cup", 100, kIdentity, {1, 0, 0})));
    ASSERT_EQ(0, db.insertRow("positions", historyRow("cup", 110, kYaw90, {3, 0, 0})));
    databases_["Cups"] = db;

    graph_.setNodeData(0, std::make_shared<WorldObject>("World", boost::make_shared<ObjectCategory>("root")));
    cupId_ = addObject("cup", 0, {5, 0, 0}, cups_);
  }

  int addObject(const std::string& name, int parent, const std::vector<float>& translation,
                boost::shared_ptr<ObjectCategory> category) {
    int id = -1;
    EXPECT_EQ(0, graph_.addNode(id, std::make_shared<Displacement>(kIdentity, translation), parent));
    graph_.setNodeData(id, std::make_shared<WorldObject>(name, category));
    return id;
  }

  TempDir dir_;
  LogCapture logs_;
  InterPosVisitor::DatabaseMap databases_;
  KQSceneGraph graph_;
  boost::shared_ptr<ObjectCategory> cups_;
  int cupId_ = -1;
};

TEST_F(InterPosVisitorTest, InterpolateAgainstTwoRows) {
  Math::Quaternion q(0, 0, 1, 0);  // a marker: type 1 must leave it alone
  Math::Position3D t;

  // Case: linear at 105: midpoint, rotation untouched.
  InterPosVisitor linear(&databases_, 105, 1);
  ASSERT_EQ(0, linear.xInterpolate("cup", "Cups", q, t));
  EXPECT_FLOAT_EQ(2.0f, t.x);
  EXPECT_FLOAT_EQ(0.0f, q.w);
  EXPECT_FLOAT_EQ(1.0f, q.y);

  // Case: no earlier row (at 100 itself), no later row (at 110 itself).
  EXPECT_EQ(1, InterPosVisitor(&databases_, 100, 1).xInterpolate("cup", "Cups", q, t));
  EXPECT_EQ(2, InterPosVisitor(&databases_, 110, 1).xInterpolate("cup", "Cups", q, t));
  // Case: another object's rows are not this one's.
  EXPECT_EQ(1, InterPosVisitor(&databases_, 105, 1).xInterpolate("mug", "Cups", q, t));

  // Case: a wrong type, only once both rows were found (its message: see
  // positions_in_time_test.cpp).
  EXPECT_EQ(1, InterPosVisitor(&databases_, 105, 7).xInterpolate("cup", "Cups", q, t));
  EXPECT_EQ(1u, logs_.lines().size());
}

TEST_F(InterPosVisitorTest, ACategoryWithoutDatabaseGetsAnEmptyEntry) {
  // World
  // |-- cup
  // `-- lamp   category Lamps, which has no open database
  const int lampId = addObject("lamp", 0, {0, 4, 0}, boost::make_shared<ObjectCategory>("Lamps"));
  ASSERT_EQ(0u, databases_.count("Lamps"));

  InterPosVisitor visitor(&databases_, 105, 1);
  ASSERT_EQ(0, graph_.visitPath(visitor, 0, lampId));
  // The present pose; the walk runs under shared locks, so it leaves the map
  // alone and names the category for the module to enter an empty entry.
  expectFloats(visitor.getPosition6D().toVector(), pose6D(0, 4, 0));
  EXPECT_EQ(0u, databases_.count("Lamps"));
  EXPECT_EQ(std::set<std::string>{"Lamps"}, visitor.missingCategories());

  // Case: a node without payload reads as an object of no category.
  int bareId = -1;
  ASSERT_EQ(0, graph_.addNode(bareId, std::make_shared<Displacement>(kIdentity, std::vector<float>{0, 0, 2}), 0));
  InterPosVisitor bare(&databases_, 105, 1);
  ASSERT_EQ(0, graph_.visitPath(bare, cupId_, bareId));
  expectFloats(bare.getPosition6D().toVector(), pose6D(-2, 0, 2));
}

TEST_F(InterPosVisitorTest, AnUnreadableRowCountsAsAbsent) {
  // A row whose "X" is NULL (written by hand, not by the module) cannot give
  // a pose: the edge keeps its present pose instead of throwing.
  ASSERT_EQ(0, databases_["Cups"].insertRow("positions", historyRow("cup", 120, kIdentity, {7, 0, 0}, false)));
  ASSERT_EQ(0, databases_["Cups"].insertRow("positions", historyRow("cup", 130, kIdentity, {9, 0, 0})));
  Math::Quaternion q;
  Math::Position3D t;
  // Case: the later row is the unreadable one, then the earlier.
  EXPECT_EQ(2, InterPosVisitor(&databases_, 115, 1).xInterpolate("cup", "Cups", q, t));
  EXPECT_EQ(1, InterPosVisitor(&databases_, 125, 1).xInterpolate("cup", "Cups", q, t));
  EXPECT_FLOAT_EQ(0.0f, t.x);

  InterPosVisitor visitor(&databases_, 115, 0);
  ASSERT_EQ(0, graph_.visitPath(visitor, 0, cupId_));
  expectFloats(visitor.getPosition6D().toVector(), pose6D(5, 0, 0));
}

}  // namespace
}  // namespace test
}  // namespace KQ
