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

namespace KQ::net {
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
  // Case: whole floats keep a "." and large ones an exponent, so that a
  // reader keeps them floats; 0.1f is not written as the double it widens to;
  // NaN and infinities have no JSON form.
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(toJson(KQValue(std::vector<KQValue>{-2.0f, 0.0f, 0.1f, 1e30f, 1e-45f, inf, -inf})).dump(),
            "[-2.0,0.0,0.1,1e+30,1e-45,null,null]");
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

TEST(JsonCodecTest, ValuesAreReadByHowTheyAreWritten) {
  // Case: integers are ints to both ends of 32 bits; a fraction or an
  // exponent makes a float, even when whole.
  EXPECT_EQ(decode("[2147483647, -2147483648, 1.0, 1e2, \"cup\", true, null, [[]]]"),
            KQValue(std::vector<KQValue>{2147483647, std::numeric_limits<int>::min(), 1.0f, 100.0f, "cup", true,
                                         KQValue(), KQValue(std::vector<KQValue>{KQValue(std::vector<KQValue>{})})}));
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

TEST(JsonCodecTest, ObjectsAreNoValuesWhereverTheyHide) {
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
}  // namespace KQ::net
