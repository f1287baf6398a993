#include "support/cleanup_registry.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>

namespace symlift::support {

namespace {

struct Registry {
  std::mutex mutex;
  std::set<std::string> paths;
};

Registry& registry() {
  // Never destroyed: clean-up may run while the process is exiting.
  static Registry* instance = new Registry;
  return *instance;
}

}  // namespace

void CleanupRegistry::add(const std::string& path) {
  auto& r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  r.paths.insert(path);
}

void CleanupRegistry::remove(const std::string& path) {
  auto& r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  r.paths.erase(path);
}

int CleanupRegistry::renameRegistered(const std::string& from, const std::string& to) {
  auto& r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  // Under the lock no clean-up runs between the rename and the bookkeeping.
  // A failed rename leaves whatever is at the new name as it was, and so
  // not ours to remove.
  const int result = std::rename(from.c_str(), to.c_str());
  const int savedErrno = errno;
  if (result == 0) {
    r.paths.insert(to);
    r.paths.erase(from);
  }
  errno = savedErrno;
  return result;
}

bool CleanupRegistry::contains(const std::string& path) {
  auto& r = registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  return r.paths.count(path) != 0;
}

void CleanupRegistry::removeAllAndSeal() {
  auto& r = registry();
  r.mutex.lock();  // deliberately never released
  for (const auto& path : r.paths) {
    std::error_code error;
    // remove_all does not follow a link: a link is removed, not its target.
    std::filesystem::remove_all(path, error);
  }
  r.paths.clear();
}

}  // namespace symlift::support
