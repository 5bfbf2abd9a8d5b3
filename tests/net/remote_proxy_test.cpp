// A module at another broker, reached the way a process started with
// --parent reaches it: the child broker has no NetTest and no KQMemory of
// its own, and its proxies speak to the parent's server.
//
//   parent broker: KQMemory, NetTest, RpcServer 127.0.0.1:<port>
//        ^  one WebSocket, shared by every proxy
//   child broker: (no modules) --remote proxy factory--> parent
#include "middleware/net/remote_proxy.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "middleware/error.h"
#include "middleware/memory_proxy.h"
#include "net/net_fixture.h"

namespace KQ {
namespace test {
namespace {

class RemoteProxyTest : public NetServerTest {
 protected:
  void SetUp() override {
    NetServerTest::SetUp();
    child_ = std::make_shared<KQBroker>("child");
    child_->setRemoteProxyFactory(net::makeRemoteProxyFactory(wsUrl(), ""));
  }
  void TearDown() override {
    child_.reset();
    NetServerTest::TearDown();
  }
  std::shared_ptr<KQBroker> child_;
};

TEST_F(RemoteProxyTest, CallsListsAndRefusalsLookAsIfTheModuleWereLocal) {
  const std::shared_ptr<KQProxy> proxy = child_->getProxy("NetTest");
  EXPECT_EQ(proxy->getModuleName(), "NetTest");
  EXPECT_EQ(proxy->call("add", 2, 3), KQValue(5));
  EXPECT_EQ(proxy->call("getPosition", std::string("World"), std::string("cup"))[0].toFloatVector(),
            (std::vector<float>{0.70710677f, 0.0f, 0.0f, 0.70710677f}));
  // Case: the method list, in registration order, without signatures.
  const std::vector<KQMethodDescription> methods = proxy->getMethodList();
  ASSERT_EQ(methods.size(), 10u);
  EXPECT_EQ(methods[0].name, "add");
  EXPECT_EQ(methods[0].description, "Adds two ints.");
  EXPECT_EQ(methods[0].signature, "");
  // Case: refusals keep their kinds across the wire.
  EXPECT_THROW(proxy->call("add", 1), KQArgumentError);
  EXPECT_THROW(proxy->call("nope"), KQUnknownMethodError);
  try {
    proxy->call("fail", std::string("no table"));
    FAIL();
  } catch (const KQError& e) {
    EXPECT_EQ(std::string(e.what()), "NetTest.fail: no table");
  }
  // Case: a module the parent does not host either.
  EXPECT_THROW(child_->getProxy("Nope")->call("ping"), KQUnknownMethodError);
  EXPECT_THROW(child_->getProxy("Nope")->getMethodList(), KQUnknownMethodError);
}

TEST_F(RemoteProxyTest, TheTypedMemoryProxyWorksRemotelyEventsIncluded) {
  KQMemoryProxy memory = *child_->getSpecialisedProxy<KQMemoryProxy>("KQMemory");
  memory.insertData("Object/cup", KQValue("cup"));
  EXPECT_EQ(memory.getData("Object/cup"), KQValue("cup"));
  EXPECT_EQ(memory.getDataList("Object/"), std::vector<std::string>{"Object/cup"});

  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<std::string> heard;
  const std::shared_ptr<KQProxy> proxy = child_->getProxy("KQMemory");
  const uint64_t id = proxy->subscribe("KQWorldRepresentation/PositionChanged",
                                       [&](const std::string& event, const KQValue& value) {
                                         std::lock_guard<std::mutex> lock(mutex);
                                         heard.push_back(event + "=" + value.toText());
                                         arrived.notify_all();
                                       });
  memory.raiseEvent("KQWorldRepresentation/PositionChanged", KQValue(std::vector<std::string>{"cup"}));
  {
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(20), [&] { return !heard.empty(); });
  }
  EXPECT_EQ(heard, std::vector<std::string>{"KQWorldRepresentation/PositionChanged=[\"cup\"]"});
  proxy->unsubscribe(id);
}

}  // namespace
}  // namespace test
}  // namespace KQ
