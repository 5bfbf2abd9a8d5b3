// Quoting of table and column names for the SQL this system writes itself:
// double quotes around the name, a double quote inside it doubled, so that
// any attribute or field name stays one identifier.
#ifndef KQ_STORAGE_SQL_IDENTIFIER_H_
#define KQ_STORAGE_SQL_IDENTIFIER_H_

#include <string>

namespace KQ {

inline std::string quoteSqlIdentifier(const std::string& name) {
  std::string quoted = "\"";
  for (char c : name) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  quoted += '"';
  return quoted;
}

}  // namespace KQ

#endif  // KQ_STORAGE_SQL_IDENTIFIER_H_
