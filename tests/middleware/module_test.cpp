// Modules, the broker and KQError: the method table calls bound members with arrays of values and refuses bad calls
// before the member runs; the broker hosts modules and hands out proxies; KQError is the sentence callers read.
#include "middleware/module.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "support/checks.h"

namespace KQ {
namespace {

using test::errorOf;
using test::list;

TEST(ErrorTest, WhatReadsModuleMethodAndMessageWithoutStraySeparators) {
  EXPECT_STREQ("KQWorld.getData: no cups", KQError("KQWorld", "getData", "no cups", "world.cpp", 42).what());
  EXPECT_STREQ("init: no robot", KQError("", "init", "no robot").what());
  EXPECT_STREQ("no robot", KQError("", "", "no robot").what());
  EXPECT_EQ("", KQError("m", "f", "x", nullptr, 0).getFile());  // a null file name is an empty one
}

class Calculator : public KQModule {
 public:
  Calculator(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {
    functionName("scale", getName(), "", 0);
    advertiseMethod(&Calculator::scale);
    functionName("pick", getName(), "", 0);
    advertiseMethod(&Calculator::pick);
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
  int pick(const int& index, const bool& negate) { return negate ? -index : index; }
  int fail(const std::string& why) { throw KQError(getName(), "fail", why, "", 0); }
  void touch() { ++calls; }
  int calls = 0;
};

TEST(ModuleTest, CallsConvertArgumentsAndRefuseBadOnesBeforeTheMemberRuns) {
  auto broker = std::make_shared<KQBroker>("test");
  auto calc = KQModule::createModule<Calculator>(broker, "Calculator");
  // Case: ints are accepted where floats are meant, in a list and alone.
  EXPECT_EQ(calc->callMethod("scale", list({list({1, 2.5f}), 2})), KQValue(std::vector<float>{2.0f, 5.0f}));
  // Case: a void member with no argument array at all gives an invalid value.
  EXPECT_FALSE(calc->callMethod("alias", KQValue()).isValid());
  calc->calls = 0;
  const struct {
    const char* method;
    KQValue arguments;
    const char* what;
  } refusals[] = {
      {"pick", list({1}), "Calculator.pick: expects 2 arguments, got 1"},
      {"pick", list({1.5f, true}), "Calculator.pick: argument 1 must be int, not float 1.5"},
      {"scale", list({list({1.0f, "two"}), 1.0f}),
       "Calculator.scale: argument 1 must be array of float, not array [1.0, \"two\"]"},
  };
  for (const auto& r : refusals) {
    EXPECT_THROW(calc->callMethod(r.method, r.arguments), KQArgumentError);
    EXPECT_EQ(errorOf([&] { calc->callMethod(r.method, r.arguments); }), r.what);
  }
  EXPECT_EQ(calc->calls, 0);
  EXPECT_THROW(calc->callMethod("divide", list({})), KQUnknownMethodError);
  // Case: the member's own error passes through, not as an argument error.
  try {
    calc->callMethod("fail", list({"no reason"}));
    ADD_FAILURE();
  } catch (const KQError& e) {
    EXPECT_EQ(dynamic_cast<const KQArgumentError*>(&e), nullptr);
    EXPECT_STREQ(e.what(), "Calculator.fail: no reason");
  }
}

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

TEST(BrokerTest, ProxiesReachModulesHostedHere) {
  auto broker = std::make_shared<KQBroker>("local");
  KQModule::createModule<Calculator>(broker, "Calculator");
  EXPECT_EQ(broker->getProxy("Calculator")->call("pick", 3, true), KQValue(-3));
  // Case: a second module of the same name is refused; the first stays.
  EXPECT_THROW(KQModule::createModule<Calculator>(broker, "Calculator"), KQError);
  EXPECT_EQ(broker->getModuleNames(), std::vector<std::string>{"Calculator"});
  // Case: a failed init exits the module before the error reaches the creator.
  EXPECT_EQ(errorOf([&] { KQModule::createModule<FailingInit>(broker, "Failing"); }), "Failing.init: no robot");
  EXPECT_EQ(FailingInit::exits, 1);
  EXPECT_EQ(broker->getModule("Failing"), nullptr);
  // Case: unknown here and with no remote factory (--parent's, which e2e drives) is a KQError.
  EXPECT_EQ(errorOf([&] { broker->getProxy("KQMotion"); }), "KQBroker.getProxy: Cannot find module KQMotion at broker local");
}

}  // namespace
}  // namespace KQ
