#include "net/net_test_module.h"

#include <chrono>
#include <stdexcept>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/proxy.h"

namespace KQ {
namespace test {

NetTestModule::NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name)
    : KQModule(std::move(broker), name) {
  functionName("add", getName(), "Adds two ints.", 0);
  advertiseMethod(&NetTestModule::add);
  functionName("echo", getName(), "Returns its argument.", 0);
  advertiseMethod(&NetTestModule::echo);
  functionName("getPosition", getName(), "Pose of an object in a reference frame.", 0);
  advertiseMethod(&NetTestModule::getPosition);
  functionName("fail", getName(), "Refuses with the given message.", 0);
  advertiseMethod(&NetTestModule::fail);
  functionName("failOddly", getName(), "Throws something that is not a KQError.", 0);
  advertiseMethod(&NetTestModule::failOddly);
  functionName("bump", getName(), "Counts its calls.", 0);
  advertiseMethod(&NetTestModule::bump);
  functionName("raise", getName(), "Raises an event through the memory module.", 0);
  advertiseMethod(&NetTestModule::raise);
  functionName("holdLock", getName(), "Holds the module lock until released.", 0);
  advertiseMethod(&NetTestModule::holdLock);
  functionName("readLocked", getName(), "Reads under the module lock.", 0);
  advertiseMethod(&NetTestModule::readLocked);
  functionName("ping", getName(), "Answers pong without any lock.", 0);
  advertiseMethod(&NetTestModule::ping);
}

int NetTestModule::add(int a, int b) { return a + b; }

KQValue NetTestModule::echo(const KQValue& value) { return value; }

KQValue NetTestModule::getPosition(const std::string& reference, const std::string& name) {
  if (reference != "World" || name != "cup")
    throw KQError(getName(), "getPosition", "Object " + name + " does not exist.");
  // cupInWorld: a quarter turn about z, 0.5 m ahead at table height.
  KQValue pose;
  pose.arrayPush(KQValue(std::vector<float>{0.70710677f, 0.0f, 0.0f, 0.70710677f}));
  pose.arrayPush(KQValue(std::vector<float>{0.5f, 0.0f, 0.75f}));
  return pose;
}

void NetTestModule::fail(const std::string& message) { throw KQError(getName(), "fail", message); }

void NetTestModule::failOddly() { throw std::runtime_error("something odd"); }

int NetTestModule::bump() {
  std::lock_guard<std::mutex> lock(gateMutex_);
  return ++bumps_;
}

void NetTestModule::raise(const std::string& event, const KQValue& value) {
  getParentBroker()->getProxy("KQMemory")->call("raiseEvent", event, value);
}

int NetTestModule::holdLock() {
  std::unique_lock<std::shared_mutex> held(lock_);
  std::unique_lock<std::mutex> lock(gateMutex_);
  const int generation = gateGeneration_;
  ++holding_;
  gateChanged_.notify_all();
  gateChanged_.wait(lock, [&] { return gateGeneration_ != generation; });
  const int released = ++released_;
  gateChanged_.notify_all();
  return released;
}

int NetTestModule::readLocked() {
  std::shared_lock<std::shared_mutex> held(lock_);
  return 7;
}

std::string NetTestModule::ping() { return "pong"; }

int NetTestModule::bumps() const {
  std::lock_guard<std::mutex> lock(gateMutex_);
  return bumps_;
}

bool NetTestModule::waitHolding(int count) {
  std::unique_lock<std::mutex> lock(gateMutex_);
  return gateChanged_.wait_for(lock, std::chrono::seconds(20), [&] { return holding_ >= count; });
}

bool NetTestModule::waitReleased(int count) {
  std::unique_lock<std::mutex> lock(gateMutex_);
  return gateChanged_.wait_for(lock, std::chrono::seconds(20), [&] { return released_ >= count; });
}

void NetTestModule::openGate() {
  {
    std::lock_guard<std::mutex> lock(gateMutex_);
    ++gateGeneration_;
  }
  gateChanged_.notify_all();
}

}  // namespace test
}  // namespace KQ
