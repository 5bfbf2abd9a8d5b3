// The world archive: the two Boost.Serialization XML files of the data
// directory that keep the frame tree across runs, "nodes.xml" (root element
// "nodes": the map saved node id -> WorldObject, each category record written
// once and referenced afterwards) and "edges.xml" (root element "edges": the
// saved edges in breadth-first order). After its record each file carries
// the save's stamp: "saveId", and "timeS"/"timeUS", the time T at which the
// save copied the tree (not the time the file was finished). Both files of
// one save carry the same stamp; archives written before the stamp existed
// lack it and read with T = 0 and id 0.
//
// The pair is always whole. writeWorldArchive writes "nodes.xml.tmp" and
// "edges.xml.tmp" and syncs them, then commits with one atomic rename of the
// marker "archive.commit" (holding the stamp) into place; only then are the
// two files renamed over "nodes.xml" and "edges.xml" and the marker removed.
// A crash before the marker's rename leaves the previous pair (the ".tmp"
// files are ignored and removed by the next save); a crash after it leaves
// a committed pair whose files are partly still ".tmp": readWorldArchive
// reads those in place of the old ones, and the next save first finishes
// the renames. So a reader always gets one complete save, the previous or
// the new one, never a new nodes.xml beside an old edges.xml; a pair whose
// stamps differ anyway (files copied by hand) is refused as broken.
//
// Every Boost.Serialization template is instantiated in world_archive.cpp
// only; this header keeps the library's headers out of its includers.
//
// Reading never trusts the file: a missing, empty, truncated or malformed
// archive, or one whose records do not hold together (no object on node 0,
// an edge to a node that was not saved), is reported as a KQError from
// "load" whose message names the file and what is wrong. The checks run on
// the text before the library sees it: the library crashes on forged class
// or object ids and sizes a vector from a forged count. Reading changes
// nothing on disk.
//
// Threading: writeWorldArchive serialises its callers on a mutex of its own
// (two saves never write the same ".tmp" files at once) and takes no lock
// of the module: it may run with or without the graph lock. Reading takes
// no lock; callers do not read while their process writes.
#ifndef KQ_PERSISTENCE_WORLD_ARCHIVE_H_
#define KQ_PERSISTENCE_WORLD_ARCHIVE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
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

extern const char* const kNodesArchiveName;   // "nodes.xml"
extern const char* const kEdgesArchiveName;   // "edges.xml"
extern const char* const kArchiveCommitName;  // "archive.commit"
extern const char* const kArchiveTemporarySuffix;  // ".tmp"

// Which save wrote a file, and when it copied the tree (T, seconds and
// microseconds since the epoch).
struct ArchiveStamp {
  uint64_t saveId = 0;
  int64_t timeS = 0;
  int64_t timeUS = 0;
};

// A stamp for a save copying the tree now; ids grow with each call.
ArchiveStamp newArchiveStamp();

// One save read back.
struct WorldArchive {
  SavedNodes nodes;
  SavedEdges edges;
  ArchiveStamp stamp;
};

// Writes the pair for `stamp` as described above. Throws KQError from
// "save" naming the file when one cannot be written; the previous pair then
// stays the one a reader gets (or, after the commit point, the new one).
void writeWorldArchive(const std::string& dataDirectory, const SavedNodes& nodes, const SavedEdges& edges,
                       const ArchiveStamp& stamp);

// The last complete save of the data directory; nothing when it holds no
// archive at all. Throws KQError from "load" naming the file and the fault
// when the archive is broken (one file missing, malformed, or the two from
// different saves).
std::optional<WorldArchive> readWorldArchive(const std::string& dataDirectory);

// Write the root element "nodes" / "edges" into an open archive, then the
// stamp when one is given.
void writeNodesArchive(boost::archive::xml_oarchive& archive, const SavedNodes& nodes);
void writeEdgesArchive(boost::archive::xml_oarchive& archive, const SavedEdges& edges);
void writeArchiveStamp(boost::archive::xml_oarchive& archive, const ArchiveStamp& stamp);

// Reads the file at `path` and checks its text (checkArchiveText); throws
// KQError naming the file when it is missing, unreadable or not an archive.
std::string readArchiveText(const std::string& path, ArchiveKind kind, bool* stamped = nullptr);

// Checks an archive's text before it is parsed: not empty, an XML document
// that ends with the archive trailer (else "truncated"), and the exact shape
// the writer produces (archive_validator.h). Throws KQError naming `path`.
// `stamped` as validateArchiveText's.
void checkArchiveText(const std::string& path, const std::string& text, ArchiveKind kind,
                      bool* stamped = nullptr);

// Parse the text of a whole archive file (read by readArchiveText). Throw
// KQError naming `path` when the text is not such an archive. `stamp`, when
// given, receives the file's stamp (zeros when it has none).
SavedNodes parseNodesArchive(const std::string& path, const std::string& text, ArchiveStamp* stamp = nullptr);
SavedEdges parseEdgesArchive(const std::string& path, const std::string& text, ArchiveStamp* stamp = nullptr);

// Checks that the records of both files hold together: an object on every
// saved node (node 0 included) and a saved node for every edge's child.
void checkArchiveRecords(const std::string& nodesPath, const SavedNodes& nodes, const std::string& edgesPath,
                         const SavedEdges& edges);

}  // namespace KQ

#endif  // KQ_PERSISTENCE_WORLD_ARCHIVE_H_
