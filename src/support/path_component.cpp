#include "support/path_component.h"

namespace symlift::support {

namespace {

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::string appendingPathComponent(const std::string& base, const std::string& component) {
  if (base.empty()) return withoutTrailingSlashes(component);
  std::size_t start = component.find_first_not_of('/');
  std::string tail = start == std::string::npos ? std::string() : withoutTrailingSlashes(component.substr(start));
  std::string head = withoutTrailingSlashes(base);
  if (tail.empty()) return head;
  if (head == "/") return head + tail;
  return head + "/" + tail;
}

}  // namespace symlift::support
