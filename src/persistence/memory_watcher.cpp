// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

void KQWorldRepresentation::startMemoryCheck(const int&) { throwNotAvailable("startMemoryCheck"); }
void KQWorldRepresentation::stopMemoryCheck() { throwNotAvailable("stopMemoryCheck"); }
void KQWorldRepresentation::xCheckMemory() { throwNotAvailable("xCheckMemory"); }
std::string KQWorldRepresentation::xGetObjectNameFromMemoryKey(const std::string&, const std::string&) const { throwNotAvailable("xGetObjectNameFromMemoryKey"); }

}  // namespace KQ
