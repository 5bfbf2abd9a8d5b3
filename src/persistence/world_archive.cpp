// save, load and the archive's serialization: the records' element names and
// order, the checks that keep a broken file from reaching the library
// unchecked, and load's merge walk that rebuilds the tree as fixed edges.
#include "persistence/world_archive.h"

#include <sys/stat.h>

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
#include <mutex>

#include "middleware/error.h"
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

namespace {

const char* const kArchiveTrailer = "</boost_serialization>";

KQError loadError(const std::string& message) { return KQError("KQWorldRepresentation", "load", message, "", 0); }

// Parses one root element of an archive text that checkArchiveText passed.
// The library reads the header when the archive is made and the trailer when
// it is destroyed; the trailer was checked on the text already, so the
// stream is marked finished before destruction (a destructor must not throw
// on a bad trailer).
template <class T>
T parseArchive(const std::string& path, const std::string& text, const char* rootName) {
  T result;
  try {
    std::istringstream stream(text);
    boost::archive::xml_iarchive archive(stream, 0);
    archive >> make_nvp(rootName, result);
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

}  // namespace

void writeNodesArchive(boost::archive::xml_oarchive& archive, const SavedNodes& nodes) {
  archive << make_nvp("nodes", nodes);
}

void writeEdgesArchive(boost::archive::xml_oarchive& archive, const SavedEdges& edges) {
  archive << make_nvp("edges", edges);
}

std::string readArchiveText(const std::string& path, ArchiveKind kind) {
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
  checkArchiveText(path, text, kind);
  return text;
}

void checkArchiveText(const std::string& path, const std::string& text, ArchiveKind kind) {
  const char* const blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) throw loadError(path + " is empty.");
  if (text.compare(first, 5, "<?xml") != 0) throw loadError(path + " is malformed: it is not an XML archive.");
  const std::size_t last = text.find_last_not_of(blanks);
  const std::size_t trailerLength = std::strlen(kArchiveTrailer);
  if (last + 1 < trailerLength || text.compare(last + 1 - trailerLength, trailerLength, kArchiveTrailer) != 0)
    throw loadError(path + " is truncated.");
  const std::string fault = validateArchiveText(text, kind);
  if (!fault.empty()) throw loadError(path + " is malformed: " + fault + ".");
}

SavedNodes parseNodesArchive(const std::string& path, const std::string& text) {
  return parseArchive<SavedNodes>(path, text, "nodes");
}

SavedEdges parseEdgesArchive(const std::string& path, const std::string& text) {
  return parseArchive<SavedEdges>(path, text, "edges");
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
  SaveVisitor visitor(dataDirectory_);
  {
    TryReaderLock graphLock(graphLock_);
    if (!graphLock.owns()) return 1;
    graphLock_.assertReaderHeld();
    TryReaderLock categoryLock(categoryLock_);
    if (!categoryLock.owns()) return 1;
    categoryLock_.assertReaderHeld();
    const int result = graph_.visitBFS(visitor, 0);
    if (result != 0) return result;  // the visitor removes its files; the old archive stays
    visitor.takeCategories();
  }
  visitor.commit();
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
  const std::string edgesPath = dataDirectory_ + "/" + kEdgesArchiveName;
  const std::string nodesPath = dataDirectory_ + "/" + kNodesArchiveName;
  const std::string edgesText = readArchiveText(edgesPath, ArchiveKind::kEdges);
  const std::string nodesText = readArchiveText(nodesPath, ArchiveKind::kNodes);
  const SavedNodes nodes = parseNodesArchive(nodesPath, nodesText);
  const SavedEdges edges = parseEdgesArchive(edgesPath, edgesText);
  checkArchiveRecords(nodesPath, nodes, edgesPath, edges);

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
