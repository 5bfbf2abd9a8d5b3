// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

int KQWorldRepresentation::save() { throwNotAvailable("save"); }
int KQWorldRepresentation::load() { throwNotAvailable("load"); }
void KQWorldRepresentation::xLoadGraph() { throwNotAvailable("xLoadGraph"); }

}  // namespace KQ
