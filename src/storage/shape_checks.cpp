// Placeholder definitions until this subsystem lands.
#include "module/not_available.h"
#include "module/world_representation.h"

namespace KQ {

bool KQWorldRepresentation::xCheckFieldsFormat(const KQValue&) const { throwNotAvailable("xCheckFieldsFormat"); }
bool KQWorldRepresentation::xCheckAttributeFieldsFormat(const KQValue&) const { throwNotAvailable("xCheckAttributeFieldsFormat"); }
bool KQWorldRepresentation::xCheckAttributesFormat(const KQValue&) const { throwNotAvailable("xCheckAttributesFormat"); }

}  // namespace KQ
