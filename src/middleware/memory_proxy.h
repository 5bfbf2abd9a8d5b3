// KQMemoryProxy: the typed face of a proxy to the memory module ("KQMemory"):
// data keys and events. Every call may throw KQError (an absent key, a
// memory module that refuses, a lost connection).
#ifndef KQ_MIDDLEWARE_MEMORY_PROXY_H_
#define KQ_MIDDLEWARE_MEMORY_PROXY_H_

#include <memory>
#include <string>
#include <vector>

#include "middleware/proxy.h"
#include "middleware/value.h"

namespace KQ {

class KQMemoryProxy {
 public:
  explicit KQMemoryProxy(std::shared_ptr<KQProxy> proxy);

  void insertData(const std::string& key, const KQValue& value);
  KQValue getData(const std::string& key);
  std::vector<std::string> getDataList(const std::string& filter);  // keys containing the text
  void removeData(const std::string& key);
  void declareEvent(const std::string& name);
  void raiseEvent(const std::string& name, const KQValue& value);
  std::vector<std::string> getEventList();

  uint64_t subscribe(const std::string& event, KQEventCallback callback);
  void unsubscribe(uint64_t id);

  const std::shared_ptr<KQProxy>& getGenericProxy() const { return proxy_; }

 private:
  std::shared_ptr<KQProxy> proxy_;
};

}  // namespace KQ

#endif  // KQ_MIDDLEWARE_MEMORY_PROXY_H_
