// From an object's name to everything an attribute operation needs: its
// node, its WorldObject, its category and its category's database, or the
// first link of that chain that is missing. One lookup for every operation
// on an object's rows, so that each refuses for the same reasons.
//
// Invariants: `database` is set only when every link before it is; the
// pointers point into the maps given, valid while the caller's locks stay.
// Threading: pure lookup; the caller holds the object, graph and category
// locks (shared at least) for as long as it uses the result.
#ifndef KQ_OBJECTS_OBJECT_RESOLVER_H_
#define KQ_OBJECTS_OBJECT_RESOLVER_H_

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "spatial/scene_graph.h"
#include "storage/database_manager.h"
#include "storage/world_object.h"

namespace KQ {

struct ResolvedObject {
  enum class Missing { kNothing, kObject, kWorldObject, kCategory, kDatabase };

  Missing missing = Missing::kObject;
  int nodeId = -1;
  std::shared_ptr<WorldObject> object;
  // The category's name as the module reports it: "None" for a node without
  // a WorldObject, "" for an object without a category.
  std::string categoryName;
  KQDatabaseManager* database = nullptr;

  bool found() const { return missing == Missing::kNothing; }
  // The object's category description; only when found().
  const ObjectCategory& category() const { return *object->getCategory(); }
  bool hasAttribute(const std::string& attribute) const {
    return object && object->getCategory() && object->getCategory()->hasAttribute(attribute);
  }
};

// The module's object map is hashed; an ordered map is taken too.
ResolvedObject resolveObject(const std::unordered_map<std::string, int>& objects, const KQSceneGraph& graph,
                             std::map<std::string, KQDatabaseManager>& databases, const std::string& objectName);
ResolvedObject resolveObject(const std::map<std::string, int>& objects, const KQSceneGraph& graph,
                             std::map<std::string, KQDatabaseManager>& databases, const std::string& objectName);

}  // namespace KQ

#endif  // KQ_OBJECTS_OBJECT_RESOLVER_H_
