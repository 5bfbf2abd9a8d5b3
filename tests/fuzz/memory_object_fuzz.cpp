// The memory watcher's check of a published object: any JSON value either
// fails the check or yields display values, never a throw or a crash.
#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "middleware/net/json_codec.h"
#include "persistence/memory_object.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const nlohmann::json json =
      nlohmann::json::parse(reinterpret_cast<const char*>(data), reinterpret_cast<const char*>(data) + size, nullptr,
                            false);
  if (json.is_discarded()) return 0;
  KQ::KQValue value;
  try {
    value = KQ::net::fromJson(json);
  } catch (const std::exception&) {
    return 0;  // not a value of ours (a number out of range, too deep)
  }
  if (KQ::hasMemoryObjectFormat(value)) KQ::displayValues("fuzz", value);
  return 0;
}
