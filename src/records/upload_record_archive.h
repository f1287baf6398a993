#pragma once
// The store's contents as bytes: a keyed archive whose root object is a set
// of upload records.

#include <optional>
#include <string>
#include <string_view>

#include "records/upload_record.h"

namespace symlift::records {

// The binary property list of the archive; empty if it could not be made.
std::string archivedDataWithUploadRecords(const UploadRecordSet& records);

// The records of an archive written by us or by the platform's archiver
// (either record class name). Nothing when the bytes are not such an archive
// or any member of the root set is not a well-formed record: a store that
// cannot be read whole is treated as no store at all.
std::optional<UploadRecordSet> unarchiveUploadRecords(std::string_view bytes);

}  // namespace symlift::records
