#include "middleware/error.h"

namespace KQ {

namespace {

// "<module>.<method>: <message>"; a missing module or method drops its piece
// and its separator rather than leaving a stray "." or ": ".
std::string composeText(const std::string& module, const std::string& method, const std::string& message) {
  std::string where = module;
  if (!method.empty()) {
    if (!where.empty()) where += '.';
    where += method;
  }
  if (where.empty()) return message;
  return where + ": " + message;
}

}  // namespace

KQError::KQError(const std::string& moduleName, const std::string& methodName, const std::string& message,
                 const char* file, unsigned line)
    : module_(moduleName),
      method_(methodName),
      message_(message),
      file_(file ? file : ""),
      line_(line),
      text_(composeText(moduleName, methodName, message)) {}

}  // namespace KQ
