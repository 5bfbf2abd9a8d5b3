// StaticFiles: the viewer's own files, served by the RPC server at GET / so
// that a browser is all a user needs. Maps a request path to a file of the
// web folder (web/ of the sources, with three.js under its node_modules):
//   /                      -> index.html
//   /web/NAME              -> NAME (our pages, scripts and styles)
//   /three/three.module.js -> node_modules/three/build/three.module.js
//   /three/addons/NAME     -> node_modules/three/examples/jsm/NAME
// Nothing else of the folder is reachable: names are letters, digits and
// "-_./" only, with no segment starting with a dot, so no path leaves it.
//
// Threading: immutable after construction; find() reads the disk on each
// call (files edited while the service runs show at the next reload).
#ifndef KQ_MIDDLEWARE_NET_STATIC_FILES_H_
#define KQ_MIDDLEWARE_NET_STATIC_FILES_H_

#include <optional>
#include <string>
#include <string_view>

namespace KQ {
namespace net {

class StaticFiles {
 public:
  struct File {
    std::string body;
    std::string contentType;
  };

  // root: the web folder; empty serves nothing.
  explicit StaticFiles(std::string root) : root_(std::move(root)) {}

  // Whether path names one of our files' places (its answer is a file or 404).
  static bool handles(std::string_view path);
  // The file for path; nullopt when it is not ours or cannot be read.
  std::optional<File> find(std::string_view path) const;

 private:
  std::string root_;
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_STATIC_FILES_H_
