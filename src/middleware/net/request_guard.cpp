#include "middleware/net/request_guard.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace KQ {
namespace net {

namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexDigit(text[i + 1]);
      const int low = hexDigit(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    out += text[i] == '+' ? ' ' : text[i];
  }
  return out;
}

// "http://host:port" -> scheme, host (lowercase, no brackets), port (the
// scheme's default when absent). False for anything that is not such an
// origin ("null" included).
bool parseOrigin(std::string_view origin, std::string& scheme, std::string& host, unsigned& port) {
  const std::size_t separator = origin.find("://");
  if (separator == std::string_view::npos || separator == 0) return false;
  scheme = lower(origin.substr(0, separator));
  std::string_view rest = origin.substr(separator + 3);
  if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  if (rest.empty() || rest.find_first_of("/?#@") != std::string_view::npos) return false;
  std::string_view portText;
  if (rest.front() == '[') {
    const std::size_t close = rest.find(']');
    if (close == std::string_view::npos) return false;
    host = lower(rest.substr(1, close - 1));
    std::string_view after = rest.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return false;
      portText = after.substr(1);
    }
  } else {
    const std::size_t colon = rest.rfind(':');
    if (colon != std::string_view::npos) {
      host = lower(rest.substr(0, colon));
      portText = rest.substr(colon + 1);
    } else {
      host = lower(rest);
    }
  }
  if (host.empty()) return false;
  if (portText.empty()) {
    if (scheme == "http" || scheme == "ws") {
      port = 80;
    } else if (scheme == "https" || scheme == "wss") {
      port = 443;
    } else {
      return false;
    }
    return true;
  }
  if (portText.size() > 5) return false;
  port = 0;
  for (const char c : portText) {
    if (c < '0' || c > '9') return false;
    port = port * 10 + static_cast<unsigned>(c - '0');
  }
  return port <= 65535;
}

}  // namespace

RequestGuard::RequestGuard(std::string token, unsigned short port, std::vector<std::string> ownHosts)
    : token_(std::move(token)), port_(port) {
  for (std::string& host : ownHosts) {
    std::string name = lower(host);
    if (name.size() >= 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
    // A wildcard bind names no host a page could be served from.
    if (name.empty() || name == "0.0.0.0" || name == "::") continue;
    ownHosts_.push_back(std::move(name));
  }
}

bool RequestGuard::hostIsOwn(const std::string& host) const {
  if (host == "localhost" || host == "127.0.0.1" || host == "::1") return true;
  return std::find(ownHosts_.begin(), ownHosts_.end(), host) != ownHosts_.end();
}

bool RequestGuard::originAllowed(const std::string_view* origin) const {
  if (origin == nullptr) return true;
  std::string scheme, host;
  unsigned port = 0;
  if (!parseOrigin(trim(*origin), scheme, host, port)) return false;
  return port == port_ && hostIsOwn(host);
}

bool RequestGuard::authorized(std::string_view authorization, std::string_view target) const {
  if (token_.empty()) return true;
  authorization = trim(authorization);
  bool headerMatches = false;
  if (authorization.size() > 7 && lower(authorization.substr(0, 7)) == "bearer ")
    headerMatches = constantTimeEquals(trim(authorization.substr(7)), token_);
  const bool queryMatches = constantTimeEquals(queryParameter(target, "token"), token_);
  return headerMatches || queryMatches;
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
  // Every byte of the longer text is visited whatever the contents, so the
  // time tells at most the lengths.
  const std::size_t length = std::max(a.size(), b.size());
  unsigned char difference = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < length; ++i) {
    const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
    const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
    difference |= static_cast<unsigned char>(x ^ y);
  }
  return difference == 0;
}

std::string_view targetPath(std::string_view target) {
  const std::size_t end = target.find_first_of("?#");
  return end == std::string_view::npos ? target : target.substr(0, end);
}

std::string queryParameter(std::string_view target, std::string_view name) {
  const std::size_t question = target.find('?');
  if (question == std::string_view::npos) return std::string();
  std::string_view query = target.substr(question + 1);
  const std::size_t hash = query.find('#');
  if (hash != std::string_view::npos) query = query.substr(0, hash);
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const std::size_t equals = pair.find('=');
    if (percentDecode(pair.substr(0, equals)) == name)
      return equals == std::string_view::npos ? std::string() : percentDecode(pair.substr(equals + 1));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  return std::string();
}

bool isJsonContentType(std::string_view contentType) {
  const std::size_t semicolon = contentType.find(';');
  return lower(trim(contentType.substr(0, semicolon))) == "application/json";
}

}  // namespace net
}  // namespace KQ
