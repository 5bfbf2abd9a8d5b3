// The three shape checks as free predicates, and what happens to a value
// that slips past one.
#include <gtest/gtest.h>

#include "storage/shape_checks.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

TEST(ShapeChecks, EachCheckLooksAtItsOwnShape) {
  struct Case {
    KQValue value;
    bool fields, values, attributes;
  };
  const Case cases[] = {
      {list({}), true, true, true},
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
      {list({list({1, list({})})}), false, false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.fields, checkFieldsFormat(c.value)) << c.value;
    EXPECT_EQ(c.values, checkAttributeFieldsFormat(c.value)) << c.value;
    EXPECT_EQ(c.attributes, checkAttributesFormat(c.value)) << c.value;
  }
}

class ShapeChecksTest : public WorldFixture {};

TEST_F(ShapeChecksTest, AValueThatSlipsPastTheCheckStoresNothing) {
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", {0, 0, 0, 0, 0, 0}, "Cups", list({})));
  memory().clearRecords();
  // Case: the database refuses the two-byte string; the caller still hears 0.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", list({"ab"})));
  EXPECT_EQ(0, world().select("ObjectName='cup1'", "Cups", "Display", "*").getSize());
  EXPECT_EQ(0, memory().raisedCount(KQWorldRepresentation::displayRequiredEventName_));
  // Case: the database is not left broken: a proper row goes in.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", list({list({"colorR", 1.0f})})));
  EXPECT_EQ(1, world().select("ObjectName='cup1'", "Cups", "Display", "*").getSize());
}

}  // namespace
}  // namespace test
}  // namespace KQ
