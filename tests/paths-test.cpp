#include "shared/paths.h"

#include <gtest/gtest.h>

namespace palvin {
namespace {

TEST(Paths, SplitAndJoin) {
  struct Case {
    const char* path;
    const char* parent;
    const char* last;
    const char* extension;
  };
  const Case cases[] = {
      {"/a/b.png", "/a", "b.png", "png"},
      {"/a/b.tar.gz", "/a", "b.tar.gz", "gz"},
      {"/a.d/noext", "/a.d", "noext", ""},
      {"/a/trailing.", "/a", "trailing.", ""},
      {"/a/.hidden", "/a", ".hidden", ""},
      {"/a/.hidden.TXT", "/a", ".hidden.TXT", "TXT"},
      {"/x/Host.app/", "/x", "Host.app", "app"},
      {"/top", "/", "top", ""},
      {"/", "/", "/", ""},
      {"//a//b//", "//a", "b", ""},
      {"relative", ".", "relative", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(paths::parent(c.path), c.parent) << c.path;
    EXPECT_EQ(paths::lastComponent(c.path), c.last) << c.path;
    EXPECT_EQ(paths::extension(c.path), c.extension) << c.path;
  }
  EXPECT_EQ(paths::join("/c", "x.json"), "/c/x.json");
  EXPECT_EQ(paths::join("/c/", "x.json"), "/c/x.json");
  EXPECT_EQ(paths::join("/", "x"), "/x");
}

}  // namespace
}  // namespace palvin
