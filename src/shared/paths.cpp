#include "shared/paths.h"

namespace palvin::paths {
namespace {
std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}
}  // namespace

std::string join(std::string_view dir, std::string_view name) {
  std::string out(dir);
  if (out.empty() || out.back() != '/') out.push_back('/');
  out.append(name);
  return out;
}

std::string parent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  auto slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

std::string_view lastComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return path;
  auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view extension(std::string_view path) {
  std::string_view name = lastComponent(path);
  auto dot = name.rfind('.');
  // A leading dot marks a hidden file, not an extension: ".profile" has none.
  return dot == std::string_view::npos || dot == 0 ? std::string_view{} : name.substr(dot + 1);
}

}  // namespace palvin::paths
