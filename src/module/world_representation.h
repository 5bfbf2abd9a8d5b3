// KQWorldRepresentation: the robot's world model module.
//
// It owns the scene graph of named objects rooted at "World", the map from
// object name to node id, the joint set, the categories and their SQLite
// databases, the proxies to "KQMotion" and "KQMemory", and the memory
// watcher's state. The 35 remotely callable methods are registered by the
// constructor in the order of the method table.
//
// Where each member is defined:
//   src/module/      constructor, method table, init/exit, addJoint, destructor
//   src/storage/     category databases, category operations, attributes, shape checks
//   src/objects/     registry, position updates and queries, positions in time
//   src/persistence/ world archive (save/load), events, memory watcher
//
// Locks (boost shared mutexes), always taken in the order object, graph,
// category; the joint lock right after the object lock in updatePosition and
// last in clearObject and addJoint. No thread takes a lock it already holds:
// where one public operation needs another under a held lock it calls the
// private x... form, which assumes its locks and says which. save and load
// only try their locks and answer 1 when one is busy; both first try
// saveMutex_, which keeps the archive files to one of them at a time (save
// holds the graph and category locks, shared, only while it copies the
// tree, and writes the files after releasing them).
#ifndef KQ_MODULE_WORLD_REPRESENTATION_H_
#define KQ_MODULE_WORLD_REPRESENTATION_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "middleware/module.h"
#include "middleware/os.h"
#include "middleware/shared_mutex.h"
#include "middleware/thread_annotations.h"
#include "middleware/value.h"
#include "spatial/scene_graph.h"
#include "storage/database_manager.h"
#include "storage/object_category.h"
#include "objects/object_resolver.h"

namespace KQ {

class Autosaver;
class InterPosVisitor;
struct WorldArchive;
class KQBroker;
class KQMemoryProxy;
class KQMotionProxy;

class KQWorldRepresentation : public KQModule {
 public:
  static const std::string displayRequiredEventName_;
  static const std::string positionChangedEventName_;
  static const std::string attributeChangedEventName_;

  // How a module starts, read by the constructor: the process sets them
  // (--restore, --autosave) before it creates the module.
  struct StartOptions {
    bool restore = false;     // rebuild the world from the data folder in init()
    int autosaveSeconds = 0;  // 0: no autosave thread
  };
  static void setStartOptions(const StartOptions& options);

  KQWorldRepresentation(std::shared_ptr<KQBroker> broker, const std::string& name);
  ~KQWorldRepresentation() override;

  // Start-up and shutdown (src/module/startup.cpp).
  void init() override;
  void exit() override;
  void addJoint(const std::string& name);

  // Category operations (src/storage/category_operations.cpp).
  int addAttributeToCategory(const std::string& category, const std::string& attribute, const KQValue& fields);
  int createObjectCategory(const std::string& category, const bool& reset);
  int removeObjectCategory(const std::string& category);
  bool objectCategoryExists(const std::string& category);
  KQValue getAttributesFromCategory(const std::string& category);
  std::vector<std::string> getObjectsInCategory(const std::string& category);
  std::string getObjectCategory(const std::string& objectName);

  // Attribute storage and queries (src/storage/attribute_operations.cpp).
  int storeObjectAttribute(const std::string& objectName, const std::string& attribute, const KQValue& values);
  int updateAttribute(const std::string& objectName, const std::string& attribute, const std::string& condition,
                      const KQValue& values);
  int deleteObjectAttribute(const std::string& objectName, const std::string& attribute,
                            const std::string& condition);
  KQValue getObjectAttributes(const std::string& objectName);
  KQValue getObjectAttributeValues(const std::string& objectName, const std::string& attribute, const int& count);
  KQValue getObjectLatestAttributes(const std::string& objectName, const int& count);
  KQValue select(const std::string& condition, const std::string& category, const std::string& table,
                 const std::string& columns);
  KQValue selectWithOrder(const std::string& condition, const std::string& order, const std::string& category,
                          const std::string& table, const std::string& columns);
  int clearOldPositions(const std::string& objectName, const int& seconds);
  int resetDatabase(const std::string& category);
  int beginTransaction(const std::string& category);
  int endTransaction(const std::string& category);

  // Object registry (src/objects/object_registry.cpp).
  int storeObject(const std::string& name, const std::string& parentName, const std::vector<float>& position,
                  const std::string& category, const KQValue& attributes);
  int storeObjectWithReference(const std::string& name, const std::string& parentName,
                               const std::string& referenceName, const std::vector<float>& position,
                               const std::string& category, const KQValue& attributes);
  int clearObject(const std::string& name);
  bool findObject(const std::string& name);
  std::vector<std::string> getObjectNames();
  std::vector<std::string> getChildrenNames(const std::string& name);
  std::string getObjectParentName(const std::string& name);
  std::string getRootName();

  // Position updates and queries (src/objects/position_operations.cpp).
  int updatePosition(const std::string& name, const std::vector<float>& position, const bool& save);
  int updatePositionWithReference(const std::string& name, const std::string& reference,
                                  const std::vector<float>& position, const bool& save);
  KQValue getPosition(const std::string& first, const std::string& second);
  std::vector<float> getPosition6D(const std::string& first, const std::string& second);

  // Positions in time (src/objects/positions_in_time.cpp).
  std::vector<float> getPosition6DAtTime(const std::string& reference, const std::string& object,
                                         const int& secondsAgo, const int& type);
  KQValue getPositionAtTime(const std::string& reference, const std::string& object, const int& secondsAgo,
                            const int& type);

  // World archive (src/persistence/world_archive.cpp).
  int save();
  int load();

  // Memory watcher (src/persistence/memory_watcher.cpp).
  void startMemoryCheck(const int& period);
  void stopMemoryCheck();

  const std::string& getDataDirectory() const { return dataDirectory_; }

 private:
  // Every private member named x... assumes the locks its attributes name;
  // the compiler checks each caller (scripts/threads.sh).

  // --- category databases (src/storage/category_databases.cpp).
  int xCreateDatabaseFromCategory(const std::string& category, bool reset) REQUIRES(categoryLock_);
  int xCreateTableFromAttribute(const std::string& category, const std::string& attribute) REQUIRES(categoryLock_);
  void xAddPositionsToCategory(const std::string& category) REQUIRES(categoryLock_);
  void xAddDisplayToCategory(const std::string& category) REQUIRES(categoryLock_);
  // Reopens every ".sqlite" file of the data directory.
  int xLoadDatabases() REQUIRES(objectLock_, graphLock_, categoryLock_, jointLock_);
  // Reopens, without emptying, each ".sqlite" file of the data directory
  // that is not open yet, as a category whose attributes are the file's
  // tables (src/storage/category_databases.cpp).
  void xReopenCategories() REQUIRES(categoryLock_);

  // --- restore (src/module/startup.cpp): rebuilds the objects from the
  // archive and the databases (persistence/world_restore.h) under the
  // object, graph and category locks; returns the names to display.
  std::vector<std::string> restoreWorld(const WorldArchive* archive)
      EXCLUDES(objectLock_, graphLock_, categoryLock_);

  // --- category operations.
  // False, with the error line naming `function`, for a name that could
  // reach outside the data folder (src/storage/name_rules.h). Takes no lock.
  bool validCategoryName(const char* function, const std::string& category) const;
  int xAddAttributeToCategory(const std::string& category, const std::string& attribute, const KQValue& fields)
      REQUIRES(categoryLock_);
  std::string xGetObjectCategory(const std::string& objectName) const REQUIRES_SHARED(objectLock_, graphLock_);
  std::vector<std::string> xGetObjectsInCategory(const std::string& category) const REQUIRES_SHARED(graphLock_);
  // The object, its category and its database, or the reason there are none
  // (src/objects/object_resolver.h).
  ResolvedObject xResolveObject(const std::string& objectName)
      REQUIRES_SHARED(objectLock_, graphLock_, categoryLock_);

  // --- attributes.
  int xStoreAttribute(KQDatabaseManager& db, const ko::os::timeval& time, const std::string& objectName,
                      const std::string& attribute, const KQValue& values) REQUIRES(categoryLock_);
  int xUpdateAttribute(KQDatabaseManager& db, const ko::os::timeval& time, const std::string& objectName,
                       const std::string& attribute, const std::string& condition, const KQValue& values)
      REQUIRES(categoryLock_);
  int xDeleteAttribute(const std::string& objectName, const std::string& attribute, const std::string& condition)
      REQUIRES_SHARED(objectLock_, graphLock_) REQUIRES(categoryLock_);
  void xClearAllAttributes(int nodeId) REQUIRES_SHARED(objectLock_, graphLock_) REQUIRES(categoryLock_);

  // --- registry.
  std::vector<std::string> xGetObjectNames() const REQUIRES_SHARED(graphLock_);
  std::vector<std::string> xGetChildren(const std::string& name) const REQUIRES_SHARED(objectLock_, graphLock_);
  std::vector<std::string> xGetDescendantsNames(int id) const REQUIRES_SHARED(graphLock_);
  std::string xGetObjectParentName(const std::string& name) const REQUIRES_SHARED(objectLock_, graphLock_);
  // Node id of an object, -1 when unknown.
  int xFindNodeId(const std::string& name) const REQUIRES_SHARED(objectLock_);
  // storeObject's body after its format checks; takes the graph and category locks.
  int xStoreObject(const std::string& name, const std::string& parentName, const std::vector<float>& position,
                   const std::string& category, const KQValue& attributes)
      REQUIRES(objectLock_) EXCLUDES(graphLock_, categoryLock_);

  // --- positions.
  // Present-time queries read under the graph lock held shared: live robot
  // edges guard their refreshed transforms with a mutex of their own, as
  // they do for queries of the past. A failed query logs and leaves the
  // lists empty (false and the pose untouched for xComposePosition).
  bool xComposePosition(const std::string& first, const std::string& second, Math::Quaternion& rotation,
                        Math::Position3D& translation) const REQUIRES_SHARED(objectLock_, graphLock_);
  void xGetPosition(const std::string& first, const std::string& second, std::vector<float>& quaternionOut,
                    std::vector<float>& translationOut) REQUIRES_SHARED(objectLock_, graphLock_);
  // Takes the joint lock (shared), then the graph lock and the category lock
  // (exclusively for a lone saved move, shared to queue a row for a group
  // commit, whose end it awaits with no lock but the object lock).
  int xUpdatePosition(const std::string& name, const std::vector<float>& position, bool save)
      REQUIRES_SHARED(objectLock_) EXCLUDES(jointLock_, graphLock_, categoryLock_);
  // updatePosition's history row, into the category's group commit: the
  // ticket to commit (commitGroup) before answering, 0 when none is needed.
  uint64_t xAppendPosition(KQDatabaseManager& db, const std::string& name, const std::string& parentName,
                           const std::vector<float>& quaternion, const std::vector<float>& translation,
                           const ko::os::timeval& time) REQUIRES_SHARED(categoryLock_);
  // The key under which a call sequence keeps the group commit of a category.
  std::string groupCommitKey(const std::string& category) const;
  // storeObject's rows inside a call sequence (a JSON-RPC batch): into the
  // category's group commit, put off to the sequence's
  // end (once for the batch, before any of its answers leaves).
  void xAppendObjectRows(KQDatabaseManager& db, const std::string& category, const std::string& name,
                         const std::string& parentName, const std::vector<float>& quaternion,
                         const std::vector<float>& translation, const ko::os::timeval& time,
                         const KQValue& attributes) REQUIRES(categoryLock_);
  void xStorePosition(KQDatabaseManager& db, const std::string& name, const std::string& parentName,
                      const std::vector<float>& quaternion, const std::vector<float>& translation,
                      const ko::os::timeval& time) REQUIRES(categoryLock_);

  // Enters an empty database entry for each category a query of the past met
  // without one; takes the category lock exclusively.
  void enterEmptyDatabases(const std::set<std::string>& categories) EXCLUDES(categoryLock_);
  // Walks reference -> object with `visitor` under the object, graph and
  // category locks held shared (takes them itself); false, logged from
  // `function`, when either name is unknown.
  bool visitAtTime(const char* function, const std::string& reference, const std::string& object,
                    InterPosVisitor& visitor) EXCLUDES(objectLock_, graphLock_, categoryLock_);

  // --- archive.
  void xLoadGraph() REQUIRES(objectLock_, graphLock_, jointLock_);

  // --- events (src/persistence/events.cpp); take no lock and need none:
  // they may run under any of the caller's.
  void addObjectToDisplayEvent(const std::string& name);
  void removeObjectFromDisplayEvent(const std::string& name);

  // --- memory watcher (src/persistence/memory_watcher.cpp): one pass over
  // the "Object/" keys through the public operations; holds no lock.
  void checkMemory();
  // Mirrors one "Object/" key into the world; throws what the memory module
  // or an operation throws.
  void mirrorMemoryKey(const std::string& key);

  // --- method table (src/module/world_representation.cpp).
  void registerMethods();

  // Member data, in the order of the design.
  std::map<std::string, std::shared_ptr<ObjectCategory>> categories_ GUARDED_BY(categoryLock_);
  KQSceneGraph graph_ GUARDED_BY(graphLock_);
  const std::string rootName_;
  const std::string robotName_;
  const std::string torsoName_;
  std::string dataDirectory_;
  std::map<std::string, KQDatabaseManager> databases_ GUARDED_BY(categoryLock_);
  mutable KQSharedMutex objectLock_;
  // Hashed: two look-ups per pose query; nothing needs the names in order.
  std::unordered_map<std::string, int> objects_ GUARDED_BY(objectLock_);
  mutable KQSharedMutex graphLock_;
  mutable KQSharedMutex categoryLock_;
  std::shared_ptr<KQMotionProxy> motionProxy_;
  std::shared_ptr<KQMemoryProxy> memoryProxy_;
  mutable KQSharedMutex jointLock_;
  std::set<std::string> joints_ GUARDED_BY(jointLock_);
  int memoryCheckPeriod_;
  std::atomic<bool> running_;      // written by the watcher thread under runningMutex_
  std::atomic<bool> keepRunning_;  // written under stopMutex_, read by the watcher without it
  std::condition_variable runningCondition_;
  std::mutex runningMutex_;
  std::mutex stopMutex_;
  std::atomic<int> savedMovesInFlight_{0};  // updatePosition calls with save under way
  std::mutex saveMutex_;  // held by save for its whole run and by load; taken before any other lock
  std::condition_variable stopCondition_;  // wakes the watcher's sleep at a stop
  const std::string displayAttributeName_;
  const StartOptions startOptions_;
  // Set when a restore found the archive broken: nothing may be saved over
  // it on the way out.
  std::atomic<bool> saveBlocked_{false};
  std::unique_ptr<Autosaver> autosaver_;  // --autosave; stopped by exit()
};

}  // namespace KQ

// Library entry points.
extern "C" {
int _createModule(std::shared_ptr<KQ::KQBroker> broker);  // NOLINT
int _closeModule(std::shared_ptr<KQ::KQBroker> broker);   // NOLINT
}

#endif  // KQ_MODULE_WORLD_REPRESENTATION_H_
