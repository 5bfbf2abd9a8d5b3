// Starting and stopping the whole stack many times in one process (broker, memory and motion modules, the
// world with its watcher, the network front with a subscribed client) leaves no thread and no descriptor behind.
#include <dirent.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/net/rpc_client.h"
#include "middleware/net/rpc_server.h"
#include "middleware/path.h"
#include "module/world_representation.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace KQ {
namespace test {
namespace {

int entriesOf(const char* folder) {
  int count = 0;
  if (DIR* dir = ::opendir(folder)) {
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
  }
  return count;
}

void oneLife(int life) {
  TempDir data;
  ko::path::setComponentDataPath("worldrepresentation", data.path());
  auto broker = std::make_shared<KQBroker>("kqlife");
  KQModule::createModule<ScriptedMotionModule>(broker, "KQMotion")->setBodyNames({"Torso", "HeadYaw"});
  KQModule::createModule<KQMemoryModule>(broker, KQMemoryModule::kModuleName);
  auto world = KQModule::createModule<KQWorldRepresentation>(broker, "KQWorldRepresentation");
  world->startMemoryCheck(1);
  net::RpcServer server(broker, net::RpcServerOptions{});
  server.start();
  {
    net::RpcClient client("http://127.0.0.1:" + std::to_string(server.port()));
    client.subscribe(KQWorldRepresentation::positionChangedEventName_, [](const std::string&, const KQValue&) {});
    ASSERT_EQ(KQValue(std::string("World")), client.call("KQWorldRepresentation.getRootName", KQValue()))
        << "life " << life;
    server.stop();  // with the client still connected
  }
  EXPECT_TRUE(broker->shutdown());
  ko::path::setComponentDataPath("worldrepresentation", "");
}

TEST(Lifecycle, TwoHundredLivesLeaveNoThreadOrDescriptor) {
  oneLife(0);  // the first life makes what stays for the process (logging, SQLite's own)
  const int threads = entriesOf("/proc/self/task");
  const int descriptors = entriesOf("/proc/self/fd");
  for (int life = 1; life < 200; ++life) oneLife(life);
  EXPECT_EQ(threads, entriesOf("/proc/self/task"));
  EXPECT_EQ(descriptors, entriesOf("/proc/self/fd"));
}

}  // namespace
}  // namespace test
}  // namespace KQ
