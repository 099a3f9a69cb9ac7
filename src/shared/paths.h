// Path text helpers. Paths are plain strings here: the core never needs more
// than joining, splitting and naming.
#pragma once

#include <string>
#include <string_view>

namespace palvin::paths {

// dir + "/" + name, without doubling a slash that dir already ends with.
std::string join(std::string_view dir, std::string_view name);

// The path without its last component ("/a/b" -> "/a", "/a" -> "/",
// "/" -> "/"); trailing slashes are ignored.
std::string parent(std::string_view path);

// The last component, trailing slashes ignored ("/a/b.app/" -> "b.app").
std::string_view lastComponent(std::string_view path);

// The text after the last dot of the last component, empty when there is
// none or the only dot starts the name (".profile").
std::string_view extension(std::string_view path);

}  // namespace palvin::paths
