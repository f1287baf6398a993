#include "symbols/csym_generator.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "support/system_log.h"
#include "support/temporary_directory.h"
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
  static std::atomic<unsigned> counter{0};
  std::string partial = path + ".partial." + std::to_string(getpid()) + "." + std::to_string(counter++);
  int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = writeAll(fd, bytes);
  ok = (::close(fd) == 0) && ok;
  if (ok) ok = std::rename(partial.c_str(), path.c_str()) == 0;
  if (!ok) ::unlink(partial.c_str());
  return ok;
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion) {
  return generateCSYMsFromDSYMAtPath(path, maxCoreSymbolicationVersion, nullptr);
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion,
                                                                              const WrittenFileHandler& handler) {
  std::map<std::string, std::string> written;
  try {
    SUPSymbolProcessor::enumerateFormattedDataVersion(
        kCSYMFormatVersion, path, maxCoreSymbolicationVersion,
        [&](std::uint64_t /*sourceType*/, const std::optional<std::string>& uuid, const std::string& arch,
            std::string& data, const support::ErrorPtr& error) {
          if (error || !uuid) return;
          std::string csymPath = SUPCSYMGeneratorUtilities::csymPathForArchitecture(arch, *uuid, path);
          if (!writeFileAtomically(csymPath, data)) return;
          written[*uuid] = arch;
          if (handler) handler(csymPath, std::move(data));
        });
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
