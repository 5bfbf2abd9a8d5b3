// Glue between a member function and a call by name: reads each argument out
// of a KQValue array according to the member's own parameter type, calls the
// member, and wraps its result back into a KQValue.
//
// Accepted parameter types (by value or const reference): std::string, int,
// bool, float, std::vector<float>, std::vector<std::string>, KQValue. Results:
// void (an invalid KQValue) or any of these. An int is accepted where a float
// is expected; nothing else is converted. A wrong count or type raises
// KQArgumentError naming the method and the argument, before the member runs.
#ifndef KQ_MIDDLEWARE_METHOD_BINDING_H_
#define KQ_MIDDLEWARE_METHOD_BINDING_H_

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "middleware/error.h"
#include "middleware/value.h"

namespace KQ {
namespace binding {

// Describes where an argument came from, for error messages.
struct ArgumentContext {
  const std::string& moduleName;
  const std::string& methodName;
  int index;  // 1-based
};

[[noreturn]] void throwArgumentError(const ArgumentContext& context, const char* expected, const KQValue& actual);
[[noreturn]] void throwArgumentCountError(const std::string& moduleName, const std::string& methodName,
                                          int expected, int actual);

template <class T>
struct ArgumentReader;

template <>
struct ArgumentReader<std::string> {
  static const char* name() { return "string"; }
  static std::string read(const KQValue& v, const ArgumentContext& c) {
    if (!v.isString()) throwArgumentError(c, name(), v);
    return v.toString();
  }
};
template <>
struct ArgumentReader<int> {
  static const char* name() { return "int"; }
  static int read(const KQValue& v, const ArgumentContext& c) {
    if (!v.isInt()) throwArgumentError(c, name(), v);
    return v.toInt();
  }
};
template <>
struct ArgumentReader<bool> {
  static const char* name() { return "bool"; }
  static bool read(const KQValue& v, const ArgumentContext& c) {
    if (!v.isBool()) throwArgumentError(c, name(), v);
    return v.toBool();
  }
};
template <>
struct ArgumentReader<float> {
  static const char* name() { return "float"; }
  static float read(const KQValue& v, const ArgumentContext& c) {
    if (!v.isFloat() && !v.isInt()) throwArgumentError(c, name(), v);
    return v.toFloat();
  }
};
template <>
struct ArgumentReader<std::vector<float>> {
  static const char* name() { return "array of float"; }
  static std::vector<float> read(const KQValue& v, const ArgumentContext& c) {
    if (!v.isArray()) throwArgumentError(c, name(), v);
    for (int i = 0; i < v.getSize(); ++i)
      if (!v[i].isFloat() && !v[i].isInt()) throwArgumentError(c, name(), v);
    return v.toFloatVector();
  }
};
template <>
struct ArgumentReader<std::vector<std::string>> {
  static const char* name() { return "array of string"; }
  static std::vector<std::string> read(const KQValue& v, const ArgumentContext& c) {
    if (!v.isArray()) throwArgumentError(c, name(), v);
    for (int i = 0; i < v.getSize(); ++i)
      if (!v[i].isString()) throwArgumentError(c, name(), v);
    return v.toStringVector();
  }
};
template <>
struct ArgumentReader<KQValue> {
  static const char* name() { return "value"; }
  static const KQValue& read(const KQValue& v, const ArgumentContext&) { return v; }
};

template <class T>
using Plain = std::remove_cv_t<std::remove_reference_t<T>>;

template <class R>
struct ResultWriter {
  template <class F>
  static KQValue call(F&& f) {
    return KQValue(f());
  }
};
template <>
struct ResultWriter<void> {
  template <class F>
  static KQValue call(F&& f) {
    f();
    return KQValue();
  }
};

// The signature text shown in method lists, e.g. "int(string, array of float, bool)".
template <class R>
const char* resultName() {
  if constexpr (std::is_void_v<R>) {
    return "void";
  } else {
    return ArgumentReader<Plain<R>>::name();
  }
}

template <class... A>
std::string parameterNames() {
  std::string out;
  const char* names[] = {"", ArgumentReader<Plain<A>>::name()...};
  for (std::size_t i = 1; i < sizeof...(A) + 1; ++i) {
    if (i > 1) out += ", ";
    out += names[i];
  }
  return out;
}

using Invoker = std::function<KQValue(const KQValue& args)>;

template <class C, class R, class M, class... A, std::size_t... I>
KQValue invoke(C* object, M method, const KQValue& args, const std::string& moduleName,
               const std::string& methodName, std::index_sequence<I...>) {
  // Arguments are read in order, so the first wrong one is the one reported.
  std::tuple<Plain<A>...> values{
      ArgumentReader<Plain<A>>::read(args[static_cast<int>(I)],
                                     ArgumentContext{moduleName, methodName, static_cast<int>(I) + 1})...};
  return ResultWriter<R>::call([&]() -> decltype(auto) { return (object->*method)(std::get<I>(values)...); });
}

template <class C, class R, class M, class... A>
Invoker makeInvoker(C* object, M method, const std::string* moduleName, const std::string& methodName) {
  return [object, method, moduleName, methodName](const KQValue& args) -> KQValue {
    const int given = args.isArray() ? args.getSize() : (args.isValid() ? -1 : 0);
    if (given != static_cast<int>(sizeof...(A)))
      throwArgumentCountError(*moduleName, methodName, static_cast<int>(sizeof...(A)), given < 0 ? 1 : given);
    return invoke<C, R, M, A...>(object, method, args, *moduleName, methodName, std::index_sequence_for<A...>{});
  };
}

}  // namespace binding
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_METHOD_BINDING_H_
