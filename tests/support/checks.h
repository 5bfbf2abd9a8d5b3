// What the suites share: inline lists, errors of a call, file reads, raw
// SQLite peeks (another connection, as any other program would read the
// file), pose comparison, and a watchdog against deadlocks.
#ifndef KQ_TESTS_SUPPORT_CHECKS_H_
#define KQ_TESTS_SUPPORT_CHECKS_H_

#include <chrono>
#include <functional>
#include <future>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "middleware/value.h"

namespace KQ::test {

// An array value written inline: list({"kg", 2.5f}) is ["kg", 2.5].
inline KQValue list(std::initializer_list<KQValue> items) { return KQValue(std::vector<KQValue>(items)); }

// The what() of the exception `call` throws; "" (and a test failure) when it throws nothing.
std::string errorOf(const std::function<void()>& call);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
bool fileExists(const std::string& path);

// Through a connection of its own: the first cell of `sql` (-1 when the query
// fails), or every row, each cell as text ("NULL" for NULL).
long long sqliteScalar(const std::string& path, const std::string& sql);
std::vector<std::vector<std::string>> sqliteRows(const std::string& path, const std::string& sql);

void expectFloatsNear(const std::vector<float>& expected, const std::vector<float>& actual, float tolerance = 1e-4f,
                      const std::string& what = "");

// Aborts the process with `what` if still alive after `limit`: a deadlocked
// test would otherwise hang until ctest kills it, saying nothing.
class Watchdog {
 public:
  Watchdog(std::chrono::seconds limit, std::string what);
  ~Watchdog();

 private:
  std::promise<void> finished_;
  std::thread thread_;
};

}  // namespace KQ::test

#endif  // KQ_TESTS_SUPPORT_CHECKS_H_
