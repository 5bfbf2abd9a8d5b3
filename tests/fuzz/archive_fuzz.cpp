// The load path on any text, as load() runs it: the archive's checks, then
// Boost's reader on what passed. A malformed archive is a KQError naming the
// file, never a crash, a leak or an allocation without bound. The first byte
// picks the file kind.
#include <cstddef>
#include <cstdint>
#include <string>

#include "middleware/error.h"
#include "persistence/world_archive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    if (data[0] & 1) {
      KQ::checkArchiveText("edges.xml", text, KQ::ArchiveKind::kEdges);
      KQ::parseEdgesArchive("edges.xml", text);
    } else {
      KQ::checkArchiveText("nodes.xml", text, KQ::ArchiveKind::kNodes);
      KQ::parseNodesArchive("nodes.xml", text);
    }
  } catch (const KQ::KQError&) {
  }
  return 0;
}
