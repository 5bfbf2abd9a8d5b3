// Placeholder for methods whose subsystem has not landed yet: they raise a
// KQError saying so instead of doing nothing.
#ifndef KQ_MODULE_NOT_AVAILABLE_H_
#define KQ_MODULE_NOT_AVAILABLE_H_

#include <string>

#include "middleware/error.h"

namespace KQ {
[[noreturn]] inline void throwNotAvailable(const std::string& method) {
  throw KQError("KQWorldRepresentation", method, "This method is not available yet.", "", 0);
}
}  // namespace KQ

#endif  // KQ_MODULE_NOT_AVAILABLE_H_
