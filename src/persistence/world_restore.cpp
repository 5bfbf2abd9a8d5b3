#include "persistence/world_restore.h"

#include <map>
#include <unordered_map>
#include <utility>

#include "spatial/pose_conversions.h"
#include "storage/world_object.h"

namespace KQ {

namespace {

const char* const kJointsCategory = "joints";

bool rowIsNewer(const LatestPosition& row, const ArchiveStamp& stamp) {
  // A tie goes to the row: both are stamped under the graph lock, so equal
  // stamps are the same moment and the row is at least as new.
  return row.timeS != stamp.timeS ? row.timeS > stamp.timeS : row.timeUS >= stamp.timeUS;
}

}  // namespace

RestorePlan planRestore(const WorldArchive* archive, const std::vector<CategoryRows>& databases,
                        const std::set<std::string>& liveNames, const std::string& rootName) {
  // The newest row of each name over every category (a name cleared and
  // stored again elsewhere has rows in one category only; the newest wins
  // should a copied file hold it twice).
  std::unordered_map<std::string, std::pair<const LatestPosition*, const std::string*>> latest;
  for (const CategoryRows& database : databases) {
    if (database.category == kJointsCategory) continue;
    for (const LatestPosition& row : database.rows) {
      if (liveNames.count(row.objectName) != 0) continue;
      auto& entry = latest[row.objectName];
      if (entry.first == nullptr || row.timeS > entry.first->timeS ||
          (row.timeS == entry.first->timeS && row.timeUS > entry.first->timeUS))
        entry = {&row, &database.category};
    }
  }
  std::unordered_map<std::string, const SaveVisitor::Edge*> archived;
  if (archive != nullptr)
    for (const SaveVisitor::Edge& edge : archive->edges) archived[edge.childName] = &edge;

  std::map<std::string, RestoredObject> chosen;  // by name: a stable order
  for (const auto& entry : latest) {
    const LatestPosition& row = *entry.second.first;
    RestoredObject object;
    object.name = entry.first;
    object.category = *entry.second.second;
    auto saved = archived.find(entry.first);
    if (saved != archived.end() && !rowIsNewer(row, archive->stamp)) {
      Math::Quaternion rotation;
      Math::Position3D translation;
      position6DToQuaternionTranslation(saved->second->position, rotation, translation);
      object.parentName = saved->second->parentName;
      object.quaternion = rotation.toVector();
      object.translation = translation.toVector();
      object.fromArchive = true;
    } else {
      object.parentName = row.parentName;
      object.quaternion = row.quaternion;
      object.translation = row.translation;
    }
    chosen.emplace(object.name, std::move(object));
  }

  // Parents first: each object waits for its parent's chain; a chain that
  // ends at no restorable or live object, or loops, goes under the root.
  RestorePlan plan;
  std::map<std::string, int> state;  // 1 on the current chain, 2 placed
  for (auto& start : chosen) {
    std::vector<RestoredObject*> chain;
    RestoredObject* current = &start.second;
    while (state[current->name] == 0) {
      state[current->name] = 1;
      chain.push_back(current);
      const std::string& parent = current->parentName;
      if (liveNames.count(parent) != 0) break;
      auto found = chosen.find(parent);
      if (found == chosen.end() || state[parent] == 1) {
        plan.orphans.emplace_back(current->name, parent);
        current->parentName = rootName;
        break;
      }
      if (state[parent] == 2) break;
      current = &found->second;
    }
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      state[(*it)->name] = 2;
      ++((*it)->fromArchive ? plan.fromArchive : plan.fromDatabases);
      plan.objects.push_back(**it);
    }
  }
  return plan;
}

}  // namespace KQ
