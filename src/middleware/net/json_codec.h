// The JSON face of KQValue: how values travel in JSON-RPC messages.
//
// Mapping (both directions):
//   JSON integer            <-> int (32 bits; anything wider is refused)
//   JSON number with a fraction or an exponent <-> float (single precision)
//   JSON string / array     <-> string / array
//   true, false             <-> bool
//   null                    <-> invalid
// A JSON object is not a value and is refused. Floats are written as the
// shortest text that reads back to the same float, always with a "." or an
// exponent so that a reader keeps them floats (1.0f -> 1.0, 0.1f -> 0.1).
// NaN and infinities have no JSON form and are written as null.
//
// Depth: untrusted text is measured before it is built into memory; a text
// nested deeper than the allowed depth is refused without being parsed.
//
// Threading: free functions without shared state.
#ifndef KQ_MIDDLEWARE_NET_JSON_CODEC_H_
#define KQ_MIDDLEWARE_NET_JSON_CODEC_H_

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "middleware/value.h"

namespace KQ {
namespace net {

// Nesting allowed in one message: 64 open arrays/objects, counting the
// outermost one.
constexpr int kMaxJsonDepth = 64;

nlohmann::json toJson(const KQValue& value);

// Appends the JSON text of value to out, as toJson(value).dump() would write
// it (strings that are not UTF-8 get replacement characters), without
// building the JSON document first: replies are written this way.
void appendJson(const KQValue& value, std::string& out);

// Throws KQArgumentError (module and method empty) for an object, an integer
// outside 32 bits, or a number outside the float range; its message says
// which, e.g. "2147483648 does not fit in a 32-bit int".
KQValue fromJson(const nlohmann::json& json);

// Shortest text that reads back to the same float, with a "." or an exponent.
std::string formatFloat(float value);

// True when the text opens more than maxDepth arrays/objects at once
// (brackets inside strings do not count). Linear, allocates nothing; does not
// judge whether the text is otherwise valid JSON.
bool jsonDepthExceeds(std::string_view text, int maxDepth = kMaxJsonDepth);

// Result of parseJson.
enum class ParseOutcome { Ok, SyntaxError, TooDeep };

// Parses untrusted text, refusing it before building anything deeper than
// maxDepth. Integers too wide for 64 bits become NaN (no JSON text gives
// one otherwise) instead of rounded floats, so that fromJson refuses them as
// integers outside 32 bits and an id is not mistaken for another; numbers
// past the double range (1e400) become infinities instead of a syntax error,
// so that fromJson refuses them as numbers outside the float range. On
// SyntaxError, error (when given) receives the parser's message.
ParseOutcome parseJson(std::string_view text, nlohmann::json& out, int maxDepth = kMaxJsonDepth,
                       std::string* error = nullptr);

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_JSON_CODEC_H_
