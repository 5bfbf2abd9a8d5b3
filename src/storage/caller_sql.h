// Caller text that goes into a statement as it stands (a condition after
// WHERE, an ordering after ORDER BY, a column list after SELECT) must stay
// inside its place: no second statement, no comment that hides the rest, no
// parenthesis that closes the one the module opened around it.
//
// Threading: pure.
#ifndef KQ_STORAGE_CALLER_SQL_H_
#define KQ_STORAGE_CALLER_SQL_H_

#include <string>

namespace KQ {

// "" when the text stays in its place; else why not. Looks outside string
// literals and quoted names ('…', "…", […], `…`) for ";", "--", "/*", and
// a ")" without its "(", and refuses a literal or name never closed.
std::string whyCallerSqlEscapes(const std::string& text);

}  // namespace KQ

#endif  // KQ_STORAGE_CALLER_SQL_H_
