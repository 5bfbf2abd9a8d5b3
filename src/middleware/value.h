// KQValue: the middleware's dynamic value. Every structured argument and
// result that crosses a module boundary travels as one of these.
//
// A value holds exactly one of: nothing (invalid), a bool, a 32-bit int, a
// 32-bit float, a string, or an array of values. Copies are deep. Typed
// access to the wrong kind throws KQError naming the expected and the actual
// type; the one widening that is accepted is reading an int as a float by
// value (a caller that writes 1 where 1.0 is meant is not punished).
//
// Errors: every refusal is a KQError with module "KQValue", the accessor's
// name as method ("toFloat", "operator int&", "operator[]", ...) and a message
// such as "expected float, got string"; what() thus reads
//   "KQValue.toFloat: expected float, got string"
//
// Equality and order: values of different types are never equal (the int 1
// and the float 1.0 differ) and order by type first, in the order of Type.
// Floats compare by value except that every NaN equals every other NaN and
// sorts after all numbers, so that values stay usable as keys of ordered
// containers.
//
// Text (toText and operator<<), stable because it lands in log lines:
//   invalid  <invalid>
//   bool     true / false
//   int      -3
//   float    shortest text that reads back to the same float, always with a
//            "." or an exponent: 1.0, 0.1, 1e+20, -inf, nan
//   string   "a \"quoted\" text\n" (JSON escapes; bytes >= 0x80 kept as is)
//   array    [1, "a", [2.5]], empty []
//
// Threading: a value is a plain object; concurrent reads are safe, a write
// needs the caller's own exclusion. The non-const `operator float&` counts as
// a write: on an int it widens the value to a float in place (the one place
// where reading changes the value; a caller that writes 1 where 1.0 is meant
// is not punished).
#ifndef KQ_MIDDLEWARE_VALUE_H_
#define KQ_MIDDLEWARE_VALUE_H_

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace KQ {

class KQValue {
 public:
  enum class Type { Invalid, Bool, Int, Float, String, Array };

  KQValue();
  KQValue(bool value);
  KQValue(int value);
  KQValue(float value);
  KQValue(const char* value);
  KQValue(const std::string& value);
  KQValue(std::string&& value);
  KQValue(const std::vector<float>& values);
  KQValue(const std::vector<std::string>& values);
  KQValue(const std::vector<KQValue>& values);
  KQValue(std::vector<KQValue>&& values);  // takes the elements without copying them

  KQValue(const KQValue& other);
  KQValue(KQValue&& other) noexcept;
  KQValue& operator=(const KQValue& other);
  KQValue& operator=(KQValue&& other) noexcept;
  ~KQValue();

  KQValue& operator=(const char* value);
  KQValue& operator=(const std::string& value);
  KQValue& operator=(float value);
  KQValue& operator=(int value);
  KQValue& operator=(bool value);

  Type getType() const { return type_; }
  static const char* typeName(Type type);  // "invalid", "bool", "int", ...
  bool isValid() const { return type_ != Type::Invalid; }
  bool isBool() const { return type_ == Type::Bool; }
  bool isInt() const { return type_ == Type::Int; }
  bool isFloat() const { return type_ == Type::Float; }
  bool isString() const { return type_ == Type::String; }
  bool isArray() const { return type_ == Type::Array; }

  // Arrays. arraySetSize turns any value into an array of that many invalid
  // elements (keeping existing elements of an array when it grows or
  // shrinks); arrayPush turns an invalid value into an array of one.
  void arraySetSize(int size);
  void arrayPush(const KQValue& element);
  KQValue& operator[](int index);              // throws on non-array / out of range
  const KQValue& operator[](int index) const;  // throws on non-array / out of range
  // Number of elements of an array; 0 for an invalid value; for a string,
  // its length in bytes; 1 for any other scalar.
  int getSize() const;

  // Named typed access (throw KQError on a wrong type).
  bool toBool() const;
  int toInt() const;
  float toFloat() const;  // accepts an int
  const std::string& toString() const;
  std::vector<float> toFloatVector() const;          // array of floats or ints
  std::vector<std::string> toStringVector() const;   // array of strings
  const std::vector<KQValue>& toArray() const;

  // Conversions used by the module's code.
  operator std::string&();
  operator const std::string&() const;
  operator float&();
  operator float() const;
  operator int&();
  operator int() const;
  operator std::vector<float>() const;
  operator std::vector<std::string>() const;

  friend bool operator==(const KQValue& a, const KQValue& b);
  friend bool operator!=(const KQValue& a, const KQValue& b) { return !(a == b); }
  // Strict weak order: first by type, then by content.
  friend bool operator<(const KQValue& a, const KQValue& b);

  // Readable, stable text, as used inside log lines:
  //   invalid -> <invalid>, bool -> true/false, int -> 3, float -> 1.5,
  //   string -> "text" (quoted, escaped), array -> [1, "a", [2.5]]
  std::string toText() const;

 private:
  // Raises "expected <expected>, got <actual type>" for the accessor `method`.
  [[noreturn]] void xThrowWrongType(Type expected, const char* method) const;

  Type type_ = Type::Invalid;
  bool bool_ = false;
  int int_ = 0;
  float float_ = 0.0f;
  std::string string_;
  std::vector<KQValue> array_;
};

std::ostream& operator<<(std::ostream& out, const KQValue& value);

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_VALUE_H_
