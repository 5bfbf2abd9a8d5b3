// ModuleLibrary: one module library loaded into this broker process from the
// command line (--load PATH): a shared library exporting, with C linkage,
//   int _createModule(std::shared_ptr<KQ::KQBroker> broker);
//   int _closeModule(std::shared_ptr<KQ::KQBroker> broker);   (optional)
// as the world model's own library does.
//
// open() resolves _createModule before anything runs, so a library without
// it is refused having created nothing; create() calls it, close() calls
// _closeModule. The library is opened with RTLD_NODELETE: objects it made
// (a proxy another module still holds, a subscription's callback, the
// destructors it registered) may outlive its modules' exit, and their code
// must stay mapped until the process ends. The destructor therefore only
// drops the handle.
//
// Threading: used by the main thread only, at start and at stop.
#ifndef KQ_SERVICE_MODULE_LIBRARY_H_
#define KQ_SERVICE_MODULE_LIBRARY_H_

#include <memory>
#include <string>

namespace KQ {
class KQBroker;
}

namespace KQTools {

class ModuleLibrary {
 public:
  // Throws std::runtime_error with the loader's reason when the library
  // cannot be opened or has no _createModule.
  explicit ModuleLibrary(const std::string& path);
  ~ModuleLibrary();
  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;

  const std::string& path() const { return path_; }

  // Calls _createModule; a non-zero status or an exception becomes a
  // std::runtime_error naming the cause.
  void create(const std::shared_ptr<KQ::KQBroker>& broker);
  // Calls _closeModule when the library has one; never throws (the process
  // is stopping; the failure is logged).
  void close(const std::shared_ptr<KQ::KQBroker>& broker) noexcept;

 private:
  using EntryPoint = int (*)(std::shared_ptr<KQ::KQBroker>);

  std::string path_;
  void* handle_ = nullptr;
  EntryPoint create_ = nullptr;
  EntryPoint close_ = nullptr;
};

}  // namespace KQTools

#endif  // KQ_SERVICE_MODULE_LIBRARY_H_
