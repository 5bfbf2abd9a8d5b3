// SaveVisitor: one breadth-first walk of the scene graph from the root that
// copies the tree, then writes the world archive from that copy: every
// node's WorldObject into "nodes.xml" (the map node id -> object) and every
// down edge into "edges.xml" (parent, child and the child's pose in the
// parent's frame, read during the walk, so a live edge is written with the
// pose it had then).
//
// The walk only copies (ids, names, poses, the objects' shared pointers);
// takeCategories() copies the categories the objects point to (categories
// change in place when an attribute is added), and commit() writes both
// archives from the copy: so the world's locks are held for the walk and the
// category copy only, and the files hold exactly the tree at that moment.
//
// Invariants it owns: each archive is written to "<file>.tmp" in the data
// directory and only renamed over the real file by commit(), after its
// trailer is written and flushed; a visitor that is destroyed without a
// successful commit() removes its temporary files, so the previous archive
// files stay untouched (a crash leaves either the old or the new file).
//
// Threading: one visitor per save, used by the saving thread only; the walk
// runs under the graph lock (shared is enough: live edges guard their own
// refresh) and takeCategories under the category lock, both held by the
// caller; commit needs no lock.
#ifndef KQ_PERSISTENCE_SAVE_VISITOR_H_
#define KQ_PERSISTENCE_SAVE_VISITOR_H_

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "spatial/graph_visitor.h"

class ObjectCategory;
class WorldObject;

namespace boost {
namespace archive {
class xml_oarchive;
}
}  // namespace boost

namespace KQ {

class DisplacementInterface;

class SaveVisitor : public GraphVisitor {
 public:
  // One saved edge: the child's pose in its parent's frame (metres, radians).
  struct Edge {
    int32_t parentId = 0;
    std::string parentName;
    int32_t childId = 0;
    std::string childName;
    Math::Position6D position;

    template <class Archive>
    void serialize(Archive& ar, unsigned int version);  // world_archive.cpp
  };

  // Creates (truncating) "nodes.xml.tmp" and "edges.xml.tmp" in the data
  // directory and writes both archive headers. Throws KQError naming the
  // file when one cannot be created.
  explicit SaveVisitor(const std::string& dataDirectory);
  ~SaveVisitor() override;
  SaveVisitor(const SaveVisitor&) = delete;
  SaveVisitor& operator=(const SaveVisitor&) = delete;

  void startVisit() override;
  void stopVisit() override;
  void onNode(int id, std::shared_ptr<GraphNodeData> data) override;
  void onDownEdge(int parentId, int childId, Displacement& edge) override;
  void onDownEdge(int parentId, int childId, KQMotionDisplacement& edge) override;
  void onDownEdge(int parentId, int childId, KQOdometryDisplacement& edge) override;

  // Copies each category the walked objects point to, once; commit then
  // writes the objects with these copies.
  void takeCategories();

  // Writes both elements from the copied tree, the trailers, closes both
  // files and renames them over "nodes.xml" and "edges.xml" (nodes first).
  // Only after the walk finished (stopVisit); otherwise, or when a file
  // could not be written, throws KQError and leaves the previous files as
  // they were.
  void commit();

  const std::map<int, std::shared_ptr<WorldObject>>& getNodes() const { return nodes_; }
  const std::vector<Edge>& getEdges() const { return edges_; }

 private:
  // Appends one edge read from a live or fixed displacement; nodes_ holds
  // the parent already (breadth-first order).
  void xAddEdge(int parentId, int childId, DisplacementInterface& edge);
  void xRemoveTemporaryFiles();

  std::string dataDirectory_;
  std::map<int, std::shared_ptr<WorldObject>> nodes_;
  std::vector<Edge> edges_;
  std::string nodesPath_;
  std::string edgesPath_;
  std::ofstream nodesFile_;
  std::unique_ptr<boost::archive::xml_oarchive> nodesArchive_;
  std::ofstream edgesFile_;
  std::unique_ptr<boost::archive::xml_oarchive> edgesArchive_;
  std::map<const ObjectCategory*, std::shared_ptr<ObjectCategory>> categoryCopies_;  // by the original
  bool written_ = false;    // the walk finished: the copy is complete
  bool committed_ = false;  // the files were renamed into place
};

}  // namespace KQ

#endif  // KQ_PERSISTENCE_SAVE_VISITOR_H_
