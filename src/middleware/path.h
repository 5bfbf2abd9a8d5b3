// ko::path: where modules keep their files.
//
// userWritableDataPath(component, file) is
//   $KQ_DATA_HOME/<component>/<file>         when KQ_DATA_HOME is set,
//   $XDG_DATA_HOME/kq/<component>/<file>      otherwise, when XDG_DATA_HOME is set,
//   $HOME/.local/share/kq/<component>/<file>  otherwise.
// A component folder given with setComponentDataPath (the service's
// --data-dir) wins over all three; then one given with setDefaultDataPath (a
// broker started with --data-dir: the modules it loads keep their files there
// too). The component folder is created if absent;
// with an empty file the result is the folder itself, without a final "/".
//
// Threading: safe from any thread.
#ifndef KQ_MIDDLEWARE_PATH_H_
#define KQ_MIDDLEWARE_PATH_H_

#include <string>

namespace ko {
namespace path {

std::string userWritableDataPath(const std::string& component, const std::string& file);

// Makes `component` live in `folder` exactly; an empty folder removes the override.
void setComponentDataPath(const std::string& component, const std::string& folder);

// Makes every component without a folder of its own live in `folder`; empty
// removes it.
void setDefaultDataPath(const std::string& folder);

}  // namespace path
}  // namespace ko

#endif  // KQ_MIDDLEWARE_PATH_H_
