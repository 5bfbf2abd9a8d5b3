// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

int KQWorldRepresentation::storeObject(const std::string&, const std::string&, const std::vector<float>&, const std::string&, const KQValue&) { throwNotAvailable("storeObject"); }
int KQWorldRepresentation::storeObjectWithReference(const std::string&, const std::string&, const std::string&, const std::vector<float>&, const std::string&, const KQValue&) { throwNotAvailable("storeObjectWithReference"); }
int KQWorldRepresentation::clearObject(const std::string&) { throwNotAvailable("clearObject"); }
bool KQWorldRepresentation::findObject(const std::string&) { throwNotAvailable("findObject"); }
std::vector<std::string> KQWorldRepresentation::getObjectNames() { throwNotAvailable("getObjectNames"); }
std::vector<std::string> KQWorldRepresentation::getChildrenNames(const std::string&) { throwNotAvailable("getChildrenNames"); }
std::string KQWorldRepresentation::getObjectParentName(const std::string&) { throwNotAvailable("getObjectParentName"); }
std::string KQWorldRepresentation::getRootName() { throwNotAvailable("getRootName"); }
std::vector<std::string> KQWorldRepresentation::xGetObjectNames() const { throwNotAvailable("xGetObjectNames"); }
std::vector<std::string> KQWorldRepresentation::xGetChildren(const std::string&) const { throwNotAvailable("xGetChildren"); }
std::vector<std::string> KQWorldRepresentation::xGetDescendantsNames(int) const { throwNotAvailable("xGetDescendantsNames"); }
std::string KQWorldRepresentation::xGetObjectParentName(const std::string&) const { throwNotAvailable("xGetObjectParentName"); }
int KQWorldRepresentation::xFindNodeId(const std::string&) const { throwNotAvailable("xFindNodeId"); }
int KQWorldRepresentation::xStoreObject(const ko::os::timeval&, const std::string&, const std::string&, const std::vector<float>&, const std::string&, const KQValue&) { throwNotAvailable("xStoreObject"); }

}  // namespace KQ
