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
// only try their locks and answer 1 when one is busy.
#ifndef KQ_MODULE_WORLD_REPRESENTATION_H_
#define KQ_MODULE_WORLD_REPRESENTATION_H_

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "middleware/module.h"
#include "middleware/os.h"
#include "middleware/value.h"
#include "spatial/scene_graph.h"
#include "storage/database_manager.h"
#include "storage/object_category.h"

namespace KQ {

class InterPosVisitor;
class KQBroker;
class KQMemoryProxy;
class KQMotionProxy;

class KQWorldRepresentation : public KQModule {
 public:
  static const std::string displayRequiredEventName_;
  static const std::string positionChangedEventName_;
  static const std::string attributeChangedEventName_;

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

  // Shape checks (src/storage/shape_checks.cpp); log nothing.
  bool xCheckFieldsFormat(const KQValue& fields) const;
  bool xCheckAttributeFieldsFormat(const KQValue& values) const;
  bool xCheckAttributesFormat(const KQValue& attributes) const;

  const std::string& getDataDirectory() const { return dataDirectory_; }

 private:
  // --- category databases (src/storage/category_databases.cpp); category lock X held.
  int xCreateDatabaseFromCategory(const std::string& category, bool reset);
  int xCreateTableFromAttribute(const std::string& category, const std::string& attribute);
  void xAddSpecialFields(KQValue& row, const std::string& objectName, const ko::os::timeval& time) const;
  void xAddPositionsToCategory(const std::string& category);
  void xAddDisplayToCategory(const std::string& category);
  int xFindDatabases(std::vector<std::string>& paths, std::vector<std::string>& names);
  // Reopens every ".sqlite" file of the data directory; all four locks held.
  int xLoadDatabases();

  // --- category operations; category lock X held.
  int xAddAttributeToCategory(const std::string& category, const std::string& attribute, const KQValue& fields);
  // object lock and graph lock held (shared or exclusive).
  std::string xGetObjectCategory(const std::string& objectName) const;
  // graph lock held.
  std::vector<std::string> xGetObjectsInCategory(const std::string& category) const;

  // --- attributes; object and graph locks held, category lock X held.
  int xStoreAttribute(KQDatabaseManager& db, const ko::os::timeval& time, const std::string& objectName,
                      const std::string& attribute, const KQValue& values);
  int xUpdateAttribute(KQDatabaseManager& db, const ko::os::timeval& time, const std::string& objectName,
                       const std::string& attribute, const std::string& condition, const KQValue& values);
  int xDeleteAttribute(const std::string& objectName, const std::string& attribute, const std::string& condition);
  void xClearAllAttributes(int nodeId);

  // --- registry; object lock and graph lock held.
  std::vector<std::string> xGetObjectNames() const;
  std::vector<std::string> xGetChildren(const std::string& name) const;
  std::vector<std::string> xGetDescendantsNames(int id) const;
  std::string xGetObjectParentName(const std::string& name) const;
  // Node id of an object, -1 when unknown; object lock held.
  int xFindNodeId(const std::string& name) const;
  // storeObject's body after its format checks; object lock X held by the caller.
  int xStoreObject(const ko::os::timeval& time, const std::string& name, const std::string& parentName,
                   const std::vector<float>& position, const std::string& category, const KQValue& attributes);

  // --- positions.
  // object lock held, graph lock X held.
  void xGetPosition(const std::string& first, const std::string& second, std::vector<float>& quaternionOut,
                    std::vector<float>& translationOut);
  // object lock S held; takes joint S, graph X, category X itself.
  int xUpdatePosition(const std::string& name, const std::vector<float>& position, bool save);
  // category lock X held.
  void xStorePosition(KQDatabaseManager& db, const std::string& name, const std::string& parentName,
                      const std::vector<float>& quaternion, const std::vector<float>& translation,
                      const ko::os::timeval& time);

  // Enters an empty database entry for each category a query of the past met
  // without one; takes the category lock exclusively (hold no lock).
  void xEnterEmptyDatabases(const std::set<std::string>& categories);
  // Walks reference -> object with `visitor` under the object, graph and
  // category locks held shared (takes them itself; hold no lock); false,
  // logged from `function`, when either name is unknown.
  bool xVisitAtTime(const char* function, const std::string& reference, const std::string& object,
                    InterPosVisitor& visitor);

  // --- archive; all four locks held.
  void xLoadGraph();

  // --- events (src/persistence/events.cpp); no lock needed of its own.
  void xAddObjectToDisplayEvent(const std::string& name);
  void xRemoveObjectFromDisplayEvent(const std::string& name);

  // --- memory watcher (src/persistence/memory_watcher.cpp).
  void xCheckMemory();
  std::string xGetObjectNameFromMemoryKey(const std::string& key, const std::string& prefix) const;

  // --- method table (src/module/world_representation.cpp).
  void xRegisterMethods();

  // Member data, in the order of the design.
  std::map<std::string, boost::shared_ptr<ObjectCategory>> categories_;
  KQSceneGraph graph_;
  const std::string rootName_;
  const std::string robotName_;
  const std::string torsoName_;
  std::string dataDirectory_;
  std::map<std::string, KQDatabaseManager> databases_;
  mutable boost::shared_mutex objectLock_;
  std::map<std::string, int> objects_;
  mutable boost::shared_mutex graphLock_;
  mutable boost::shared_mutex categoryLock_;
  std::shared_ptr<KQMotionProxy> motionProxy_;
  std::shared_ptr<KQMemoryProxy> memoryProxy_;
  mutable boost::shared_mutex jointLock_;
  std::set<std::string> joints_;
  int memoryCheckPeriod_;
  std::atomic<bool> running_;      // written by the watcher thread under runningMutex_
  std::atomic<bool> keepRunning_;  // written under stopMutex_, read by the watcher without it
  std::condition_variable runningCondition_;
  std::mutex runningMutex_;
  std::mutex stopMutex_;
  const std::string displayAttributeName_;
};

}  // namespace KQ

// Library entry points.
extern "C" {
int _createModule(std::shared_ptr<KQ::KQBroker> broker);  // NOLINT
int _closeModule(std::shared_ptr<KQ::KQBroker> broker);   // NOLINT
}

#endif  // KQ_MODULE_WORLD_REPRESENTATION_H_
