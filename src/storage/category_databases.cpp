// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

int KQWorldRepresentation::xCreateDatabaseFromCategory(const std::string&, bool) { throwNotAvailable("xCreateDatabaseFromCategory"); }
int KQWorldRepresentation::xCreateTableFromAttribute(const std::string&, const std::string&) { throwNotAvailable("xCreateTableFromAttribute"); }
void KQWorldRepresentation::xAddSpecialFields(KQValue&, const std::string&, const ko::os::timeval&) const { throwNotAvailable("xAddSpecialFields"); }
void KQWorldRepresentation::xAddPositionsToCategory(const std::string&) { throwNotAvailable("xAddPositionsToCategory"); }
void KQWorldRepresentation::xAddDisplayToCategory(const std::string&) { throwNotAvailable("xAddDisplayToCategory"); }
int KQWorldRepresentation::xFindDatabases(std::vector<std::string>&, std::vector<std::string>&) { throwNotAvailable("xFindDatabases"); }
int KQWorldRepresentation::xLoadDatabases() { throwNotAvailable("xLoadDatabases"); }

}  // namespace KQ
