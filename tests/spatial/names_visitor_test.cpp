// NamesVisitor over real scene graphs carrying world objects: what backs the
// module's list of object names. The faults looked for: a list that grows on
// every call, a wrong order (the root's name must come first, then level by
// level), and a crash on a node that has lost its payload.
#include "spatial/names_visitor.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/edge_interface.h"
#include "spatial/scene_graph.h"
#include "storage/world_object.h"

namespace KQ {
namespace {

int addObject(KQSceneGraph& graph, const std::string& name, int parent) {
  int id = -1;
  EXPECT_EQ(0, graph.addNode(id, std::make_shared<Displacement>(std::vector<float>{1, 0, 0, 0},
                                                                 std::vector<float>{0, 0, 0}),
                             parent));
  graph.setNodeData(id, std::make_shared<WorldObject>(name, boost::shared_ptr<ObjectCategory>()));
  return id;
}

std::vector<std::string> namesFrom(const KQSceneGraph& graph, std::vector<std::string>& names) {
  NamesVisitor visitor(names);
  graph.visitBFS(visitor, 0);
  return names;
}

TEST(NamesVisitorTest, ListsEveryObjectBreadthFirstFromTheRoot) {
  KQSceneGraph graph;
  graph.setNodeData(0, std::make_shared<WorldObject>("World", boost::shared_ptr<ObjectCategory>()));

  // Case: a world holding only the root gives its name alone.
  std::vector<std::string> names;
  EXPECT_EQ(std::vector<std::string>{"World"}, namesFrom(graph, names));

  // Case: a deeper object added first still comes after every shallower one.
  //   World
  //   |-- Robot
  //   |   `-- Robot_Torso
  //   |       `-- HeadYaw
  //   `-- table
  //       `-- cup
  const int robot = addObject(graph, "Robot", 0);
  const int torso = addObject(graph, "Robot_Torso", robot);
  addObject(graph, "HeadYaw", torso);
  const int table = addObject(graph, "table", 0);
  addObject(graph, "cup", table);
  EXPECT_EQ((std::vector<std::string>{"World", "Robot", "table", "Robot_Torso", "cup", "HeadYaw"}),
            namesFrom(graph, names));

  // Case: the same list walked again is replaced, not doubled; stale
  // contents of the caller's list are dropped.
  std::vector<std::string> stale{"old", "names"};
  EXPECT_EQ(names, namesFrom(graph, stale));

  // Case: removed objects leave the list with their whole subtree.
  ASSERT_EQ(0, graph.removeNode(robot));
  EXPECT_EQ((std::vector<std::string>{"World", "table", "cup"}), namesFrom(graph, names));

  // Case: a root without payload (a world cleared and not yet reloaded) is passed over.
  graph.clearGraph();
  EXPECT_TRUE(namesFrom(graph, names).empty());
}

}  // namespace
}  // namespace KQ
