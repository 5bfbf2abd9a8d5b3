// Logging shorthand for the module: every line goes to the category
// "KQWorldRepresentation" with the reporting function's name, an empty file
// name and line 0.
#ifndef KQ_MODULE_MODULE_LOG_H_
#define KQ_MODULE_MODULE_LOG_H_

#include "middleware/log.h"

namespace KQ {
extern const char* const kModuleLogCategory;  // "KQWorldRepresentation"
}

#define KQWR_LOG(level, function) KO_LOG((level), ::KQ::kModuleLogCategory, "", (function), 0)
#define KQWR_ERROR(function) KQWR_LOG(::ko::log::error, function)
#define KQWR_WARNING(function) KQWR_LOG(::ko::log::warning, function)
#define KQWR_VERBOSE(function) KQWR_LOG(::ko::log::verbose, function)

#endif  // KQ_MODULE_MODULE_LOG_H_
