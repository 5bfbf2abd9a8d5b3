// KQError: the one exception type of the middleware. It carries the module
// and method that raised it, the message, and the source position.
//
// what() reads as one sentence, "<module>.<method>: <message>", for instance
//   "KQWorldRepresentation.getAttributesFromCategory: Category Cups does not
//    exist, cannot retrieve attributes."
// The message is taken as given (no period added); an empty module or method
// drops its piece ("method: message", "module: message", "message"). The
// source file and line are kept for getFile/getLine but stay out of what():
// they are noise to a remote caller reading the text.
// KQArgumentError marks a call that was refused before the method ran (wrong
// argument count or type); the network front answers it with -32602.
#ifndef KQ_MIDDLEWARE_ERROR_H_
#define KQ_MIDDLEWARE_ERROR_H_

#include <exception>
#include <string>

namespace KQ {

class KQError : public std::exception {
 public:
  KQError(const std::string& moduleName, const std::string& methodName,
          const std::string& message, const char* file = "", unsigned line = 0);
  KQError(const KQError&) = default;
  KQError& operator=(const KQError&) = default;
  ~KQError() override = default;

  const char* what() const noexcept override { return text_.c_str(); }
  const std::string& getModuleName() const { return module_; }
  const std::string& getMethodName() const { return method_; }
  const std::string& getMessage() const { return message_; }
  const std::string& getFile() const { return file_; }
  unsigned getLine() const { return line_; }

 private:
  std::string module_;
  std::string method_;
  std::string message_;
  std::string file_;
  unsigned line_;
  std::string text_;
};

// Refusal of a call by the method table: wrong argument count or type.
class KQArgumentError : public KQError {
 public:
  using KQError::KQError;
};

// Refusal of a call because the module or method is unknown.
class KQUnknownMethodError : public KQError {
 public:
  using KQError::KQError;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_ERROR_H_
