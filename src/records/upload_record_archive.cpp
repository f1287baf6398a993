#include "records/upload_record_archive.h"

#include <algorithm>
#include <vector>

namespace symlift::records {

namespace {

// The recorder's working set is mutable, and that is the class the platform
// names when archiving it.
const std::vector<std::string> kRootSetClasses = {"NSMutableSet", "NSSet", "NSObject"};

}  // namespace

std::string archivedDataWithUploadRecords(const UploadRecordSet& records) {
  // A stable order makes equal stores byte-identical.
  std::vector<const SUPUploadRecord*> ordered;
  ordered.reserve(records.size());
  for (const SUPUploadRecord& record : records) ordered.push_back(&record);
  std::sort(ordered.begin(), ordered.end(),
            [](const SUPUploadRecord* a, const SUPUploadRecord* b) { return a->uuids() < b->uuids(); });

  KeyedArchiver coder;
  ArchiveUID root = coder.reserveObject();
  std::vector<ArchiveUID> members;
  members.reserve(ordered.size());
  for (const SUPUploadRecord* record : ordered) members.push_back(record->encodeWithCoder(coder));
  coder.finishCollection(root, kRootSetClasses, members);
  return coder.finishEncodingWithRoot(root);
}

std::optional<UploadRecordSet> unarchiveUploadRecords(std::string_view bytes) {
  auto coder = KeyedUnarchiver::fromBytes(bytes);
  if (!coder) return std::nullopt;
  auto rootClass = coder->classNameOf(coder->root());
  if (rootClass != "NSSet" && rootClass != "NSMutableSet") return std::nullopt;
  auto members = coder->membersOf(coder->root());
  if (!members) return std::nullopt;
  UploadRecordSet records;
  for (ArchiveUID member : *members) {
    auto record = SUPUploadRecord::initWithCoder(*coder, member);
    if (!record) return std::nullopt;
    records.insert(std::move(*record));
  }
  return records;
}

}  // namespace symlift::records
