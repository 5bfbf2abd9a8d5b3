// The plan of a restore: which objects come back at start-up (--restore),
// under which parent and at which pose, merged from the last archive and
// from the latest "positions" row of every object in the category
// databases.
//
// Rules (the newer of the two sources wins, per object):
//   - an object comes back only when its category's database holds a
//     "positions" row for it: a store writes its first row, a clear deletes
//     them all, so an object cleared after the archive stays gone;
//   - when the archive holds the object too and its time T (the moment the
//     save copied the tree) is later than the row, the archive's parent and
//     pose win: a move without save = true survives only this way;
//     otherwise the row's (a store, or a move with save = true, after T);
//   - the live robot's names (World, Robot, Robot_Torso, the joints) and the
//     "joints" category never come from disk; they are valid parents;
//   - an object whose parent does not come back (or that would be its own
//     ancestor) is placed under the root, and the plan says so.
// Objects are listed parents first, so they can be added in order.
//
// Threading: pure functions of their arguments.
#ifndef KQ_PERSISTENCE_WORLD_RESTORE_H_
#define KQ_PERSISTENCE_WORLD_RESTORE_H_

#include <set>
#include <string>
#include <vector>

#include "persistence/world_archive.h"
#include "storage/attribute_rows.h"

namespace KQ {

// The latest "positions" rows of one category's database.
struct CategoryRows {
  std::string category;
  std::vector<LatestPosition> rows;
};

struct RestoredObject {
  std::string name;
  std::string category;
  std::string parentName;
  std::vector<float> quaternion;   // w, x, y, z
  std::vector<float> translation;  // metres, in the parent's frame
  bool fromArchive = false;
};

struct RestorePlan {
  std::vector<RestoredObject> objects;  // parents before children
  // [object, parent it named] for each object placed under the root instead.
  std::vector<std::pair<std::string, std::string>> orphans;
  int fromArchive = 0;
  int fromDatabases = 0;
};

// `archive` may be null (none on disk); `liveNames` are the robot's frames
// and joints that exist already; `rootName` is "World".
RestorePlan planRestore(const WorldArchive* archive, const std::vector<CategoryRows>& databases,
                        const std::set<std::string>& liveNames, const std::string& rootName);

}  // namespace KQ

#endif  // KQ_PERSISTENCE_WORLD_RESTORE_H_
