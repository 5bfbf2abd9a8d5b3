// The world archive: the two Boost.Serialization XML files of the data
// directory that keep the frame tree across runs, "nodes.xml" (root element
// "nodes": the map saved node id -> WorldObject, each category record written
// once and referenced afterwards) and "edges.xml" (root element "edges": the
// saved edges in breadth-first order).
//
// Every Boost.Serialization template is instantiated in world_archive.cpp
// only; this header keeps the library's headers out of its includers.
//
// Reading never trusts the file: a missing, empty, truncated or malformed
// archive, or one whose records do not hold together (no object on node 0,
// an edge to a node that was not saved), is reported as a KQError from
// "load" whose message names the file and what is wrong. The checks run on
// the text before the library sees it: the library crashes on forged class
// or object ids and sizes a vector from a forged count.
//
// Threading: free functions without state; callers serialise access to the
// files (save and load hold the module's save mutex).
#ifndef KQ_PERSISTENCE_WORLD_ARCHIVE_H_
#define KQ_PERSISTENCE_WORLD_ARCHIVE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "persistence/archive_validator.h"
#include "persistence/save_visitor.h"

class WorldObject;

namespace boost {
namespace archive {
class xml_oarchive;
}
}  // namespace boost

namespace KQ {

using SavedNodes = std::map<int, std::shared_ptr<WorldObject>>;
using SavedEdges = std::vector<SaveVisitor::Edge>;

extern const char* const kNodesArchiveName;  // "nodes.xml"
extern const char* const kEdgesArchiveName;  // "edges.xml"

// Write the root element "nodes" / "edges" into an open archive.
void writeNodesArchive(boost::archive::xml_oarchive& archive, const SavedNodes& nodes);
void writeEdgesArchive(boost::archive::xml_oarchive& archive, const SavedEdges& edges);

// Reads the file at `path` and checks its text (checkArchiveText); throws
// KQError naming the file when it is missing, unreadable or not an archive.
std::string readArchiveText(const std::string& path, ArchiveKind kind);

// Checks an archive's text before it is parsed: not empty, an XML document
// that ends with the archive trailer (else "truncated"), and the exact shape
// the writer produces (archive_validator.h). Throws KQError naming `path`.
void checkArchiveText(const std::string& path, const std::string& text, ArchiveKind kind);

// Parse the text of a whole archive file (read by readArchiveText). Throw
// KQError naming `path` when the text is not such an archive.
SavedNodes parseNodesArchive(const std::string& path, const std::string& text);
SavedEdges parseEdgesArchive(const std::string& path, const std::string& text);

// Checks that the records of both files hold together: an object on every
// saved node (node 0 included) and a saved node for every edge's child.
void checkArchiveRecords(const std::string& nodesPath, const SavedNodes& nodes, const std::string& edgesPath,
                         const SavedEdges& edges);

}  // namespace KQ

#endif  // KQ_PERSISTENCE_WORLD_ARCHIVE_H_
