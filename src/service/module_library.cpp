#include "service/module_library.h"

#include <dlfcn.h>

#include <exception>
#include <stdexcept>

#include "middleware/log.h"

namespace KQTools {
namespace {

std::string loaderError() {
  const char* text = ::dlerror();
  return text ? std::string(text) : std::string("unknown loader error");
}

}  // namespace

ModuleLibrary::ModuleLibrary(const std::string& path) : path_(path) {
  ::dlerror();
  handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle_ == nullptr) throw std::runtime_error(loaderError());
  create_ = reinterpret_cast<EntryPoint>(::dlsym(handle_, "_createModule"));
  if (create_ == nullptr) {
    ::dlclose(handle_);
    handle_ = nullptr;
    throw std::runtime_error("no _createModule entry point");
  }
  close_ = reinterpret_cast<EntryPoint>(::dlsym(handle_, "_closeModule"));
}

ModuleLibrary::~ModuleLibrary() {
  if (handle_ != nullptr) ::dlclose(handle_);
}

void ModuleLibrary::create(const std::shared_ptr<KQ::KQBroker>& broker) {
  int status = 0;
  try {
    status = create_(broker);
  } catch (const std::exception& e) {
    throw std::runtime_error(std::string("_createModule failed: ") + e.what());
  } catch (...) {
    throw std::runtime_error("_createModule failed with an unknown exception");
  }
  if (status != 0) throw std::runtime_error("_createModule returned " + std::to_string(status));
}

void ModuleLibrary::close(const std::shared_ptr<KQ::KQBroker>& broker) noexcept {
  if (close_ == nullptr) return;
  try {
    const int status = close_(broker);
    if (status != 0) {
      KO_LOG(ko::log::warning, "kqbroker", "", "closeModule", 0) << path_ << ": _closeModule returned " << status;
    }
  } catch (const std::exception& e) {
    KO_LOG(ko::log::warning, "kqbroker", "", "closeModule", 0) << path_ << ": _closeModule failed: " << e.what();
  } catch (...) {
    KO_LOG(ko::log::warning, "kqbroker", "", "closeModule", 0) << path_ << ": _closeModule failed";
  }
}

}  // namespace KQTools
