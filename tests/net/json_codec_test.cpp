// How values cross the wire: what a JSON number becomes, how floats are
// written back, and what is refused before it is built into memory.
#include "middleware/net/json_codec.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "middleware/error.h"

namespace KQ {
namespace net {
namespace {

using json = nlohmann::json;

KQValue decode(const std::string& text) {
  json document;
  EXPECT_EQ(parseJson(text, document), ParseOutcome::Ok) << text;
  return fromJson(document);
}

std::string refusal(const std::string& text) {
  try {
    decode(text);
  } catch (const KQArgumentError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(JsonCodecTest, FloatsGoOutAsTheShortestTextThatReadsBack) {
  // Case: whole floats keep a "." so that a reader keeps them floats.
  EXPECT_EQ(formatFloat(1.0f), "1.0");
  EXPECT_EQ(formatFloat(-2.0f), "-2.0");
  EXPECT_EQ(formatFloat(0.0f), "0.0");
  // Case: 0.1f is not written as the double it widens to.
  EXPECT_EQ(formatFloat(0.1f), "0.1");
  EXPECT_EQ(toJson(KQValue(0.1f)).dump(), "0.1");
  EXPECT_EQ(toJson(KQValue(1.0f)).dump(), "1.0");
  EXPECT_EQ(toJson(KQValue(std::vector<float>{0.5f, 0.1f, 3.0f})).dump(), "[0.5,0.1,3.0]");
  // Case: large and tiny floats use an exponent, which also marks them floats.
  EXPECT_EQ(formatFloat(1e30f), "1e+30");
  EXPECT_EQ(toJson(KQValue(1e30f)).dump(), "1e+30");
  EXPECT_EQ(formatFloat(std::numeric_limits<float>::denorm_min()), "1e-45");
  // Case: NaN and infinities have no JSON form.
  EXPECT_EQ(toJson(KQValue(std::numeric_limits<float>::quiet_NaN())).dump(), "null");
  EXPECT_EQ(toJson(KQValue(std::numeric_limits<float>::infinity())).dump(), "null");
}

TEST(JsonCodecTest, EveryWrittenFloatReadsBackToTheSameBits) {
  // Walks the float line in uneven steps through every exponent: the text
  // the server writes must come back as exactly the float it came from.
  int checked = 0;
  for (uint32_t bits = 1; bits < 0x7f800000u; bits += 0x0001f3d7u) {
    float value;
    std::memcpy(&value, &bits, sizeof(value));
    for (const float f : {value, -value}) {
      const KQValue back = decode(toJson(KQValue(f)).dump());
      ASSERT_TRUE(back.isFloat()) << formatFloat(f);
      ASSERT_EQ(back.toFloat(), f) << formatFloat(f);
    }
    ++checked;
  }
  EXPECT_GT(checked, 16000);
}

TEST(JsonCodecTest, NumbersAreIntsOrFloatsByHowTheyAreWritten) {
  // Case: an integer is an int, at both ends of 32 bits.
  EXPECT_EQ(decode("2147483647"), KQValue(2147483647));
  EXPECT_EQ(decode("-2147483648"), KQValue(std::numeric_limits<int>::min()));
  // Case: a fraction or an exponent makes a float, even when whole.
  EXPECT_TRUE(decode("1.0").isFloat());
  EXPECT_TRUE(decode("1e2").isFloat());
  EXPECT_EQ(decode("1e2").toFloat(), 100.0f);
  // Case: one past 32 bits is refused, not wrapped or widened.
  EXPECT_EQ(refusal("2147483648"), "2147483648 does not fit in a 32-bit int");
  EXPECT_EQ(refusal("-2147483649"), "-2147483649 does not fit in a 32-bit int");
  // Case: an integer too wide even for 64 bits stays an integer (nlohmann
  // alone would make it a float and let it through).
  EXPECT_EQ(refusal("123456789012345678901234567890"), "an integer does not fit in a 32-bit int");
  // Case: a float beyond the float range.
  EXPECT_EQ(refusal("1e39"), "1e+39 does not fit in a float");
  // Case: beyond even a double, the text itself is refused (a parse error).
  json document;
  EXPECT_EQ(parseJson("-1e999", document), ParseOutcome::SyntaxError);
}

TEST(JsonCodecTest, OtherKindsMapOneToOne) {
  EXPECT_EQ(decode("\"cup\""), KQValue("cup"));
  EXPECT_EQ(decode("true"), KQValue(true));
  EXPECT_EQ(decode("false"), KQValue(false));
  EXPECT_FALSE(decode("null").isValid());
  const KQValue nested = decode("[1, [2.5, \"a\"], [], null]");
  ASSERT_TRUE(nested.isArray());
  ASSERT_EQ(nested.getSize(), 4);
  EXPECT_EQ(nested[1][0], KQValue(2.5f));
  EXPECT_EQ(nested[2].getSize(), 0);
  EXPECT_FALSE(nested[3].isValid());
  // And back: the same text, kinds kept.
  EXPECT_EQ(toJson(nested).dump(), "[1,[2.5,\"a\"],[],null]");
  EXPECT_EQ(toJson(KQValue(true)).dump(), "true");
  EXPECT_EQ(toJson(KQValue()).dump(), "null");

  // Case: an object is not a value, wherever it hides.
  EXPECT_EQ(refusal("{\"a\": 1}"), "a JSON object is not a value");
  EXPECT_EQ(refusal("[1, [{}]]"), "a JSON object is not a value");
}

TEST(JsonCodecTest, RepliesWrittenStraightToTextMatchTheDocumentForm) {
  // Replies skip the JSON document; whatever a module answers must still
  // come out as the document would write it, odd strings included.
  KQValue mixed;
  mixed.arrayPush(KQValue("plain"));
  mixed.arrayPush(KQValue(std::string("tab\t quote\" back\\ bell\x07 del\x7f")));
  mixed.arrayPush(KQValue(std::string("Tasse \xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80")));
  mixed.arrayPush(KQValue(std::string("broken \xff\xfe and \xc3")));  // not UTF-8
  mixed.arrayPush(KQValue(std::string("surrogate \xed\xa0\x80")));
  mixed.arrayPush(KQValue(-0.0f));
  mixed.arrayPush(KQValue(std::numeric_limits<float>::infinity()));
  mixed.arrayPush(KQValue(std::numeric_limits<int>::min()));
  mixed.arrayPush(KQValue(false));
  mixed.arrayPush(KQValue());
  mixed.arrayPush(KQValue(std::vector<float>{}));
  for (const KQValue& value : mixed.toArray()) {
    std::string direct;
    appendJson(value, direct);
    EXPECT_EQ(direct, toJson(value).dump(-1, ' ', false, json::error_handler_t::replace)) << value;
  }
  std::string all;
  appendJson(mixed, all);
  EXPECT_EQ(all, toJson(mixed).dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string nested(int depth, const std::string& inner = "1") {
  return std::string(static_cast<std::size_t>(depth), '[') + inner + std::string(static_cast<std::size_t>(depth), ']');
}

TEST(JsonCodecTest, DepthIsMeasuredBeforeAnythingIsBuilt) {
  // Case: 64 levels pass, 65 do not.
  json document;
  EXPECT_EQ(parseJson(nested(64), document), ParseOutcome::Ok);
  EXPECT_EQ(parseJson(nested(65), document), ParseOutcome::TooDeep);
  EXPECT_FALSE(jsonDepthExceeds(nested(64)));
  EXPECT_TRUE(jsonDepthExceeds(nested(65)));
  // Case: objects count like arrays.
  EXPECT_TRUE(jsonDepthExceeds(std::string(40, '[') + std::string(30, '{')));
  // Case: a deep text that never closes is refused for its depth, not read
  // to the end (a 10 MB "[[[[" costs 65 steps of building).
  EXPECT_EQ(parseJson(std::string(10 << 20, '['), document), ParseOutcome::TooDeep);
  // Case: brackets inside strings, escaped quotes included, do not count.
  const std::string quoted = "[\"" + std::string(100, '[') + "\\\"" + std::string(100, '{') + "\"]";
  EXPECT_FALSE(jsonDepthExceeds(quoted));
  EXPECT_EQ(parseJson(quoted, document), ParseOutcome::Ok);
  // Case: closing more than was opened does not make room for more.
  EXPECT_TRUE(jsonDepthExceeds("]]]]" + nested(65)));
}

TEST(JsonCodecTest, BrokenTextIsASyntaxErrorWithTheParsersReason) {
  json document = json::array({1});
  std::string reason;
  EXPECT_EQ(parseJson("{\"jsonrpc\": ", document, kMaxJsonDepth, &reason), ParseOutcome::SyntaxError);
  EXPECT_TRUE(document.is_null());
  EXPECT_NE(reason.find("parse error"), std::string::npos) << reason;
  EXPECT_EQ(parseJson("", document), ParseOutcome::SyntaxError);
  EXPECT_EQ(parseJson("[1,]", document), ParseOutcome::SyntaxError);
  EXPECT_EQ(parseJson("\"\xff\"", document), ParseOutcome::SyntaxError);  // not UTF-8
}

}  // namespace
}  // namespace net
}  // namespace KQ
