// The three shape checks as free predicates.
#include "storage/shape_checks.h"

#include <gtest/gtest.h>

#include "support/checks.h"

namespace KQ {
namespace test {
namespace {

TEST(ShapeChecks, EachCheckLooksAtItsOwnShape) {
  struct Case {
    KQValue value;
    bool fields, values, attributes;
  };
  const Case cases[] = {{list({}), true, true, true},
                        // Scalars fail all three; "ab" must not be read as a two-element list.
                        {KQValue("ab"), false, false, false},
                        {KQValue(3), false, false, false},
                        {KQValue(), false, false, false},
                        // A type given as a number is no declaration, but is a fine value.
                        {list({list({"color", "float"}), list({"size", 3})}), false, true, false},
                        {list({list({"color", "float"})}), true, true, false},
                        {list({list({7, 2.5f})}), false, false, false},
                        {list({list({"kg", 2.5f, 3})}), false, false, false},
                        // Kept quirk: a two-byte string element reads as size 2 and passes as a value.
                        {list({"ab"}), false, true, false},
                        {list({"abc"}), false, false, false},
                        // An attribute entry pairs a name with a list; the inner pairs are not looked at.
                        {list({list({"Display", list({1, 2, 3})})}), false, true, true},
                        {list({list({"Display", "x"})}), true, true, false},
                        {list({list({1, list({})})}), false, false, false}};
  for (const Case& c : cases) {
    EXPECT_EQ(c.fields, checkFieldsFormat(c.value)) << c.value;
    EXPECT_EQ(c.values, checkAttributeFieldsFormat(c.value)) << c.value;
    EXPECT_EQ(c.attributes, checkAttributesFormat(c.value)) << c.value;
  }
}

}  // namespace
}  // namespace test
}  // namespace KQ
