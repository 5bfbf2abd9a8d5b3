// What the suites share: inline lists, errors of a call, file reads, raw
// SQLite peeks (another connection, as any other program would read the
// file), pose comparison, and a watchdog against deadlocks.
#ifndef KQ_TESTS_SUPPORT_CHECKS_H_
#define KQ_TESTS_SUPPORT_CHECKS_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "middleware/value.h"

namespace KQ {
namespace test {

// An array value written inline: list({"kg", 2.5f}) is ["kg", 2.5].
inline KQValue list(std::initializer_list<KQValue> items) { return KQValue(std::vector<KQValue>(items)); }

// The what() of the exception `call` throws; "" (and a test failure) when it
// throws nothing.
std::string errorOf(const std::function<void()>& call);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
bool fileExists(const std::string& path);

// The first column of the first row of `sql` on the file at `path`, read
// through a connection of its own; -1 when the query fails.
long long sqliteScalar(const std::string& path, const std::string& sql);
// Every row of `sql`, each cell as text ("NULL" for NULL).
std::vector<std::vector<std::string>> sqliteRows(const std::string& path, const std::string& sql);

// Element by element within `tolerance`, sizes equal.
void expectFloatsNear(const std::vector<float>& expected, const std::vector<float>& actual, float tolerance = 1e-4f,
                      const std::string& what = "");

// Aborts the process with `what` if still alive after `limit`: a deadlocked
// test would otherwise hang until ctest kills it, saying nothing.
class Watchdog {
 public:
  Watchdog(std::chrono::seconds limit, std::string what);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::string what_;
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace test
}  // namespace KQ

#endif  // KQ_TESTS_SUPPORT_CHECKS_H_
