#include "middleware/net/static_files.h"

#include <fstream>
#include <iterator>

namespace KQ {
namespace net {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Letters, digits, "-_./"; no empty segment and none starting with a dot.
bool safeName(std::string_view name) {
  if (name.empty() || name.size() > 200) return false;
  bool segmentStart = true;
  for (char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '_';
    if (c == '/') {
      if (segmentStart) return false;
      segmentStart = true;
    } else if (c == '.') {
      if (segmentStart) return false;
      segmentStart = false;
    } else if (plain) {
      segmentStart = false;
    } else {
      return false;
    }
  }
  return !segmentStart;
}

std::string contentTypeOf(std::string_view name) {
  const auto dot = name.rfind('.');
  const std::string_view ext = dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
  if (ext == "html") return "text/html; charset=utf-8";
  if (ext == "js" || ext == "mjs") return "text/javascript; charset=utf-8";
  if (ext == "css") return "text/css; charset=utf-8";
  if (ext == "json") return "application/json";
  if (ext == "svg") return "image/svg+xml";
  if (ext == "png") return "image/png";
  return "application/octet-stream";
}

// The file under the root for path, relative; empty when not ours.
std::string relativeFile(std::string_view path) {
  if (path == "/" || path == "/index.html") return "index.html";
  if (startsWith(path, "/web/")) {
    const std::string_view name = path.substr(5);
    if (!safeName(name) || startsWith(name, "node_modules/")) return {};
    return std::string(name);
  }
  if (path == "/three/three.module.js") return "node_modules/three/build/three.module.js";
  if (startsWith(path, "/three/addons/")) {
    const std::string_view name = path.substr(14);
    if (!safeName(name)) return {};
    return "node_modules/three/examples/jsm/" + std::string(name);
  }
  return {};
}

}  // namespace

bool StaticFiles::handles(std::string_view path) {
  return path == "/" || path == "/index.html" || startsWith(path, "/web/") || startsWith(path, "/three/");
}

std::optional<StaticFiles::File> StaticFiles::find(std::string_view path) const {
  const std::string relative = relativeFile(path);
  if (root_.empty() || relative.empty()) return std::nullopt;
  std::ifstream in(root_ + "/" + relative, std::ios::binary);
  if (!in) return std::nullopt;
  File file{std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), contentTypeOf(relative)};
  if (in.bad()) return std::nullopt;
  return file;
}

}  // namespace net
}  // namespace KQ
