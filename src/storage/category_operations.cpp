// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

int KQWorldRepresentation::addAttributeToCategory(const std::string&, const std::string&, const KQValue&) { throwNotAvailable("addAttributeToCategory"); }
int KQWorldRepresentation::createObjectCategory(const std::string&, const bool&) { throwNotAvailable("createObjectCategory"); }
int KQWorldRepresentation::removeObjectCategory(const std::string&) { throwNotAvailable("removeObjectCategory"); }
bool KQWorldRepresentation::objectCategoryExists(const std::string&) { throwNotAvailable("objectCategoryExists"); }
KQValue KQWorldRepresentation::getAttributesFromCategory(const std::string&) { throwNotAvailable("getAttributesFromCategory"); }
std::vector<std::string> KQWorldRepresentation::getObjectsInCategory(const std::string&) { throwNotAvailable("getObjectsInCategory"); }
std::string KQWorldRepresentation::getObjectCategory(const std::string&) { throwNotAvailable("getObjectCategory"); }
int KQWorldRepresentation::xAddAttributeToCategory(const std::string&, const std::string&, const KQValue&) { throwNotAvailable("xAddAttributeToCategory"); }
std::string KQWorldRepresentation::xGetObjectCategory(const std::string&) const { throwNotAvailable("xGetObjectCategory"); }
std::vector<std::string> KQWorldRepresentation::xGetObjectsInCategory(const std::string&) const { throwNotAvailable("xGetObjectsInCategory"); }

}  // namespace KQ
