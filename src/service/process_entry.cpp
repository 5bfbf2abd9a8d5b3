#include "service/process_entry.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "middleware/broker.h"
#include "middleware/error.h"
#include "middleware/log.h"
#include "middleware/modules/default_robot.h"
#include "middleware/modules/memory_module.h"
#include "middleware/modules/motion_module.h"
#include "middleware/modules/redis_memory_store.h"
#include "middleware/modules/robot_model.h"
#include "middleware/net/remote_proxy.h"
#include "middleware/net/rpc_client.h"
#include "middleware/net/rpc_server.h"
#include "middleware/path.h"
#include "middleware/value.h"
#include "middleware/settings.h"
#include "service/module_library.h"
#include "storage/database_manager.h"

namespace KQTools {
namespace {

constexpr int kUsageStatus = 2;
constexpr int kStartStatus = 1;

struct ProcessOptions {
  std::string host = "127.0.0.1";
  unsigned short port = 9480;
  std::string dataDir;  // empty: the user data folder
  std::string parentUrl;
  std::string memoryUrl;  // empty: KQMemory in this process
  std::string memoryPrefix = "kq:";
  std::string robotFile;  // empty: the built-in description
  std::string torsoLink = "Torso";
  std::optional<int> logLevel;
  bool logJson = false;
  std::optional<std::string> token;
  std::string tokenFile;
  std::size_t maxMessageBytes = 1 << 20;
  KQ::net::RpcServerOptions server;  // the budgets of the network front
  int sqlTimeoutMs = 2000;
  bool restore = false;
  int autosaveSeconds = 0;
  std::vector<std::string> libraries;  // --load, in command-line order
  std::string webRoot;  // empty: KQ_WEB_ROOT, else the sources' web/ folder
  bool help = false;
};

// Ends a start that cannot work: one line, nothing else. Flushes first and
// skips static destructors, which could race threads that are still running.
[[noreturn]] void failStart(const std::string& processName, const std::string& reason, int status) {
  std::cout.flush();
  std::cerr << processName << ": " << reason << std::endl;
  std::_Exit(status);
}

std::string usage(const std::string& processName, const std::string& component, bool hostsModule) {
  std::ostringstream out;
  out << "Usage: " << processName << " [options]\n"
      << "\n";
  if (hostsModule) {
    out << "Runs the world model as a service: a broker hosting KQWorldRepresentation,\n";
  } else {
    out << "Runs a broker of the middleware: it hosts the module libraries given with\n"
        << "--load (for example libkqworldrepresentation.so),\n";
  }
  out << "with the built-in KQMemory and a simulated KQMotion unless --parent names a\n"
      << "broker that hosts them, served as JSON-RPC 2.0 over HTTP (POST /rpc) and\n"
      << "WebSocket (GET /ws). SIGINT or SIGTERM saves the world and exits with 0 (1\n"
      << "when the world could not be saved). One service per data folder.\n"
      << "\n"
      << "Options:\n"
      << "  --host HOST          address to listen on (default 127.0.0.1); an address\n"
      << "                       beyond loopback needs a token\n"
      << "  --port PORT          port to listen on (default 9480; 0 picks a free one)\n"
      << "  --data-dir DIR       folder of the category databases and of nodes.xml and\n"
      << "                       edges.xml (default $KQ_DATA_HOME/" << component << ", else\n"
      << "                       $XDG_DATA_HOME/kq/" << component << ", else\n"
      << "                       ~/.local/share/kq/" << component << ")\n"
      << "  --parent URL         use KQMemory and KQMotion of the broker at URL (for\n"
      << "                       example http://127.0.0.1:9480) when it hosts them\n"
      << "  --memory URL         keep KQMemory's values and events in Redis at URL,\n"
      << "                       shared with every service using it:\n"
      << "                       redis://HOST:PORT[/DB] or unix:///PATH[?db=N]\n"
      << "                       (default: in this process)\n"
      << "  --memory-prefix TEXT put every Redis key and stream of --memory under TEXT\n"
      << "                       (default kq:)\n"
      << "  --robot FILE         URDF robot description driven by the simulated KQMotion\n"
      << "                       (default: " << KQ::kDefaultRobotSource << ")\n"
      << "  --torso-link NAME    link of the description that is the robot's torso\n"
      << "                       (default Torso)\n"
      << "  --log-level N        0 silent, 1 fatal, 2 error, 3 warning, 4 info (default),\n"
      << "                       5 verbose, 6 debug\n"
      << "  --log-json           write log lines on stderr as one JSON object each\n"
      << "  --token TOKEN        require this bearer token from every client (also used\n"
      << "                       towards --parent)\n"
      << "  --token-file FILE    read the token from the first line of FILE\n"
      << "  --max-message BYTES  largest request accepted, and most bytes of values one\n"
      << "                       select may return (default 1048576)\n"
      << "  --max-header BYTES   most bytes of one request's header, and apart of a\n"
      << "                       chunked body's extensions and trailer (default 16384)\n"
      << "  --request-timeout S  a request must arrive whole within S seconds of its\n"
      << "                       first byte (default 10)\n"
      << "  --max-connections N  open connections; past them a new one is answered 503\n"
      << "                       and closed (default 512)\n"
      << "  --max-calls N        calls queued or running across all connections; past\n"
      << "                       them a call is answered busy (default 256)\n"
      << "  --max-queued-bytes BYTES  bytes of calls waiting to run across all clients,\n"
      << "                       and apart bytes waiting to be sent to all WebSocket\n"
      << "                       clients; a client past its share is closed (default\n"
      << "                       67108864)\n"
      << "  --max-reply BYTES    most bytes of one reply, a batch included; a call that\n"
      << "                       does not fit is answered -32000 \"reply too large\"\n"
      << "                       (default 16777216)\n"
      << "  --max-subscriptions N  subscriptions of one WebSocket connection (default\n"
      << "                       1024)\n"
      << "  --sql-timeout-ms MS  deadline of a statement holding caller text (select,\n"
      << "                       update, delete conditions; default 2000)\n"
      << "  --restore            rebuild the world from the data folder at start: the\n"
      << "                       objects of the last archive and of the category\n"
      << "                       databases, the newer of the two for each object\n"
      << "  --autosave SECONDS   also save the world every SECONDS on a thread of its\n"
      << "                       own (default 0: only on stop and on request)\n"
      << "  --load LIBRARY       load a module library at start and call its\n"
      << "                       _createModule (repeatable, in order; at stop its\n"
      << "                       _closeModule); only from the command line\n"
      << "  --web-root DIR       folder of the viewer served at GET / (default KQ_WEB_ROOT,\n"
      << "                       else the web/ folder of the sources it was built from)\n"
      << "  --help               print this help and exit\n"
      << "\n"
      << "Environment: KQ_TOKEN is the token when neither --token nor --token-file is\n"
      << "given. Logs go to stderr.\n";
  return out.str();
}

bool parseUnsigned(const std::string& text, unsigned long long maximum, unsigned long long& out) {
  if (text.empty() || text.size() > 20) return false;
  unsigned long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const unsigned long long digit = static_cast<unsigned long long>(c - '0');
    if (digit > maximum || value > (maximum - digit) / 10) return false;
    value = value * 10 + digit;
  }
  out = value;
  return true;
}

ProcessOptions parseOptions(const std::string& processName, int argc, char* argv[]) {
  ProcessOptions options;
  std::vector<std::string> args(argv + 1, argv + argc);
  auto bad = [&](const std::string& reason) {
    failStart(processName, reason + " (see --help)", kUsageStatus);
  };
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::optional<std::string> inlineValue;
    const std::size_t equals = name.find('=');
    if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
      inlineValue = name.substr(equals + 1);
      name = name.substr(0, equals);
    }
    auto value = [&]() -> std::string {
      if (inlineValue) return *inlineValue;
      if (i + 1 >= args.size()) bad("Option " + name + " needs a value");
      return args[++i];
    };
    auto noValue = [&]() {
      if (inlineValue) bad("Option " + name + " takes no value");
    };
    unsigned long long number = 0;
    if (name == "--help" || name == "-h") {
      noValue();
      options.help = true;
    } else if (name == "--host") {
      options.host = value();
      if (options.host.empty()) bad("Option --host needs a non-empty address");
    } else if (name == "--port") {
      const std::string text = value();
      if (!parseUnsigned(text, 65535, number)) bad("Option --port needs a port number from 0 to 65535, not " + text);
      options.port = static_cast<unsigned short>(number);
    } else if (name == "--data-dir") {
      options.dataDir = value();
      if (options.dataDir.empty()) bad("Option --data-dir needs a folder");
    } else if (name == "--parent") {
      options.parentUrl = value();
    } else if (name == "--memory") {
      options.memoryUrl = value();
      if (options.memoryUrl.empty()) bad("Option --memory needs a URL");
      try {
        KQ::parseRedisUrl(options.memoryUrl);
      } catch (const std::invalid_argument& e) {
        bad(std::string("Option --memory: ") + e.what());
      }
    } else if (name == "--memory-prefix") {
      options.memoryPrefix = value();
    } else if (name == "--robot") {
      options.robotFile = value();
      if (options.robotFile.empty()) bad("Option --robot needs a file");
    } else if (name == "--torso-link") {
      options.torsoLink = value();
      if (options.torsoLink.empty()) bad("Option --torso-link needs a link name");
    } else if (name == "--log-level") {
      const std::string text = value();
      if (!parseUnsigned(text, 6, number)) bad("Option --log-level needs a level from 0 to 6, not " + text);
      options.logLevel = static_cast<int>(number);
    } else if (name == "--log-json") {
      noValue();
      options.logJson = true;
    } else if (name == "--token") {
      options.token = value();
    } else if (name == "--token-file") {
      options.tokenFile = value();
    } else if (name == "--max-message") {
      const std::string text = value();
      if (!parseUnsigned(text, 1ull << 40, number) || number == 0)
        bad("Option --max-message needs a positive number of bytes, not " + text);
      options.maxMessageBytes = static_cast<std::size_t>(number);
    } else if (name == "--max-header" || name == "--max-queued-bytes" || name == "--max-reply") {
      const std::string text = value();
      if (!parseUnsigned(text, 1ull << 40, number) || number == 0)
        bad("Option " + name + " needs a positive number of bytes, not " + text);
      std::size_t& field = name == "--max-header"         ? options.server.maxHeaderBytes
                           : name == "--max-queued-bytes" ? options.server.maxQueuedBytes
                                                          : options.server.maxReplyBytes;
      field = static_cast<std::size_t>(number);
    } else if (name == "--request-timeout" || name == "--max-connections" || name == "--max-calls" ||
               name == "--max-subscriptions") {
      const std::string text = value();
      if (!parseUnsigned(text, 1000000, number) || (number == 0 && name != "--max-subscriptions"))
        bad("Option " + name + " needs a positive number up to 1000000, not " + text);
      int& field = name == "--request-timeout"   ? options.server.requestTimeoutSeconds
                   : name == "--max-connections" ? options.server.maxConnections
                   : name == "--max-calls"       ? options.server.maxCalls
                                                 : options.server.maxSubscriptions;
      field = static_cast<int>(number);
    } else if (name == "--load") {
      options.libraries.push_back(value());
      if (options.libraries.back().empty()) bad("Option --load needs a library file");
    } else if (name == "--sql-timeout-ms") {
      const std::string text = value();
      if (!parseUnsigned(text, 3600000, number) || number == 0)
        bad("Option --sql-timeout-ms needs a positive number of milliseconds up to 3600000, not " + text);
      options.sqlTimeoutMs = static_cast<int>(number);
    } else if (name == "--restore") {
      noValue();
      options.restore = true;
    } else if (name == "--autosave") {
      const std::string text = value();
      if (!parseUnsigned(text, 86400, number))
        bad("Option --autosave needs a number of seconds from 0 to 86400, not " + text);
      options.autosaveSeconds = static_cast<int>(number);
    } else if (name == "--web-root") {
      options.webRoot = value();
      if (options.webRoot.empty()) bad("Option --web-root needs a folder");
    } else {
      bad("Unknown option " + args[i]);
    }
  }
  return options;
}

// --web-root, else KQ_WEB_ROOT, else the web/ folder of the sources (set
// by CMake), so the viewer works whatever the working directory.
std::string webRootOf(const ProcessOptions& options) {
  if (!options.webRoot.empty()) return options.webRoot;
  if (const char* fromEnv = std::getenv("KQ_WEB_ROOT"); fromEnv && *fromEnv) return fromEnv;
  return KQ_DEFAULT_WEB_ROOT;
}

// --token wins over --token-file, which wins over KQ_TOKEN.
std::string resolveToken(const std::string& processName, const ProcessOptions& options) {
  if (options.token) {
    if (options.token->empty()) failStart(processName, "Option --token needs a non-empty token", kUsageStatus);
    return *options.token;
  }
  if (!options.tokenFile.empty()) {
    std::ifstream in(options.tokenFile);
    if (!in) failStart(processName, "Cannot read token file " + options.tokenFile + ": " + std::strerror(errno),
                       kStartStatus);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
    if (line.empty()) failStart(processName, "Token file " + options.tokenFile + " holds no token", kStartStatus);
    return line;
  }
  const char* fromEnvironment = std::getenv("KQ_TOKEN");
  return fromEnvironment ? std::string(fromEnvironment) : std::string();
}

// The connections allowed, and room for the databases, the log and the
// listener: raised up to the hard limit, logged when that is too low.
void raiseOpenFileLimit(int maxConnections) {
  const rlim_t needed = static_cast<rlim_t>(maxConnections) + 256;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) return;
  const rlim_t wanted = limit.rlim_max == RLIM_INFINITY ? needed : std::min(needed, limit.rlim_max);
  if (wanted > limit.rlim_cur) {
    limit.rlim_cur = wanted;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (wanted >= needed) return;
  KO_LOG(ko::log::warning, "KQRpcServer", "", "raiseOpenFileLimit", 0)
      << "The open-file limit " << wanted << " is below the " << needed << " that " << maxConnections
      << " connections need; past it new connections wait.";
}

bool isLoopback(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    return (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
  }
  if (address->sa_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    if (IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr)) return true;
    if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) return v6->sin6_addr.s6_addr[12] == 127;
  }
  return false;
}

// Resolves the address to listen on, refuses a non-loopback one without a
// token, and tries to bind the port so that a taken port is reported before
// anything is created (a second instance must not touch the first one's
// databases). The server binds again for real later.
void checkListenAddress(const std::string& processName, const ProcessOptions& options, bool hasToken) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(options.port);
  const int resolved = ::getaddrinfo(options.host.c_str(), service.c_str(), &hints, &found);
  if (resolved != 0 || found == nullptr)
    failStart(processName, "Cannot listen on " + options.host + ":" + service + ": " + ::gai_strerror(resolved),
              kStartStatus);
  bool loopback = true;
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next)
    loopback = loopback && isLoopback(entry->ai_addr);
  if (!loopback && !hasToken) {
    ::freeaddrinfo(found);
    failStart(processName,
              "Refusing to listen on " + options.host +
                  " without a token: anyone on the network could drive the robot (give --token, --token-file or "
                  "KQ_TOKEN)",
              kStartStatus);
  }
  if (options.port != 0) {
    const int probe = ::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
    if (probe >= 0) {
      const int yes = 1;
      ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
      const int bound = ::bind(probe, found->ai_addr, found->ai_addrlen);
      const int bindError = errno;
      ::close(probe);
      if (bound != 0) {
        ::freeaddrinfo(found);
        failStart(processName, "Cannot listen on " + options.host + ":" + service + ": " + std::strerror(bindError),
                  kStartStatus);
      }
    }
  }
  ::freeaddrinfo(found);
}

// Takes the data folder for this process: an exclusive lock on its ".lock"
// file (the kernel releases it when the process ends, however it ends),
// which then holds this process's id. The descriptor stays open for the
// process's life. A folder another service holds ends the start having
// changed nothing; a folder that refuses the file is not writable.
void lockDataFolder(const std::string& processName, const std::string& folder) {
  const std::string path = folder + "/.lock";
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    failStart(processName, "Cannot write to data directory " + folder + ": " + std::strerror(errno), kStartStatus);
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    char text[32] = {0};
    const ssize_t read = ::pread(fd, text, sizeof text - 1, 0);
    std::string holder = read > 0 ? std::string(text, static_cast<std::size_t>(read)) : std::string("unknown");
    while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) holder.pop_back();
    failStart(processName, "data folder " + folder + " is in use by process " + holder, kStartStatus);
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    failStart(processName, "Cannot write to data directory " + folder + ": " + std::strerror(errno), kStartStatus);
  }
}

// Makes the data folder, takes it for this process and returns it.
std::string prepareDataFolder(const std::string& processName, const ProcessOptions& options,
                              const std::string& component) {
  std::string folder;
  if (!options.dataDir.empty()) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(options.dataDir, error);
    folder = error ? options.dataDir : absolute.lexically_normal().string();
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    ko::path::setComponentDataPath(component, folder);
    ko::path::setDefaultDataPath(folder);  // and the modules a broker loads
  } else {
    // The path layer warns on its own when it cannot make the folder; the
    // one line below says it better.
    const int pathLevel = ko::log::getCategoryLevel("ko.path");
    ko::log::setCategoryLevel("ko.path", ko::log::silent);
    folder = ko::path::userWritableDataPath(component, "");
    ko::log::setCategoryLevel("ko.path", pathLevel);
  }
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) failStart(processName, "Cannot use data directory " + folder + ": " + error.message(), kStartStatus);
  lockDataFolder(processName, folder);
  return folder;
}

std::vector<std::string> parentModules(const std::string& processName, const std::string& url,
                                       const std::string& token) {
  try {
    KQ::net::RpcClient client(url, token);
    KQ::KQValue names = client.call("broker.modules", KQ::KQValue());
    return names.toStringVector();
  } catch (const std::exception& e) {
    failStart(processName, "Cannot reach parent broker " + url + ": " + e.what(), kStartStatus);
  }
}

KQ::RobotModel loadRobot(const std::string& processName, const ProcessOptions& options) {
  try {
    if (options.robotFile.empty())
      return KQ::RobotModel::fromText(KQ::defaultRobotDescription(), options.torsoLink, KQ::kDefaultRobotSource);
    return KQ::RobotModel::fromFile(options.robotFile, options.torsoLink);
  } catch (const std::exception& e) {
    failStart(processName, e.what(), kStartStatus);
  }
}

// Exits what was created, then ends with one line.
[[noreturn]] void failAfterStart(const std::string& processName, const std::shared_ptr<KQ::KQBroker>& broker,
                                 const std::string& reason) {
  try {
    broker->shutdown();
  } catch (const std::exception&) {
    // The line below is what matters; the modules are going away anyway.
  }
  failStart(processName, reason, kStartStatus);
}

}  // namespace

int mainFunction(const std::string& processName, int argc, char* argv[],
                 std::function<int(std::shared_ptr<KQ::KQBroker>)> createModule) {
  // Before any thread exists, so that every thread inherits the mask and the
  // signals reach only the sigwait below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  // A client that vanishes must not kill the process through a write.
  ::signal(SIGPIPE, SIG_IGN);

  const std::string component = processName.rfind("kq", 0) == 0 ? processName.substr(2) : processName;
  const ProcessOptions options = parseOptions(processName, argc, argv);
  if (options.help) {
    std::cout << usage(processName, component, createModule != nullptr);
    return 0;
  }

  if (options.logLevel) ko::log::setDefaultLevel(*options.logLevel);
  if (options.logJson) ko::log::setSinks({std::make_shared<ko::log::JsonSink>(std::cerr)});

  const std::string token = resolveToken(processName, options);
  checkListenAddress(processName, options, !token.empty());
  const std::string dataFolder = prepareDataFolder(processName, options, component);
  KQ::KQDatabaseManager::setDefaultLimits(options.sqlTimeoutMs, options.maxMessageBytes);

  bool needMemory = true;
  bool needMotion = true;
  if (!options.parentUrl.empty()) {
    for (const std::string& name : parentModules(processName, options.parentUrl, token)) {
      needMemory = needMemory && name != KQ::KQMemoryModule::kModuleName;
      needMotion = needMotion && name != KQ::KQMotionModule::kModuleName;
    }
  }
  // A memory of our own in Redis wins over the parent's.
  std::shared_ptr<KQ::KQMemoryStore> memoryStore;
  if (!options.memoryUrl.empty()) {
    needMemory = true;
    try {
      memoryStore = std::make_shared<KQ::RedisMemoryStore>(options.memoryUrl, options.memoryPrefix);
    } catch (const std::exception& e) {
      failStart(processName, e.what(), kStartStatus);
    }
  }
  std::optional<KQ::RobotModel> robot;
  if (needMotion) robot.emplace(loadRobot(processName, options));

  auto broker = std::make_shared<KQ::KQBroker>(processName);
  if (!options.parentUrl.empty())
    broker->setRemoteProxyFactory(KQ::net::makeRemoteProxyFactory(options.parentUrl, token));

  // KQMemory and KQMotion come first: the module fetches their proxies in its
  // constructor.
  std::shared_ptr<KQ::KQMemoryModule> memory;
  std::shared_ptr<KQ::KQMotionModule> motion;
  try {
    if (needMemory) {
      memory = std::make_shared<KQ::KQMemoryModule>(broker, KQ::KQMemoryModule::kModuleName, memoryStore);
      memory->initModule();
      memory->init();
    }
    if (needMotion) {
      motion = std::make_shared<KQ::KQMotionModule>(broker, KQ::KQMotionModule::kModuleName, std::move(*robot));
      motion->initModule();
      motion->init();
    }
    // Read by the world model when it is created, here or from a library.
    ko::settings::set("restore", options.restore ? "1" : "0");
    ko::settings::set("autosave", std::to_string(options.autosaveSeconds));
    if (createModule) createModule(broker);
  } catch (const std::exception& e) {
    failAfterStart(processName, broker, std::string("Cannot start the modules: ") + e.what());
  }
  // Module libraries, in command-line order, after the built-in modules
  // whose proxies they fetch. Closed in reverse order once every module has
  // exited (the vector's destruction).
  std::vector<std::unique_ptr<ModuleLibrary>> libraries;
  for (const std::string& path : options.libraries) {
    try {
      libraries.push_back(std::make_unique<ModuleLibrary>(path));
      libraries.back()->create(broker);
    } catch (const std::exception& e) {
      failAfterStart(processName, broker, "Cannot load module library " + path + ": " + e.what());
    }
  }

  raiseOpenFileLimit(options.server.maxConnections);
  KQ::net::RpcServerOptions serverOptions = options.server;
  serverOptions.host = options.host;
  serverOptions.port = options.port;
  serverOptions.token = token;
  serverOptions.maxMessageBytes = options.maxMessageBytes;
  serverOptions.webRoot = webRootOf(options);
  KQ::net::RpcServer server(broker, serverOptions);
  try {
    server.start();
  } catch (const std::exception& e) {
    failAfterStart(processName, broker, e.what());
  }
  KO_LOG(ko::log::info, processName, "", "mainFunction", 0)
      << "Listening on " << options.host << ":" << server.port()
      << " (HTTP POST /rpc, WebSocket /ws and /foxglove, viewer at http://" << options.host << ":" << server.port()
      << "/), data in "
      << dataFolder << (options.parentUrl.empty() ? std::string() : ", parent " + options.parentUrl)
      << (options.memoryUrl.empty() ? std::string() : ", memory " + options.memoryUrl + " under " + options.memoryPrefix);

  int signal = 0;
  while (sigwait(&stopSignals, &signal) != 0) {
  }
  KO_LOG(ko::log::info, processName, "", "mainFunction", 0)
      << "Stopping on " << (signal == SIGINT ? "SIGINT" : "SIGTERM");
  // No new calls first, then the modules, last registered first: the world
  // model saves its frame tree while KQMemory and KQMotion still answer.
  server.stop();
  for (auto library = libraries.rbegin(); library != libraries.rend(); ++library) (*library)->close(broker);
  const bool clean = broker->shutdown();
  KO_LOG(ko::log::info, processName, "", "mainFunction", 0) << (clean ? "Stopped" : "Stopped, not cleanly");
  return clean ? 0 : 1;
}

}  // namespace KQTools
