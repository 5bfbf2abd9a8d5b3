#include "middleware/modules/memory_value_encoding.h"

#include <exception>

#include "middleware/net/json_codec.h"

namespace KQ {

std::string encodeMemoryValue(const KQValue& value) {
  // The JSON-RPC front's mapping: values written by a client over the network
  // and values written in Redis read the same.
  std::string text;
  net::appendJson(value, text);
  return text;
}

KQValue decodeMemoryValue(std::string_view text) {
  nlohmann::json json;
  std::string syntax;
  switch (net::parseJson(text, json, net::kMaxJsonDepth, &syntax)) {
    case net::ParseOutcome::Ok:
      break;
    case net::ParseOutcome::SyntaxError:
      throw KQMemoryEncodingError("not JSON (" + syntax + ")");
    case net::ParseOutcome::TooDeep:
      throw KQMemoryEncodingError("nested deeper than " + std::to_string(net::kMaxJsonDepth));
  }
  try {
    return net::fromJson(json);
  } catch (const std::exception& e) {
    throw KQMemoryEncodingError(e.what());
  }
}

}  // namespace KQ
