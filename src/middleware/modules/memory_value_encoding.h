// The memory value encoding: how a KQValue is written as the text of one
// Redis string (a memory key's value, an event's value in the event stream).
// This is the one owner of that format; other programs (redis-cli, a
// perception script) read and write it by hand, so it is plain JSON:
//
//   int     3, -7            a JSON integer, 32 bits
//   float   1.0, 0.1, 1e+20  always with a "." or an exponent (shortest text
//                            that reads back to the same single float)
//   bool    true / false
//   string  "cup"            quoted, JSON escapes
//   array   [1, 2.5, ["a"]]  any nesting (at most 64 deep)
//   invalid null
//
// Decoding is strict: a text that is not JSON, a JSON object, an integer
// outside 32 bits or a number outside the float range is refused, never
// guessed at (a bare word such as cup, written by redis-cli without quotes, is
// not a string of ours).
//
// Threading: free functions without shared state.
#ifndef KQ_MIDDLEWARE_MODULES_MEMORY_VALUE_ENCODING_H_
#define KQ_MIDDLEWARE_MODULES_MEMORY_VALUE_ENCODING_H_

#include <stdexcept>
#include <string>
#include <string_view>

#include "middleware/value.h"

namespace KQ {

// A stored text that is not in the encoding; what() says why.
class KQMemoryEncodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string encodeMemoryValue(const KQValue& value);

// Throws KQMemoryEncodingError, e.g. "not JSON (…)", "a JSON object is not a
// value", "2147483648 does not fit in a 32-bit int".
KQValue decodeMemoryValue(std::string_view text);

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MODULES_MEMORY_VALUE_ENCODING_H_
