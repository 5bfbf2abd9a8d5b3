// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

int KQWorldRepresentation::updatePosition(const std::string&, const std::vector<float>&, const bool&) { throwNotAvailable("updatePosition"); }
int KQWorldRepresentation::updatePositionWithReference(const std::string&, const std::string&, const std::vector<float>&, const bool&) { throwNotAvailable("updatePositionWithReference"); }
KQValue KQWorldRepresentation::getPosition(const std::string&, const std::string&) { throwNotAvailable("getPosition"); }
std::vector<float> KQWorldRepresentation::getPosition6D(const std::string&, const std::string&) { throwNotAvailable("getPosition6D"); }
void KQWorldRepresentation::xGetPosition(const std::string&, const std::string&, std::vector<float>&, std::vector<float>&) { throwNotAvailable("xGetPosition"); }
int KQWorldRepresentation::xUpdatePosition(const std::string&, const std::vector<float>&, bool) { throwNotAvailable("xUpdatePosition"); }
void KQWorldRepresentation::xStorePosition(KQDatabaseManager&, const std::string&, const std::string&, const std::vector<float>&, const std::vector<float>&, const ko::os::timeval&) { throwNotAvailable("xStorePosition"); }

}  // namespace KQ
