// kq: the command-line client of a KQ broker (kqworldrepresentation).
//
//   kq call Module.method [ARG...]    one call, result printed as JSON
//   kq methods [Module]               the methods a broker offers
//   kq events NAME...                 raised events, one JSON line each
//   kq tree                           the frame tree with poses
//   kq echo REFERENCE OBJECT          the pose of OBJECT in REFERENCE's frame
//
// Every command takes --url (default http://127.0.0.1:9480, or KQ_URL) and
// --token (or KQ_TOKEN). Status: 0 on success (also when events or echo are
// interrupted with Ctrl-C), 1 when the call or the connection fails, 2 for a
// bad command line.
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "middleware/error.h"
#include "middleware/math.h"
#include "middleware/net/json_codec.h"
#include "middleware/net/rpc_client.h"
#include "middleware/value.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr double kPi = 3.14159265358979323846;

const char* const kMainHelp =
    "Usage: kq [--url URL] [--token TOKEN] COMMAND [ARGS...]\n"
    "\n"
    "Talks to a KQ broker (kqworldrepresentation) over JSON-RPC.\n"
    "\n"
    "Commands:\n"
    "  call Module.method [ARG...]        call a method and print its result as JSON\n"
    "  methods [Module]                   list the methods of one module or of all\n"
    "  events NAME...                     print each raised event as one JSON line\n"
    "                                     until interrupted\n"
    "  tree                               print the frame tree: each object with its\n"
    "                                     category and its pose in its parent\n"
    "  echo REFERENCE OBJECT [--rate HZ]  print the pose of OBJECT in REFERENCE's frame\n"
    "                                     until interrupted\n"
    "\n"
    "Options (every command):\n"
    "  --url URL      broker address (default http://127.0.0.1:9480, or KQ_URL)\n"
    "  --token TOKEN  bearer token (default KQ_TOKEN)\n"
    "  --help         help of kq or of one command (kq call --help)\n";

const char* const kCallHelp =
    "Usage: kq call Module.method [ARG...] [--url URL] [--token TOKEN]\n"
    "\n"
    "Calls one method and prints its result as JSON (null for no result).\n"
    "Each ARG is one positional argument written as JSON: 1 is an int, 1.0 a\n"
    "float, true a bool, [1.0, 2.0] a list, \"text\" a string. A word that is not\n"
    "JSON (cup, Robot_Torso) is taken as a string; an ARG starting with [ { or \"\n"
    "must be valid JSON.\n"
    "\n"
    "Example: kq call KQWorldRepresentation.getPosition Robot_Torso cup\n"
    "Fails with status 1 and the error on stderr when the call fails.\n";

const char* const kMethodsHelp =
    "Usage: kq methods [Module] [--url URL] [--token TOKEN]\n"
    "\n"
    "Lists Module.method and its description for one module, or for every module\n"
    "the broker hosts.\n";

const char* const kEventsHelp =
    "Usage: kq events NAME... [--url URL] [--token TOKEN]\n"
    "\n"
    "Subscribes to the named events and prints each one, as it is raised, as one\n"
    "JSON line {\"event\": NAME, \"value\": VALUE}, until interrupted (Ctrl-C).\n"
    "\n"
    "Example: kq events KQWorldRepresentation/PositionChanged\n";

const char* const kTreeHelp =
    "Usage: kq tree [--url URL] [--token TOKEN]\n"
    "\n"
    "Prints the frame tree from the root, one line per object, indented by depth:\n"
    "its name, [its category], its translation xyz (metres) and its rotation as\n"
    "roll-pitch-yaw (radians) in its parent's frame.\n";

const char* const kEchoHelp =
    "Usage: kq echo REFERENCE OBJECT [--rate HZ] [--url URL] [--token TOKEN]\n"
    "\n"
    "Prints, HZ times a second (default 1), the pose of OBJECT in REFERENCE's\n"
    "frame: translation (metres), quaternion (w, x, y, z), roll-pitch-yaw in\n"
    "radians and in degrees, one line each time, until interrupted (Ctrl-C).\n";

struct CommandLine {
  std::string url;
  std::string token;
  bool help = false;
  double rate = 1.0;
  bool rateGiven = false;
  std::vector<std::string> words;  // command and its arguments
};

[[noreturn]] void usageError(const std::string& message) {
  std::cerr << "kq: " << message << " (see kq --help)" << std::endl;
  std::exit(kUsage);
}

std::string environmentOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::string(value) : fallback;
}

CommandLine parseCommandLine(int argc, char* argv[]) {
  CommandLine line;
  line.url = environmentOr("KQ_URL", "http://127.0.0.1:9480");
  line.token = environmentOr("KQ_TOKEN", "");
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (optionsEnded || word.size() < 2 || word.rfind("--", 0) != 0) {
      if (word == "-h" && !optionsEnded) {
        line.help = true;
        continue;
      }
      line.words.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = word;
    std::string value;
    bool inlineValue = false;
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos) {
      name = word.substr(0, equals);
      value = word.substr(equals + 1);
      inlineValue = true;
    }
    auto takeValue = [&]() {
      if (inlineValue) return;
      if (i + 1 >= argc) usageError("Option " + name + " needs a value");
      value = argv[++i];
    };
    if (name == "--help") {
      line.help = true;
    } else if (name == "--url") {
      takeValue();
      line.url = value;
    } else if (name == "--token") {
      takeValue();
      line.token = value;
    } else if (name == "--rate") {
      takeValue();
      char* end = nullptr;
      const double rate = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !std::isfinite(rate) || rate <= 0.0 || rate > 1000.0)
        usageError("Option --rate needs a number of hertz above 0 and at most 1000, not " + value);
      line.rate = rate;
      line.rateGiven = true;
    } else {
      usageError("Unknown option " + word);
    }
  }
  return line;
}

// One positional argument of kq call.
KQ::KQValue argumentFromText(const std::string& text, std::size_t position) {
  nlohmann::json json;
  std::string error;
  const KQ::net::ParseOutcome outcome = KQ::net::parseJson(text, json, KQ::net::kMaxJsonDepth, &error);
  if (outcome == KQ::net::ParseOutcome::Ok) return KQ::net::fromJson(json);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  const char lead = first == std::string::npos ? '\0' : text[first];
  if (lead == '[' || lead == '{' || lead == '"' || outcome == KQ::net::ParseOutcome::TooDeep) {
    throw std::invalid_argument("Argument " + std::to_string(position) + " is not valid JSON: " +
                                (error.empty() ? std::string("nested too deeply") : error));
  }
  return KQ::KQValue(text);
}

KQ::KQValue argumentArray(const std::vector<std::string>& texts) {
  KQ::KQValue array;
  array.arraySetSize(0);
  for (std::size_t i = 0; i < texts.size(); ++i) array.arrayPush(argumentFromText(texts[i], i + 1));
  return array;
}

KQ::KQValue params(std::initializer_list<KQ::KQValue> values) {
  KQ::KQValue array;
  array.arraySetSize(0);
  for (const KQ::KQValue& value : values) array.arrayPush(value);
  return array;
}

int runCall(KQ::net::RpcClient& client, const CommandLine& line) {
  if (line.words.size() < 2) usageError("kq call needs Module.method");
  const std::string& method = line.words[1];
  if (method.find('.') == std::string::npos) usageError("kq call needs Module.method, not " + method);
  KQ::KQValue args;
  try {
    args = argumentArray(std::vector<std::string>(line.words.begin() + 2, line.words.end()));
  } catch (const std::exception& e) {
    usageError(e.what());
  }
  const KQ::KQValue result = client.call(method, args);
  std::cout << KQ::net::toJson(result).dump() << std::endl;
  return 0;
}

int runMethods(KQ::net::RpcClient& client, const CommandLine& line) {
  if (line.words.size() > 2) usageError("kq methods takes at most one module name");
  std::vector<std::string> modules;
  if (line.words.size() == 2) {
    modules.push_back(line.words[1]);
  } else {
    modules = client.call("broker.modules", KQ::KQValue()).toStringVector();
  }
  for (const std::string& module : modules) {
    const KQ::KQValue methods = client.call("broker.methods", params({KQ::KQValue(module)}));
    for (int i = 0; i < methods.getSize(); ++i) {
      const KQ::KQValue& entry = methods[i];
      std::cout << module << "." << entry[0].toString();
      if (entry.getSize() > 1 && entry[1].isString() && !entry[1].toString().empty())
        std::cout << "  " << entry[1].toString();
      std::cout << "\n";
    }
  }
  std::cout.flush();
  return 0;
}

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

int runEvents(KQ::net::RpcClient& client, const CommandLine& line) {
  if (line.words.size() < 2) usageError("kq events needs at least one event name");
  std::mutex outputMutex;
  std::vector<uint64_t> subscriptions;
  for (std::size_t i = 1; i < line.words.size(); ++i) {
    subscriptions.push_back(client.subscribe(line.words[i], [&outputMutex](const std::string& event,
                                                                           const KQ::KQValue& value) {
      nlohmann::json out;
      out["event"] = event;
      out["value"] = KQ::net::toJson(value);
      std::lock_guard<std::mutex> lock(outputMutex);
      // Flushed at once: kq events is mostly read through a pipe.
      std::cout << out.dump() << std::endl;
    }));
  }
  // On stderr, so that stdout stays one JSON line per event; a script may
  // wait for this line before it makes events happen.
  std::string names;
  for (std::size_t i = 1; i < line.words.size(); ++i) names += (i > 1 ? ", " : "") + line.words[i];
  std::cerr << "kq: waiting for " << names << " (Ctrl-C to stop)" << std::endl;
  const sigset_t signals = stopSignals();
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
  }
  for (uint64_t id : subscriptions) {
    try {
      client.unsubscribe(id);
    } catch (const std::exception&) {
      // Going away anyway; the server drops the subscription with the connection.
    }
  }
  return 0;
}

std::string fixed(double value, int decimals) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(decimals) << (std::fabs(value) < 0.5 * std::pow(10.0, -decimals) ? 0.0 : value);
  return out.str();
}

std::string list(const std::vector<double>& values, int decimals) {
  std::string out = "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out += ", ";
    out += fixed(values[i], decimals);
  }
  return out + "]";
}

struct Pose {
  bool found = false;
  std::vector<float> quaternion;   // w, x, y, z
  std::vector<float> translation;  // x, y, z
  std::vector<double> rpy;         // roll, pitch, yaw in radians
};

// The pose of object in reference's frame; found is false when the world
// model answered with empty lists (an unknown name).
Pose poseOf(KQ::net::RpcClient& client, const std::string& reference, const std::string& object) {
  const KQ::KQValue answer =
      client.call("KQWorldRepresentation.getPosition", params({KQ::KQValue(reference), KQ::KQValue(object)}));
  Pose pose;
  if (!answer.isArray() || answer.getSize() != 2 || answer[0].getSize() != 4 || answer[1].getSize() != 3)
    return pose;
  pose.quaternion = answer[0].toFloatVector();
  pose.translation = answer[1].toFloatVector();
  const KQ::Math::Position6D angles = KQ::Math::position6DFromTransform(
      KQ::Math::transformFromQuaternion(KQ::Math::Quaternion(pose.quaternion)));
  pose.rpy = {angles.wx, angles.wy, angles.wz};
  pose.found = true;
  return pose;
}

void printTree(KQ::net::RpcClient& client, const std::string& name, const std::string& parent, int depth) {
  const std::string category =
      client.call("KQWorldRepresentation.getObjectCategory", params({KQ::KQValue(name)})).toString();
  std::cout << std::string(static_cast<std::size_t>(depth) * 2, ' ') << name << " [" << category << "]";
  if (!parent.empty()) {
    const Pose pose = poseOf(client, parent, name);
    if (pose.found) {
      std::cout << "  xyz " << list({pose.translation[0], pose.translation[1], pose.translation[2]}, 3) << "  rpy "
                << list(pose.rpy, 3);
    } else {
      std::cout << "  (no pose)";
    }
  }
  std::cout << "\n";
  const std::vector<std::string> children =
      client.call("KQWorldRepresentation.getChildrenNames", params({KQ::KQValue(name)})).toStringVector();
  for (const std::string& child : children) printTree(client, child, name, depth + 1);
}

int runTree(KQ::net::RpcClient& client, const CommandLine& line) {
  if (line.words.size() != 1) usageError("kq tree takes no arguments");
  const std::string root = client.call("KQWorldRepresentation.getRootName", KQ::KQValue()).toString();
  printTree(client, root, "", 0);
  std::cout.flush();
  return 0;
}

int runEcho(KQ::net::RpcClient& client, const CommandLine& line) {
  if (line.words.size() != 3) usageError("kq echo needs REFERENCE and OBJECT");
  const std::string& reference = line.words[1];
  const std::string& object = line.words[2];
  const sigset_t signals = stopSignals();
  const double period = 1.0 / line.rate;
  timespec wait{};
  wait.tv_sec = static_cast<time_t>(period);
  wait.tv_nsec = static_cast<long>((period - static_cast<double>(wait.tv_sec)) * 1e9);
  for (;;) {
    const Pose pose = poseOf(client, reference, object);
    if (pose.found) {
      const std::vector<double> degrees{pose.rpy[0] * 180.0 / kPi, pose.rpy[1] * 180.0 / kPi,
                                        pose.rpy[2] * 180.0 / kPi};
      std::cout << "translation " << list({pose.translation[0], pose.translation[1], pose.translation[2]}, 4)
                << "  quaternion "
                << list({pose.quaternion[0], pose.quaternion[1], pose.quaternion[2], pose.quaternion[3]}, 4)
                << "  rpy " << list(pose.rpy, 4) << " rad  " << list(degrees, 2) << " deg" << std::endl;
    } else {
      std::cerr << "kq: no pose of " << object << " in the frame of " << reference
                << " (is one of them unknown?)" << std::endl;
    }
    const int caught = sigtimedwait(&signals, nullptr, &wait);
    if (caught == SIGINT || caught == SIGTERM) return 0;
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  // Ctrl-C ends events and echo through sigwait, with a clean status; blocked
  // before the client starts its threads so that they inherit the mask.
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  const CommandLine line = parseCommandLine(argc, argv);
  const std::string command = line.words.empty() ? std::string() : line.words[0];
  if (line.help || command.empty() || command == "help") {
    const char* help = kMainHelp;
    if (command == "call") help = kCallHelp;
    if (command == "methods") help = kMethodsHelp;
    if (command == "events") help = kEventsHelp;
    if (command == "tree") help = kTreeHelp;
    if (command == "echo") help = kEchoHelp;
    if (!line.help && command.empty()) {
      std::cerr << help;
      return kUsage;
    }
    std::cout << help;
    return 0;
  }
  if (line.rateGiven && command != "echo") usageError("Option --rate belongs to kq echo");

  int status = kFailure;
  try {
    KQ::net::RpcClient client(line.url, line.token);
    if (command == "call") {
      status = runCall(client, line);
    } else if (command == "methods") {
      status = runMethods(client, line);
    } else if (command == "events") {
      status = runEvents(client, line);
    } else if (command == "tree") {
      status = runTree(client, line);
    } else if (command == "echo") {
      status = runEcho(client, line);
    } else {
      usageError("Unknown command " + command);
    }
  } catch (const std::exception& e) {
    std::cerr << "kq: " << e.what() << std::endl;
    return kFailure;
  }
  return status;
}
