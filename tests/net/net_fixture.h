// The network suite's fixture: a broker hosting the real memory module
// ("KQMemory") and NetTestModule ("NetTest"), served by a real RpcServer on
// 127.0.0.1 at a port the system picks, and helpers that drive it with
// programs we did not write (curl, /usr/bin/python3).
#ifndef KQ_TESTS_NET_NET_FIXTURE_H_
#define KQ_TESTS_NET_NET_FIXTURE_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_server.h"

namespace KQ::test {

// What the network must carry: ints, any value, refusals (a KQError and a
// foreign exception), an event raised through KQMemory, and a call that holds
// the module lock until the test opens the gate, as a world-model call waits
// on the graph lock. Every method is safe from any thread.
class NetTestModule : public KQModule {
 public:
  NetTestModule(std::shared_ptr<KQBroker> broker, const std::string& name);
  int add(int a, int b) { return a + b; }
  KQValue echo(const KQValue& value) { return value; }
  void fail(const std::string& message);  // KQError(NetTest, fail, message)
  void failOddly();                       // std::runtime_error("something odd")
  int bump();                             // answers the new count of calls
  void raise(const std::string& event, const KQValue& value);
  int holdLock();  // waits for the next openGate(); answers how many returned
  std::string ping() { return "pong"; }

  int bumps() const;
  bool waitHolding(int count);  // at most 20 s, until count holdLock calls wait
  bool waitReleased(int count);
  void openGate();  // lets every holdLock call waiting now return

 private:
  std::shared_mutex lock_;
  mutable std::mutex gateMutex_;  // guards what follows
  std::condition_variable gateChanged_;
  int gateGeneration_ = 0, holding_ = 0, released_ = 0, bumps_ = 0;
};

struct ProgramResult {
  int exitCode = -1;
  std::string out, err;
};
// Runs argv[0] (searched in PATH) with stdinText on its standard input.
ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& stdinText = "");
// Runs a script with /usr/bin/python3; args reach it as sys.argv[1:].
ProgramResult runPython(const std::string& script, const std::vector<std::string>& args = {});

struct HttpAnswer {
  int status = 0;
  std::string body, error;  // error: curl's complaint when there was no answer
};
// curl; headers as "Name: value".
HttpAnswer curlPost(const std::string& url, const std::string& body,
                    const std::vector<std::string>& headers = {"Content-Type: application/json"});
HttpAnswer curlGet(const std::string& url, const std::vector<std::string>& headers = {});

class NetServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Replaces the running server by one with these options, on `port` (0: any).
  void restartServer(net::RpcServerOptions options = {}, unsigned short port = 0);
  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port()); }
  std::string rpcUrl() const { return baseUrl() + "/rpc"; }
  std::string wsUrl() const { return "ws://127.0.0.1:" + std::to_string(port()) + "/ws"; }
  unsigned short port() const { return server_->port(); }
  // POSTs one JSON-RPC text to /rpc; expects 200 and answers the parsed reply.
  nlohmann::json rpc(const std::string& text);

  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<KQMemoryModule> memory_;
  std::shared_ptr<NetTestModule> module_;
  std::unique_ptr<net::RpcServer> server_;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_NET_NET_FIXTURE_H_
