#include "support/cleanup_registry.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace symlift::support {

namespace {

void removeEvery(const std::set<std::string>& paths) {
  for (const auto& path : paths) {
    std::error_code error;
    // remove_all does not follow a link: a link is removed, not its target.
    std::filesystem::remove_all(path, error);
  }
}

}  // namespace

void CleanupRegistry::add(const std::string& path) {
  std::lock_guard<std::mutex> guard(mutex_);
  paths_.insert(path);
}

bool CleanupRegistry::createRegistered(const std::string& path, const std::function<bool()>& create) {
  std::lock_guard<std::mutex> guard(mutex_);
  const bool made = create();
  const int savedErrno = errno;
  if (made) paths_.insert(path);
  errno = savedErrno;
  return made;
}

void CleanupRegistry::remove(const std::string& path) {
  std::lock_guard<std::mutex> guard(mutex_);
  paths_.erase(path);
}

int CleanupRegistry::renameRegistered(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> guard(mutex_);
  // Under the lock no clean-up runs between the rename and the bookkeeping.
  // A failed rename leaves whatever is at the new name as it was, and so
  // not ours to remove.
  const int result = std::rename(from.c_str(), to.c_str());
  const int savedErrno = errno;
  if (result == 0) {
    paths_.insert(to);
    paths_.erase(from);
  }
  errno = savedErrno;
  return result;
}

bool CleanupRegistry::contains(const std::string& path) const {
  std::lock_guard<std::mutex> guard(mutex_);
  return paths_.count(path) != 0;
}

void CleanupRegistry::removeAll() {
  std::lock_guard<std::mutex> guard(mutex_);
  removeEvery(paths_);
  paths_.clear();
}

void CleanupRegistry::removeAllAndSeal() {
  mutex_.lock();  // deliberately never released
  removeEvery(paths_);
  paths_.clear();
}

}  // namespace symlift::support
