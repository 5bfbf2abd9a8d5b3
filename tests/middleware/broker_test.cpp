// The broker: hosting modules, handing out proxies, and the creation
// sequence (register, init, exit on a failed init).
#include "middleware/broker.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "middleware/memory_proxy.h"
#include "middleware/proxy.h"

namespace KQ {
namespace {

class Greeter : public KQModule {
 public:
  Greeter(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {
    functionName("greet", getName(), "Say hello.", 0);
    advertiseMethod(&Greeter::greet);
  }
  std::string greet(const std::string& who) { return "hello " + who; }
};

// A module whose init fails, to check that the creator sees exit() first.
class FailingInit : public KQModule {
 public:
  FailingInit(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {}
  void init() override { throw KQError(getName(), "init", "no robot", "", 0); }
  void exit() override {
    ++exits;
    KQModule::exit();
  }
  static int exits;
};
int FailingInit::exits = 0;

TEST(BrokerTest, ProxiesReachHostedModulesByName) {
  auto broker = std::make_shared<KQBroker>("local");
  KQModule::createModule<Greeter>(broker, "Greeter");

  // Case: a local proxy calls by name.
  std::shared_ptr<KQProxy> proxy = broker->getProxy("Greeter");
  EXPECT_EQ(proxy->getModuleName(), "Greeter");
  EXPECT_EQ(proxy->call("greet", std::string("robot")).toString(), "hello robot");
  ASSERT_EQ(proxy->getMethodList().size(), 1u);

  // Case: an unknown module is a KQError with a clear sentence.
  try {
    broker->getProxy("KQMotion");
    FAIL() << "expected KQError";
  } catch (const KQError& e) {
    EXPECT_EQ(e.getMessage(), "Cannot find module KQMotion at broker local");
  }

  // Case: a second module of the same name is refused; the first stays.
  EXPECT_THROW(KQModule::createModule<Greeter>(broker, "Greeter"), KQError);
  EXPECT_EQ(broker->getModuleNames(), std::vector<std::string>{"Greeter"});

  // Case: a module that raises no events refuses subscriptions.
  EXPECT_THROW(proxy->subscribe("anything", [](const std::string&, const KQValue&) {}), KQError);
}

TEST(BrokerTest, RemoteFactoryAnswersForModulesNotHostedHere) {
  auto host = std::make_shared<KQBroker>("host");
  KQModule::createModule<Greeter>(host, "Greeter");
  auto client = std::make_shared<KQBroker>("client");
  int asked = 0;
  client->setRemoteProxyFactory([&](const std::string& name) -> std::shared_ptr<KQProxy> {
    ++asked;
    std::shared_ptr<KQModuleCore> module = host->getModule(name);
    return module ? std::make_shared<KQLocalProxy>(module) : nullptr;
  });
  EXPECT_EQ(client->getProxy("Greeter")->call("greet", std::string("you")).toString(), "hello you");
  EXPECT_THROW(client->getProxy("Nobody"), KQError);
  EXPECT_EQ(asked, 2);
}

TEST(BrokerTest, FailedInitExitsTheModuleBeforeTheErrorReachesTheCreator) {
  auto broker = std::make_shared<KQBroker>("local");
  FailingInit::exits = 0;
  try {
    KQModule::createModule<FailingInit>(broker, "Failing");
    FAIL() << "expected KQError";
  } catch (const KQError& e) {
    EXPECT_EQ(e.getMessage(), "no robot");
    EXPECT_EQ(FailingInit::exits, 1);
  }
  // exit() unregistered it.
  EXPECT_EQ(broker->getModule("Failing"), nullptr);
}

TEST(BrokerTest, ShutdownExitsModulesLastRegisteredFirst) {
  auto broker = std::make_shared<KQBroker>("local");
  KQModule::createModule<Greeter>(broker, "First");
  KQModule::createModule<Greeter>(broker, "Second");
  broker->shutdown();
  EXPECT_TRUE(broker->getModuleNames().empty());
}

}  // namespace
}  // namespace KQ
