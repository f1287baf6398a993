#include "symbols/csym_generator.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "console/console_log.h"
#include "support/cleanup_registry.h"
#include "support/system_log.h"
#include "support/temporary_directory.h"
#include "support/unique_strings.h"
#include "symbols/symbol_processor.h"
#include "symbols/symbolication_proxy.h"

namespace symlift::symbols {

namespace {

constexpr std::uint64_t kCSYMFormatVersion = 1;

bool writeAll(int fd, const std::string& bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::string SUPCSYMGeneratorUtilities::csymPathForArchitecture(const std::string& architecture,
                                                               const std::string& uuid,
                                                               const std::string& /*dsymPath*/) {
  return support::temporaryDirectory() + "/" + architecture + "-" + uuid + ".csym";
}

bool CSYMGenerator::writeFileAtomically(const std::string& path, const std::string& bytes) {
  std::string partial = path + ".partial." + std::to_string(getpid()) + "." + support::SUPStrings::uniqueString();
  // Private to the user, never through a link planted at the name, never an
  // existing file; registered first so an interrupted run removes it.
  support::CleanupRegistry::add(partial);
  int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int savedErrno = errno;
    support::CleanupRegistry::remove(partial);
    errno = savedErrno;
    return false;
  }
  bool ok = writeAll(fd, bytes);
  int savedErrno = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    savedErrno = errno;
  }
  // rename replaces a link at the final name itself, never its target.
  if (ok && support::CleanupRegistry::renameRegistered(partial, path) != 0) {
    ok = false;
    savedErrno = errno;
  }
  if (!ok) {
    ::unlink(partial.c_str());
    support::CleanupRegistry::remove(partial);
  }
  errno = savedErrno;
  return ok;
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion) {
  return generateCSYMsFromDSYMAtPath(path, maxCoreSymbolicationVersion, nullptr);
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion,
                                                                              const WrittenFileHandler& handler) {
  SymbolFileCache cache;
  return generateCSYMsFromDSYMAtPath(path, maxCoreSymbolicationVersion, handler, cache);
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion,
                                                                              const WrittenFileHandler& handler,
                                                                              SymbolFileCache& cache) {
  std::map<std::string, std::string> written;
  try {
    SUPSymbolProcessor::enumerateFormattedDataVersion(
        kCSYMFormatVersion, path, maxCoreSymbolicationVersion,
        [&](std::uint64_t /*sourceType*/, const std::optional<std::string>& uuid, const std::string& arch,
            std::string& data, const support::ErrorPtr& error) {
          if (error || !uuid) return;
          std::string csymPath = SUPCSYMGeneratorUtilities::csymPathForArchitecture(arch, *uuid, path);
          if (!writeFileAtomically(csymPath, data)) {
            console::SYLLogError("Could not write cSYM file {}: {}", csymPath, std::strerror(errno));
            return;
          }
          written[*uuid] = arch;
          if (handler) handler(csymPath, std::move(data));
        },
        cache);
  } catch (const SymbolReaderException&) {
    // A bundle without a DWARF file has no readable slice; the caller reports
    // the slices it expected and did not get.
  }
  return written;
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path) {
  return generateCSYMsFromDSYMAtPath(path, defaultMaxCoreSymbolicationVersion());
}

}  // namespace symlift::symbols
