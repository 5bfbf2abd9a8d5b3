// save, load and the archive's serialization: the records' element names and
// order, the whole-pair commit, the checks that keep a broken file from
// reaching the library unchecked, and load's merge walk that rebuilds the
// tree as fixed edges.
#include "persistence/world_archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/xml_iarchive.hpp>
#include <boost/archive/xml_oarchive.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/map.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/set.hpp>
#include <boost/serialization/shared_ptr.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/utility.hpp>
#include <boost/serialization/vector.hpp>
#include <boost/thread/locks.hpp>

#include "middleware/error.h"
#include "middleware/os.h"
#include "persistence/archive_validator.h"
#include "module/world_representation.h"
#include "spatial/edge_interface.h"
#include "spatial/pose_conversions.h"
#include "storage/attribute_field.h"
#include "storage/object_attribute.h"
#include "storage/object_category.h"
#include "storage/world_object.h"

// ---------------------------------------------------------------------------
// Records. Element names and order are the archive's file format: renaming or
// reordering one makes every saved world unreadable. No record declares a
// version or tracking level of its own (library defaults), which is what
// writes a category shared by several objects once and shares it again on
// reading. Nothing of WorldObject's GraphNodeData base is archived.

using boost::serialization::make_nvp;

template <class Archive>
void AttributeField::serialize(Archive& ar, unsigned int /*version*/) {
  ar& make_nvp("name", name_);
  ar& make_nvp("type", type_);
}

template <class Archive>
void ObjectAttribute::serialize(Archive& ar, unsigned int /*version*/) {
  ar& make_nvp("name", name_);
  ar& make_nvp("fieldNames", fieldNames_);
  ar& make_nvp("fields", fields_);
}

template <class Archive>
void ObjectCategory::serialize(Archive& ar, unsigned int /*version*/) {
  ar& make_nvp("name", name_);
  ar& make_nvp("attributeNames", attributeNames_);
  ar& make_nvp("attributes", attributes_);
}

template <class Archive>
void WorldObject::serialize(Archive& ar, unsigned int /*version*/) {
  ar& make_nvp("name", name_);
  ar& make_nvp("category", category_);
}

namespace boost {
namespace serialization {
template <class Archive>
void serialize(Archive& ar, KQ::Math::Position6D& pose, const unsigned int /*version*/) {
  ar& make_nvp("x", pose.x);
  ar& make_nvp("y", pose.y);
  ar& make_nvp("z", pose.z);
  ar& make_nvp("wx", pose.wx);
  ar& make_nvp("wy", pose.wy);
  ar& make_nvp("wz", pose.wz);
}
}  // namespace serialization
}  // namespace boost

template <class Archive>
void KQ::SaveVisitor::Edge::serialize(Archive& ar, unsigned int /*version*/) {
  ar& make_nvp("parentId", parentId);
  ar& make_nvp("parentName", parentName);
  ar& make_nvp("childId", childId);
  ar& make_nvp("childName", childName);
  ar& make_nvp("position", position);
}

// WorldObject travels through a pointer to a polymorphic class: the library
// looks its true type up by this key.
BOOST_CLASS_EXPORT_GUID(WorldObject, "WorldObject")

namespace KQ {

const char* const kNodesArchiveName = "nodes.xml";
const char* const kEdgesArchiveName = "edges.xml";
const char* const kArchiveCommitName = "archive.commit";
const char* const kArchiveTemporarySuffix = ".tmp";

namespace {

const char* const kArchiveTrailer = "</boost_serialization>";

KQError loadError(const std::string& message) { return KQError("KQWorldRepresentation", "load", message, "", 0); }

// Parses one root element of an archive text that checkArchiveText passed.
// The library reads the header when the archive is made and the trailer when
// it is destroyed; the trailer was checked on the text already, so the
// stream is marked finished before destruction (a destructor must not throw
// on a bad trailer).
template <class T>
T parseArchive(const std::string& path, const std::string& text, const char* rootName, ArchiveStamp* stamp) {
  T result;
  try {
    std::istringstream stream(text);
    boost::archive::xml_iarchive archive(stream, 0);
    archive >> make_nvp(rootName, result);
    if (stamp != nullptr) {
      *stamp = ArchiveStamp();
      // Strings are written escaped, so the tag can only be the stamp's.
      if (text.find("<saveId>") != std::string::npos) {
        archive >> make_nvp("saveId", stamp->saveId);
        archive >> make_nvp("timeS", stamp->timeS);
        archive >> make_nvp("timeUS", stamp->timeUS);
      }
    }
    stream.setstate(std::ios::failbit);
  } catch (const std::bad_alloc&) {
    throw loadError(path + " is malformed: its content does not fit in memory.");
  } catch (const std::exception& e) {
    throw loadError(path + " is malformed: " + e.what() + ".");
  } catch (...) {
    throw loadError(path + " is malformed.");
  }
  return result;
}

KQError saveError(const std::string& message) { return KQError("KQWorldRepresentation", "save", message, "", 0); }

bool exists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

// Pushes a file's or a folder's data to the disk, so that a rename that
// follows never makes a file visible before its content.
bool syncPath(const std::string& path, bool directory) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | (directory ? O_DIRECTORY : 0));
  if (fd < 0) return false;
  const bool synced = ::fsync(fd) == 0;
  ::close(fd);
  return synced;
}

std::string errnoText() { return errno != 0 ? std::strerror(errno) : "unknown error"; }

// Writes one archive file completely (header, record, stamp, trailer) and
// syncs it.
template <class Records>
void writeArchiveFile(const std::string& path, void (*write)(boost::archive::xml_oarchive&, const Records&),
                      const Records& records, const ArchiveStamp& stamp) {
  errno = 0;
  std::ofstream file(path, std::ios::out | std::ios::trunc);
  if (!file.is_open()) throw saveError("Cannot create " + path + ": " + errnoText() + ".");
  {
    boost::archive::xml_oarchive archive(file, 0);
    write(archive, records);
    writeArchiveStamp(archive, stamp);
  }  // the trailer is written here
  file.close();
  if (file.fail() || !syncPath(path, false)) throw saveError("Cannot write " + path + ".");
}

void renameOver(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0)
    throw saveError("Cannot replace " + to + ": " + std::strerror(errno) + ".");
}

// Ends what an earlier save left: a committed pair's remaining renames, or
// an uncommitted save's ".tmp" files.
void finishEarlierSave(const std::string& directory) {
  const std::string marker = directory + "/" + kArchiveCommitName;
  const bool committed = exists(marker);
  for (const char* name : {kNodesArchiveName, kEdgesArchiveName}) {
    const std::string path = directory + "/" + name;
    const std::string temporary = path + kArchiveTemporarySuffix;
    if (!exists(temporary)) continue;
    if (committed)
      renameOver(temporary, path);
    else
      std::remove(temporary.c_str());
  }
  if (committed) {
    syncPath(directory, true);
    std::remove(marker.c_str());
  }
}

std::mutex gWriterMutex;  // one writer of the ".tmp" files at a time

}  // namespace

ArchiveStamp newArchiveStamp() {
  static std::atomic<uint64_t> lastId{0};
  ko::os::timeval now;
  ko::os::gettimeofday(&now);
  ArchiveStamp stamp;
  stamp.timeS = now.tv_sec;
  stamp.timeUS = now.tv_usec;
  // The microsecond of the copy, or one more than the last id when two
  // saves meet in one microsecond (or the clock went back).
  uint64_t id = static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_usec);
  uint64_t last = lastId.load();
  do {
    if (id <= last) id = last + 1;
  } while (!lastId.compare_exchange_weak(last, id));
  stamp.saveId = id;
  return stamp;
}

void writeWorldArchive(const std::string& dataDirectory, const SavedNodes& nodes, const SavedEdges& edges,
                       const ArchiveStamp& stamp) {
  std::lock_guard<std::mutex> writer(gWriterMutex);
  finishEarlierSave(dataDirectory);
  const std::string nodesPath = dataDirectory + "/" + kNodesArchiveName;
  const std::string edgesPath = dataDirectory + "/" + kEdgesArchiveName;
  const std::string nodesTemporary = nodesPath + kArchiveTemporarySuffix;
  const std::string edgesTemporary = edgesPath + kArchiveTemporarySuffix;
  const std::string marker = dataDirectory + "/" + kArchiveCommitName;
  try {
    writeArchiveFile(nodesTemporary, writeNodesArchive, nodes, stamp);
    writeArchiveFile(edgesTemporary, writeEdgesArchive, edges, stamp);
    // The commit point: the marker appears whole, by one rename.
    const std::string markerTemporary = marker + kArchiveTemporarySuffix;
    {
      std::ofstream file(markerTemporary, std::ios::out | std::ios::trunc);
      file << stamp.saveId << " " << stamp.timeS << " " << stamp.timeUS << "\n";
      file.close();
      if (file.fail() || !syncPath(markerTemporary, false)) throw saveError("Cannot write " + markerTemporary + ".");
    }
    renameOver(markerTemporary, marker);
  } catch (...) {
    std::remove(nodesTemporary.c_str());
    std::remove(edgesTemporary.c_str());
    std::remove((marker + kArchiveTemporarySuffix).c_str());
    throw;
  }
  syncPath(dataDirectory, true);
  // Committed: a failure from here on is finished by the next save, and a
  // reader meanwhile takes the ".tmp" file the marker vouches for.
  finishEarlierSave(dataDirectory);
}

std::optional<WorldArchive> readWorldArchive(const std::string& dataDirectory) {
  const bool committed = exists(dataDirectory + "/" + kArchiveCommitName);
  // A committed save's file that was not renamed yet stands in for the old one.
  auto current = [&](const char* name) {
    const std::string path = dataDirectory + "/" + name;
    const std::string temporary = path + kArchiveTemporarySuffix;
    return committed && exists(temporary) ? temporary : path;
  };
  const std::string nodesPath = current(kNodesArchiveName);
  const std::string edgesPath = current(kEdgesArchiveName);
  if (!exists(nodesPath) && !exists(edgesPath)) return std::nullopt;
  WorldArchive archive;
  ArchiveStamp edgesStamp;
  const std::string edgesText = readArchiveText(edgesPath, ArchiveKind::kEdges);
  const std::string nodesText = readArchiveText(nodesPath, ArchiveKind::kNodes);
  archive.nodes = parseNodesArchive(nodesPath, nodesText, &archive.stamp);
  archive.edges = parseEdgesArchive(edgesPath, edgesText, &edgesStamp);
  if (edgesStamp.saveId != archive.stamp.saveId)
    throw loadError(edgesPath + " is not from the save that wrote " + nodesPath + " (save " +
                    std::to_string(edgesStamp.saveId) + ", not " + std::to_string(archive.stamp.saveId) + ").");
  checkArchiveRecords(nodesPath, archive.nodes, edgesPath, archive.edges);
  return archive;
}

void writeArchiveStamp(boost::archive::xml_oarchive& archive, const ArchiveStamp& stamp) {
  archive << make_nvp("saveId", stamp.saveId);
  archive << make_nvp("timeS", stamp.timeS);
  archive << make_nvp("timeUS", stamp.timeUS);
}

void writeNodesArchive(boost::archive::xml_oarchive& archive, const SavedNodes& nodes) {
  archive << make_nvp("nodes", nodes);
}

void writeEdgesArchive(boost::archive::xml_oarchive& archive, const SavedEdges& edges) {
  archive << make_nvp("edges", edges);
}

std::string readArchiveText(const std::string& path, ArchiveKind kind, bool* stamped) {
  // A missing file is named as such: the library would only report an
  // "input stream error" or an "invalid signature".
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error == ENOENT) throw loadError(path + " does not exist.");
    throw loadError(path + " cannot be read: " + std::strerror(error) + ".");
  }
  if (!S_ISREG(status.st_mode)) throw loadError(path + " is not a file.");
  errno = 0;
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    const int error = errno;
    throw loadError(path + " cannot be opened: " + (error != 0 ? std::strerror(error) : "unknown error") + ".");
  }
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) throw loadError(path + " cannot be read.");
  checkArchiveText(path, text, kind, stamped);
  return text;
}

void checkArchiveText(const std::string& path, const std::string& text, ArchiveKind kind, bool* stamped) {
  const char* const blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) throw loadError(path + " is empty.");
  if (text.compare(first, 5, "<?xml") != 0) throw loadError(path + " is malformed: it is not an XML archive.");
  const std::size_t last = text.find_last_not_of(blanks);
  const std::size_t trailerLength = std::strlen(kArchiveTrailer);
  if (last + 1 < trailerLength || text.compare(last + 1 - trailerLength, trailerLength, kArchiveTrailer) != 0)
    throw loadError(path + " is truncated.");
  const std::string fault = validateArchiveText(text, kind, stamped);
  if (!fault.empty()) throw loadError(path + " is malformed: " + fault + ".");
}

SavedNodes parseNodesArchive(const std::string& path, const std::string& text, ArchiveStamp* stamp) {
  return parseArchive<SavedNodes>(path, text, "nodes", stamp);
}

SavedEdges parseEdgesArchive(const std::string& path, const std::string& text, ArchiveStamp* stamp) {
  return parseArchive<SavedEdges>(path, text, "edges", stamp);
}

void checkArchiveRecords(const std::string& nodesPath, const SavedNodes& nodes, const std::string& edgesPath,
                         const SavedEdges& edges) {
  if (nodes.count(0) == 0) throw loadError(nodesPath + " is malformed: it holds no root node 0.");
  for (const auto& node : nodes) {
    if (!node.second)
      throw loadError(nodesPath + " is malformed: node " + std::to_string(node.first) + " holds no object.");
  }
  for (const SaveVisitor::Edge& edge : edges) {
    if (nodes.count(edge.childId) == 0)
      throw loadError(edgesPath + " is malformed: the edge to node " + std::to_string(edge.childId) +
                      " names a node that nodes.xml does not hold.");
  }
}

// ---------------------------------------------------------------------------
// The module's members.

int KQWorldRepresentation::save() {
  // Never waits: a busy lock means another call is changing the tree or the
  // categories, and the caller may try again. The locks are held shared,
  // and only while the tree is copied: readers go on during the whole save,
  // writers wait for the copy only; the files are written from the copy.
  // saveMutex_ keeps a second save, and a load, off the files meanwhile.
  std::unique_lock<std::mutex> saving(saveMutex_, std::try_to_lock);
  if (!saving.owns_lock()) return 1;
  SaveVisitor visitor;
  ArchiveStamp stamp;
  {
    TryReaderLock graphLock(graphLock_);
    if (!graphLock.owns()) return 1;
    graphLock_.assertReaderHeld();
    TryReaderLock categoryLock(categoryLock_);
    if (!categoryLock.owns()) return 1;
    categoryLock_.assertReaderHeld();
    const int result = graph_.visitBFS(visitor, 0);
    if (result != 0 || !visitor.complete()) return result != 0 ? result : 1;  // the old archive stays
    visitor.takeCategories();
    // T: the copy is taken, under the locks every change of the tree waits
    // for (a move stamps its row under the graph lock held exclusively).
    stamp = newArchiveStamp();
  }
  visitor.detachFromCategories();
  writeWorldArchive(dataDirectory_, visitor.getNodes(), visitor.getEdges(), stamp);
  TryReaderLock categoryLock(categoryLock_);
  if (!categoryLock.owns()) return 1;  // the archives are written already
  categoryLock_.assertReaderHeld();
  for (const auto& database : databases_) database.second.save();
  return 0;
}

int KQWorldRepresentation::load() {
  std::unique_lock<std::mutex> saving(saveMutex_, std::try_to_lock);
  if (!saving.owns_lock()) return 1;  // a save is writing the files
  TryWriterLock objectLock(objectLock_);
  if (!objectLock.owns()) return 1;
  TryWriterLock graphLock(graphLock_);
  if (!graphLock.owns()) return 1;
  TryWriterLock categoryLock(categoryLock_);
  if (!categoryLock.owns()) return 1;
  TryWriterLock jointLock(jointLock_);
  if (!jointLock.owns()) return 1;
  objectLock_.assertHeld();
  graphLock_.assertHeld();
  categoryLock_.assertHeld();
  jointLock_.assertHeld();

  // Cleared first and left cleared when the archive cannot be read.
  graph_.clearGraph();
  objects_.clear();
  joints_.clear();
  xLoadGraph();
  return xLoadDatabases();
  // The locks are released in reverse order: joint, category, graph, object.
}

void KQWorldRepresentation::xLoadGraph() {
  const std::optional<WorldArchive> archive = readWorldArchive(dataDirectory_);
  if (!archive) throw loadError(dataDirectory_ + "/" + kEdgesArchiveName + " does not exist.");
  const SavedNodes& nodes = archive->nodes;
  const SavedEdges& edges = archive->edges;

  const std::shared_ptr<WorldObject>& root = nodes.at(0);
  graph_.setNodeData(0, root);
  objects_[root->getName()] = 0;

  // Merge walk: relies on save's order (parents by ascending saved id, each
  // parent's down edges consecutive). An edge whose parent is not the
  // current node moves the node cursor on; once the nodes run out, the
  // remaining edges are dropped. Saved ids are not kept: nodes are numbered
  // anew in the order they are added.
  auto node = nodes.begin();
  auto edge = edges.begin();
  while (node != nodes.end()) {
    if (edge == edges.end() || edge->parentName != node->second->getName()) {
      ++node;
      continue;
    }
    // Every edge comes back fixed, live ones included: after a load the
    // robot's frames keep the pose they had when saved.
    Math::Quaternion childRotationInParent;
    Math::Position3D childInParent;
    position6DToQuaternionTranslation(edge->position, childRotationInParent, childInParent);
    auto displacement =
        std::make_shared<Displacement>(childRotationInParent.toVector(), childInParent.toVector());
    // A parent name not entered yet is entered with 0: the node goes under
    // the root.
    const int parentId = objects_[edge->parentName];
    int childId = -1;
    graph_.addNode(childId, displacement, parentId);
    const std::shared_ptr<WorldObject>& child = nodes.at(edge->childId);
    if (child->getCategoryName() == "joints") joints_.insert(child->getName());
    graph_.setNodeData(childId, child);
    objects_[edge->childName] = childId;
    ++edge;
  }
}

}  // namespace KQ
