#include "persistence/world_restore.h"

#include <algorithm>
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

  // By name, for a stable order; parents are looked up by name.
  std::vector<RestoredObject> chosen;
  chosen.reserve(latest.size());
  for (const auto& entry : latest) {
    const LatestPosition& row = *entry.second.first;
    chosen.emplace_back();
    RestoredObject& object = chosen.back();
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
  }
  std::sort(chosen.begin(), chosen.end(),
            [](const RestoredObject& a, const RestoredObject& b) { return a.name < b.name; });
  std::unordered_map<std::string, std::size_t> index;
  index.reserve(chosen.size());
  for (std::size_t i = 0; i < chosen.size(); ++i) index.emplace(chosen[i].name, i);

  // Parents first: each object waits for its parent's chain; a chain that
  // ends at no restorable or live object, or loops, goes under the root.
  RestorePlan plan;
  plan.objects.reserve(chosen.size());
  std::vector<char> state(chosen.size(), 0);  // 1 on the current chain, 2 placed
  std::vector<std::size_t> chain;
  for (std::size_t start = 0; start < chosen.size(); ++start) {
    chain.clear();
    std::size_t current = start;
    while (state[current] == 0) {
      state[current] = 1;
      chain.push_back(current);
      RestoredObject& object = chosen[current];
      if (liveNames.count(object.parentName) != 0) break;
      auto parent = index.find(object.parentName);
      if (parent == index.end() || state[parent->second] == 1) {
        plan.orphans.emplace_back(object.name, object.parentName);
        object.parentName = rootName;
        break;
      }
      current = parent->second;
    }
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      state[*it] = 2;
      ++(chosen[*it].fromArchive ? plan.fromArchive : plan.fromDatabases);
      plan.objects.push_back(std::move(chosen[*it]));
    }
  }
  return plan;
}

}  // namespace KQ
