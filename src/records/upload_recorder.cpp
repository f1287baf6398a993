#include "records/upload_recorder.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "support/unique_strings.h"
#include "console/console_log.h"
#include "network/web_api_client_endpoints.h"
#include "records/store_file.h"
#include "records/upload_record_archive.h"
#include "support/property_list.h"
#include "support/files.h"

namespace symlift::records {

namespace fs = std::filesystem;
using console::SYLLogDebug;
using console::SYLLogError;

namespace {

constexpr const char* kCachesSubfolder = "com.vantrel.mac";

std::optional<std::string> homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return std::string(home);
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry {};
  struct passwd* result = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_dir &&
      *result->pw_dir)
    return std::string(result->pw_dir);
  return std::nullopt;
}

std::string expandTilde(const std::string& path) {
  if (path == "~" || path.starts_with("~/")) {
    if (auto home = homeDirectory()) return *home + path.substr(1);
  }
  return path;
}

}  // namespace

std::string userCachesDirectory() {
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg) {
    std::string expanded = expandTilde(xdg);
    // Relative values are invalid and ignored.
    if (fs::path(expanded).is_absolute()) return expanded;
  }
  if (auto home = homeDirectory()) return (fs::path(*home) / ".cache").string();
  // Without a home folder there is nowhere per-user to keep the store.
  std::error_code ec;
  fs::path temporary = fs::temp_directory_path(ec);
  return ec ? std::string("/tmp") : temporary.string();
}

std::shared_ptr<SUPDSYMUploadRecorder> SUPDSYMUploadRecorder::init() {
  return std::make_shared<SUPDSYMUploadRecorder>();
}

std::string SUPDSYMUploadRecorder::dataStoreDirectory() const {
  fs::path builds = fs::path(userCachesDirectory()) / kCachesSubfolder /
                    support::SUPStrings::MD5HashForString(network::SUPWebAPIClientEndpoints::APIEndpoint()) /
                    "builds";
  std::error_code ec;
  fs::create_directories(builds, ec);
  std::error_code ignored;
  if (ec || !fs::is_directory(builds, ignored))
    SYLLogError("Unable to write directory for cache: {}", ec ? ec.message() : std::string("<no error reported>"));
  // The records live beside the (deliberately empty) "builds" folder.
  return (builds.parent_path() / "uploaded").string();
}

std::string SUPDSYMUploadRecorder::dataStoreFilePath() const {
  return (fs::path(dataStoreDirectory()) / kUploadRecordsFileName).string();
}

std::optional<UploadRecordSet> SUPDSYMUploadRecorder::uploadedBinaries() const {
  std::lock_guard guard(lock_);
  const std::string path = dataStoreFilePath();
  auto bytes = support::readRegularFile(path, support::kMaxPropertyListFileBytes);
  if (!bytes) return std::nullopt;
  auto records = unarchiveUploadRecords(*bytes);
  if (!records) SYLLogDebug("Ignoring unreadable upload records at {}", path);
  return records;
}

bool SUPDSYMUploadRecorder::isAlreadyUploadedBinary(const std::shared_ptr<macho::SUPMachOBinary>& binary) const {
  auto records = uploadedBinaries();
  if (!records) return false;
  return records->contains(SUPUploadRecord::initWithMachOBinary(binary));
}

bool SUPDSYMUploadRecorder::recordSuccessfulUploadBinary(const std::shared_ptr<macho::SUPMachOBinary>& binary) {
  return recordSuccessfulUpload(SUPUploadRecord::initWithMachOBinary(binary));
}

bool SUPDSYMUploadRecorder::recordSuccessfulUpload(const SUPUploadRecord& record) {
  std::lock_guard guard(lock_);
  const fs::path folder = dataStoreDirectory();
  const std::string path = (folder / kUploadRecordsFileName).string();

  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) {
    SYLLogDebug("Create directory error: {}", ec.message());
    return false;
  }

  // Other symlift processes may be recording into the same store.
  std::string lockError;
  auto fileLock = StoreLock::acquire((folder / kUploadRecordsLockFileName).string(), &lockError);
  if (!fileLock) {
    SYLLogDebug("Error archiving uploaded binary data to {}", path);
    SYLLogDebug("{}", lockError);
    return false;
  }
  removeStaleTemporaryFiles(path);

  UploadRecordSet records = uploadedBinaries().value_or(UploadRecordSet{});
  // An equal record already present keeps its earlier date.
  records.insert(record);
  records = pruneOldUploads(std::move(records));

  std::string bytes = archivedDataWithUploadRecords(records);
  std::string writeError;
  if (bytes.empty() || !replaceFileAtomically(path, bytes, &writeError)) {
    SYLLogDebug("Error archiving uploaded binary data to {}", path);
    if (!writeError.empty()) SYLLogDebug("{}", writeError);
    return false;
  }
  return true;
}

UploadRecordSet SUPDSYMUploadRecorder::pruneOldUploads(UploadRecordSet records) {
  if (records.size() <= kMaximumUploadRecords) return records;
  std::vector<const SUPUploadRecord*> byDate;
  byDate.reserve(records.size());
  for (const SUPUploadRecord& record : records) byDate.push_back(&record);
  std::partial_sort(byDate.begin(), byDate.begin() + kMaximumUploadRecords, byDate.end(),
                    [](const SUPUploadRecord* a, const SUPUploadRecord* b) { return a->uploadDate() > b->uploadDate(); });
  UploadRecordSet newest;
  for (std::size_t i = 0; i < kMaximumUploadRecords; ++i) newest.insert(*byDate[i]);
  return newest;
}

}  // namespace symlift::records
