#include "persistence/save_visitor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <boost/archive/xml_oarchive.hpp>

#include "middleware/error.h"
#include "persistence/world_archive.h"
#include "spatial/edge_interface.h"
#include "spatial/motion_displacement.h"
#include "spatial/odometry_displacement.h"
#include "spatial/pose_conversions.h"
#include "storage/world_object.h"

namespace KQ {

namespace {

const char* const kTemporarySuffix = ".tmp";

KQError saveError(const std::string& message) { return KQError("KQWorldRepresentation", "save", message, "", 0); }

// Pushes a closed file's data to the disk, so that the rename that follows
// never makes an archive visible before its content.
bool syncFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = ::fsync(fd) == 0;
  ::close(fd);
  return synced;
}

void syncDirectory(const std::string& directory) {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;  // best effort: the renames are done already
  ::fsync(fd);
  ::close(fd);
}

void openForWriting(std::ofstream& file, const std::string& path) {
  errno = 0;
  file.open(path, std::ios::out | std::ios::trunc);
  if (!file.is_open()) {
    const int error = errno;
    throw saveError("Cannot create " + path + ": " + (error != 0 ? std::strerror(error) : "unknown error") + ".");
  }
}

}  // namespace

SaveVisitor::SaveVisitor(const std::string& dataDirectory)
    : dataDirectory_(dataDirectory),
      nodesPath_(dataDirectory + "/" + kNodesArchiveName),
      edgesPath_(dataDirectory + "/" + kEdgesArchiveName) {
  try {
    openForWriting(nodesFile_, nodesPath_ + kTemporarySuffix);
    nodesArchive_ = std::make_unique<boost::archive::xml_oarchive>(nodesFile_, 0);
    openForWriting(edgesFile_, edgesPath_ + kTemporarySuffix);
    edgesArchive_ = std::make_unique<boost::archive::xml_oarchive>(edgesFile_, 0);
  } catch (...) {
    xRemoveTemporaryFiles();
    throw;
  }
}

SaveVisitor::~SaveVisitor() {
  if (!committed_) xRemoveTemporaryFiles();
}

void SaveVisitor::startVisit() {
  edges_.clear();
  nodes_.clear();
}

void SaveVisitor::onNode(int id, std::shared_ptr<GraphNodeData> data) {
  // A node without a WorldObject (only the root after a failed load) is
  // written as an empty pointer.
  nodes_[id] = std::dynamic_pointer_cast<WorldObject>(data);
}

void SaveVisitor::onDownEdge(int parentId, int childId, Displacement& edge) { xAddEdge(parentId, childId, edge); }

void SaveVisitor::onDownEdge(int parentId, int childId, KQMotionDisplacement& edge) {
  xAddEdge(parentId, childId, edge);
}

void SaveVisitor::onDownEdge(int parentId, int childId, KQOdometryDisplacement& edge) {
  xAddEdge(parentId, childId, edge);
}

void SaveVisitor::xAddEdge(int parentId, int childId, DisplacementInterface& edge) {
  Edge saved;
  saved.parentId = parentId;
  auto parent = nodes_.find(parentId);
  if (parent != nodes_.end() && parent->second) saved.parentName = parent->second->getName();
  saved.childId = childId;
  // The child's onNode comes after its edge; stopVisit fills childName.
  const Math::Quaternion childRotationInParent(edge.getQuaternion());
  const Math::Position3D childInParent(edge.getTranslation());
  quaternionTranslationToPosition6D(childRotationInParent, childInParent, saved.position);
  edges_.push_back(saved);
}

void SaveVisitor::stopVisit() {
  for (Edge& edge : edges_) {
    auto child = nodes_.find(edge.childId);
    edge.childName = (child != nodes_.end() && child->second) ? child->second->getName() : std::string();
  }
  written_ = true;
}

void SaveVisitor::takeCategories() {
  for (const auto& node : nodes_) {
    if (!node.second || !node.second->getCategory()) continue;
    std::shared_ptr<ObjectCategory>& copy = categoryCopies_[node.second->getCategory().get()];
    if (!copy) copy = std::make_shared<ObjectCategory>(*node.second->getCategory());
  }
}

void SaveVisitor::commit() {
  if (!written_) throw saveError("The world archive was not written: the walk of the scene graph did not finish.");
  if (!categoryCopies_.empty()) {
    // Objects are immutable but their categories are not: each object is
    // written as a new one on the category copied with the tree.
    for (auto& node : nodes_) {
      if (!node.second || !node.second->getCategory()) continue;
      node.second = std::make_shared<WorldObject>(node.second->getName(),
                                                  categoryCopies_.at(node.second->getCategory().get()));
    }
  }
  writeNodesArchive(*nodesArchive_, nodes_);
  writeEdgesArchive(*edgesArchive_, edges_);
  // Destroying an archive writes its trailer.
  nodesArchive_.reset();
  edgesArchive_.reset();
  nodesFile_.close();
  edgesFile_.close();
  const std::string nodesTemporary = nodesPath_ + kTemporarySuffix;
  const std::string edgesTemporary = edgesPath_ + kTemporarySuffix;
  if (nodesFile_.fail() || !syncFile(nodesTemporary)) throw saveError("Cannot write " + nodesTemporary + ".");
  if (edgesFile_.fail() || !syncFile(edgesTemporary)) throw saveError("Cannot write " + edgesTemporary + ".");
  if (std::rename(nodesTemporary.c_str(), nodesPath_.c_str()) != 0)
    throw saveError("Cannot replace " + nodesPath_ + ": " + std::strerror(errno) + ".");
  if (std::rename(edgesTemporary.c_str(), edgesPath_.c_str()) != 0) {
    // nodes.xml is new already; edges.xml stays the previous complete file.
    const int error = errno;
    std::remove(edgesTemporary.c_str());
    committed_ = true;
    throw saveError("Cannot replace " + edgesPath_ + ": " + std::strerror(error) + ".");
  }
  committed_ = true;
  syncDirectory(dataDirectory_);
}

void SaveVisitor::xRemoveTemporaryFiles() {
  // The archives go first: each writes its trailer into its file, which is
  // still open, and the file is removed right after.
  edgesArchive_.reset();
  nodesArchive_.reset();
  if (nodesFile_.is_open()) nodesFile_.close();
  if (edgesFile_.is_open()) edgesFile_.close();
  std::remove((nodesPath_ + kTemporarySuffix).c_str());
  std::remove((edgesPath_ + kTemporarySuffix).c_str());
}

}  // namespace KQ
