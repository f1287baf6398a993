#pragma once
// File helpers for everything the program writes: new private files, whole
// writes, atomic replacement, whole reads. The temporary directory is shared
// with other users on many systems, so a file is never opened through a link
// planted at its name and never reused when it already exists.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace symlift::support {

class CleanupRegistry;

// Writes every byte, going on after short writes and interruptions. False
// with errno set when a write fails (ENOSPC when the system takes nothing).
bool writeAll(int fd, std::span<const std::uint8_t> bytes);
bool writeAll(int fd, std::string_view bytes);

// Creates a new file only the user may read and write (O_EXCL, O_NOFOLLOW,
// mode 0600). With a registry, the path is registered before the file
// exists, so an interruption removes it, and forgotten again when the
// creation fails. The descriptor, or -1 with errno set.
int createPrivateFile(const std::string& path, CleanupRegistry* cleanup = nullptr);

// Where replaceFileAtomically stopped.
enum class ReplaceStep { Create, Write, Flush, Close, Rename };

struct ReplaceOptions {
  // Registers the temporary file while it exists; the final name is then
  // registered in its place (it stays the registry's until forgotten).
  CleanupRegistry* cleanup = nullptr;
  // Flushes the file and its folder to disk (for state that must survive a
  // crash of the machine).
  bool durable = false;
};

// Makes bytes the whole contents of the file at path: they are written to
// the new private file temporaryPath beside it, which is then renamed over
// path (a link at path is replaced, never followed), so no reader ever sees
// half a file. On failure the temporary file is gone, errno is set and
// *failedStep (when given) says which step failed.
bool replaceFileAtomically(const std::string& path, std::string_view bytes, const std::string& temporaryPath,
                           const ReplaceOptions& options = {}, ReplaceStep* failedStep = nullptr);

// The whole contents of the file at path, or nothing when it cannot be read.
std::optional<std::string> readWholeFile(const std::string& path);

// Largest property list (Info.plist, service plist, the upload-record store)
// and largest JSON file the program reads; real ones are a few kilobytes.
inline constexpr std::size_t kMaxPropertyListFileBytes = 16 * 1024 * 1024;
inline constexpr std::size_t kMaxJSONFileBytes = 16 * 1024 * 1024;

// The whole contents of the regular file at path, for input that others may
// control. Never blocks on a FIFO (opened non-blocking) and refuses anything
// that is not a regular file (FIFO, device, folder) and any file of more than
// maxBytes, even one that grows while it is read. Nothing on any failure.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxBytes);

}  // namespace symlift::support
