// Which names may become files and tables. A category name becomes the file
// data folder + "/" + name + ".sqlite", so it must stay one plain file name
// inside that folder; an attribute or field name becomes a table or column,
// so it must not be one SQLite keeps for itself.
//
// Threading: pure.
#ifndef KQ_STORAGE_NAME_RULES_H_
#define KQ_STORAGE_NAME_RULES_H_

#include <string>

namespace KQ {

// Not empty, at most 200 bytes, no "/", "\", NUL or other control
// character, not starting with "." (so neither "." nor "..").
bool isValidCategoryName(const std::string& name);

// Not empty, no NUL, not starting with "sqlite_" or "pragma_" (any case).
bool isValidTableName(const std::string& name);

// The name with control characters, DEL and "\" written as escapes (\n, \t,
// \xNN, \\), for log lines.
std::string printableName(const std::string& name);

}  // namespace KQ

#endif  // KQ_STORAGE_NAME_RULES_H_
