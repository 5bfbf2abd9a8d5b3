// How values cross the wire: what a JSON number becomes, how floats are written back, and what is refused before it is
// built into memory.
#include "middleware/net/json_codec.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "support/checks.h"

namespace KQ::net {
namespace {

using json = nlohmann::json;
using test::errorOf;
using test::list;

KQValue decode(const std::string& text) {
  json document;
  EXPECT_EQ(parseJson(text, document), ParseOutcome::Ok) << text;
  return fromJson(document);
}

TEST(JsonCodecTest, EveryWrittenFloatReadsBackToTheSameBits) {
  // Case: whole floats keep a "." and large ones an exponent, so that a reader keeps them floats; NaN and infinities
  // have no JSON form.
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(toJson(list({-2.0f, 0.0f, 0.1f, 1e30f, 1e-45f, inf, -inf})).dump(), "[-2.0,0.0,0.1,1e+30,1e-45,null,null]");
  // Case: walking the float line in uneven steps through every exponent, the text comes back as exactly the float it
  // came from.
  for (uint32_t bits = 1; bits < 0x7f800000u; bits += 0x0001f3d7u) {
    float value;
    std::memcpy(&value, &bits, sizeof(value));
    for (const float f : {value, -value}) {
      const KQValue back = decode(toJson(KQValue(f)).dump());
      ASSERT_TRUE(back.isFloat() && back.toFloat() == f) << formatFloat(f);
    }
  }
}

TEST(JsonCodecTest, ValuesAreReadByHowTheyAreWritten) {
  // Case: integers are ints to both ends of 32 bits; a fraction or an exponent makes a float, even when whole.
  EXPECT_EQ(decode("[2147483647, -2147483648, 1.0, 1e2, \"cup\", true, null, [[]]]"),
            list({2147483647, std::numeric_limits<int>::min(), 1.0f, 100.0f, "cup", true, KQValue(), list({list({})})}));
  const std::pair<const char*, const char*> refusals[] = {
      {"2147483648", "2147483648 does not fit in a 32-bit int"},
      {"-2147483649", "-2147483649 does not fit in a 32-bit int"},
      // Too wide even for 64 bits, it stays an integer (nlohmann alone would make it a float and let it through).
      {"123456789012345678901234567890", "an integer does not fit in a 32-bit int"},
      {"1e39", "1e+39 does not fit in a float"},
      {"[1, [{}]]", "a JSON object is not a value"},
  };
  for (const auto& refusal : refusals) EXPECT_EQ(errorOf([&] { decode(refusal.first); }), refusal.second);
}

TEST(JsonCodecTest, RepliesWrittenStraightToTextMatchTheDocumentForm) {
  // Replies skip the JSON document; whatever a module answers must still come out as the document would write it, odd
  // strings included.
  const KQValue mixed = list({"tab\t quote\" back\\ bell\x07 del\x7f", "Tasse \xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80",
                              "broken \xff\xfe and \xc3", "surrogate \xed\xa0\x80", -0.0f,
                              std::numeric_limits<float>::infinity(), std::numeric_limits<int>::min(), false,
                              KQValue(), KQValue(std::vector<float>{})});
  std::string direct;
  appendJson(mixed, direct);
  EXPECT_EQ(direct, toJson(mixed).dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string nested(int depth) {
  return std::string(static_cast<std::size_t>(depth), '[') + "1" + std::string(static_cast<std::size_t>(depth), ']');
}

TEST(JsonCodecTest, DepthIsMeasuredBeforeAnythingIsBuiltAndBrokenTextRefused) {
  const std::string quoted = "[\"" + std::string(100, '[') + "\\\"" + std::string(100, '{') + "\"]";
  const ParseOutcome ok = ParseOutcome::Ok, deep = ParseOutcome::TooDeep, broken = ParseOutcome::SyntaxError;
  const std::pair<std::string, ParseOutcome> cases[] = {
      {nested(64), ok}, {nested(65), deep},
      // A deep text that never closes is refused for its depth, not read to the end (10 MB of "[" cost 65 steps).
      {std::string(10 << 20, '['), deep},
      {quoted, ok},  // brackets inside strings, escaped quotes included, do not count
      // Broken text is a syntax error; so is text that is not UTF-8. A number beyond even a double is read (as an
      // infinity) so that it is refused as an argument, with the request's id.
      {"", broken}, {"[1,]", broken}, {"\"\xff\"", broken}, {"-1e999", ok}, {"[1e999,]", broken}};
  json document;
  for (const auto& [text, outcome] : cases) EXPECT_EQ(parseJson(text, document), outcome) << text.substr(0, 80);
  // Case: objects count like arrays; closing more than was opened makes no room for more.
  EXPECT_TRUE(jsonDepthExceeds(std::string(40, '[') + std::string(30, '{')));
  EXPECT_TRUE(jsonDepthExceeds("]]]]" + nested(65)));
  // Case: a syntax error carries the parser's reason.
  std::string reason;
  EXPECT_EQ(parseJson("{\"jsonrpc\": ", document, kMaxJsonDepth, &reason), ParseOutcome::SyntaxError);
  EXPECT_NE(reason.find("parse error"), std::string::npos) << reason;
}

}  // namespace
}  // namespace KQ::net
