// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

std::vector<float> KQWorldRepresentation::getPosition6DAtTime(const std::string&, const std::string&, const int&, const int&) { throwNotAvailable("getPosition6DAtTime"); }
KQValue KQWorldRepresentation::getPositionAtTime(const std::string&, const std::string&, const int&, const int&) { throwNotAvailable("getPositionAtTime"); }

}  // namespace KQ
