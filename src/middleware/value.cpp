#include "middleware/value.h"

#include <charconv>
#include <cmath>
#include <ostream>
#include <utility>

#include "middleware/error.h"

namespace KQ {

namespace {

const char* const kModule = "KQValue";

// Shortest text that reads back to the same float; a plain integer-looking
// result gets ".0" so that a float never prints like an int in a log line.
std::string floatText(float value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  std::string text(buffer, result.ptr);
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

void appendQuoted(std::string& out, const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  out += '"';
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default: {
        unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) {
          out += "\\u00";
          out += kHex[u >> 4];
          out += kHex[u & 0xf];
        } else {
          out += c;
        }
      }
    }
  }
  out += '"';
}

void appendText(std::string& out, const KQValue& value);

void appendText(std::string& out, const KQValue& value) {
  switch (value.getType()) {
    case KQValue::Type::Invalid: out += "<invalid>"; break;
    case KQValue::Type::Bool: out += value.toBool() ? "true" : "false"; break;
    case KQValue::Type::Int: out += std::to_string(value.toInt()); break;
    case KQValue::Type::Float: out += floatText(value.toFloat()); break;
    case KQValue::Type::String: appendQuoted(out, value.toString()); break;
    case KQValue::Type::Array: {
      out += '[';
      bool first = true;
      for (const KQValue& element : value.toArray()) {
        if (!first) out += ", ";
        first = false;
        appendText(out, element);
      }
      out += ']';
      break;
    }
  }
}

// Float equality and order with NaN made reflexive and placed last.
bool floatEqual(float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); }
bool floatLess(float a, float b) {
  if (std::isnan(a)) return false;
  if (std::isnan(b)) return true;
  return a < b;
}

}  // namespace

KQValue::KQValue() = default;
KQValue::KQValue(bool value) : type_(Type::Bool), bool_(value) {}
KQValue::KQValue(int value) : type_(Type::Int), int_(value) {}
KQValue::KQValue(float value) : type_(Type::Float), float_(value) {}
KQValue::KQValue(const char* value) : type_(Type::String), string_(value ? value : "") {}
KQValue::KQValue(const std::string& value) : type_(Type::String), string_(value) {}
KQValue::KQValue(std::string&& value) : type_(Type::String), string_(std::move(value)) {}

KQValue::KQValue(const std::vector<float>& values) : type_(Type::Array) {
  array_.reserve(values.size());
  for (float v : values) array_.emplace_back(v);
}

KQValue::KQValue(const std::vector<std::string>& values) : type_(Type::Array) {
  array_.reserve(values.size());
  for (const std::string& v : values) array_.emplace_back(v);
}

KQValue::KQValue(const std::vector<KQValue>& values) : type_(Type::Array), array_(values) {}
KQValue::KQValue(std::vector<KQValue>&& values) : type_(Type::Array), array_(std::move(values)) {}

KQValue::KQValue(const KQValue& other) = default;

KQValue::KQValue(KQValue&& other) noexcept
    : type_(other.type_),
      bool_(other.bool_),
      int_(other.int_),
      float_(other.float_),
      string_(std::move(other.string_)),
      array_(std::move(other.array_)) {
  other.type_ = Type::Invalid;
}

KQValue& KQValue::operator=(const KQValue& other) {
  if (this != &other) {
    // Copy first: `other` may be one of our own elements.
    KQValue copy(other);
    *this = std::move(copy);
  }
  return *this;
}

KQValue& KQValue::operator=(KQValue&& other) noexcept {
  if (this != &other) {
    // Take everything out of `other` before touching our own array: `other`
    // may be one of its elements and die when the array is replaced.
    Type type = other.type_;
    bool b = other.bool_;
    int i = other.int_;
    float f = other.float_;
    std::string text(std::move(other.string_));
    std::vector<KQValue> elements(std::move(other.array_));
    other.type_ = Type::Invalid;
    type_ = type;
    bool_ = b;
    int_ = i;
    float_ = f;
    string_ = std::move(text);
    array_ = std::move(elements);
  }
  return *this;
}

KQValue::~KQValue() = default;

KQValue& KQValue::operator=(const char* value) { return *this = KQValue(value); }
KQValue& KQValue::operator=(const std::string& value) { return *this = KQValue(value); }
KQValue& KQValue::operator=(float value) { return *this = KQValue(value); }
KQValue& KQValue::operator=(int value) { return *this = KQValue(value); }
KQValue& KQValue::operator=(bool value) { return *this = KQValue(value); }

const char* KQValue::typeName(Type type) {
  switch (type) {
    case Type::Invalid: return "invalid";
    case Type::Bool: return "bool";
    case Type::Int: return "int";
    case Type::Float: return "float";
    case Type::String: return "string";
    case Type::Array: return "array";
  }
  return "unknown";
}

void KQValue::xThrowWrongType(Type expected, const char* method) const {
  throw KQError(kModule, method, std::string("expected ") + typeName(expected) + ", got " + typeName(type_));
}

void KQValue::arraySetSize(int size) {
  if (size < 0) throw KQError(kModule, "arraySetSize", "size " + std::to_string(size) + " is negative");
  if (type_ != Type::Array) {
    string_.clear();
    array_.clear();
    type_ = Type::Array;
  }
  array_.resize(static_cast<size_t>(size));
}

void KQValue::arrayPush(const KQValue& element) {
  if (type_ != Type::Invalid && type_ != Type::Array) xThrowWrongType(Type::Array, "arrayPush");
  // Copy first: `element` may be this very value or one of its elements.
  KQValue copy(element);
  type_ = Type::Array;
  array_.push_back(std::move(copy));
}

KQValue& KQValue::operator[](int index) {
  if (type_ != Type::Array) xThrowWrongType(Type::Array, "operator[]");
  if (index < 0 || static_cast<size_t>(index) >= array_.size()) {
    throw KQError(kModule, "operator[]",
                  "index " + std::to_string(index) + " out of range for array of size " + std::to_string(array_.size()));
  }
  return array_[static_cast<size_t>(index)];
}

const KQValue& KQValue::operator[](int index) const { return const_cast<KQValue&>(*this)[index]; }

int KQValue::getSize() const {
  switch (type_) {
    case Type::Invalid: return 0;
    case Type::Array: return static_cast<int>(array_.size());
    case Type::String: return static_cast<int>(string_.size());
    default: return 1;
  }
}

bool KQValue::toBool() const {
  if (type_ != Type::Bool) xThrowWrongType(Type::Bool, "toBool");
  return bool_;
}

int KQValue::toInt() const {
  if (type_ != Type::Int) xThrowWrongType(Type::Int, "toInt");
  return int_;
}

float KQValue::toFloat() const {
  if (type_ == Type::Int) return static_cast<float>(int_);
  if (type_ != Type::Float) xThrowWrongType(Type::Float, "toFloat");
  return float_;
}

const std::string& KQValue::toString() const {
  if (type_ != Type::String) xThrowWrongType(Type::String, "toString");
  return string_;
}

std::vector<float> KQValue::toFloatVector() const {
  if (type_ != Type::Array) xThrowWrongType(Type::Array, "toFloatVector");
  std::vector<float> out;
  out.reserve(array_.size());
  for (size_t i = 0; i < array_.size(); ++i) {
    const KQValue& e = array_[i];
    if (e.type_ == Type::Float) {
      out.push_back(e.float_);
    } else if (e.type_ == Type::Int) {
      out.push_back(static_cast<float>(e.int_));
    } else {
      throw KQError(kModule, "toFloatVector",
                    "element " + std::to_string(i) + ": expected float, got " + typeName(e.type_));
    }
  }
  return out;
}

std::vector<std::string> KQValue::toStringVector() const {
  if (type_ != Type::Array) xThrowWrongType(Type::Array, "toStringVector");
  std::vector<std::string> out;
  out.reserve(array_.size());
  for (size_t i = 0; i < array_.size(); ++i) {
    const KQValue& e = array_[i];
    if (e.type_ != Type::String) {
      throw KQError(kModule, "toStringVector",
                    "element " + std::to_string(i) + ": expected string, got " + typeName(e.type_));
    }
    out.push_back(e.string_);
  }
  return out;
}

const std::vector<KQValue>& KQValue::toArray() const {
  if (type_ != Type::Array) xThrowWrongType(Type::Array, "toArray");
  return array_;
}

KQValue::operator std::string&() {
  if (type_ != Type::String) xThrowWrongType(Type::String, "operator std::string&");
  return string_;
}

KQValue::operator const std::string&() const {
  if (type_ != Type::String) xThrowWrongType(Type::String, "operator const std::string&");
  return string_;
}

KQValue::operator float&() {
  if (type_ == Type::Int) {
    // Widen in place so that the reference has a float to point at.
    float_ = static_cast<float>(int_);
    int_ = 0;
    type_ = Type::Float;
  }
  if (type_ != Type::Float) xThrowWrongType(Type::Float, "operator float&");
  return float_;
}

KQValue::operator float() const {
  if (type_ == Type::Int) return static_cast<float>(int_);
  if (type_ != Type::Float) xThrowWrongType(Type::Float, "operator float");
  return float_;
}

KQValue::operator int&() {
  if (type_ != Type::Int) xThrowWrongType(Type::Int, "operator int&");
  return int_;
}

KQValue::operator int() const {
  if (type_ != Type::Int) xThrowWrongType(Type::Int, "operator int");
  return int_;
}

KQValue::operator std::vector<float>() const { return toFloatVector(); }

KQValue::operator std::vector<std::string>() const { return toStringVector(); }

bool operator==(const KQValue& a, const KQValue& b) {
  if (a.type_ != b.type_) return false;
  switch (a.type_) {
    case KQValue::Type::Invalid: return true;
    case KQValue::Type::Bool: return a.bool_ == b.bool_;
    case KQValue::Type::Int: return a.int_ == b.int_;
    case KQValue::Type::Float: return floatEqual(a.float_, b.float_);
    case KQValue::Type::String: return a.string_ == b.string_;
    case KQValue::Type::Array: return a.array_ == b.array_;
  }
  return false;
}

bool operator<(const KQValue& a, const KQValue& b) {
  if (a.type_ != b.type_) return static_cast<int>(a.type_) < static_cast<int>(b.type_);
  switch (a.type_) {
    case KQValue::Type::Invalid: return false;
    case KQValue::Type::Bool: return !a.bool_ && b.bool_;
    case KQValue::Type::Int: return a.int_ < b.int_;
    case KQValue::Type::Float: return floatLess(a.float_, b.float_);
    case KQValue::Type::String: return a.string_ < b.string_;
    case KQValue::Type::Array: return a.array_ < b.array_;
  }
  return false;
}

std::string KQValue::toText() const {
  std::string out;
  appendText(out, *this);
  return out;
}

std::ostream& operator<<(std::ostream& out, const KQValue& value) { return out << value.toText(); }

}  // namespace KQ
