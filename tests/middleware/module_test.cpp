// The method table: binding member functions by name, calling them with
// arrays of dynamic values, and refusing bad calls before the member runs.
#include "middleware/module.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "middleware/broker.h"
#include "middleware/error.h"

namespace KQ {
namespace {

// A module whose members cover every bindable parameter and result type.
class Calculator : public KQModule {
 public:
  Calculator(std::shared_ptr<KQBroker> broker, const std::string& name) : KQModule(broker, name) {
    functionName("scale", getName(), "Scale a list.", 0);
    advertiseMethod(&Calculator::scale);
    functionName("join", getName(), "", 0);
    advertiseMethod(&Calculator::join);
    functionName("half", getName(), "Half of a float.", 0);
    advertiseMethod(&Calculator::half);
    functionName("touch", getName(), "Counts calls.", 0);
    advertiseMethod(&Calculator::touch);
    functionName("echo", getName(), "Echo any value.", 0);
    advertiseMethod(&Calculator::echo);
    functionName("pick", getName(), "", 0);
    advertiseMethod(&Calculator::pick);
    functionName("fail", getName(), "Always fails.", 0);
    advertiseMethod(&Calculator::fail);
    // Bound under another name, as the world model binds "load" to save().
    functionName("alias", getName(), "", 0);
    advertiseMethod(&Calculator::touch);
  }

  std::vector<float> scale(const std::vector<float>& values, const float& factor) {
    std::vector<float> out;
    for (float v : values) out.push_back(v * factor);
    return out;
  }
  std::string join(const std::vector<std::string>& parts, const std::string& separator) const {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? separator : "") + parts[i];
    return out;
  }
  float half(float value) { return value / 2.0f; }
  void touch() { ++touched; }
  KQValue echo(const KQValue& value) { return value; }
  int pick(const int& index, const bool& negate) { return negate ? -index : index; }
  int fail(const std::string& why) { throw KQError(getName(), "fail", why, "", 0); }

  int touched = 0;
};

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker = std::make_shared<KQBroker>("test");
    calculator = KQModule::createModule<Calculator>(broker, "Calculator");
  }
  KQValue args(std::vector<KQValue> values) { return KQValue(values); }

  std::shared_ptr<KQBroker> broker;
  std::shared_ptr<Calculator> calculator;
};

TEST_F(ModuleTest, MethodListKeepsRegistrationOrderAndDescriptions) {
  const std::vector<KQMethodDescription> list = calculator->getMethodList();
  std::vector<std::string> names;
  for (const auto& m : list) names.push_back(m.name);
  EXPECT_EQ(names, (std::vector<std::string>{"scale", "join", "half", "touch", "echo", "pick", "fail", "alias"}));
  EXPECT_EQ(list[0].description, "Scale a list.");
  EXPECT_EQ(list[0].signature, "array of float(array of float, float)");
  EXPECT_EQ(list[3].signature, "void()");
}

TEST_F(ModuleTest, CallsConvertArgumentsAndResults) {
  // Case: a float list and a float; an int list element is accepted as a float.
  KQValue scaled = calculator->callMethod("scale", args({KQValue(std::vector<KQValue>{KQValue(1), KQValue(2.5f)}),
                                                         KQValue(2.0f)}));
  EXPECT_EQ(scaled.toFloatVector(), (std::vector<float>{2.0f, 5.0f}));

  // Case: an int where a float is expected is accepted.
  EXPECT_FLOAT_EQ(calculator->callMethod("half", args({KQValue(3)})).toFloat(), 1.5f);

  // Case: strings, a const member, and a void result gives an invalid value.
  EXPECT_EQ(calculator->callMethod("join", args({KQValue(std::vector<std::string>{"a", "b"}), KQValue("-")}))
                .toString(),
            "a-b");
  EXPECT_FALSE(calculator->callMethod("touch", args({})).isValid());
  EXPECT_EQ(calculator->touched, 1);

  // Case: a void call may also come with no argument array at all.
  EXPECT_FALSE(calculator->callMethod("alias", KQValue()).isValid());
  EXPECT_EQ(calculator->touched, 2);

  // Case: a KQValue parameter takes anything, nested arrays included.
  KQValue nested(std::vector<KQValue>{KQValue("x"), KQValue(std::vector<float>{1.0f})});
  EXPECT_EQ(calculator->callMethod("echo", args({nested})), nested);
}

TEST_F(ModuleTest, BadCallsAreRefusedBeforeTheMemberRuns) {
  // Case: wrong argument count.
  try {
    calculator->callMethod("pick", args({KQValue(1)}));
    FAIL() << "expected KQArgumentError";
  } catch (const KQArgumentError& e) {
    EXPECT_EQ(e.getModuleName(), "Calculator");
    EXPECT_EQ(e.getMethodName(), "pick");
    EXPECT_EQ(e.getMessage(), "expects 2 arguments, got 1");
  }

  // Case: a float where an int is expected names the argument.
  try {
    calculator->callMethod("pick", args({KQValue(1.5f), KQValue(true)}));
    FAIL() << "expected KQArgumentError";
  } catch (const KQArgumentError& e) {
    EXPECT_EQ(e.getMessage(), "argument 1 must be int, not float 1.5");
  }

  // Case: one bad element makes a float list wrong as a whole; the member never runs.
  const int before = calculator->touched;
  try {
    calculator->callMethod("scale", args({KQValue(std::vector<KQValue>{KQValue(1.0f), KQValue("two")}),
                                          KQValue(1.0f)}));
    FAIL() << "expected KQArgumentError";
  } catch (const KQArgumentError& e) {
    EXPECT_EQ(e.getMessage(), "argument 1 must be array of float, not array [1.0, \"two\"]");
  }
  EXPECT_EQ(calculator->touched, before);

  // Case: an unknown method.
  EXPECT_THROW(calculator->callMethod("divide", args({})), KQUnknownMethodError);

  // Case: an error raised by the member itself passes through unchanged.
  try {
    calculator->callMethod("fail", args({KQValue("no reason")}));
    FAIL() << "expected KQError";
  } catch (const KQArgumentError&) {
    FAIL() << "a method's own error is not an argument error";
  } catch (const KQError& e) {
    EXPECT_EQ(e.getMessage(), "no reason");
  }
}

}  // namespace
}  // namespace KQ
