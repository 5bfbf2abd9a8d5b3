#include "middleware/method_binding.h"

#include <sstream>

namespace KQ {
namespace binding {

namespace {
const char* describe(const KQValue& value) {
  if (value.isArray()) return "array";
  return KQValue::typeName(value.getType());
}
}  // namespace

void throwArgumentError(const ArgumentContext& context, const char* expected, const KQValue& actual) {
  std::ostringstream message;
  message << "argument " << context.index << " must be " << expected << ", not " << describe(actual) << " "
          << actual;
  throw KQArgumentError(context.moduleName, context.methodName, message.str(), "", 0);
}

void throwArgumentCountError(const std::string& moduleName, const std::string& methodName, int expected,
                             int actual) {
  std::ostringstream message;
  message << "expects " << expected << (expected == 1 ? " argument" : " arguments") << ", got " << actual;
  throw KQArgumentError(moduleName, methodName, message.str(), "", 0);
}

}  // namespace binding
}  // namespace KQ
