// Names that become files and tables, and caller text that goes into a
// statement as it stands.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "storage/caller_sql.h"
#include "storage/name_rules.h"

namespace KQ {
namespace {

TEST(NameRules, OnlyPlainFileNamesBecomeCategories) {
  for (const std::string& name : std::vector<std::string>{"Cups", "my cups", "Tassen-2", "a.b", std::string(200, 'c')})
    EXPECT_TRUE(isValidCategoryName(name)) << name;
  for (const std::string& name : std::vector<std::string>{"", ".", "..", ".hidden", "../../etc/x", "a/b", "a\\b", std::string("a\0b", 3),
                                 "tab\there", "del\x7f", std::string(201, 'c')})
    EXPECT_FALSE(isValidCategoryName(name)) << printableName(name);
  EXPECT_EQ("a\\x00b\\n\\\\", printableName(std::string("a\0b\n\\", 5)));
}

TEST(NameRules, SqliteKeepsItsOwnTableNames) {
  for (const std::string& name : std::vector<std::string>{"Display", "order", "a b", "my_sqlite_table"}) EXPECT_TRUE(isValidTableName(name));
  for (const std::string& name : std::vector<std::string>{"", "sqlite_master", "SQLITE_x", "pragma_table_info", std::string("a\0", 2)})
    EXPECT_FALSE(isValidTableName(name)) << printableName(name);
}

TEST(CallerSql, TextStaysInItsPlace) {
  const std::pair<const char*, const char*> cases[] = {
      {"TimeS > 5 AND (colorR < 0.5)", ""},
      {"model = 'a;b -- c /* d )'", ""},
      {"\"odd;name\" = 1 AND [x)] = `y(`", ""},
      {"name = 'it''s'", ""},
      {"1) OR (1", "a \")\" without its \"(\""},
      {"1; DROP TABLE positions", "a \";\" outside a string"},
      {"1 -- AND", "\"--\" outside a string"},
      {"1 /* AND", "\"/*\" outside a string"},
      {"name = 'open", "a quoted text or name that is never closed"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.second, whyCallerSqlEscapes(c.first)) << c.first;
}

}  // namespace
}  // namespace KQ
