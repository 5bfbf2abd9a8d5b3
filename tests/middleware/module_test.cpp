// Modules, the broker and KQError: the method table calls bound members with
// arrays of values and refuses bad calls before the member runs; the broker
// hosts modules and hands out proxies; KQError is the sentence callers read.
#include "middleware/module.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/proxy.h"

namespace KQ {
namespace {

TEST(ErrorTest, WhatReadsModuleMethodAndMessageWithoutStraySeparators) {
  EXPECT_STREQ("KQWorld.getData: Category Cups does not exist.",
               KQError("KQWorld", "getData", "Category Cups does not exist.", "world.cpp", 42).what());
  EXPECT_STREQ("init: no robot", KQError("", "init", "no robot").what());
  EXPECT_STREQ("KQMotion: no robot", KQError("KQMotion", "", "no robot").what());
  EXPECT_STREQ("no robot", KQError("", "", "no robot").what());
  // Case: a null file name is an empty one, not a crash.
  EXPECT_EQ("", KQError("m", "f", "x", nullptr, 0).getFile());
}


class Calculator : public KQModule {
 public:
  Calculator(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {
    functionName("scale", getName(), "", 0);
    advertiseMethod(&Calculator::scale);
    functionName("join", getName(), "", 0);
    advertiseMethod(&Calculator::join);
    functionName("pick", getName(), "", 0);
    advertiseMethod(&Calculator::pick);
    functionName("echo", getName(), "", 0);
    advertiseMethod(&Calculator::echo);
    functionName("fail", getName(), "", 0);
    advertiseMethod(&Calculator::fail);
    // Bound under another name, as the world model binds "load" to save().
    functionName("alias", getName(), "", 0);
    advertiseMethod(&Calculator::touch);
  }
  std::vector<float> scale(const std::vector<float>& values, const float& factor) {
    ++calls;
    std::vector<float> out;
    for (float v : values) out.push_back(v * factor);
    return out;
  }
  std::string join(const std::vector<std::string>& parts, const std::string& separator) const {
    return parts.at(0) + separator + parts.at(1);
  }
  int pick(const int& index, const bool& negate) { return negate ? -index : index; }
  KQValue echo(const KQValue& value) { return value; }
  int fail(const std::string& why) { throw KQError(getName(), "fail", why, "", 0); }
  void touch() { ++calls; }
  int calls = 0;
};

KQValue args(std::vector<KQValue> values) { return KQValue(values); }

TEST(ModuleTest, CallsConvertArgumentsAndResults) {
  auto broker = std::make_shared<KQBroker>("test");
  auto calc = KQModule::createModule<Calculator>(broker, "Calculator");
  // Case: ints are accepted where floats are meant, in a list and alone.
  EXPECT_EQ(calc->callMethod("scale", args({args({1, 2.5f}), 2})).toFloatVector(), (std::vector<float>{2.0f, 5.0f}));
  EXPECT_EQ(calc->callMethod("join", args({KQValue(std::vector<std::string>{"a", "b"}), "-"})).toString(), "a-b");
  // Case: a void member with no argument array at all gives an invalid value.
  EXPECT_FALSE(calc->callMethod("alias", KQValue()).isValid());
  KQValue nested = args({"x", args({1.0f})});
  EXPECT_EQ(calc->callMethod("echo", args({nested})), nested);
}

TEST(ModuleTest, BadCallsAreRefusedBeforeTheMemberRuns) {
  auto broker = std::make_shared<KQBroker>("test");
  auto calc = KQModule::createModule<Calculator>(broker, "Calculator");
  const struct {
    const char* method;
    KQValue arguments;
    const char* message;
  } refusals[] = {
      {"pick", args({1}), "expects 2 arguments, got 1"},
      {"pick", args({1.5f, true}), "argument 1 must be int, not float 1.5"},
      {"scale", args({args({1.0f, "two"}), 1.0f}), "argument 1 must be array of float, not array [1.0, \"two\"]"},
  };
  for (const auto& r : refusals) {
    try {
      calc->callMethod(r.method, r.arguments);
      ADD_FAILURE() << r.message;
    } catch (const KQArgumentError& e) {
      EXPECT_EQ(e.getMethodName(), r.method);
      EXPECT_EQ(e.getMessage(), r.message);
    }
  }
  EXPECT_EQ(calc->calls, 0);
  EXPECT_THROW(calc->callMethod("divide", args({})), KQUnknownMethodError);
  // Case: the member's own error passes through, not as an argument error.
  try {
    calc->callMethod("fail", args({"no reason"}));
    ADD_FAILURE();
  } catch (const KQArgumentError&) {
    ADD_FAILURE() << "a method's own error is not an argument error";
  } catch (const KQError& e) {
    EXPECT_EQ(e.getMessage(), "no reason");
  }
}

class Greeter : public KQModule {
 public:
  Greeter(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {
    functionName("greet", getName(), "Say hello.", 0);
    advertiseMethod(&Greeter::greet);
  }
  std::string greet(const std::string& who) { return "hello " + who; }
};

// Its init fails: the creator must see exit() run before the error.
class FailingInit : public KQModule {
 public:
  FailingInit(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {}
  void init() override { throw KQError(getName(), "init", "no robot", "", 0); }
  void exit() override {
    ++exits;
    KQModule::exit();
  }
  static inline int exits = 0;
};

TEST(BrokerTest, ProxiesReachModulesHereOrThroughTheRemoteFactory) {
  auto broker = std::make_shared<KQBroker>("local");
  KQModule::createModule<Greeter>(broker, "Greeter");
  EXPECT_EQ(broker->getProxy("Greeter")->call("greet", std::string("robot")).toString(), "hello robot");
  // Case: a second module of the same name is refused; the first stays.
  EXPECT_THROW(KQModule::createModule<Greeter>(broker, "Greeter"), KQError);
  EXPECT_EQ(broker->getModuleNames(), std::vector<std::string>{"Greeter"});

  // Case: unknown here, the factory is asked; nothing there either is a KQError.
  auto client = std::make_shared<KQBroker>("client");
  client->setRemoteProxyFactory([&](const std::string& name) -> std::shared_ptr<KQProxy> {
    std::shared_ptr<KQModuleCore> module = broker->getModule(name);
    return module ? std::make_shared<KQLocalProxy>(module) : nullptr;
  });
  EXPECT_EQ(client->getProxy("Greeter")->call("greet", std::string("you")).toString(), "hello you");
  try {
    client->getProxy("KQMotion");
    FAIL() << "expected KQError";
  } catch (const KQError& e) {
    EXPECT_EQ(e.getMessage(), "Cannot find module KQMotion at broker client");
  }
}

TEST(BrokerTest, FailedInitExitsTheModuleBeforeTheErrorReachesTheCreator) {
  auto broker = std::make_shared<KQBroker>("local");
  try {
    KQModule::createModule<FailingInit>(broker, "Failing");
    FAIL() << "expected KQError";
  } catch (const KQError& e) {
    EXPECT_EQ(e.getMessage(), "no robot");
    EXPECT_EQ(FailingInit::exits, 1);
  }
  EXPECT_EQ(broker->getModule("Failing"), nullptr);
}

}  // namespace
}  // namespace KQ
