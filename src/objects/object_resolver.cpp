#include "objects/object_resolver.h"

namespace KQ {

namespace {

template <class ObjectMap>
ResolvedObject resolveIn(const ObjectMap& objects, const KQSceneGraph& graph,
                         std::map<std::string, KQDatabaseManager>& databases, const std::string& objectName) {
  ResolvedObject resolved;
  auto node = objects.find(objectName);
  if (node == objects.end()) return resolved;
  resolved.nodeId = node->second;
  resolved.object = std::dynamic_pointer_cast<WorldObject>(graph.getNodeData(node->second));
  if (!resolved.object) {
    resolved.missing = ResolvedObject::Missing::kWorldObject;
    resolved.categoryName = "None";
    return resolved;
  }
  resolved.categoryName = resolved.object->getCategoryName();
  if (!resolved.object->getCategory()) {
    resolved.missing = ResolvedObject::Missing::kCategory;
    return resolved;
  }
  auto database = databases.find(resolved.categoryName);
  if (database == databases.end()) {
    resolved.missing = ResolvedObject::Missing::kDatabase;
    return resolved;
  }
  resolved.database = &database->second;
  resolved.missing = ResolvedObject::Missing::kNothing;
  return resolved;
}

}  // namespace

ResolvedObject resolveObject(const std::unordered_map<std::string, int>& objects, const KQSceneGraph& graph,
                             std::map<std::string, KQDatabaseManager>& databases, const std::string& objectName) {
  return resolveIn(objects, graph, databases, objectName);
}

ResolvedObject resolveObject(const std::map<std::string, int>& objects, const KQSceneGraph& graph,
                             std::map<std::string, KQDatabaseManager>& databases, const std::string& objectName) {
  return resolveIn(objects, graph, databases, objectName);
}

}  // namespace KQ
