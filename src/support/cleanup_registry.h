#pragma once
// The temporary files and folders a run made and has not yet removed or
// handed over to the user: the one place that knows what to take away when
// the run ends, fails or is interrupted.
//
// A path is added before the file or folder is created, so whatever exists
// under a registered name at clean-up time is ours. Once removeAllAndSeal has
// run, every later call blocks until the process ends: nothing new appears
// behind the clean-up's back.

#include <functional>
#include <mutex>
#include <set>
#include <string>

namespace symlift::support {

class CleanupRegistry {
 public:
  CleanupRegistry() = default;
  CleanupRegistry(const CleanupRegistry&) = delete;
  CleanupRegistry& operator=(const CleanupRegistry&) = delete;

  // Registers a path (file or folder, removed with its contents).
  void add(const std::string& path);
  // Runs create, which makes the file or folder at path and says whether it
  // did, while no clean-up can run, and registers path if it did: an
  // interruption never falls between the making and the registering. errno
  // is kept. Once sealed, it never returns (the process is ending).
  bool createRegistered(const std::string& path, const std::function<bool()>& create);
  // Forgets a path: it was deleted, or it is the run's product to keep.
  void remove(const std::string& path);
  // Renames from to to while no clean-up can run in between, and moves the
  // registration along. Returns rename's result; errno is kept.
  int renameRegistered(const std::string& from, const std::string& to);
  bool contains(const std::string& path) const;
  // Removes every registered path (a link is removed, not its target).
  void removeAll();
  // Removes every registered path and keeps the registry locked for good.
  // Meant for the last moments of an interrupted process.
  void removeAllAndSeal();

 private:
  mutable std::mutex mutex_;  // guards paths_; held for good once sealed
  std::set<std::string> paths_;
};

}  // namespace symlift::support
