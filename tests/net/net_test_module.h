// NetTestModule ("NetTest"): a small module the network suite hosts behind
// a real RpcServer. Its methods cover what the network must carry: ints,
// any value echoed back, a pose shaped like the world model's getPosition,
// refusals (KQError and a foreign exception), an event raised through the
// memory module, and a call that holds a lock until the test lets it go,
// the way a world-model call waits on the graph lock.
//
// Threading: every method is safe from any thread; holdLock takes lock_
// exclusively and waits on the gate under gateMutex_, never the other way.
#ifndef KQ_TESTS_NET_NET_TEST_MODULE_H_
#define KQ_TESTS_NET_NET_TEST_MODULE_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "middleware/module.h"
#include "middleware/value.h"

namespace KQ {
namespace test {

class NetTestModule : public KQModule {
 public:
  NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name);

  // Advertised, in this order.
  int add(int a, int b);
  KQValue echo(const KQValue& value);
  // [[w, x, y, z], [x, y, z]] of name in reference: a fixed pose of "cup"
  // in "World"; anything else is refused like the world model refuses.
  KQValue getPosition(const std::string& reference, const std::string& name);
  void fail(const std::string& message);  // throws KQError(NetTest, fail, message)
  void failOddly();                       // throws std::runtime_error
  int bump();                             // counts its calls; answers the new count
  void raise(const std::string& event, const KQValue& value);  // through KQMemory
  int holdLock();                          // waits for the next openGate() under lock_
  int readLocked();                        // shared lock_: waits while a hold lasts
  std::string ping();                      // takes no lock

  // --- C++ API for tests.
  int bumps() const;
  // Waits (at most 20 s) until count holdLock calls have started waiting.
  bool waitHolding(int count);
  // Waits (at most 20 s) until count holdLock calls have returned.
  bool waitReleased(int count);
  // Lets every holdLock call waiting now return; later ones wait again.
  void openGate();

 private:
  std::shared_mutex lock_;
  mutable std::mutex gateMutex_;
  std::condition_variable gateChanged_;
  int gateGeneration_ = 0;  // guarded by gateMutex_
  int holding_ = 0;        // guarded by gateMutex_
  int released_ = 0;       // guarded by gateMutex_
  int bumps_ = 0;          // guarded by gateMutex_
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_NET_NET_TEST_MODULE_H_
