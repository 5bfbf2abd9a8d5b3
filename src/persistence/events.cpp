// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

void KQWorldRepresentation::xAddObjectToDisplayEvent(const std::string&) { throwNotAvailable("xAddObjectToDisplayEvent"); }
void KQWorldRepresentation::xRemoveObjectFromDisplayEvent(const std::string&) { throwNotAvailable("xRemoveObjectFromDisplayEvent"); }

}  // namespace KQ
