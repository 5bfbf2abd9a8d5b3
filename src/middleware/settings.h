// ko::settings: process-wide settings that a process's command line gives to
// the modules it creates (the world model's --restore and --autosave). They
// live in the middleware's shared library, so a module loaded into a broker
// (kqbroker --load) reads what that broker's command line said, exactly as a
// module linked into its own program does.
//
// Names are the options' own ("restore", "autosave"); an unset name reads as
// the fallback. Threading: safe from any thread.
#ifndef KQ_MIDDLEWARE_SETTINGS_H_
#define KQ_MIDDLEWARE_SETTINGS_H_

#include <string>

namespace ko {
namespace settings {

void set(const std::string& name, const std::string& value);
std::string get(const std::string& name, const std::string& fallback = "");

}  // namespace settings
}  // namespace ko

#endif  // KQ_MIDDLEWARE_SETTINGS_H_
