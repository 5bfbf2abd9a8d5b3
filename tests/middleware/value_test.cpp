// KQValue: typed access and its refusals, arrays, equality and order, and the
// text that ends up inside log lines.
#include "middleware/value.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "middleware/error.h"

namespace KQ {
namespace {

// Runs `access` and returns the KQError's what(), or a note that none came.
template <class F>
std::string errorText(F&& access) {
  try {
    access();
  } catch (const KQError& e) {
    EXPECT_EQ("KQValue", e.getModuleName());
    return e.what();
  } catch (const std::exception& e) {
    return std::string("other exception: ") + e.what();
  }
  return "no error";
}

TEST(ValueTest, EachConstructorGivesItsTypeAndContent) {
  // Case: the default value is invalid and is what "no result" means.
  EXPECT_FALSE(KQValue().isValid());
  EXPECT_EQ(0, KQValue().getSize());


  // Case: a string literal is a string, not a bool (the pointer conversion
  // must not win).
  EXPECT_TRUE(KQValue("false").isString());

  // Case: a null C string gives an empty string instead of a crash.
  const char* nothing = nullptr;
  EXPECT_EQ("", KQValue(nothing).toString());

  // Case: vectors become arrays in the same order; the empty vector of
  // strings is an empty array (the first display event carries one).
  KQValue floats(std::vector<float>{1.0f, -2.0f, 3.5f});
  ASSERT_TRUE(floats.isArray());
  EXPECT_EQ((std::vector<float>{1.0f, -2.0f, 3.5f}), floats.toFloatVector());
  KQValue names(std::vector<std::string>{"b", "a"});
  EXPECT_EQ((std::vector<std::string>{"b", "a"}), names.toStringVector());
  KQValue empty(std::vector<std::string>{});
  EXPECT_TRUE(empty.isArray());
  EXPECT_EQ(0, empty.getSize());
  EXPECT_EQ("[]", empty.toText());
}

TEST(ValueTest, WrongTypeAccessNamesExpectedAndActualType) {
  KQValue text("cup");
  KQValue number(3);
  KQValue ratio(0.5f);
  const KQValue& constNumber = number;

  // Case: the named accessors.
  EXPECT_EQ("KQValue.toFloat: expected float, got string", errorText([&] { text.toFloat(); }));
  EXPECT_EQ("KQValue.toInt: expected int, got float", errorText([&] { ratio.toInt(); }));
  EXPECT_EQ("KQValue.toBool: expected bool, got int", errorText([&] { number.toBool(); }));
  EXPECT_EQ("KQValue.toString: expected string, got int", errorText([&] { number.toString(); }));
  EXPECT_EQ("KQValue.toFloatVector: expected array, got string", errorText([&] { text.toFloatVector(); }));

  // Case: the conversion operators the module's code uses.
  EXPECT_EQ("KQValue.operator int&: expected int, got string", errorText([&] {
              int& i = text;
              (void)i;
            }));
  EXPECT_EQ("KQValue.operator const std::string&: expected string, got int", errorText([&] {
              const std::string& s = constNumber;
              (void)s;
            }));

  // Case: a float list with one bad element says which one.
  KQValue mixed(std::vector<KQValue>{KQValue(1.0f), KQValue(2), KQValue("x")});
  EXPECT_EQ("KQValue.toFloatVector: element 2: expected float, got string",
            errorText([&] { mixed.toFloatVector(); }));
  EXPECT_EQ("KQValue.toStringVector: element 0: expected string, got float",
            errorText([&] { mixed.toStringVector(); }));

  // Case: a refused access leaves the value as it was.
  EXPECT_EQ("cup", text.toString());
  EXPECT_EQ(3, number.toInt());
}

TEST(ValueTest, IntIsAcceptedWhereAFloatIsMeant) {
  // Case: by value, an int reads as a float and stays an int.
  KQValue one(1);
  EXPECT_FLOAT_EQ(1.0f, one.toFloat());
  EXPECT_TRUE(one.isInt());

  // Case: a float list may hold ints ([0, 0, 1.5] written by a caller).
  KQValue list(std::vector<KQValue>{KQValue(0), KQValue(0), KQValue(1.5f)});
  std::vector<float> floats = list;
  EXPECT_EQ((std::vector<float>{0.0f, 0.0f, 1.5f}), floats);

  // Case: a float reference to an int widens the value in place, so that
  // writing through the reference lands in the value.
  KQValue two(2);
  float& ref = two;
  EXPECT_FLOAT_EQ(2.0f, ref);
  ref = 2.5f;
  EXPECT_TRUE(two.isFloat());
  EXPECT_FLOAT_EQ(2.5f, two.toFloat());

  // Case: the widening goes one way only: a bool is no float.
  EXPECT_EQ("KQValue.toFloat: expected float, got bool", errorText([] { KQValue(false).toFloat(); }));
}

TEST(ValueTest, ArraysGrowShrinkAndPush) {
  // Case: setting a size on an invalid value gives invalid elements.
  KQValue row;
  row.arraySetSize(3);
  ASSERT_TRUE(row.isArray());
  EXPECT_EQ(3, row.getSize());
  EXPECT_FALSE(row[2].isValid());

  // Case: growing and shrinking keep the elements that stay.
  row[0] = "ObjectName";
  row[1] = 12;
  row.arraySetSize(5);
  EXPECT_EQ("[\"ObjectName\", 12, <invalid>, <invalid>, <invalid>]", row.toText());
  row.arraySetSize(0);
  EXPECT_TRUE(row.isArray());
  EXPECT_EQ("[]", row.toText());

  // Case: a negative size is refused and the value is kept.
  KQValue kept(std::vector<float>{1.0f});
  EXPECT_EQ("KQValue.arraySetSize: size -1 is negative", errorText([&] { kept.arraySetSize(-1); }));
  EXPECT_EQ("[1.0]", kept.toText());

  // Case: pushing onto an invalid value starts an array of one; onto an array
  // it appends; onto a scalar it is refused (no silent loss of the scalar).
  KQValue built;
  built.arrayPush(KQValue("a"));
  built.arrayPush(KQValue(std::vector<float>{0.5f}));
  EXPECT_EQ("[\"a\", [0.5]]", built.toText());
  KQValue number(1);
  EXPECT_EQ("KQValue.arrayPush: expected array, got int", errorText([&] { number.arrayPush(KQValue(2)); }));
  EXPECT_EQ(1, number.toInt());

  // Case: pushing an array into itself copies it as it was.
  KQValue self(std::vector<float>{1.0f});
  self.arrayPush(self);
  EXPECT_EQ("[1.0, [1.0]]", self.toText());
}

TEST(ValueTest, ElementAccessIsChecked) {
  KQValue list(std::vector<float>{1.0f, 2.0f});
  const KQValue& constList = list;

  // Case: out of range either way, const or not.
  EXPECT_EQ("KQValue.operator[]: index 2 out of range for array of size 2", errorText([&] { list[2]; }));
  EXPECT_EQ("KQValue.operator[]: index -1 out of range for array of size 2", errorText([&] { constList[-1]; }));

  // Case: indexing a scalar or an invalid value.
  EXPECT_EQ("KQValue.operator[]: expected array, got string", errorText([] { KQValue("abc")[0]; }));
  EXPECT_EQ("KQValue.operator[]: expected array, got invalid", errorText([] { KQValue()[0]; }));

  list[1] = "two";
  EXPECT_EQ("[1.0, \"two\"]", list.toText());
}

TEST(ValueTest, CopiesAreDeepAndAliasingIsSafe) {
  // Case: changing a nested element of a copy leaves the original alone.
  KQValue pose;
  pose.arrayPush(KQValue(std::vector<float>{1.0f, 0.0f, 0.0f, 0.0f}));
  pose.arrayPush(KQValue(std::vector<float>{0.1f, 0.2f, 0.3f}));
  KQValue copy = pose;
  copy[1][0] = 9.0f;
  EXPECT_FLOAT_EQ(0.1f, pose[1][0].toFloat());

  // Case: a value assigned one of its own elements (copy and move) ends as
  // that element, without reading freed memory.
  KQValue outer = pose;
  outer = outer[1];
  EXPECT_EQ("[0.1, 0.2, 0.3]", outer.toText());
  KQValue moved = pose;
  moved = std::move(moved[0]);
  EXPECT_EQ("[1.0, 0.0, 0.0, 0.0]", moved.toText());

  // Case: a moved-from value is invalid, not half an array.
  KQValue source(std::vector<float>{1.0f});
  KQValue target(std::move(source));
  EXPECT_FALSE(source.isValid());  // NOLINT(bugprone-use-after-move): documented state
  EXPECT_EQ("[1.0]", target.toText());

}

TEST(ValueTest, EqualityNeedsSameTypeAndContent) {
  EXPECT_NE(KQValue(3), KQValue(4));
  // Case: the int 1 and the float 1.0 are different values.
  EXPECT_NE(KQValue(1), KQValue(1.0f));
  EXPECT_NE(KQValue(true), KQValue(1));
  EXPECT_NE(KQValue("1"), KQValue(1));
  // Case: arrays compare element by element, nested too.
  KQValue a(std::vector<KQValue>{KQValue(1), KQValue(std::vector<float>{2.0f})});
  KQValue b(std::vector<KQValue>{KQValue(1), KQValue(std::vector<float>{2.0f})});
  EXPECT_EQ(a, b);
  b[1][0] = 2.5f;
  EXPECT_NE(a, b);
  EXPECT_NE(KQValue(std::vector<float>{}), KQValue());
  // Case: a NaN equals itself, so that a copied value equals its original.
  KQValue nan(std::numeric_limits<float>::quiet_NaN());
  KQValue nanCopy = nan;
  EXPECT_EQ(nan, nanCopy);
  // Case: -0.0 and 0.0 are the same number.
  EXPECT_EQ(KQValue(-0.0f), KQValue(0.0f));
}

TEST(ValueTest, OrderIsStrictAndWeakSoValuesCanBeKeys) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  std::vector<KQValue> values = {KQValue(), KQValue(true), KQValue(-1), KQValue(2), KQValue(-inf), KQValue(-0.0f),
                                 KQValue(0.0f), KQValue(1.5f), KQValue(nan), KQValue(""), KQValue("a"),
                                 KQValue(std::vector<float>{}), KQValue(std::vector<float>{1.0f, 0.0f}),
                                 KQValue(std::vector<float>{nan}), KQValue(std::vector<float>{2.0f})};

  // Case: irreflexive, asymmetric, transitive, and "neither is less" means
  // equal; NaN included, where a plain float < would break all of these.
  for (const KQValue& a : values) {
    EXPECT_FALSE(a < a) << a;
    for (const KQValue& b : values) {
      if (a < b) {
        EXPECT_FALSE(b < a) << a << " " << b;
      }
      EXPECT_EQ(!(a < b) && !(b < a), a == b) << a << " " << b;
      for (const KQValue& c : values) {
        if (a < b && b < c) {
          EXPECT_TRUE(a < c) << a << " " << b << " " << c;
        }
      }
    }
  }

  // Case: the order goes by type first, in the order of Type.
  EXPECT_TRUE(KQValue(true) < KQValue(-5));
  EXPECT_TRUE(KQValue("zzz") < KQValue(std::vector<float>{}));

  // Case: as map keys, NaN, -0.0 and 0.0 collapse as equality says.
  std::map<KQValue, int> keys;
  keys[KQValue(nan)] = 1;
  keys[KQValue(nan)] = 2;
  keys[KQValue(0.0f)] = 3;
  keys[KQValue(-0.0f)] = 4;
  EXPECT_EQ(2u, keys.size());
  EXPECT_EQ(2, keys[KQValue(nan)]);
  EXPECT_EQ(4, keys[KQValue(0.0f)]);
}

TEST(ValueTest, TextIsReadableAndStable) {
  // Case: scalars.
  EXPECT_EQ("<invalid>", KQValue().toText());
  EXPECT_EQ("true", KQValue(true).toText());
  EXPECT_EQ("-3", KQValue(-3).toText());

  // Case: a float always reads as a float, in its shortest form.
  EXPECT_EQ("1.0", KQValue(1.0f).toText());
  EXPECT_EQ("-0.0", KQValue(-0.0f).toText());
  EXPECT_EQ("0.1", KQValue(0.1f).toText());
  EXPECT_EQ("1e+20", KQValue(1e20f).toText());
  EXPECT_EQ("1e-07", KQValue(1e-7f).toText());
  EXPECT_EQ("inf", KQValue(std::numeric_limits<float>::infinity()).toText());
  EXPECT_EQ("nan", KQValue(std::numeric_limits<float>::quiet_NaN()).toText());

  // Case: strings are quoted with JSON escapes; UTF-8 passes through.
  EXPECT_EQ("\"say \\\"hi\\\"\\n\\tback\\\\slash\"", KQValue("say \"hi\"\n\tback\\slash").toText());
  EXPECT_EQ("\"bell\\u0007 del\\u007f\"", KQValue("bell\x07 del\x7f").toText());
  EXPECT_EQ("\"Tasse \xc3\xa0 caf\xc3\xa9\"", KQValue("Tasse \xc3\xa0 caf\xc3\xa9").toText());
  std::string withNul("a\0b", 3);
  EXPECT_EQ("\"a\\u0000b\"", KQValue(withNul).toText());

  // Case: arrays, nested, as a pose crosses the method boundary.
  KQValue pose;
  pose.arrayPush(KQValue(std::vector<float>{1.0f, 0.0f, 0.0f, 0.0f}));
  pose.arrayPush(KQValue(std::vector<float>{0.5f, -1.25f, 2.0f}));
  EXPECT_EQ("[[1.0, 0.0, 0.0, 0.0], [0.5, -1.25, 2.0]]", pose.toText());

  // Case: stream output is the same text.
  std::ostringstream out;
  out << "value " << pose << ".";
  EXPECT_EQ("value [[1.0, 0.0, 0.0, 0.0], [0.5, -1.25, 2.0]].", out.str());
}

TEST(ValueTest, FloatTextReadsBackToTheSameFloat) {
  const std::vector<float> samples = {0.1f,     1.0f / 3.0f, 3.14159265f, 123456.789f,     1e-30f, 3.4028235e38f,
                                      1.17549435e-38f, 1e-45f, -0.7071068f, 16777216.0f, 16777217.0f};
  for (float f : samples) {
    std::string text = KQValue(f).toText();
    EXPECT_EQ(f, std::strtof(text.c_str(), nullptr)) << text;
  }
}

}  // namespace
}  // namespace KQ
