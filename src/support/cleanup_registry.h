#pragma once
// The temporary files and folders this process made and has not yet removed
// or handed over to the user, so that an interrupted run can take them away.
//
// A path is added before the file or folder is created, so whatever exists
// under a registered name at clean-up time is ours. Once removeAll has run,
// every later call blocks until the process ends: nothing new appears behind
// the clean-up's back.

#include <string>

namespace symlift::support {

class CleanupRegistry {
 public:
  // Registers a path (file or folder, removed with its contents).
  static void add(const std::string& path);
  // Forgets a path: it was deleted, or it is the run's product to keep.
  static void remove(const std::string& path);
  // Renames from to to while no clean-up can run in between, and moves the
  // registration along. Returns rename's result; errno is kept.
  static int renameRegistered(const std::string& from, const std::string& to);
  // Whether the path is registered (for tests).
  static bool contains(const std::string& path);
  // Removes every registered path and keeps the registry locked for good.
  // Meant for the last moments of the process.
  static void removeAllAndSeal();
};

}  // namespace symlift::support
