// KQMemory on Redis against its peers, one client, in one run: insertData and
// getData through the module with the in-process memory and with a Redis store
// (a redis-server of the benchmark's own on a Unix socket, persistence off),
// updatePosition (which raises PositionChanged) on a world over each memory,
// and redis-benchmark's SET/GET round trip on the same server. Prints the
// ratio of each Redis call to redis-benchmark's round trip (goal: <= 1.5).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "middleware/broker.h"
#include "middleware/modules/memory_module.h"
#include "middleware/modules/redis_memory_store.h"
#include "middleware/path.h"
#include "module/world_representation.h"
#include "support/scripted_motion_module.h"
#include "support/temp_dir.h"

namespace {

using namespace KQ;

test::TempDir& folder() {
  static test::TempDir dir;
  return dir;
}
std::string socketPath() { return folder().file("redis.sock"); }

void startRedis() {
  std::system(("redis-server --port 0 --unixsocket " + socketPath() + " --save '' --appendonly no --dir " +
               folder().path() + " --daemonize yes --pidfile " + folder().file("pid") + " >/dev/null")
                  .c_str());
  std::system(("for i in $(seq 100); do redis-cli -s " + socketPath() + " ping >/dev/null 2>&1 && break; sleep 0.05; done")
                  .c_str());
}
void stopRedis() { std::system(("kill $(cat " + folder().file("pid") + ") 2>/dev/null").c_str()); }

// Microseconds per request of redis-benchmark -t TEST at one client.
double redisBenchmarkMicros(const std::string& test) {
  const std::string command = "redis-benchmark -s " + socketPath() + " -c 1 -n 20000 -d 16 -q -t " + test + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string out;
  for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
  if (pipe) ::pclose(pipe);
  // "SET: 45045.04 requests per second, p50=0.015 msec" (the last value printed wins)
  const std::size_t colon = out.rfind(": ");
  const double perSecond = colon == std::string::npos ? 0.0 : std::atof(out.c_str() + colon + 2);
  return perSecond > 0 ? 1e6 / perSecond : 0.0;
}

// A broker with KQMemory (in-process, or on the Redis server), a scripted
// robot and, for updatePosition, the world model with one stored cup.
struct Setup {
  explicit Setup(bool redis, bool withWorld) {
    ko::path::setComponentDataPath("worldrepresentation", data.path());
    broker = std::make_shared<KQBroker>("bench");
    motion = KQModule::createModule<test::ScriptedMotionModule>(broker, "KQMotion");
    std::shared_ptr<KQMemoryStore> store;
    if (redis) store = std::make_shared<RedisMemoryStore>("unix://" + socketPath(), "bench:");
    memory = std::make_shared<KQMemoryModule>(broker, "KQMemory", store);
    memory->initModule();
    memory->init();
    if (withWorld) {
      world = KQModule::createModule<KQWorldRepresentation>(broker, "KQWorldRepresentation");
      world->createObjectCategory("things", false);
      world->storeObject("cup", "World", {0.5f, 0, 0, 0, 0, 0}, "things", std::vector<std::string>{});
    }
  }
  ~Setup() {
    if (world) world->exit();
    memory->exit();
    motion->exit();
  }
  test::TempDir data;
  std::shared_ptr<KQBroker> broker;
  std::shared_ptr<test::ScriptedMotionModule> motion;
  std::shared_ptr<KQMemoryModule> memory;
  std::shared_ptr<KQWorldRepresentation> world;
};

std::map<std::string, double> gMicros;  // per benchmark name, for the ratios

// Runs body once per iteration and keeps its mean time in microseconds.
template <class Body>
void timed(benchmark::State& state, const std::string& name, Body body) {
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) body();
  const std::chrono::duration<double, std::micro> spent = std::chrono::steady_clock::now() - start;
  if (state.iterations() > 0) gMicros[name] = spent.count() / static_cast<double>(state.iterations());
}

void BM_InsertData(benchmark::State& state) {
  Setup setup(state.range(0) == 1, false);
  const KQValue value(std::string(16, 'x'));
  timed(state, state.range(0) ? "redis insertData" : "in-process insertData",
        [&] { setup.memory->insertData("key", value); });
}
void BM_GetData(benchmark::State& state) {
  Setup setup(state.range(0) == 1, false);
  setup.memory->insertData("key", KQValue(std::string(16, 'x')));
  timed(state, state.range(0) ? "redis getData" : "in-process getData",
        [&] { benchmark::DoNotOptimize(setup.memory->getData("key")); });
}
void BM_UpdatePosition(benchmark::State& state) {
  Setup setup(state.range(0) == 1, true);
  float x = 0;
  timed(state, state.range(0) ? "redis updatePosition" : "in-process updatePosition",
        [&] { setup.world->updatePosition("cup", {x += 1e-3f, 0, 0, 0, 0, 0}, false); });
}
BENCHMARK(BM_InsertData)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_GetData)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_UpdatePosition)->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  startRedis();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  const double set = redisBenchmarkMicros("set"), get = redisBenchmarkMicros("get");
  stopRedis();
  std::printf("\nredis-benchmark, 1 client: SET %.1f us, GET %.1f us per request\n", set, get);
  const std::pair<const char*, double> peers[] = {
      {"insertData", set}, {"getData", get}, {"updatePosition", set}};
  for (const auto& [call, peer] : peers) {
    const double local = gMicros[std::string("in-process ") + call], redis = gMicros[std::string("redis ") + call];
    std::printf("%-15s in-process %7.1f us  redis %7.1f us  ratio to redis-benchmark %.2f\n", call, local, redis,
                peer > 0 ? redis / peer : 0.0);
  }
  benchmark::Shutdown();
  return 0;
}
