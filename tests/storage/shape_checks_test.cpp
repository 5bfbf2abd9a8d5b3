// The three shape checks on the KQValue arguments of the category and
// attribute operations, and what happens to a value that slips past one.
#include <gtest/gtest.h>

#include "module/world_representation.h"
#include "support/world_fixture.h"

namespace KQ {
namespace test {
namespace {

class ShapeChecksTest : public WorldFixture {};

TEST_F(ShapeChecksTest, EmptyArraysPassAndScalarsFail) {
  const KQValue empty = list({});
  // Case: an empty array passes all three checks.
  EXPECT_TRUE(world().xCheckFieldsFormat(empty));
  EXPECT_TRUE(world().xCheckAttributeFieldsFormat(empty));
  EXPECT_TRUE(world().xCheckAttributesFormat(empty));

  // Case: a string, a number and an invalid value fail all three; the
  // string "ab" in particular must not be read as a two-element list.
  for (const KQValue& scalar : {KQValue("ab"), KQValue(3), KQValue(1.5f), KQValue()}) {
    EXPECT_FALSE(world().xCheckFieldsFormat(scalar)) << scalar;
    EXPECT_FALSE(world().xCheckAttributeFieldsFormat(scalar)) << scalar;
    EXPECT_FALSE(world().xCheckAttributesFormat(scalar)) << scalar;
  }
}

TEST_F(ShapeChecksTest, FieldDeclarationsAreTwoStrings) {
  // Case: a type given as a number is no declaration, but is a fine value.
  const KQValue colorAndSize = list({list({"color", "float"}), list({"size", 3})});
  EXPECT_FALSE(world().xCheckFieldsFormat(colorAndSize));
  EXPECT_TRUE(world().xCheckAttributeFieldsFormat(colorAndSize));

  // Case: the first bad element decides, wherever it stands.
  EXPECT_TRUE(world().xCheckFieldsFormat(list({list({"kg", "float"}), list({"note", "text"})})));
  EXPECT_FALSE(world().xCheckFieldsFormat(list({list({"kg", "float"}), list({"note", "text", "extra"})})));
  EXPECT_FALSE(world().xCheckFieldsFormat(list({list({"kg"})})));
  EXPECT_FALSE(world().xCheckFieldsFormat(list({list({1, "float"})})));
  // A two-byte string element is not a pair of strings.
  EXPECT_FALSE(world().xCheckFieldsFormat(list({"kg"})));
}

TEST_F(ShapeChecksTest, ValuesArePairsNamedByAString) {
  // Case: the value of a pair may be of any kind, even a list or nothing.
  EXPECT_TRUE(world().xCheckAttributeFieldsFormat(
      list({list({"kg", 2.5f}), list({"count", 3}), list({"note", "x"}), list({"tags", list({1, 2})}),
            list({"gone", KQValue()})})));

  // Case: a pair not named by a string, or not a pair, fails.
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({list({7, 2.5f})})));
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({list({"kg", 2.5f, 3})})));
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({list({"kg"})})));
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({"abc"})));

  // Case: kept quirk: an element is not first required to be a list, so a
  // two-byte string, whose size reads as 2, passes.
  EXPECT_TRUE(world().xCheckAttributeFieldsFormat(list({"ab"})));
}

TEST_F(ShapeChecksTest, AttributeListsPairANameWithAList) {
  // Case: [["Display", [["colorR", 1.0]]]] passes; the inner pairs are not
  // looked at here.
  EXPECT_TRUE(world().xCheckAttributesFormat(list({list({"Display", list({list({"colorR", 1.0f})})})})));
  EXPECT_TRUE(world().xCheckAttributesFormat(list({list({"Display", list({1, 2, 3})})})));

  // Case: the values must be a list, the name a string, the entry a pair.
  EXPECT_FALSE(world().xCheckAttributesFormat(list({list({"Display", "x"})})));
  EXPECT_FALSE(world().xCheckAttributesFormat(list({list({"Display", KQValue()})})));
  EXPECT_FALSE(world().xCheckAttributesFormat(list({list({1, list({})})})));
  EXPECT_FALSE(world().xCheckAttributesFormat(list({list({"Display"})})));
  EXPECT_FALSE(world().xCheckAttributesFormat(list({"ab"})));
}

TEST_F(ShapeChecksTest, AValueThatSlipsPastTheCheckStoresNothing) {
  //   World
  //   `-- cup1   (Cups)
  ASSERT_EQ(0, world().createObjectCategory("Cups", false));
  ASSERT_EQ(0, world().storeObject("cup1", "World", {0, 0, 0, 0, 0, 0}, "Cups", list({})));
  memory().clearRecords();

  // Case: the two-byte string passes the check, the database refuses the
  // row, and the caller still hears 0 (a refused insert is not reported).
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", list({"ab"})));
  EXPECT_EQ(0, world().select("ObjectName='cup1'", "Cups", "Display", "*").getSize());
  EXPECT_EQ(0, memory().raisedCount(KQWorldRepresentation::displayRequiredEventName_));

  // Case: the database is not left in a broken state: a proper row goes in.
  EXPECT_EQ(0, world().storeObjectAttribute("cup1", "Display", list({list({"colorR", 1.0f})})));
  EXPECT_EQ(1, world().select("ObjectName='cup1'", "Cups", "Display", "*").getSize());
}

}  // namespace
}  // namespace test
}  // namespace KQ
