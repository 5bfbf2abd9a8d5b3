// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

int KQWorldRepresentation::storeObjectAttribute(const std::string&, const std::string&, const KQValue&) { throwNotAvailable("storeObjectAttribute"); }
int KQWorldRepresentation::updateAttribute(const std::string&, const std::string&, const std::string&, const KQValue&) { throwNotAvailable("updateAttribute"); }
int KQWorldRepresentation::deleteObjectAttribute(const std::string&, const std::string&, const std::string&) { throwNotAvailable("deleteObjectAttribute"); }
KQValue KQWorldRepresentation::getObjectAttributes(const std::string&) { throwNotAvailable("getObjectAttributes"); }
KQValue KQWorldRepresentation::getObjectAttributeValues(const std::string&, const std::string&, const int&) { throwNotAvailable("getObjectAttributeValues"); }
KQValue KQWorldRepresentation::getObjectLatestAttributes(const std::string&, const int&) { throwNotAvailable("getObjectLatestAttributes"); }
KQValue KQWorldRepresentation::select(const std::string&, const std::string&, const std::string&, const std::string&) { throwNotAvailable("select"); }
KQValue KQWorldRepresentation::selectWithOrder(const std::string&, const std::string&, const std::string&, const std::string&, const std::string&) { throwNotAvailable("selectWithOrder"); }
int KQWorldRepresentation::clearOldPositions(const std::string&, const int&) { throwNotAvailable("clearOldPositions"); }
int KQWorldRepresentation::resetDatabase(const std::string&) { throwNotAvailable("resetDatabase"); }
int KQWorldRepresentation::beginTransaction(const std::string&) { throwNotAvailable("beginTransaction"); }
int KQWorldRepresentation::endTransaction(const std::string&) { throwNotAvailable("endTransaction"); }
int KQWorldRepresentation::xStoreAttribute(KQDatabaseManager&, const ko::os::timeval&, const std::string&, const std::string&, const KQValue&) { throwNotAvailable("xStoreAttribute"); }
int KQWorldRepresentation::xUpdateAttribute(KQDatabaseManager&, const ko::os::timeval&, const std::string&, const std::string&, const std::string&, const KQValue&) { throwNotAvailable("xUpdateAttribute"); }
int KQWorldRepresentation::xDeleteAttribute(const std::string&, const std::string&, const std::string&) { throwNotAvailable("xDeleteAttribute"); }
void KQWorldRepresentation::xClearAllAttributes(int) { throwNotAvailable("xClearAllAttributes"); }

}  // namespace KQ
