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

TEST_F(ShapeChecksTest, EachCheckLooksAtItsOwnShape) {
  // Case: a type given as a number is no declaration, but is a fine value.
  const KQValue colorAndSize = list({list({"color", "float"}), list({"size", 3})});
  EXPECT_FALSE(world().xCheckFieldsFormat(colorAndSize));
  EXPECT_TRUE(world().xCheckAttributeFieldsFormat(colorAndSize));

  // Case: a pair not named by a string, or not a pair, is no value.
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({list({7, 2.5f})})));
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({list({"kg", 2.5f, 3})})));
  EXPECT_FALSE(world().xCheckAttributeFieldsFormat(list({"abc"})));

  // Case: kept quirk: a value element is not first required to be a list,
  // so a two-byte string, whose size reads as 2, passes (and is not indexed).
  EXPECT_TRUE(world().xCheckAttributeFieldsFormat(list({"ab"})));
  EXPECT_FALSE(world().xCheckFieldsFormat(list({"ab"})));

  // Case: an attribute entry pairs a name with a list; the inner pairs are
  // not looked at here.
  EXPECT_TRUE(world().xCheckAttributesFormat(list({list({"Display", list({list({"colorR", 1.0f})})})})));
  EXPECT_TRUE(world().xCheckAttributesFormat(list({list({"Display", list({1, 2, 3})})})));
  EXPECT_FALSE(world().xCheckAttributesFormat(list({list({"Display", "x"})})));
  EXPECT_FALSE(world().xCheckAttributesFormat(list({list({1, list({})})})));
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
