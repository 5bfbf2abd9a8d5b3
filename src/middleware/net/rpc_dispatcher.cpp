#include "middleware/net/rpc_dispatcher.h"

#include <cmath>
#include <exception>
#include <utility>
#include <vector>

#include "middleware/broker.h"
#include "middleware/call_sequence.h"
#include "middleware/error.h"
#include "middleware/method_binding.h"
#include "middleware/module.h"
#include "middleware/net/json_codec.h"

namespace KQ {
namespace net {

namespace {

using json = nlohmann::json;

// Carries a JSON-RPC error from deep inside a call to its reply.
struct RpcFailure {
  int code;
  std::string message;
};

json errorReply(const json& id, int code, const std::string& message, const json* data = nullptr) {
  json error = {{"code", code}, {"message", message}};
  if (data) error["data"] = *data;
  return json{{"jsonrpc", "2.0"}, {"error", std::move(error)}, {"id", id}};
}

// Strings from modules are not checked for UTF-8 on the way in; a broken one
// is written with replacement characters instead of failing the whole reply.
std::string dumpJson(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

// An integer too wide for 64 bits reaches here as NaN (see parseJson): it
// cannot be echoed as sent, so it is no valid id.
bool isValidId(const json& id) {
  if (id.is_number_float() && std::isnan(id.get<double>())) return false;
  return id.is_string() || id.is_number() || id.is_null();
}

bool isFinite(const KQValue& value) {
  if (value.getType() == KQValue::Type::Float) return std::isfinite(value.toFloat());
  if (value.getType() != KQValue::Type::Array) return true;
  for (const KQValue& element : value.toArray())
    if (!isFinite(element)) return false;
  return true;
}

// "Module.method" -> the KQError text of that method's failure.
std::string failureOf(const std::string& name, const std::string& message) {
  const std::size_t dot = name.find('.');
  if (dot == std::string::npos) return KQError("", name, message).what();
  return KQError(name.substr(0, dot), name.substr(dot + 1), message).what();
}

int argumentCount(const json* params) { return params ? static_cast<int>(params->size()) : 0; }

// The single string argument of the built-in methods (subscribe, unsubscribe,
// broker.methods), checked like a bound method checks its own.
std::string stringArgument(const std::string& module, const std::string& method, const json* params) {
  try {
    if (argumentCount(params) != 1) binding::throwArgumentCountError(module, method, 1, argumentCount(params));
    const KQValue value = fromJson((*params)[0]);
    if (!value.isString())
      binding::throwArgumentError(binding::ArgumentContext{module, method, 1}, "string", value);
    return value.toString();
  } catch (const KQArgumentError& e) {
    if (e.getModuleName().empty() && e.getMethodName().empty())  // from the codec
      throw RpcFailure{kInvalidParams, KQError(module, method, "argument 1: " + e.getMessage()).what()};
    throw RpcFailure{kInvalidParams, e.what()};
  }
}

}  // namespace

RpcDispatcher::RpcDispatcher(std::shared_ptr<KQBroker> broker, std::vector<std::string> lockFreeMethods,
                             std::size_t maxReplyBytes)
    : broker_(std::move(broker)),
      lockFreeMethods_(lockFreeMethods.begin(), lockFreeMethods.end()),
      maxReplyBytes_(maxReplyBytes) {}

bool RpcDispatcher::isLockFree(const json& request) const {
  if (!request.is_object()) return true;  // refused without a call
  const auto method = request.find("method");
  if (method == request.end() || !method->is_string()) return true;
  const std::string& name = method->get_ref<const std::string&>();
  if (name == "subscribe" || name == "unsubscribe") return true;
  if (name.rfind("broker.", 0) == 0 || name.rfind("KQMemory.", 0) == 0) return true;
  return lockFreeMethods_.count(name) > 0;
}

std::string RpcDispatcher::eventNotification(const std::string& event, const KQValue& value) {
  std::string out = R"({"jsonrpc":"2.0","method":"event","params":[)";
  appendJson(KQValue(event), out);
  out += ',';
  appendJson(value, out);
  out += "]}";
  return out;
}

std::string RpcDispatcher::handle(std::string_view text, RpcSubscriptions* subscriptions) const {
  return run(prepare(text), subscriptions);
}

PreparedMessage RpcDispatcher::prepare(std::string_view text) const {
  PreparedMessage message;
  const auto answer = [&message](std::string reply) {
    message.answered = true;
    message.reply = std::move(reply);
    return std::move(message);
  };
  try {
    std::string detail;
    switch (parseJson(text, message.document, kMaxJsonDepth, &detail)) {
      case ParseOutcome::TooDeep:
        return answer(dumpJson(errorReply(
            nullptr, kInvalidRequest, "Invalid Request: nested deeper than " + std::to_string(kMaxJsonDepth) + " levels")));
      case ParseOutcome::SyntaxError: {
        const json data = detail;
        return answer(dumpJson(errorReply(nullptr, kParseError, "Parse error", &data)));
      }
      case ParseOutcome::Ok:
        break;
    }
    if (message.document.is_array()) {
      if (message.document.empty())
        return answer(dumpJson(errorReply(nullptr, kInvalidRequest, "Invalid Request: empty batch")));
      for (const json& request : message.document) message.lockFree = message.lockFree && isLockFree(request);
    } else {
      message.lockFree = isLockFree(message.document);
    }
    return message;
  } catch (const std::exception& e) {
    // Only running out of memory can land here; answer rather than drop.
    return answer(dumpJson(errorReply(nullptr, kMethodFailed, std::string("Server error: ") + e.what())));
  }
}

std::string RpcDispatcher::run(const PreparedMessage& message, RpcSubscriptions* subscriptions) const {
  if (message.answered) return message.reply;
  try {
    const json& document = message.document;
    if (document.is_array()) {
      std::string replies;
      {
        // The batch's answers leave together: work its calls put off until
        // then (commits of stored objects' rows) is done once, before.
        CallSequence sequence;
        for (const json& request : document) {
          const std::size_t before = replies.size();
          if (before > 0) replies += ',';
          handleOne(request, subscriptions, replies);
          if (replies.size() == before + 1) replies.resize(before);  // a notification: no comma either
        }
      }
      return replies.empty() ? std::string() : "[" + replies + "]";
    }
    std::string reply;
    handleOne(document, subscriptions, reply);
    return reply;
  } catch (const std::exception& e) {
    return dumpJson(errorReply(nullptr, kMethodFailed, std::string("Server error: ") + e.what()));
  }
}

void RpcDispatcher::handleOne(const json& request, RpcSubscriptions* subscriptions, std::string& out) const {
  const auto refuse = [&out](const json& id, const std::string& message) {
    out += dumpJson(errorReply(id, kInvalidRequest, message));
  };
  if (!request.is_object()) return refuse(nullptr, "Invalid Request: not an object");
  const auto idField = request.find("id");
  const bool isNotification = idField == request.end();
  if (!isNotification && idField->is_number_float() && std::isnan(idField->get<double>()))
    return refuse(nullptr, "Invalid Request: \"id\" does not fit in 64 bits");
  if (!isNotification && !isValidId(*idField))
    return refuse(nullptr, "Invalid Request: \"id\" must be a string, a number or null");
  const json id = isNotification ? json() : *idField;

  const auto version = request.find("jsonrpc");
  if (version == request.end() || !version->is_string() || version->get_ref<const std::string&>() != "2.0")
    return refuse(id, "Invalid Request: \"jsonrpc\" must be \"2.0\"");
  const auto method = request.find("method");
  if (method == request.end() || !method->is_string())
    return refuse(id, "Invalid Request: \"method\" must be a string");
  const auto paramsField = request.find("params");
  const json* params = paramsField == request.end() ? nullptr : &*paramsField;
  if (params && !params->is_array() && !params->is_object())
    return refuse(id, "Invalid Request: \"params\" must be an array");

  try {
    const std::string& name = method->get_ref<const std::string&>();
    const KQValue result = call(name, params, subscriptions);
    if (isNotification) return;
    // JSON has no NaN or infinity; null would pass for a value.
    if (!isFinite(result)) throw RpcFailure{kMethodFailed, failureOf(name, "the result holds a number that is not finite")};
    // Written straight to text, in the key order nlohmann would use.
    const std::size_t start = out.size();
    out += "{\"id\":";
    out += dumpJson(id);
    out += ",\"jsonrpc\":\"2.0\",\"result\":";
    appendJson(result, out);
    out += '}';
    // out holds the batch so far: a call that makes it too long is answered
    // with an error instead (never more than one reply past the bound).
    if (out.size() > maxReplyBytes_) {
      out.resize(start);
      throw RpcFailure{kMethodFailed, "reply too large"};
    }
  } catch (const RpcFailure& failure) {
    if (isNotification) return;
    out += dumpJson(errorReply(id, failure.code, failure.message));
  }
}

KQValue RpcDispatcher::call(const std::string& name, const json* params, RpcSubscriptions* subscriptions) const {
  if (name == "subscribe" || name == "unsubscribe") {
    if (subscriptions == nullptr)
      throw RpcFailure{kMethodNotFound, "Unknown method: " + name + " (events need a WebSocket at /ws)"};
    if (params && params->is_object())
      throw RpcFailure{kInvalidParams, name + ": params must be an array of positional arguments"};
    const std::string event = stringArgument("", name, params);
    try {
      return KQValue(name == "subscribe" ? subscriptions->subscribe(event) : subscriptions->unsubscribe(event));
    } catch (const std::exception& e) {
      throw RpcFailure{kMethodFailed, e.what()};
    }
  }

  const std::size_t dot = name.find('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size())
    throw RpcFailure{kMethodNotFound, "Unknown method: " + name + " (expected <Module>.<method>)"};
  const std::string moduleName = name.substr(0, dot);
  const std::string methodName = name.substr(dot + 1);

  if (moduleName == "broker") {
    if (params && params->is_object())
      throw RpcFailure{kInvalidParams, name + ": params must be an array of positional arguments"};
    if (methodName == "modules") {
      if (argumentCount(params) != 0) {
        try {
          binding::throwArgumentCountError("broker", "modules", 0, argumentCount(params));
        } catch (const KQArgumentError& e) {
          throw RpcFailure{kInvalidParams, e.what()};
        }
      }
      return KQValue(broker_->getModuleNames());
    }
    if (methodName == "methods") {
      const std::string target = stringArgument("broker", "methods", params);
      const std::shared_ptr<KQModuleCore> module = broker_->getModule(target);
      if (!module) throw RpcFailure{kMethodNotFound, "Unknown module: " + target};
      KQValue list;
      list.arraySetSize(0);
      for (const KQMethodDescription& method : module->getMethodList())
        list.arrayPush(KQValue(std::vector<std::string>{method.name, method.description}));
      return list;
    }
    throw RpcFailure{kMethodNotFound, "Unknown method: " + name};
  }

  const std::shared_ptr<KQModuleCore> module = broker_->getModule(moduleName);
  if (!module) throw RpcFailure{kMethodNotFound, "Unknown module: " + moduleName};
  if (!module->hasMethod(methodName))
    throw RpcFailure{kMethodNotFound,
                     KQError(moduleName, methodName, "no method " + methodName + " in module " + moduleName).what()};
  if (params && params->is_object())
    throw RpcFailure{kInvalidParams, name + ": params must be an array of positional arguments"};

  std::vector<KQValue> arguments;
  arguments.reserve(static_cast<std::size_t>(argumentCount(params)));
  for (int i = 0; i < argumentCount(params); ++i) {
    try {
      arguments.push_back(fromJson((*params)[static_cast<std::size_t>(i)]));
    } catch (const KQArgumentError& e) {
      throw RpcFailure{kInvalidParams, KQError(moduleName, methodName,
                                               "argument " + std::to_string(i + 1) + ": " + e.getMessage())
                                           .what()};
    }
  }
  KQValue args(arguments);

  KQValue result;
  try {
    result = module->callMethod(methodName, args);
  } catch (const KQArgumentError& e) {
    throw RpcFailure{kInvalidParams, e.what()};
  } catch (const KQUnknownMethodError& e) {
    throw RpcFailure{kMethodNotFound, e.what()};
  } catch (const std::exception& e) {
    // KQError and anything else a module lets escape: the call failed, the
    // server goes on.
    throw RpcFailure{kMethodFailed, e.what()};
  } catch (...) {
    throw RpcFailure{kMethodFailed, KQError(moduleName, methodName, "failed with an unknown exception").what()};
  }
  return result;
}

}  // namespace net
}  // namespace KQ
