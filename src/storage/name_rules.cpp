#include "storage/name_rules.h"

#include <cctype>
#include <cstdio>

namespace KQ {

namespace {

constexpr std::size_t kMaxCategoryNameBytes = 200;

bool startsWithNoCase(const std::string& text, const char* prefix) {
  std::size_t i = 0;
  for (; prefix[i] != '\0'; ++i) {
    if (i >= text.size() || std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  }
  return true;
}

}  // namespace

bool isValidCategoryName(const std::string& name) {
  if (name.empty() || name.size() > kMaxCategoryNameBytes || name[0] == '.') return false;
  for (char c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '/' || c == '\\' || byte < 0x20 || byte == 0x7f) return false;
  }
  return true;
}

bool isValidTableName(const std::string& name) {
  if (name.empty() || name.find('\0') != std::string::npos) return false;
  return !startsWithNoCase(name, "sqlite_") && !startsWithNoCase(name, "pragma_");
}

std::string printableName(const std::string& name) {
  std::string out;
  for (char c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace KQ
