// The network suite's fixture: a broker hosting the real memory module
// ("KQMemory") and the NetTest module, served by a real RpcServer on
// 127.0.0.1 at a port the system picks, and helpers that drive it with
// programs we did not write (curl, /usr/bin/python3).
//
//   broker "net-test"
//     +-- KQMemory   (events for subscribe/unsubscribe)
//     +-- NetTest    (the methods the suite calls)
//   RpcServer 127.0.0.1:<port>  POST /rpc, GET /ws
#ifndef KQ_TESTS_NET_NET_FIXTURE_H_
#define KQ_TESTS_NET_NET_FIXTURE_H_

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_server.h"
#include "net/net_test_module.h"

namespace KQ {
namespace test {

struct ProgramResult {
  int exitCode = -1;
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs argv[0] (searched in PATH) with stdinText on its standard input and
// waits for it to end.
ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& stdinText = "");

// Runs a script with /usr/bin/python3; args reach it as sys.argv[1:].
ProgramResult runPython(const std::string& script, const std::vector<std::string>& args = {});

struct HttpAnswer {
  int status = 0;
  std::string body;
  std::string error;  // curl's complaint when there was no answer
};

// POSTs body with curl; headers as "Name: value".
HttpAnswer curlPost(const std::string& url, const std::string& body,
                    const std::vector<std::string>& headers = {"Content-Type: application/json"});
HttpAnswer curlGet(const std::string& url, const std::vector<std::string>& headers = {});

class NetServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Replaces the running server by one with these options (port forced to 0).
  void restartServer(net::RpcServerOptions options);

  std::string rpcUrl() const;  // http://127.0.0.1:<port>/rpc
  std::string wsUrl() const;   // ws://127.0.0.1:<port>/ws
  unsigned short port() const { return server_->port(); }

  // POSTs one JSON-RPC text to /rpc; expects 200 and answers the parsed reply.
  nlohmann::json rpc(const std::string& text);

  std::shared_ptr<KQBroker> broker_;
  std::shared_ptr<KQMemoryModule> memory_;
  std::shared_ptr<NetTestModule> module_;
  std::unique_ptr<net::RpcServer> server_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_NET_NET_FIXTURE_H_
