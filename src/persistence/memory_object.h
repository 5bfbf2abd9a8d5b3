// The value other modules publish under a memory key "Object/" + name, as the
// memory watcher reads it: [name, reference frame, position (x y z, or x y z
// wx wy wz), model, scale (3 numbers), colour (3 numbers)].
//
// Threading: pure.
#ifndef KQ_PERSISTENCE_MEMORY_OBJECT_H_
#define KQ_PERSISTENCE_MEMORY_OBJECT_H_

#include <string>

#include "middleware/value.h"

namespace KQ {

// The numbers are checked too: a text where a float belongs would otherwise
// throw out of the pass.
bool hasMemoryObjectFormat(const KQValue& value);

// The "Display" attribute values of a well-formed object value: 8 [field,
// value] pairs in column order.
KQValue displayValues(const std::string& name, const KQValue& value);

}  // namespace KQ

#endif  // KQ_PERSISTENCE_MEMORY_OBJECT_H_
