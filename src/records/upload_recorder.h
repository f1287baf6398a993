#pragma once
// SUPDSYMUploadRecorder: the per-user, per-endpoint store of executables
// whose dSYMs were already uploaded, so that a repeated build does not upload
// the same symbols again. Everything lives in the store file and is read on
// every call; the store keeps the newest 200 records.
//
// The store is "records.dat" in <caches>/com.vantrel.mac/<MD5 of the API
// endpoint>/uploaded, where <caches> is $XDG_CACHE_HOME, else ~/.cache.
// Recording holds an exclusive lock on "records.dat.lock" beside it for the
// whole read-modify-write and replaces the file atomically, so parallel
// builds never lose each other's records and never see a torn store.

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "records/upload_record.h"

namespace symlift::macho {
class SUPMachOBinary;
}

namespace symlift::records {

inline constexpr std::size_t kMaximumUploadRecords = 200;
inline constexpr const char* kUploadRecordsFileName = "records.dat";
inline constexpr const char* kUploadRecordsLockFileName = "records.dat.lock";

class SUPDSYMUploadRecorder {
 public:
  // Never fails here; the result is shared because the driver hands the
  // recorder on to the record step.
  static std::shared_ptr<SUPDSYMUploadRecorder> init();

  // The store folder, recomputed on every call. Creates the (empty) sibling
  // "builds" folder on the way, logging an error if that fails.
  std::string dataStoreDirectory() const;
  std::string dataStoreFilePath() const;

  // The records in the store; nothing when there is no store or it cannot be
  // decoded.
  std::optional<UploadRecordSet> uploadedBinaries() const;
  // Whether a record with exactly the binary's UUID set is stored.
  bool isAlreadyUploadedBinary(const std::shared_ptr<macho::SUPMachOBinary>& binary) const;
  // Adds a record for the binary (keeping the existing one, and its date, if
  // there is an equal one), prunes and writes the store. True when written.
  bool recordSuccessfulUploadBinary(const std::shared_ptr<macho::SUPMachOBinary>& binary);
  // The same for a record made elsewhere.
  bool recordSuccessfulUpload(const SUPUploadRecord& record);

  // The newest 200 records when there are more, else the set unchanged.
  static UploadRecordSet pruneOldUploads(UploadRecordSet records);

 private:
  // Per-recorder, re-entrant: recording reads the store while holding it.
  mutable std::recursive_mutex lock_;
};

// The user's caches folder: $XDG_CACHE_HOME when it is an absolute path
// (after "~" expansion), else the home folder's ".cache"; the home folder
// itself if neither can be found.
std::string userCachesDirectory();

}  // namespace symlift::records
