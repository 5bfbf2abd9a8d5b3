// The load path on any text, as load() runs it: the archive's checks, then
// Boost's reader on what passed. A malformed archive is a KQError naming the
// file, never a crash, a leak or an allocation without bound. The first byte
// picks the file kind.
//
// Its seeds are a small archive pair written by the archive's own writer, so
// they follow the format: scripts/fuzz.sh first runs the target with
// KQ_FUZZ_WRITE_SEEDS=<folder>, which writes them there and exits.
#include <boost/archive/xml_oarchive.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "middleware/error.h"
#include "persistence/world_archive.h"
#include "storage/object_category.h"
#include "storage/world_object.h"

namespace {

// Kind byte, then the text the writer gives for `records`, with a stamp.
template <class Records>
void writeSeed(const std::string& path, char kind, void (*write)(boost::archive::xml_oarchive&, const Records&),
               const Records& records) {
  std::ostringstream text;
  {
    boost::archive::xml_oarchive archive(text, 0);
    write(archive, records);
    KQ::writeArchiveStamp(archive, KQ::ArchiveStamp{7, 1700000000, 250});
  }
  std::ofstream(path, std::ios::binary) << kind << text.str();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* folder = std::getenv("KQ_FUZZ_WRITE_SEEDS");
  if (folder == nullptr) return 0;
  // World -- table -- cup: two categories, one with the positions and Display tables.
  ObjectAttribute positions("positions");
  positions.addField("ObjectName", "text");
  positions.addField("TimeS", "int");
  positions.addField("X", "float");
  ObjectAttribute display("Display");
  display.addField("model", "text");
  auto cups = std::make_shared<ObjectCategory>("cups");
  cups->addAttribute(positions);
  cups->addAttribute(display);
  auto frame = std::make_shared<ObjectCategory>("frame");
  frame->addAttribute(positions);
  const KQ::SavedNodes nodes{{0, std::make_shared<WorldObject>("World", frame)},
                             {1, std::make_shared<WorldObject>("table", frame)},
                             {2, std::make_shared<WorldObject>("cup", cups)}};
  const KQ::SavedEdges edges{{0, "World", 1, "table", KQ::Math::Position6D(1, 0, 0.7f, 0, 0, 0)},
                             {1, "table", 2, "cup", KQ::Math::Position6D(0.1f, 0.2f, 0.05f, 0, 0, 1.5f)}};
  writeSeed(std::string(folder) + "/nodes", '\0', KQ::writeNodesArchive, nodes);
  writeSeed(std::string(folder) + "/edges", '\1', KQ::writeEdgesArchive, edges);
  std::exit(0);
}

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
