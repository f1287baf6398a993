#include "records/store_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

namespace symlift::records {

namespace fs = std::filesystem;

namespace {

constexpr const char* kTemporarySuffix = ".tmp";

std::string errnoText(const char* what, const std::string& path) {
  return fmt::format("{} {}: {}", what, path, std::strerror(errno));
}

// Hidden, so nobody mistakes a half-written store for the real one.
std::string temporaryPrefix(const fs::path& path) {
  std::string prefix = ".";
  prefix.append(path.filename().string()).push_back('.');
  return prefix;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

std::optional<StoreLock> StoreLock::acquire(const std::string& lockFilePath, std::string* error) {
  int fd = ::open(lockFilePath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (error) *error = errnoText("Cannot open lock file", lockFilePath);
    return std::nullopt;
  }
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    if (error) *error = errnoText("Cannot lock", lockFilePath);
    ::close(fd);
    return std::nullopt;
  }
  return StoreLock(fd);
}

StoreLock::~StoreLock() {
  // Closing the descriptor releases the lock.
  if (fd_ >= 0) ::close(fd_);
}

bool replaceFileAtomically(const std::string& path, std::string_view bytes, std::string* error) {
  static std::atomic<unsigned> counter{0};
  const fs::path target(path);
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");

  std::string temporary;
  int fd = -1;
  // The name is unique to this process and call; O_EXCL guards against
  // anything left over with the same name.
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temporary = (folder / fmt::format("{}{}-{}{}", temporaryPrefix(target), ::getpid(), counter.fetch_add(1),
                                      kTemporarySuffix))
                    .string();
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) {
    if (error) *error = errnoText("Cannot create", temporary);
    return false;
  }

  bool written = writeAll(fd, bytes);
  if (!written && error) *error = errnoText("Cannot write", temporary);
  if (written && ::fsync(fd) != 0) {
    written = false;
    if (error) *error = errnoText("Cannot flush", temporary);
  }
  if (::close(fd) != 0 && written) {
    written = false;
    if (error) *error = errnoText("Cannot close", temporary);
  }
  if (written && ::rename(temporary.c_str(), path.c_str()) != 0) {
    written = false;
    if (error) *error = errnoText("Cannot rename to", path);
  }
  if (!written) {
    ::unlink(temporary.c_str());
    return false;
  }

  // Make the rename itself durable; a failure here does not undo it.
  int folderFD = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFD >= 0) {
    ::fsync(folderFD);
    ::close(folderFD);
  }
  return true;
}

void removeStaleTemporaryFiles(const std::string& path) {
  const fs::path target(path);
  const std::string prefix = temporaryPrefix(target);
  std::error_code ec;
  fs::directory_iterator listing(target.has_parent_path() ? target.parent_path() : fs::path("."), ec);
  if (ec) return;
  for (; listing != fs::directory_iterator(); listing.increment(ec)) {
    std::string name = listing->path().filename().string();
    if (name.starts_with(prefix) && name.ends_with(kTemporarySuffix)) {
      std::error_code ignored;
      fs::remove(listing->path(), ignored);
    }
  }
}

}  // namespace symlift::records
