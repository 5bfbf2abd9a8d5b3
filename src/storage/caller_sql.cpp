#include "storage/caller_sql.h"

namespace KQ {

std::string whyCallerSqlEscapes(const std::string& text) {
  int depth = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    if (c == '\'' || c == '"' || c == '`' || c == '[') {
      const char close = c == '[' ? ']' : c;
      std::size_t end = i + 1;
      for (;;) {
        if (end >= text.size()) return "a quoted text or name that is never closed";
        if (text[end] != close) {
          ++end;
        } else if (close != ']' && end + 1 < text.size() && text[end + 1] == close) {
          end += 2;  // a doubled quote stands for one; brackets have no escape
        } else {
          break;
        }
      }
      i = end;
    } else if (c == ';') {
      return "a \";\" outside a string";
    } else if (c == '-' && next == '-') {
      return "\"--\" outside a string";
    } else if (c == '/' && next == '*') {
      return "\"/*\" outside a string";
    } else if (c == '(') {
      ++depth;
    } else if (c == ')' && --depth < 0) {
      return "a \")\" without its \"(\"";
    }
  }
  return "";
}

}  // namespace KQ
