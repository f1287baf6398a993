#pragma once
// The file-level guarantees of the upload-record store, which several
// symlift processes (parallel builds) may use at once: an exclusive advisory
// lock held around read-modify-write, and whole-file replacement by rename so
// that a reader sees either the old store or the new one, never a torn one.

#include <optional>
#include <string>
#include <string_view>

namespace symlift::records {

// An exclusive flock(2) on a lock file, held until the object goes away. The
// lock file is created if needed (mode 0600), never opened through a
// symbolic link, and never removed: removing it would let two
// processes lock two different files.
class StoreLock {
 public:
  // Blocks until the lock is held. Nothing (with the reason in error) when
  // the lock file cannot be opened or locked.
  static std::optional<StoreLock> acquire(const std::string& lockFilePath, std::string* error);

  StoreLock(StoreLock&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  StoreLock& operator=(StoreLock&&) = delete;
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
  ~StoreLock();

 private:
  explicit StoreLock(int fd) : fd_(fd) {}
  int fd_ = -1;
};

// Writes bytes to a new temporary file beside path (created exclusively),
// flushes it to disk and renames it over path, then flushes the folder. On
// failure path is untouched, the temporary file is removed and error holds
// the reason.
bool replaceFileAtomically(const std::string& path, std::string_view bytes, std::string* error);

// Removes temporary files that replaceFileAtomically left beside path when a
// process died mid-write. Only safe while holding the store's lock, since
// every writer writes under it.
void removeStaleTemporaryFiles(const std::string& path);

}  // namespace symlift::records
