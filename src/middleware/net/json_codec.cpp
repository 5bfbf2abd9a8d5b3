#include "middleware/net/json_codec.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "middleware/error.h"

namespace KQ {
namespace net {

namespace {

using json = nlohmann::json;

// What parseJson writes in place of a number past the double range (which
// nlohmann refuses as a syntax error): read back as an infinity, so that
// the number is refused as an argument, with the request's id, instead.
const char* const kOverflowToken = "1e308";
const char* const kNegativeOverflowToken = "-1e308";

[[noreturn]] void throwNotAValue(const std::string& message) { throw KQArgumentError("", "", message); }

// Builds the document through nlohmann's own DOM builder, but counts depth
// on the way in (so a 10 MB "[[[[..." is refused after 65 brackets, not
// after it has been allocated) and keeps over-wide integers integers.
class DepthLimitedBuilder {
 public:
  DepthLimitedBuilder(json& out, int maxDepth) : builder_(out, false), maxDepth_(maxDepth) {}

  bool null() { return builder_.null(); }
  bool boolean(bool value) { return builder_.boolean(value); }
  bool number_integer(json::number_integer_t value) { return builder_.number_integer(value); }
  bool number_unsigned(json::number_unsigned_t value) { return builder_.number_unsigned(value); }
  bool number_float(json::number_float_t value, const json::string_t& text) {
    // nlohmann turns an integer wider than 64 bits into a float; without a
    // fraction or exponent it is still an integer to us, one that fits
    // nothing: kept as NaN, which no JSON text can give otherwise.
    if (text.find_first_of(".eE") == json::string_t::npos)
      return builder_.number_float(std::numeric_limits<double>::quiet_NaN(), text);
    // A number past the double range, rewritten by parseJson.
    if (text == kOverflowToken) return builder_.number_float(std::numeric_limits<double>::infinity(), text);
    if (text == kNegativeOverflowToken)
      return builder_.number_float(-std::numeric_limits<double>::infinity(), text);
    return builder_.number_float(value, text);
  }
  bool string(json::string_t& value) { return builder_.string(value); }
  bool binary(json::binary_t& value) { return builder_.binary(value); }
  bool start_object(std::size_t size) { return enter() && builder_.start_object(size); }
  bool key(json::string_t& value) { return builder_.key(value); }
  bool end_object() {
    --depth_;
    return builder_.end_object();
  }
  bool start_array(std::size_t size) { return enter() && builder_.start_array(size); }
  bool end_array() {
    --depth_;
    return builder_.end_array();
  }
  bool parse_error(std::size_t position, const std::string& token, const nlohmann::detail::exception& e) {
    syntaxError_ = true;
    numberOverflow_ = e.id == 406;
    message_ = e.what();
    return builder_.parse_error(position, token, e);
  }

  bool tooDeep() const { return tooDeep_; }
  bool syntaxError() const { return syntaxError_; }
  bool numberOverflow() const { return numberOverflow_; }
  const std::string& message() const { return message_; }

 private:
  bool enter() {
    if (++depth_ > maxDepth_) {
      tooDeep_ = true;
      return false;
    }
    return true;
  }

  nlohmann::detail::json_sax_dom_parser<json> builder_;
  int maxDepth_;
  int depth_ = 0;
  bool tooDeep_ = false;
  bool syntaxError_ = false;
  bool numberOverflow_ = false;
  std::string message_;
};

// Where a scan of JSON text stands with respect to strings: insideAfter(c)
// says whether c belongs to a string (its quotes included), so that callers
// look only at the structure outside strings.
struct JsonStringTracker {
  bool inString = false;
  bool escaped = false;
  bool insideAfter(char c) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      return true;
    }
    inString = c == '"';
    return inString;
  }
};

// text with every number outside strings that overflows a double replaced
// by the overflow token of its sign.
std::string withOverflowsMarked(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  JsonStringTracker strings;
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (strings.insideAfter(c) || (c != '-' && (c < '0' || c > '9'))) {
      out += c;
      ++i;
      continue;
    }
    std::size_t end = i + 1;
    while (end < text.size() && std::strchr("0123456789.eE+-", text[end]) != nullptr) ++end;
    const std::string token(text.substr(i, end - i));
    const double value = std::strtod(token.c_str(), nullptr);
    if (std::isinf(value))
      out += value > 0 ? kOverflowToken : kNegativeOverflowToken;
    else
      out += token;
    i = end;
  }
  return out;
}

}  // namespace

std::string formatFloat(float value) {
  if (!std::isfinite(value)) return "null";
  char buffer[32];
  // to_chars without a format gives the shortest text that round-trips.
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  std::string text(buffer, result.ptr);
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

json toJson(const KQValue& value) {
  switch (value.getType()) {
    case KQValue::Type::Invalid:
      return nullptr;
    case KQValue::Type::Bool:
      return value.toBool();
    case KQValue::Type::Int:
      return value.toInt();
    case KQValue::Type::Float: {
      const float f = value.toFloat();
      if (!std::isfinite(f)) return nullptr;
      // Store the double nearest to the float's shortest text: nlohmann then
      // writes that text (0.1f goes out as 0.1, not 0.10000000149011612),
      // and its dump keeps a ".0" on whole numbers.
      const std::string text = formatFloat(f);
      return std::strtod(text.c_str(), nullptr);
    }
    case KQValue::Type::String:
      return value.toString();
    case KQValue::Type::Array: {
      json array = json::array();
      const std::vector<KQValue>& elements = value.toArray();
      array.get_ref<json::array_t&>().reserve(elements.size());
      for (const KQValue& element : elements) array.push_back(toJson(element));
      return array;
    }
  }
  return nullptr;
}

namespace {

// True when text is well-formed UTF-8 (what nlohmann accepts unchanged).
bool isUtf8(const std::string& text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int extra = 0;
    uint32_t code = 0;
    if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      code = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      code = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      code = c & 0x07u;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0u) != 0x80u) return false;
      code = (code << 6) | (p[i] & 0x3Fu);
    }
    // Overlong forms, surrogates and values past U+10FFFF.
    if ((extra == 2 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
        (extra == 3 && (code < 0x10000 || code > 0x10FFFF)))
      return false;
    p += extra + 1;
  }
  return true;
}

void appendString(const std::string& text, std::string& out) {
  if (!isUtf8(text)) {
    out += json(text).dump(-1, ' ', false, json::error_handler_t::replace);
    return;
  }
  static const char* const kHex = "0123456789abcdef";
  out += '"';
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += "\\u00";
          out += kHex[(c >> 4) & 0xF];
          out += kHex[c & 0xF];
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

}  // namespace

void appendJson(const KQValue& value, std::string& out) {
  switch (value.getType()) {
    case KQValue::Type::Invalid:
      out += "null";
      return;
    case KQValue::Type::Bool:
      out += value.toBool() ? "true" : "false";
      return;
    case KQValue::Type::Int: {
      char buffer[16];
      const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value.toInt());
      out.append(buffer, result.ptr);
      return;
    }
    case KQValue::Type::Float:
      out += formatFloat(value.toFloat());  // "null" when not finite, like toJson
      return;
    case KQValue::Type::String:
      appendString(value.toString(), out);
      return;
    case KQValue::Type::Array: {
      out += '[';
      bool first = true;
      for (const KQValue& element : value.toArray()) {
        if (!first) out += ',';
        first = false;
        appendJson(element, out);
      }
      out += ']';
      return;
    }
  }
}

KQValue fromJson(const json& j) {
  switch (j.type()) {
    case json::value_t::null:
    case json::value_t::discarded:
      return KQValue();
    case json::value_t::boolean:
      return KQValue(j.get<bool>());
    case json::value_t::number_integer: {
      const auto n = j.get<json::number_integer_t>();
      if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max())
        throwNotAValue(std::to_string(n) + " does not fit in a 32-bit int");
      return KQValue(static_cast<int>(n));
    }
    case json::value_t::number_unsigned: {
      const auto n = j.get<json::number_unsigned_t>();
      if (n > static_cast<json::number_unsigned_t>(std::numeric_limits<int>::max()))
        throwNotAValue(std::to_string(n) + " does not fit in a 32-bit int");
      return KQValue(static_cast<int>(n));
    }
    case json::value_t::number_float: {
      const double d = j.get<double>();
      // An integer wider than 64 bits arrives as NaN (see parseJson).
      if (std::isnan(d)) throwNotAValue("an integer does not fit in a 32-bit int");
      // (A text like 1e999 arrives here as infinity, which has no digits to show.)
      if (!std::isfinite(d)) throwNotAValue("a number does not fit in a float");
      if (std::fabs(d) > static_cast<double>(std::numeric_limits<float>::max()))
        throwNotAValue(j.dump() + " does not fit in a float");
      return KQValue(static_cast<float>(d));
    }
    case json::value_t::string:
      return KQValue(j.get_ref<const std::string&>());
    case json::value_t::array: {
      std::vector<KQValue> elements;
      elements.reserve(j.size());
      for (const json& element : j) elements.push_back(fromJson(element));
      return KQValue(elements);
    }
    case json::value_t::object:
      throwNotAValue("a JSON object is not a value");
    case json::value_t::binary:
      throwNotAValue("binary data is not a value");
  }
  return KQValue();
}

bool jsonDepthExceeds(std::string_view text, int maxDepth) {
  int depth = 0;
  JsonStringTracker strings;
  for (const char c : text) {
    if (strings.insideAfter(c)) continue;
    switch (c) {
      case '[':
      case '{':
        if (++depth > maxDepth) return true;
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return false;
}

ParseOutcome parseJson(std::string_view text, json& out, int maxDepth, std::string* error) {
  out = json();
  DepthLimitedBuilder builder(out, maxDepth);
  const bool ok = json::sax_parse(text.begin(), text.end(), &builder, json::input_format_t::json, true);
  if (builder.tooDeep()) {
    out = json();
    return ParseOutcome::TooDeep;
  }
  if ((!ok || builder.syntaxError()) && builder.numberOverflow()) {
    // Once more with the numbers past the double range marked; rare, so the
    // copy costs nothing on the common path. (Marking is idempotent: no loop.)
    const std::string marked = withOverflowsMarked(text);
    if (marked != text) return parseJson(marked, out, maxDepth, error);
  }
  if (!ok || builder.syntaxError()) {
    if (error) *error = builder.message();
    out = json();
    return ParseOutcome::SyntaxError;
  }
  return ParseOutcome::Ok;
}

}  // namespace net
}  // namespace KQ
