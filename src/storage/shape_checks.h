// The three shape checks that guard the KQValue arguments of the attribute
// and category operations. They only answer; callers log their refusals.
//   fields:           [[field name, field type], ...], both strings
//   attribute values: [[field name, value], ...]
//   attributes:       [[attribute name, [[field name, value], ...]], ...]
//
// Threading: pure.
#ifndef KQ_STORAGE_SHAPE_CHECKS_H_
#define KQ_STORAGE_SHAPE_CHECKS_H_

#include "middleware/value.h"

namespace KQ {

bool checkFieldsFormat(const KQValue& fields);
// Kept quirk: an element that is not an array but whose size reads as 2 (a
// two-byte string) passes.
bool checkAttributeFieldsFormat(const KQValue& values);
bool checkAttributesFormat(const KQValue& attributes);

}  // namespace KQ

#endif  // KQ_STORAGE_SHAPE_CHECKS_H_
