// The viewer's files: each place maps to its file, and no request path
// reaches anything else of the folder.
#include "middleware/net/static_files.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace KQ::net {
namespace {

TEST(StaticFilesTest, ServesOurFilesAndNothingElse) {
  test::TempDir web;
  web.writeFile("index.html", "page");
  web.writeFile("viewer.js", "script");
  web.writeFile(".hidden", "secret");
  web.writeFile("node_modules/three/build/three.module.js", "three");
  web.writeFile("node_modules/three/package.json", "secret");
  web.writeFile("node_modules/three/examples/jsm/controls/OrbitControls.js", "orbit");
  const StaticFiles files(web.path());

  const struct {
    const char* path;
    const char* body;  // nullptr: refused
    const char* type;
  } cases[] = {
      {"/", "page", "text/html; charset=utf-8"},
      {"/web/viewer.js", "script", "text/javascript; charset=utf-8"},
      {"/three/three.module.js", "three", "text/javascript; charset=utf-8"},
      {"/three/addons/controls/OrbitControls.js", "orbit", "text/javascript; charset=utf-8"},
      {"/web/absent.js", nullptr, ""},
      {"/web/.hidden", nullptr, ""},
      {"/web/../index.html", nullptr, ""},
      {"/web/node_modules/three/package.json", nullptr, ""},
      {"/three/addons/../../package.json", nullptr, ""},
      {"/three/addons/controls//OrbitControls.js", nullptr, ""},
      {"/web/%2e%2e/index.html", nullptr, ""},
      {"/web/", nullptr, ""},
      {"/rpc", nullptr, ""},
  };
  for (const auto& c : cases) {
    const auto file = files.find(c.path);
    EXPECT_EQ(file.has_value(), c.body != nullptr) << c.path;
    if (file && c.body) {
      EXPECT_EQ(file->body, c.body) << c.path;
      EXPECT_EQ(file->contentType, c.type) << c.path;
    }
  }
  EXPECT_FALSE(StaticFiles("").find("/"));  // no folder: no viewer
}

}  // namespace
}  // namespace KQ::net
