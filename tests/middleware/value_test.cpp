// KQValue: typed access and its refusals, arrays, equality, and text.
#include "middleware/value.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/checks.h"

namespace KQ {
namespace {

const float kNan = std::numeric_limits<float>::quiet_NaN();

TEST(ValueTest, WrongAccessIsRefusedNamingExpectedAndActual) {
  KQValue text("cup"), number(3), list(std::vector<float>{1.0f, 2.0f});
  KQValue mixed(std::vector<KQValue>{KQValue(1.0f), KQValue(2), KQValue("x")});
  const KQValue& constNumber = number;
  const std::pair<std::function<void()>, const char*> refusals[] = {
      {[&] { text.toFloat(); }, "KQValue.toFloat: expected float, got string"},
      {[&] { KQValue(0.5f).toInt(); }, "KQValue.toInt: expected int, got float"},
      {[&] { number.toBool(); }, "KQValue.toBool: expected bool, got int"},
      {[&] { (void)static_cast<const std::string&>(constNumber); },
       "KQValue.operator const std::string&: expected string, got int"},
      {[&] { mixed.toFloatVector(); }, "KQValue.toFloatVector: element 2: expected float, got string"},
      // The widening goes one way only: a bool is no float.
      {[&] { KQValue(false).toFloat(); }, "KQValue.toFloat: expected float, got bool"},
      {[&] { list[2]; }, "KQValue.operator[]: index 2 out of range for array of size 2"},
      {[&] { KQValue()[0]; }, "KQValue.operator[]: expected array, got invalid"},
      {[&] { list.arraySetSize(-1); }, "KQValue.arraySetSize: size -1 is negative"},
      {[&] { number.arrayPush(KQValue(2)); }, "KQValue.arrayPush: expected array, got int"},
  };
  for (const auto& [access, message] : refusals) EXPECT_EQ(message, test::errorOf(access));
  EXPECT_EQ("[1.0, 2.0]", list.toText());  // a refused access changes nothing
}

TEST(ValueTest, ConstructionAndIntWidening) {
  // Case: a string literal is a string, not a bool; a null C string is "".
  EXPECT_TRUE(KQValue("false").isString());
  EXPECT_EQ("", KQValue(static_cast<const char*>(nullptr)).toString());
  // Case: an int reads as a float; a float list may hold ints.
  EXPECT_EQ(1.0f, KQValue(1).toFloat());
  EXPECT_EQ((std::vector<float>{0.0f, 1.5f}), test::list({0, 1.5f}).toFloatVector());
  // Case: a float reference to an int widens it in place, so writes land.
  KQValue two(2);
  float& ref = two;
  EXPECT_FLOAT_EQ(2.0f, ref);
  ref = 2.5f;
  EXPECT_EQ(KQValue(2.5f), two);
}

TEST(ValueTest, ArraysResizePushAndCopyDeeply) {
  KQValue row;
  row.arraySetSize(2);
  row[0] = "ObjectName";
  row.arraySetSize(3);
  EXPECT_EQ("[\"ObjectName\", <invalid>, <invalid>]", row.toText());
  // Case: pushing onto an invalid value starts an array; an array pushed into itself is copied as it was.
  KQValue self;
  self.arrayPush(KQValue(std::vector<float>{1.0f}));
  self.arrayPush(self);
  EXPECT_EQ("[[1.0], [[1.0]]]", self.toText());
  // Case: a copy is deep; assigning a value one of its own elements (copy and move) reads no freed memory.
  KQValue copy = self;
  copy = copy[1];
  EXPECT_EQ("[[1.0], [[1.0]]]", self.toText());
  copy = std::move(copy[0]);
  EXPECT_EQ("[1.0]", copy.toText());
}

TEST(ValueTest, EqualityHoldsForNanAndSignedZeroSoValuesCanBeKeys) {
  // Case: the int 1 and the float 1.0 differ; NaN equals itself; -0 is 0.
  EXPECT_NE(KQValue(1), KQValue(1.0f));
  EXPECT_EQ(KQValue(kNan), KQValue(kNan));
  EXPECT_EQ(KQValue(-0.0f), KQValue(0.0f));

  // Case: as keys, NaN is one value and -0 is 0.
  EXPECT_EQ(2u, (std::map<KQValue, int>{{KQValue(kNan), 1}, {KQValue(0.0f), 2}, {KQValue(-0.0f), 3}}.size()));
}

TEST(ValueTest, TextIsReadableAndFloatsReadBack) {
  const std::pair<KQValue, const char*> texts[] = {
      {KQValue(), "<invalid>"},
      {KQValue(-0.0f), "-0.0"},
      {KQValue(kNan), "nan"},
      {KQValue("say \"hi\"\n\tback\\slash"), "\"say \\\"hi\\\"\\n\\tback\\\\slash\""},
      {KQValue(std::string("bell\x07 a\0b", 9)), "\"bell\\u0007 a\\u0000b\""},
      {KQValue("caf\xc3\xa9"), "\"caf\xc3\xa9\""},
      {KQValue(std::vector<KQValue>{KQValue(std::vector<float>{1.0f, 0.0f}), KQValue(true)}), "[[1.0, 0.0], true]"},
  };
  for (const auto& [value, text] : texts) EXPECT_EQ(text, value.toText());
  for (float f : {1.0f / 3.0f, 3.14159265f, 123456.789f, 3.4028235e38f, 1.17549435e-38f, 1e-45f, 16777217.0f})
    EXPECT_EQ(f, std::strtof(KQValue(f).toText().c_str(), nullptr)) << KQValue(f);
}

}  // namespace
}  // namespace KQ
