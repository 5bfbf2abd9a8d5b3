// Checks the text of a world archive file against the exact shape that the
// archive's writer produces, before Boost.Serialization reads it.
//
// Why: the library trusts the bookkeeping it finds in a file. A class id out
// of sequence or an object reference to an object of another type makes it
// index past its tables or hand one record's memory to another type's
// pointer, which crashes the process instead of raising an error. So every
// element, its place, its attributes (class ids in sequence and used with
// the type they were declared for, tracking levels, versions, object ids in
// sequence, references to earlier objects of the same type) and every
// collection's count are checked here first; only text that passes reaches
// the library.
//
// The expected shapes (element names in order; records as in
// world_archive.cpp):
//   nodes: count, item_version, item* {first, second {px {name, category {px
//          {name, attributeNames, attributes {item* {name, fieldNames,
//          fields {item* {name, type}}}}}}}}}
//   edges: count, item_version, item* {parentId, parentName, childId,
//          childName, position {x, y, z, wx, wy, wz}}
// each followed by the save stamp: saveId, timeS, timeUS (unsigned
// integers), which archives written before the stamp existed lack.
//
// Threading: a pure function of its arguments.
#ifndef KQ_PERSISTENCE_ARCHIVE_VALIDATOR_H_
#define KQ_PERSISTENCE_ARCHIVE_VALIDATOR_H_

#include <string>

namespace KQ {

enum class ArchiveKind { kNodes, kEdges };

// The first fault found in `text` as a short phrase ("element <foo> where
// <name> belongs"), or the empty string when the text has the writer's shape.
// `stamped`, when given, says whether the text carries the save stamp.
std::string validateArchiveText(const std::string& text, ArchiveKind kind, bool* stamped = nullptr);

}  // namespace KQ

#endif  // KQ_PERSISTENCE_ARCHIVE_VALIDATOR_H_
