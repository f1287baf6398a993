#include "records/store_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "support/files.h"
#include "support/unique_strings.h"

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

}  // namespace

std::optional<StoreLock> StoreLock::acquire(const std::string& lockFilePath, std::string* error) {
  // Never through a link planted at the name: that would create or lock a
  // file of someone else's choosing.
  int fd = ::open(lockFilePath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
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
  const fs::path target(path);
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  // A unique name; anything left over under it is never reused.
  const std::string temporary =
      (folder / (temporaryPrefix(target) + support::SUPStrings::uniqueString() + kTemporarySuffix)).string();
  support::ReplaceStep step = support::ReplaceStep::Create;
  if (support::replaceFileAtomically(path, bytes, temporary, {.durable = true}, &step)) return true;
  if (error) {
    switch (step) {
      case support::ReplaceStep::Create: *error = errnoText("Cannot create", temporary); break;
      case support::ReplaceStep::Write: *error = errnoText("Cannot write", temporary); break;
      case support::ReplaceStep::Flush: *error = errnoText("Cannot flush", temporary); break;
      case support::ReplaceStep::Close: *error = errnoText("Cannot close", temporary); break;
      case support::ReplaceStep::Rename: *error = errnoText("Cannot rename to", path); break;
    }
  }
  return false;
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
